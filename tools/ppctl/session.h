// A visit to the pushpull store: requests out, answers in.
#ifndef TOOLS_PPCTL_SESSION_H
#define TOOLS_PPCTL_SESSION_H

#include <sys/resource.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pushpull_data/qv_pushpull_api.h"
#include "tools/ppctl/events.h"
#include "tools/ppctl/options.h"

namespace ppctl {

/// Limits of a message queue.
struct QueueSize {
  int messages;
  int bytes;  ///< of the longest message
};

/// The reply queues worth trying, the best first. All queues of a user share one budget, so a queue
/// takes at most a quarter of it: the service's own queue must still fit. The last ones are tried
/// whatever the budget says.
/// @param budget        bytes (RLIMIT_MSGQUEUE)
/// @param message_size  bytes that were asked for, if any
std::vector<QueueSize> reply_queue_sizes(rlim_t budget, std::optional<long> message_size);

/// The component id of a process that was given none: its own, so that several get along.
std::int32_t default_id(pid_t process);

/// A request by hand. What is not set is left out of it.
struct Request {
  std::string function;
  std::string buffer;
  std::int32_t from = 0;  ///< component id; 0: the session's
  std::int32_t to = 0;    ///< component id of the destination
  bool notify_on_change_only = false;
  bool pack_and_send = false;
  std::string sender{};
};

/// Talks to the store as one component.
///
/// Requests alone need no more than the store's queue. For answers, a queue of this process's own
/// is made, "/ppctl.PID", and the component is registered with it; the destructor unregisters and
/// unlinks both, however the visit ends.
///
/// The store confirms nothing and says nothing about a node that it does not have, but it serves
/// requests in their order. So whatever must be known to be served is followed by a question that
/// it surely answers: a sync to ourselves, which comes back as a message. A store that sends no
/// such echo is asked for the nodes that every device has.
///
/// No call blocks for longer than the time-out, and a signal ends it at once.
///
/// Failures: kNotReachable without a store, or when its queue has vanished meanwhile; kTimedOut
/// when it takes no requests; kUsage for a request that is longer than its queue's messages.
class Session {
 public:
  /// Opens the store's queue. @param events must outlive the session
  Session(const Options& options, const Events& events);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Makes the reply queue and registers it, once.
  void open_replies();

  void request(const Request& request);

  /// Whether the store's queue takes a request of this length; sends nothing. @throws Failure
  /// kUsage
  void check(const Request& request) const { text_of(request); }

  /// The next message, an echo included; none when the deadline passes. Needs open_replies().
  /// Looks at the reply queue's depth too, for was_full().
  std::optional<std::string> receive(TimePoint deadline);

  /// Looks at one message. @return whether that is all that is wanted
  using Handler = std::function<bool(const std::string& message)>;

  /// Waits until the store has served what was requested so far, or the handler has all it wants.
  /// It is given every message that comes meanwhile. Needs open_replies().
  /// @param done_so_far  begins the failure's text, such as "sent, but "
  /// @throws Failure kTimedOut without a sign of the store
  void await_served(const Handler& handler, const std::string& done_so_far = "");

  /// Asks for a message to ourselves; is_echo() recognises it. @return its number, from 1 on
  long request_echo();
  bool is_echo(const std::string& message) { return echo_number(message) > 0; }
  bool has_echo() const { return has_echo_; }  ///< the store has sent one so far

  /// Whether the reply queue has been full: the store waits for nobody and drops what does not fit,
  /// so messages may be missing. Never false when one is; at times true when none is.
  bool was_full() const { return was_full_; }

  /// Bytes of the longest message that comes through. Needs open_replies().
  std::size_t message_size() const { return replies_->_queue_buffer_size; }

  std::string store_queue() const { return "/pushpull" + suffix_; }
  int store_descriptor() const { return api_->queue_descriptor; }

  /// "the store has not answered within 5 s", and what may be the reason.
  std::string no_answer_text() const;

 private:
  /// Owner of a queue's name, not of a descriptor.
  class QueueName {
   public:
    explicit QueueName(std::string name);
    ~QueueName();
    QueueName(const QueueName&) = delete;
    QueueName& operator=(const QueueName&) = delete;
    const std::string name;
  };

  void create_reply_queue();
  void unregister();
  void check_store_queue() const;
  std::string text_of(const Request& request) const;  // checked
  void check_length(const std::string& text) const;
  void note_depth();
  long echo_number(const std::string& message);  // 0: it is none

  const Events& events_;
  const std::chrono::milliseconds timeout_;
  const std::string suffix_;
  const std::int32_t id_;
  const std::optional<long> message_size_;
  std::shared_ptr<QvPushpullApi> api_;
  std::unique_ptr<QueueName> reply_name_;
  std::unique_ptr<QvPushpullReceiveQueue> replies_;
  bool registered_ = false;
  const std::string echo_text_;  // followed by a number
  long echoes_ = 0;              // requested
  bool has_echo_ = false;
  bool was_full_ = false;
};

/// What to say when was_full().
inline constexpr char kMayBeLost[] =
    "messages may be lost: the reply queue was full, and the store drops what does not fit";

/// "5 s", "0.3 s"
std::string seconds_text(std::chrono::milliseconds duration);

}  // namespace ppctl

#endif
