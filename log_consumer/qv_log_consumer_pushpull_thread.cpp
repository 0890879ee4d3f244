#include "log_consumer/qv_log_consumer_pushpull_thread.h"

#include <mqueue.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>

#include "log_consumer/qv_log_consumer_shared.h"

namespace {

using Shared = logConsumerSharedStruct;

constexpr eQV_CMP_IDs_ kComponent = QV_CMPID_LOG_CONSUMER;
constexpr char kQueueName[] = "/log_consumer";
constexpr int kQueueMessages = 64;
constexpr int kMessageBytes = 0x40000;
constexpr char kSubscription[] = "/serverAssigned;/rgw;/interfaces;/system/clock";
constexpr const char* kInitialReads[] = {"/serverAssigned", "/rgw/aapState", "/rgw/configSec",
                                         "/system/clock", "/interfaces"};
constexpr int kWifiInterfaceId = 1;

void setActivitySeconds(std::time_t seconds) {
  const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
  logConsumerShared.lastActivityTime.tv_sec = seconds;
}

std::time_t activitySeconds() {
  return shared_get(&Shared::lastActivityTime).tv_sec;
}

void wifiLost() {
  syslog(LOG_DEBUG, "PushpullLC thread: wifi is not associated");
  const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
  logConsumerShared.wifiAssociated = false;
  logConsumerShared.lastActivityTime.tv_sec = 0;
  logConsumerShared.initialLogSending = true;
}

// Four hours without activity count from here, unless they count from something earlier already.
void wifiThere() {
  if (!shared_get(&Shared::wifiAssociated)) {
    syslog(LOG_DEBUG, "PushpullLC thread: wifi now associated");
  }
  shared_set(&Shared::wifiAssociated, true);
  if (activitySeconds() != 0) return;
  struct timespec now = {};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
    syslog(LOG_ERR, "pushpull thread: clock_gettime() failed %d", errno);
    return;
  }
  setActivitySeconds(now.tv_sec);
}

void takeInterfaces(const QvInterfacesWrapper& message) {
  QvInterfaces wifi("interfaces");
  QvInterfaceWiFiStatus* section = nullptr;
  QvInterfaceWiFiStatus::statusEnum status = {};
  if (message.searchQvInterfacesById(kWifiInterfaceId, wifi) != 0) return;
  if (!wifi.getWifiStatus(&section) || !section->getStatus(&status)) return;
  if (status == QvInterfaceWiFiStatus::kStatusAssociated) {
    wifiThere();
  } else {
    wifiLost();
  }
}

void takeAapState(const QvRgw& rgw) {
  QvRgw::aapStateEnum state = {};
  if (!rgw.getAapState(&state)) return;
  const char* const text = rgw.getAapStateStr(state);
  shared_set(&Shared::aapStateStr, text);
  syslog(LOG_DEBUG, "PushpullLC thread: Setting aapStateStr = %s", text);
}

void reportRegistration() {
  std::string sysId;
  std::string aapStateStr;
  {
    const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
    aapStateStr = logConsumerShared.aapStateStr;
    sysId = logConsumerShared.sysId;
  }
  syslog(LOG_DEBUG, "PushpullLC thread: sysId = %s, aapStateStr = %s", sysId.c_str(),
         aapStateStr.c_str());
}

// The servers are those of the command line.
void ignoreRelayServer(const QvRgw& message) {
  QvRgwConfigSec configSec("configSec");
  QvRgwConfigSec* section = nullptr;
  if (message.getConfigSec(&section)) section->copyValid(configSec);
  if (configSec.getRelayServerUrl(nullptr)) {
    syslog(LOG_DEBUG, "PushpullLC thread: ignoring relay server addr from pushpull");
  }
  if (configSec.getRelayServerPort(nullptr)) {
    syslog(LOG_DEBUG, "PushpullLC thread: ignoring relay server port from pushpull");
  }
}

void takeRgw(const QvRgw& message) {
  QvRgw rgw("rgw");
  message.copyValid(rgw);
  takeAapState(rgw);
  reportRegistration();
  ignoreRelayServer(message);
}

void takeSystem(const QvSystem& message) {
  QvSystemClock* clock = nullptr;
  if (!message.getClock(&clock)) return;
  syslog(LOG_DEBUG, "PushpullLC thread: updating system clock values");
  const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
  clock->getOffset(&logConsumerShared.offset);
  clock->getDstOffset(&logConsumerShared.dstOffset);
  clock->getEnableDst(&logConsumerShared.enableDst);
}

std::string takeSystemId(const QvServerAssigned& message) {
  QvIdentities* identities = nullptr;
  std::string sysId;
  if (!message.getIdentities(&identities) || !identities->getSysId(&sysId)) return {};
  syslog(LOG_DEBUG, "PushpullLC thread: Setting system id %s", sysId.c_str());
  const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
  logConsumerShared.sysId = sysId;
  logConsumerShared.setDelayMinutes = true;
  return sysId;
}

void takeToken(const QvServerAssigned& message) {
  QvSecurity* security = nullptr;
  QvToken* token = nullptr;
  std::string encoded;
  if (!message.getSecurity(&security) || !security->getNuvToken(&token)) return;
  if (!token->getEncoded(&encoded)) return;
  shared_set(&Shared::nuvToken, encoded);
  syslog(LOG_DEBUG, "PushpullLC thread: token = %s", encoded.c_str());
}

