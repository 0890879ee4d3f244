#include "lab/pushpull_store/queues.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

#include "lab/support/options.h"

namespace lab {
namespace {

constexpr mode_t kMode = 0660;
constexpr unsigned kPriority = 0;

// The room for queues counts per user, and that of a sandbox which has just ended comes back a
// moment later.
constexpr int kTriesForRoom = 50;
constexpr auto kPauseForRoom = std::chrono::milliseconds(100);

// Lets a privileged user have queues as large as the components ask for.
void raise_queue_limit() {
  constexpr rlim_t kBytes = 851968000;
  const struct rlimit limit = {kBytes, kBytes};
  setrlimit(RLIMIT_MSGQUEUE, &limit);
}

mqd_t create(const std::string& name, const QueueSize& size) {
  struct mq_attr attributes = {};
  attributes.mq_maxmsg = size.messages;
  attributes.mq_msgsize = size.bytes;
  const mode_t before = umask(0);
  const mqd_t queue =
      mq_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NONBLOCK | O_CLOEXEC, kMode, &attributes);
  umask(before);
  return queue;
}

}  // namespace

QueueSize parse_queue_size(const std::string& text) {
  constexpr long kMost = 1L << 24U;
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) throw BadValue("is not MAX:SIZE");
  return {parse_number(text.substr(0, colon), 1, kMost),
          parse_number(text.substr(colon + 1), 1, kMost)};
}

Queue::Queue(const std::string& name, const QueueSize& wanted)
    : name_(name), queue_(mq_open(name.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) {
  if (queue_ != -1) return;
  raise_queue_limit();
  for (int tries = 0; tries < kTriesForRoom; ++tries) {
    if (tries > 0) std::this_thread::sleep_for(kPauseForRoom);
    if (create_as_large_as_fits(wanted)) return;
    if (errno != EMFILE) break;
  }
  throw std::runtime_error("cannot make the queue " + name + ": " + std::strerror(errno));
}

bool Queue::create_as_large_as_fits(const QueueSize& wanted) {
  const std::array<QueueSize, 3> sizes = {wanted, QueueSize{64, 8192}, QueueSize{10, 8192}};
  for (const QueueSize& size : sizes) {
    if (size.messages > wanted.messages || size.bytes > wanted.bytes) continue;
    queue_ = create(name_, size);
    made_ = queue_ != -1;
    if (made_) return true;
  }
  return false;
}

Queue::~Queue() {
  if (queue_ != -1) mq_close(queue_);
  if (made_) mq_unlink(name_.c_str());
}

Queue::Queue(Queue&& other) noexcept
    : name_(std::move(other.name_)),
      queue_(std::exchange(other.queue_, -1)),
      made_(std::exchange(other.made_, false)) {}

QueueSize Queue::size() const {
  struct mq_attr attributes = {};
  mq_getattr(queue_, &attributes);
  return {attributes.mq_maxmsg, attributes.mq_msgsize};
}

std::optional<std::string> Queue::receive() const {
  std::string message(static_cast<std::size_t>(size().bytes), '\0');
  const ssize_t count = mq_receive(queue_, message.data(), message.size(), nullptr);
  if (count == -1) return std::nullopt;
  message.resize(strnlen(message.data(), static_cast<std::size_t>(count)));
  return message;
}

std::string send_message(const std::string& queue, const std::string& text) {
  // Opened for each message: a component may have removed its queue and made a new one.
  const mqd_t descriptor = mq_open(queue.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor == -1) {
    return errno == ENOENT ? "dropped: no such queue"
                           : std::string("dropped: ") + std::strerror(errno);
  }
  const int result = mq_send(descriptor, text.c_str(), text.size() + 1, kPriority);
  const int error = errno;
  mq_close(descriptor);
  if (result == 0) return "sent";
  if (error == EAGAIN) return "dropped: the queue is full";
  if (error == EMSGSIZE) return "dropped: longer than the queue takes";
  return std::string("dropped: ") + std::strerror(error);
}

}  // namespace lab
