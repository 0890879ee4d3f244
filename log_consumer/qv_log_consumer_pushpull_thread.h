// The configuration thread: keeps the shared record's device values current from the pushpull
// store, and tells systemd that the service lives. This header also brings the node views.
#ifndef LOG_CONSUMER_QV_LOG_CONSUMER_PUSHPULL_THREAD_H
#define LOG_CONSUMER_QV_LOG_CONSUMER_PUSHPULL_THREAD_H

#include <ctime>
#include <memory>
#include <string>

#include "log_consumer/qv_json_obj_factory.h"
#include "pushpull_data/qv_pushpull_api.h"

/// Seconds of CLOCK_MONOTONIC without activity after which the service gives up: four hours.
inline constexpr std::time_t kInactivityLimitSeconds = 14400;

/// @return whether more than the limit has passed since the last activity. Not armed (0 s) is never
/// too long ago.
bool inactiveTooLong(std::time_t lastActivitySeconds, std::time_t nowSeconds);

/// Body of the configuration thread: connects to the store, then runs until the service is to end.
void LogConsumerPushpullThreadExecute();

/// The store's client of this service. Used by one thread. Nothing here unregisters from the store:
/// the next start takes the same queue over.
class LogConsumerPushpullClass {
 public:
  std::shared_ptr<QvPushpullApi> logPpApi;            ///< requests; dropped last
  std::shared_ptr<QvPushpullReceiveQueue> logMqueue;  ///< answers and notifications

  /// Creates the queue, registers, subscribes and asks for the nodes once. What fails is logged and
  /// left; an unreachable store costs some seconds a request.
  void init();

  /// Takes messages and feeds the watchdog, at least once per `sleepSeconds` as they are when the
  /// loop starts, until the scheduler resets or nothing has happened for too long. Without a queue
  /// it does the same and hears of nothing.
  void execute();

  /// Asks the store again for /serverAssigned and /rgw and clears `manualUpdate`. The answers come
  /// as ordinary messages.
  void manuallyUpdateStateID();

  /// Sleeps as many milliseconds as `sleepSeconds` says. Nothing calls it.
  void sleep();

 private:
  bool takeMessage(int seconds, std::string& text);
  long messagesLeft() const;
};

#endif
