#include "log_consumer/qv_store_message.h"

#include <syslog.h>

#include <cerrno>
#include <ctime>
#include <mutex>

#include "log_consumer/qv_json_obj_factory.h"
#include "log_consumer/qv_log_consumer_shared.h"

namespace {

using Shared = logConsumerSharedStruct;
using Lock = std::lock_guard<std::mutex>;

constexpr int kWifiInterfaceId = 1;

// Stops the inactivity period: the device is offline through no fault of the service.
void wifiLost() {
  syslog(LOG_DEBUG, "PushpullLC thread: wifi is not associated");
  const Lock lock(logConsumerShared.logsMutex);
  logConsumerShared.wifiAssociated = false;
  logConsumerShared.lastActivityTime.tv_sec = 0;
  logConsumerShared.initialLogSending = true;
}

// Starts the inactivity period, unless it runs already.
void armActivityClock() {
  if (shared_get(&Shared::lastActivityTime).tv_sec != 0) return;
  struct timespec now = {};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
    syslog(LOG_ERR, "pushpull thread: clock_gettime() failed %d", errno);
    return;
  }
  const Lock lock(logConsumerShared.logsMutex);
  logConsumerShared.lastActivityTime.tv_sec = now.tv_sec;
}

void wifiFound() {
  if (!shared_get(&Shared::wifiAssociated)) {
    syslog(LOG_DEBUG, "PushpullLC thread: wifi now associated");
  }
  shared_set(&Shared::wifiAssociated, true);
  armActivityClock();
}

void handleInterfaces(const QvInterfacesWrapper& interfaces) {
  QvInterfaces wifi("interfaces");
  if (interfaces.searchQvInterfacesById(kWifiInterfaceId, wifi) != 0) return;
  QvInterfaceWiFiStatus* section = nullptr;
  QvInterfaceWiFiStatus::statusEnum status = QvInterfaceWiFiStatus::kStatusError;
  if (!wifi.getWifiStatus(&section) || !section->getStatus(&status)) return;
  if (status == QvInterfaceWiFiStatus::kStatusAssociated) {
    wifiFound();
  } else {
    wifiLost();
  }
}

void storeAapState(const std::string& text) {
  shared_set(&Shared::aapStateStr, text);
  syslog(LOG_DEBUG, "PushpullLC thread: Setting aapStateStr = %s", text.c_str());
}

void logRegistration() {
  std::string aapState;
  std::string sysId;
  {
    const Lock lock(logConsumerShared.logsMutex);
    aapState = logConsumerShared.aapStateStr;
    sysId = logConsumerShared.sysId;
  }
  syslog(LOG_DEBUG, "PushpullLC thread: sysId = %s, aapStateStr = %s", sysId.c_str(),
         aapState.c_str());
}

void reportIgnoredRelayServer(const QvRgw& message) {
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

void handleRgw(const QvRgw& message) {
  QvRgw rgw("rgw");
  message.copyValid(rgw);
  QvRgw::aapStateEnum state = QvRgw::kAapStateError;
  if (rgw.getAapState(&state)) storeAapState(rgw.getAapStateStr(state));
  logRegistration();
  reportIgnoredRelayServer(message);
}

void handleSystem(const QvSystem& system) {
  QvSystemClock* clock = nullptr;
  if (!system.getClock(&clock)) return;
  syslog(LOG_DEBUG, "PushpullLC thread: updating system clock values");
  const Lock lock(logConsumerShared.logsMutex);
  clock->getOffset(&logConsumerShared.offset);
  clock->getDstOffset(&logConsumerShared.dstOffset);
  clock->getEnableDst(&logConsumerShared.enableDst);
}

// The upload slots of the kinds hang on the system id, so they are asked for anew.
void storeSysId(const std::string& sysId) {
  syslog(LOG_DEBUG, "PushpullLC thread: Setting system id %s", sysId.c_str());
  const Lock lock(logConsumerShared.logsMutex);
  logConsumerShared.sysId = sysId;
  logConsumerShared.setDelayMinutes = true;
}

void handleIdentities(const QvServerAssigned& assigned) {
  std::string sysId;
  QvIdentities* identities = nullptr;
  if (assigned.getIdentities(&identities) && identities->getSysId(&sysId)) storeSysId(sysId);
  const std::string aapState = shared_get(&Shared::aapStateStr);
  syslog(LOG_INFO, "PushpullLC thread: sysId = %s, aap_state_str = %s", sysId.c_str(),
         aapState.c_str());
}

void handleSecurity(const QvServerAssigned& assigned) {
  QvSecurity* security = nullptr;
  QvToken* token = nullptr;
  std::string encoded;
  if (!assigned.getSecurity(&security) || !security->getNuvToken(&token) ||
      !token->getEncoded(&encoded)) {
    return;
  }
  shared_set(&Shared::nuvToken, encoded);
  syslog(LOG_DEBUG, "PushpullLC thread: token = %s", encoded.c_str());
}

void handleServerAssigned(const QvServerAssigned& assigned) {
  handleIdentities(assigned);
  handleSecurity(assigned);
  if (assigned.getUrlsSec(nullptr)) {
    syslog(LOG_DEBUG, "PushpullLC thread: Ignoring data upload server addr from pushpull");
  }
}

}  // namespace

void handleStoreMessage(const std::string& json) {
  const auto object = QvJsonObjFactory::makeObj(json);
  if (object != nullptr) handleStoreObject(*object);
}

void handleStoreObject(const QvJsonObj& object) {
  const QvJsonObjType type = object.getObjType();
  switch (type) {
    case kInterfacesWrapperObj:
      return handleInterfaces(static_cast<const QvInterfacesWrapper&>(object));
    case kRgwObj:
      return handleRgw(static_cast<const QvRgw&>(object));
    case kSystemObj:
      return handleSystem(static_cast<const QvSystem&>(object));
    case kServerAssignedObj:
      return handleServerAssigned(static_cast<const QvServerAssigned&>(object));
    default:
      syslog(LOG_DEBUG, "PushpullLC thread: got unknown object type  %d", type);
  }
}
