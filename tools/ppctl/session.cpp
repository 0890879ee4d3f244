#include "tools/ppctl/session.h"

#include <fcntl.h>
#include <mqueue.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "pushpull_data/qv_pushpull_utilities.h"
#include "tools/ppctl/documents.h"
#include "tools/ppctl/failure.h"
#include "tools/ppctl/unique_fd.h"

namespace ppctl {

namespace {

using std::chrono::milliseconds;

constexpr std::int32_t kFirstDefaultId = 0x50000000;
constexpr milliseconds kLookForStore{500};
constexpr milliseconds kUnregisterTimeout{500};
// A store that echoes does so within milliseconds.
constexpr milliseconds kEchoPatience{500};
constexpr std::array<const char*, 4> kKnownNodes = {"/serverAssigned", "/rgw", "/interfaces",
                                                    "/system"};

// The queue is opened once in vain for errno, which the library does not hand on.
void check_reachable(const std::string& queue) {
  const UniqueFd descriptor(mq_open(queue.c_str(), O_RDWR | O_CLOEXEC));
  if (descriptor.get() != -1) return;
  const std::string reason = errno == ENOENT
                                 ? "its queue " + queue + " does not exist"
                                 : with_reason("its queue " + queue + " cannot be opened", errno);
  throw Failure(Status::kNotReachable, "store not reachable: " + reason);
}

std::shared_ptr<QvPushpullApi> open_api(const std::string& suffix, const std::string& queue) {
  check_reachable(queue);
  auto api = QvPushpullApi::create();
  if (!api) throw std::bad_alloc();
  api->subq_name = suffix;
  if (api->init(suffix) != 0) {
    throw Failure(Status::kNotReachable, "store not reachable: its queue " + queue + " is gone");
  }
  return api;
}

rlim_t queue_budget() {
  qv_set_mqueue_limits();
  struct rlimit limit = {};
  getrlimit(RLIMIT_MSGQUEUE, &limit);
  return limit.rlim_cur;
}

bool is_unlinked(int descriptor) {
  struct stat status = {};
  return fstat(descriptor, &status) == 0 && status.st_nlink == 0;
}

bool holds_known_node(const std::string& message) {
  const Json document = read_message(message);
  return document.is_object() &&
         std::any_of(kKnownNodes.begin(), kKnownNodes.end(),
                     [&document](const char* path) { return document.contains(path + 1); });
}

}  // namespace

std::vector<QueueSize> reply_queue_sizes(rlim_t budget, std::optional<long> message_size) {
  constexpr int kMessages = 16;
  constexpr int kLongest = 262144;  // the longest document of the store
  constexpr int kDefault = 8192;    // what every system allows
  const auto fits = [budget](const QueueSize& size) {
    return static_cast<rlim_t>(size.messages) * static_cast<rlim_t>(size.bytes) <= budget / 4;
  };
  const int bytes = static_cast<int>(message_size.value_or(kDefault));
  std::vector<QueueSize> sizes = {{10, bytes}, {3, bytes}};
  if (!message_size) {
    sizes.insert(sizes.begin(), {kMessages, kLongest});
  } else if (const auto most = static_cast<int>(
                 std::min<rlim_t>(kMessages, budget / 4 / static_cast<rlim_t>(bytes)));
             most > 3 && most != 10) {
    sizes.insert(sizes.begin(), {most, bytes});
  }
  sizes.erase(std::remove_if(sizes.begin(), sizes.end(), std::not_fn(fits)), sizes.end());
  sizes.push_back({1, bytes});
  return sizes;
}

std::int32_t default_id(pid_t process) {
  return kFirstDefaultId + process;
}

std::string seconds_text(milliseconds duration) {
  std::string text = std::to_string(static_cast<double>(duration.count()) / 1000);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text + " s";
}

// A queue of this name is a leftover: only this process has the number now.
Session::QueueName::QueueName(std::string name_to_own) : name(std::move(name_to_own)) {
  mq_unlink(name.c_str());
}

Session::QueueName::~QueueName() {
  mq_unlink(name.c_str());
}

Session::Session(const Options& options, const Events& events)
    : events_(events),
      timeout_(options.timeout),
      suffix_(options.suffix),
      id_(options.id.value_or(default_id(getpid()))),
      message_size_(options.message_size),
      api_(open_api(suffix_, store_queue())),
      echo_text_("ppctl-echo-" + std::to_string(getpid()) + "-" +
                 std::to_string(Clock::now().time_since_epoch().count()) + "-") {}

Session::~Session() {
  if (registered_) unregister();
}

void Session::open_replies() {
  if (replies_) return;
  create_reply_queue();
  request({"register", reply_name_->name});
  registered_ = true;
}

std::string Session::text_of(const Request& request) const {
  std::string text = api_->build_json_post_msg(
      static_cast<eQV_CMP_IDs_>(request.from != 0 ? request.from : id_), request.function,
      request.buffer, nullptr, request.notify_on_change_only, request.sender,
      static_cast<eQV_CMP_IDs_>(request.to), request.pack_and_send);
  check_length(text);
  return text;
}

void Session::request(const Request& request) {
  const std::string text = text_of(request);
  check_store_queue();
  // The library's own attempts would hold a full queue's sender for 10 s.
  if (!events_.wait(store_descriptor(), POLLOUT, Clock::now() + timeout_) ||
      api_->post_msg_to_pushpull_data(text) != 0) {
    throw Failure(Status::kTimedOut, "the store's queue " + store_queue() +
                                         " is full, and the store has taken nothing within " +
                                         seconds_text(timeout_));
  }
}

std::optional<std::string> Session::receive(TimePoint deadline) {
  for (;;) {
    check_store_queue();
    const TimePoint slice = std::min(deadline, Clock::now() + kLookForStore);
    if (events_.wait(replies_->_mqueue, POLLIN, slice)) {
      constexpr int kSeconds = 10;  // it is there, the receiver only has to be given the time
      const int bytes = replies_->timed_receive(kSeconds);
      if (bytes < 0) throw Failure(Status::kNotReachable, "the reply queue cannot be read");
      note_depth();
      if (bytes > 0) return replies_->get_queue_buffer();
    }
    if (Clock::now() >= deadline) return std::nullopt;
  }
}

void Session::await_served(const Handler& handler, const std::string& done_so_far) {
  const TimePoint deadline = Clock::now() + timeout_;
  const TimePoint patience = Clock::now() + std::min(kEchoPatience, timeout_ / 2);
  bool asks_nodes = false;
  const long own_echo = request_echo();
  for (;;) {
    const auto message = receive(asks_nodes ? deadline : patience);
    const long echo = message ? echo_number(*message) : 0;
    if (echo >= own_echo) return;
    if (echo > 0) continue;  // of an earlier wait
    if (message && handler(*message)) return;
    if (message && asks_nodes && holds_known_node(*message)) return;
    if (asks_nodes && Clock::now() >= deadline) {
      throw Failure(Status::kTimedOut, done_so_far + no_answer_text());
    }
    if (!message && !asks_nodes) {
      asks_nodes = true;
      request_echo();  // the first one may have found our queue full
      for (const char* const path : kKnownNodes)
        request({"get", path});
    }
  }
}

long Session::request_echo() {
  Request echo = {"sync", echo_text_ + std::to_string(++echoes_)};
  echo.to = id_;
  request(echo);
  return echoes_;
}

// However the store may have wrapped it.
long Session::echo_number(const std::string& message) {
  const auto begin = message.find(echo_text_);
  if (begin == std::string::npos) return 0;
  has_echo_ = true;
  return std::strtol(message.c_str() + begin + echo_text_.size(), nullptr, 10);
}

std::string Session::no_answer_text() const {
  std::string text = "the store has not answered within " + seconds_text(timeout_);
  struct mq_attr attributes = {};
  if (mq_getattr(store_descriptor(), &attributes) == 0 && attributes.mq_curmsgs > 0) {
    return text + ": " + std::to_string(attributes.mq_curmsgs) +
           " requests wait in its queue, is it running?";
  }
  return text + " (an answer longer than " + std::to_string(message_size()) +
         " bytes would not fit: see --message-size)";
}

void Session::create_reply_queue() {
  reply_name_ = std::make_unique<QueueName>("/ppctl." + std::to_string(getpid()));
  const char* const name = reply_name_->name.c_str();
  for (const QueueSize& size : reply_queue_sizes(queue_budget(), message_size_)) {
    errno = 0;
    replies_.reset(api_->create_receive_queue(name, size.messages, size.bytes));
    if (replies_) return;
  }
  throw Failure(Status::kNotReachable,
                with_reason(std::string("cannot make the reply queue ") + name, errno));
}

// As far as it goes: a store that is gone or does not take it leaves nothing to be done.
void Session::unregister() {
  constexpr auto kRoom = static_cast<short>(POLLOUT);
  struct pollfd store = {store_descriptor(), kRoom, 0};
  if (is_unlinked(store.fd)) return;
  if (poll(&store, 1, static_cast<int>(kUnregisterTimeout.count())) != 1) return;
  api_->comp_unregister(static_cast<eQV_CMP_IDs_>(id_));
}

// Looked at behind a read, as only reads make room: whatever was dropped since the read before
// found the queue full, so that one message less, or more, stands in it now. A look before the read
// would miss what comes between the two.
void Session::note_depth() {
  struct mq_attr attributes = {};
  if (mq_getattr(replies_->_mqueue, &attributes) == 0 &&
      attributes.mq_curmsgs >= attributes.mq_maxmsg - 1) {
    was_full_ = true;
  }
}

void Session::check_store_queue() const {
  if (!is_unlinked(store_descriptor())) return;
  throw Failure(Status::kNotReachable,
                "the store has gone: its queue " + store_queue() + " was removed");
}

void Session::check_length(const std::string& text) const {
  struct mq_attr attributes = {};
  if (text.empty() || mq_getattr(store_descriptor(), &attributes) != 0) {
    throw Failure(Status::kUsage, "this cannot be written as a request");
  }
  const auto longest = static_cast<std::size_t>(attributes.mq_msgsize);
  if (text.size() + 1 <= longest) return;
  throw Failure(Status::kUsage, "the request has " + std::to_string(text.size() + 1) +
                                    " bytes, the store's queue takes " + std::to_string(longest));
}

}  // namespace ppctl