void takeServerAssigned(const QvServerAssigned& message) {
  const std::string sysId = takeSystemId(message);
  const std::string aapStateStr = shared_get(&Shared::aapStateStr);
  syslog(LOG_INFO, "PushpullLC thread: sysId = %s, aap_state_str = %s", sysId.c_str(),
         aapStateStr.c_str());
  takeToken(message);
  if (message.getUrlsSec(nullptr)) {
    syslog(LOG_DEBUG, "PushpullLC thread: Ignoring data upload server addr from pushpull");
  }
}

// The factory's type tells which view it made.
void dispatch(const QvJsonObj& message) {
  switch (message.getObjType()) {
    case kInterfacesWrapperObj:
      return takeInterfaces(static_cast<const QvInterfacesWrapper&>(message));
    case kRgwObj:
      return takeRgw(static_cast<const QvRgw&>(message));
    case kSystemObj:
      return takeSystem(static_cast<const QvSystem&>(message));
    case kServerAssignedObj:
      return takeServerAssigned(static_cast<const QvServerAssigned&>(message));
    default:
      syslog(LOG_DEBUG, "PushpullLC thread: got unknown object type  %d", message.getObjType());
  }
}

// Whether the loop is to end, as judged when no message is left.
bool serviceEnds() {
  if (shared_get(&Shared::resetLogConsumer)) return true;
  const std::time_t lastActivity = activitySeconds();
  if (lastActivity == 0) return false;
  struct timespec now = {};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
    syslog(LOG_ERR, "PushpullLC thread: clock_gettime() failed %d", errno);
    return false;
  }
  if (!inactiveTooLong(lastActivity, now.tv_sec)) return false;
  syslog(LOG_WARNING, "PushpullLC thread: reset due to no activity");
  shared_set(&Shared::inactivityExit, true);
  return true;
}

}  // namespace

bool inactiveTooLong(std::time_t lastActivitySeconds, std::time_t nowSeconds) {
  return lastActivitySeconds != 0 && nowSeconds > lastActivitySeconds + kInactivityLimitSeconds;
}

void LogConsumerPushpullThreadExecute() {
  LogConsumerPushpullClass consumer;
  consumer.init();
  consumer.execute();
}

void LogConsumerPushpullClass::init() {
  syslog(LOG_DEBUG,
         "PushpullLC thread: Initializing pushpull and message queue connections in 2nd thread");
  logPpApi = QvPushpullApi::create();
  if (!logPpApi) {
    syslog(LOG_ERR, "PushpullLC thread: Unable to allocate push-pull API");
    return;
  }
  logPpApi->init("");
  logMqueue.reset(logPpApi->create_receive_queue(kQueueName, kQueueMessages, kMessageBytes));
  if (!logMqueue) {
    syslog(LOG_ERR, "PushpullLC thread: Unable to open message queue (%d)", errno);
  }
  if (logPpApi->comp_register(kComponent, kQueueName, nullptr) != 0) {
    syslog(LOG_ERR, "PushpullLC thread: Unable to register with pushpull");
  }
  if (logPpApi->subscribe(kComponent, kSubscription, false) != 0) {
    syslog(LOG_ERR, "PushpullLC thread: Unable to subscribe for pushpull info");
  }
  for (const char* path : kInitialReads) {
    if (logPpApi->get(kComponent, path, "") != 0) {
      syslog(LOG_ERR, "PushpullLC thread: Unable to get initial pushpull info");
    }
  }
}

void LogConsumerPushpullClass::execute() {
  const int sleepSeconds = shared_get(&Shared::sleepSeconds);
  sd_notify(0, "READY=1");
  for (bool ended = false; !ended;) {
    sd_notify(0, "WATCHDOG=1");
    std::string text;
    if (takeMessage(sleepSeconds, text)) {
      const std::shared_ptr<QvJsonObj> message = QvJsonObjFactory::makeObj(text);
      if (message) dispatch(*message);
    }
    if (shared_get(&Shared::manualUpdate)) {
      manuallyUpdateStateID();
      shared_set(&Shared::manualUpdate, false);
    }
    if (const long left = messagesLeft(); left > 0) {
      syslog(LOG_INFO, "PushpullLC thread: %ld more messages still in queue, looping", left);
      continue;
    }
    ended = serviceEnds();
  }
  syslog(LOG_INFO, "PushpullLC thread: Exiting thread");
}

void LogConsumerPushpullClass::manuallyUpdateStateID() {
  for (const char* path : {"/serverAssigned", "/rgw"}) {
    if (!logPpApi || logPpApi->get(kComponent, path, "") != 0) {
      syslog(LOG_ERR, "PushpullLC thread: Unable to get initial pushpull info");
    }
  }
  shared_set(&Shared::manualUpdate, false);
}

void LogConsumerPushpullClass::sleep() {
  constexpr useconds_t kMicrosecondsPerMillisecond = 1000;
  usleep(kMicrosecondsPerMillisecond * static_cast<useconds_t>(shared_get(&Shared::sleepSeconds)));
}

// Without a queue there is only the wait.
bool LogConsumerPushpullClass::takeMessage(int seconds, std::string& text) {
  if (!logMqueue) {
    ::sleep(static_cast<unsigned>(std::max(seconds, 0)));
    return false;
  }
  if (logMqueue->timed_receive(seconds) <= 0) return false;
  text = logMqueue->get_queue_buffer();
  return true;
}

long LogConsumerPushpullClass::messagesLeft() const {
  struct mq_attr attributes = {};
  if (!logMqueue || mq_getattr(logMqueue->_mqueue, &attributes) != 0) return 0;
  return attributes.mq_curmsgs;
}
