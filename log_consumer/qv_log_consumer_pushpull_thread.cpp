#include "log_consumer/qv_log_consumer_pushpull_thread.h"

#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "log_consumer/qv_log_consumer_shared.h"
#include "log_consumer/qv_store_message.h"

namespace {

using Shared = logConsumerSharedStruct;

constexpr eQV_CMP_IDs_ kComponent = QV_CMPID_LOG_CONSUMER;
constexpr char kQueueName[] = "/log_consumer";
constexpr int kQueueMessages = 64;
constexpr int kMessageBytes = 0x40000;
constexpr char kSubscription[] = "/serverAssigned;/rgw;/interfaces;/system/clock";
constexpr const char* kInitialReads[] = {"/serverAssigned", "/rgw/aapState", "/rgw/configSec",
                                         "/system/clock", "/interfaces"};

void ask(const std::shared_ptr<QvPushpullApi>& api, const char* path) {
  if (api == nullptr || api->get(kComponent, path, "") != 0) {
    syslog(LOG_ERR, "PushpullLC thread: Unable to get initial pushpull info");
  }
}

// Up to so many seconds for the next message. False when none came.
bool nextMessage(QvPushpullReceiveQueue* queue, int seconds, std::string& text) {
  if (queue == nullptr) {
    ::sleep(static_cast<unsigned>(std::max(seconds, 0)));
    return false;
  }
  if (queue->timed_receive(seconds) <= 0) return false;
  text = queue->get_queue_buffer();
  return true;
}

bool messagesWait(const QvPushpullReceiveQueue* queue) {
  struct mq_attr attributes = {};
  if (queue == nullptr || mq_getattr(queue->_mqueue, &attributes) != 0) return false;
  if (attributes.mq_curmsgs <= 0) return false;
  syslog(LOG_INFO, "PushpullLC thread: %d more messages still in queue, looping",
         static_cast<int>(attributes.mq_curmsgs));
  return true;
}

bool inactive() {
  const std::time_t lastActivity = shared_get(&Shared::lastActivityTime).tv_sec;
  if (lastActivity == 0) return false;
  struct timespec now = {};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
    syslog(LOG_ERR, "PushpullLC thread: clock_gettime() failed %d", errno);
    return false;
  }
  return inactiveTooLong(lastActivity, now.tv_sec);
}

// Whether the loop is to end, judged while no message waits.
bool timeToEnd() {
  if (shared_get(&Shared::resetLogConsumer)) return true;
  if (!inactive()) return false;
  syslog(LOG_WARNING, "PushpullLC thread: reset due to no activity");
  shared_set(&Shared::inactivityExit, true);
  return true;
}

}  // namespace

void LogConsumerPushpullClass::init() {
  syslog(LOG_DEBUG,
         "PushpullLC thread: Initializing pushpull and message queue connections in 2nd thread");
  logPpApi = QvPushpullApi::create();
  if (logPpApi != nullptr) {
    logPpApi->init("");
    logMqueue.reset(logPpApi->create_receive_queue(kQueueName, kQueueMessages, kMessageBytes));
  } else {
    syslog(LOG_ERR, "PushpullLC thread: Unable to allocate push-pull API");
  }
  if (logMqueue == nullptr) {
    syslog(LOG_ERR, "PushpullLC thread: Unable to open message queue (%d)", errno);
  }
  if (logPpApi == nullptr || logPpApi->comp_register(kComponent, kQueueName, nullptr) != 0) {
    syslog(LOG_ERR, "PushpullLC thread: Unable to register with pushpull");
  }
  if (logPpApi == nullptr || logPpApi->subscribe(kComponent, kSubscription, false) != 0) {
    syslog(LOG_ERR, "PushpullLC thread: Unable to subscribe for pushpull info");
  }
  for (const char* path : kInitialReads)
    ask(logPpApi, path);
}

void LogConsumerPushpullClass::execute() {
  const int sleepSeconds = shared_get(&Shared::sleepSeconds);
  sd_notify(0, "READY=1");
  do {
    sd_notify(0, "WATCHDOG=1");
    std::string text;
    if (nextMessage(logMqueue.get(), sleepSeconds, text)) handleStoreMessage(text);
    if (shared_get(&Shared::manualUpdate)) {
      manuallyUpdateStateID();
      shared_set(&Shared::manualUpdate, false);
    }
  } while (messagesWait(logMqueue.get()) || !timeToEnd());
  syslog(LOG_INFO, "PushpullLC thread: Exiting thread");
}

void LogConsumerPushpullClass::manuallyUpdateStateID() {
  ask(logPpApi, "/serverAssigned");
  ask(logPpApi, "/rgw");
  shared_set(&Shared::manualUpdate, false);
}

void LogConsumerPushpullClass::sleep() {
  const int milliseconds = std::max(shared_get(&Shared::sleepSeconds), 0);
  usleep(static_cast<useconds_t>(milliseconds) * 1000U);
}

bool inactiveTooLong(std::time_t lastActivity, std::time_t now) {
  return lastActivity != 0 && now > lastActivity + kInactivityLimitSeconds;
}

void LogConsumerPushpullThreadExecute() {
  LogConsumerPushpullClass pushpull;
  pushpull.init();
  pushpull.execute();
}
