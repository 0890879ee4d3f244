// The other end of the queues under test.
#ifndef TESTS_SUPPORT_MESSAGE_QUEUE_H
#define TESTS_SUPPORT_MESSAGE_QUEUE_H

#include <fcntl.h>
#include <mqueue.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace test_support {

/// A queue of the test's own: new and empty at first, gone at the end. The room for queues counts
/// per user, over all sandboxes: keep it small. While other tests have taken the room, this waits.
class MessageQueue {
 public:
  explicit MessageQueue(std::string name, long messages = 8, long bytes = 512)
      : name_(std::move(name)) {
    mq_unlink(name_.c_str());
    struct mq_attr attributes = {};
    attributes.mq_maxmsg = messages;
    attributes.mq_msgsize = bytes;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    for (;;) {
      descriptor_ = mq_open(name_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0660, &attributes);
      if (descriptor_ != -1) return;
      if (errno != EMFILE || std::chrono::steady_clock::now() > end) {
        throw std::system_error(errno, std::generic_category(), "mq_open");
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  ~MessageQueue() {
    mq_close(descriptor_);
    mq_unlink(name_.c_str());
  }
  MessageQueue(const MessageQueue&) = delete;
  MessageQueue& operator=(const MessageQueue&) = delete;

  mqd_t descriptor() const { return descriptor_; }
  const char* name() const { return name_.c_str(); }

  /// Sends exactly these bytes; waits for room. Any thread.
  void send(std::string_view bytes, unsigned priority = 0) {
    if (mq_send(descriptor_, bytes.data(), bytes.size(), priority) != 0) {
      throw std::system_error(errno, std::generic_category(), "mq_send");
    }
  }

  /// Sends a text with its NUL, as the store does.
  void send_text(const std::string& text) { send({text.c_str(), text.size() + 1}); }

  struct Message {
    std::string bytes;
    unsigned priority;
  };

  /// The next message, or none; never waits. Any thread.
  std::optional<Message> take() {
    std::vector<char> buffer(static_cast<std::size_t>(attributes().mq_msgsize));
    const struct timespec at_once = {0, 0};
    unsigned priority = 0;
    const auto size =
        mq_timedreceive(descriptor_, buffer.data(), buffer.size(), &priority, &at_once);
    if (size == -1) return std::nullopt;
    return Message{std::string(buffer.data(), static_cast<std::size_t>(size)), priority};
  }

  struct mq_attr attributes() const {
    struct mq_attr result = {};
    mq_getattr(descriptor_, &result);
    return result;
  }
  long count() const { return attributes().mq_curmsgs; }

  /// Fills it up with messages of one byte.
  void fill() {
    while (count() < attributes().mq_maxmsg)
      send("x");
  }

 private:
  std::string name_;
  mqd_t descriptor_;
};

/// The text as it lies in a queue: with its NUL.
inline std::string with_nul(const std::string& text) {
  return {text.c_str(), text.size() + 1};
}

/// For a queue that the code under test creates: unlinked at the end of the scope.
class UnlinkAtEnd {
 public:
  explicit UnlinkAtEnd(const char* name) : name_(name) { mq_unlink(name_); }
  ~UnlinkAtEnd() { mq_unlink(name_); }
  UnlinkAtEnd(const UnlinkAtEnd&) = delete;
  UnlinkAtEnd& operator=(const UnlinkAtEnd&) = delete;

 private:
  const char* name_;
};

}  // namespace test_support

#endif
