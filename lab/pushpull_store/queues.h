// Message queues of the store's side.
//
// Nothing here ever waits for another process to read: a message that finds its queue full is
// dropped, the newest one, and that is said. What stands in the queue keeps its order, and since
// every message carries a node's whole value, the next one makes up for the loss.
#ifndef LAB_PUSHPULL_STORE_QUEUES_H
#define LAB_PUSHPULL_STORE_QUEUES_H

#include <mqueue.h>

#include <optional>
#include <string>

namespace lab {

struct QueueSize {
  long messages = 10;
  long bytes = 8192;  ///< of one message
};

/// Reads "MAX:SIZE". @throws BadValue (options.h)
QueueSize parse_queue_size(const std::string& text);

/// A queue that this process reads, or holds for another; removed at the end if it made it.
class Queue {
 public:
  /// Opens the queue, or makes it as large as wanted or, where the machine does not allow that, as
  /// 64 x 8192 or 10 x 8192. An existing queue is taken as it is, with what it holds. Waits 5 s at
  /// most while the user's other queues leave no room. Mode 0660. @throws std::runtime_error
  Queue(const std::string& name, const QueueSize& wanted);
  ~Queue();
  Queue(Queue&& other) noexcept;
  Queue& operator=(Queue&& other) = delete;
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  const std::string& name() const { return name_; }
  QueueSize size() const;
  int descriptor() const { return queue_; }  ///< readable for poll()

  /// @return the next message without its terminating NUL, or nothing when there is none.
  std::optional<std::string> receive() const;

 private:
  bool create_as_large_as_fits(const QueueSize& wanted);

  std::string name_;
  mqd_t queue_ = -1;
  bool made_ = false;
};

/// Puts a message with its terminating NUL into a queue that another process made.
/// @return "sent", or why not: "dropped: the queue is full", "dropped: longer than the queue
/// takes", "dropped: no such queue", or with another error's text.
std::string send_message(const std::string& queue, const std::string& text);

}  // namespace lab

#endif
