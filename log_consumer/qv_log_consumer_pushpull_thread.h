// The configuration thread: keeps the device's part of the shared record current from the pushpull
// store, and tells systemd that the service lives. This header also brings the views of the store's
// nodes and the store's client.
#ifndef LOG_CONSUMER_QV_LOG_CONSUMER_PUSHPULL_THREAD_H
#define LOG_CONSUMER_QV_LOG_CONSUMER_PUSHPULL_THREAD_H

#include <ctime>
#include <memory>

#include "log_consumer/qv_json_obj_factory.h"
#include "pushpull_data/qv_pushpull_api.h"

/// One connection to the store. Constructed, used and destroyed by the configuration thread.
///
/// It meets the other threads in the shared record alone, and never holds the record's lock while
/// it calls the store, logs or waits. It stays registered with the store when it ends: the next run
/// registers again under the same id.
class LogConsumerPushpullClass {
 public:
  // In this order, so that the receive queue ends first.
  std::shared_ptr<QvPushpullApi> logPpApi;            ///< the store's client
  std::shared_ptr<QvPushpullReceiveQueue> logMqueue;  ///< "/log_consumer", 64 x 262144 bytes

  /// Connects: opens the store, creates the receive queue, registers, subscribes, and asks for the
  /// first values. What fails is logged at error level and left; there is no second try.
  void init();

  /// Tells systemd that the service is ready, then passes until `resetLogConsumer` is set or the
  /// service has been without activity for four hours (`inactivityExit` is set then). A pass feeds
  /// systemd's watchdog, waits up to `sleepSeconds` (as it was at the start) for a message, handles
  /// it, and asks the store again on `manualUpdate`. While messages wait in the queue the next pass
  /// follows at once, and nothing ends the loop. Without a receive queue a pass just sleeps.
  /// @throws std::system_error when the record cannot be locked, which ends the process.
  void execute();

  /// Asks the store for the registration data again, then clears `manualUpdate`. The answers come
  /// as ordinary messages.
  void manuallyUpdateStateID();

  /// Sleeps so many milliseconds as `sleepSeconds` says seconds. Nothing calls it.
  void sleep();
};

/// Seconds without activity after which the service gives up and leaves it to systemd to start it
/// anew: four hours.
inline constexpr std::time_t kInactivityLimitSeconds = 14400;

/// @param lastActivity, now  seconds of CLOCK_MONOTONIC; lastActivity 0: no period runs
/// @return whether more than the limit has passed.
bool inactiveTooLong(std::time_t lastActivity, std::time_t now);

/// Body of the configuration thread: returns when it is to end.
void LogConsumerPushpullThreadExecute();

#endif
