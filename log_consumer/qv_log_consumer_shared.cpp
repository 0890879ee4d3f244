#include "log_consumer/qv_log_consumer_shared.h"

#include <array>
#include <cstddef>

#include "log_consumer/qv_immortal.h"

extern "C" {
Immortal<logConsumerSharedStruct> logConsumerSharedStorage;
}
extern logConsumerSharedStruct logConsumerShared [[gnu::alias("logConsumerSharedStorage")]];

void storeSharedDefaults() {
  const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
  logConsumerSharedStruct& shared = logConsumerShared;
  shared.alwaysBypassRandomDelay = true;
  shared.skipPerFileDelay = true;
  shared.dataUploadConnectDone = false;
  shared.relayServerConnectDone = false;
  shared.aapStateStr = "unregistered";
  shared.sysId = kDefaultSysId;
  shared.nuvToken.clear();
  shared.dataUploadServerPort = -1;
  shared.dataUploadServerAddr.clear();
  shared.relayServerPort = -1;
  shared.relayServerAddr.clear();
  shared.sleepSeconds = 5;
  shared.wifiAssociated = false;
  shared.manualUpdate = false;
  shared.setDelayMinutes = false;
  shared.resetLogConsumer = false;
  shared.offset = 0;
  shared.dstOffset = 0;
  shared.enableDst = false;
  shared.loggingEnabled = false;
  shared.lastActivityTime = {0, 0};
  shared.inactivityExit = false;
  shared.initialLogSending = true;
}

std::vector<logConsumerType> buildLogTypeTable() {
  const std::string logs = "/tarv/data/logs/";
  return {
      {logs + "reports", kPerfReportType, 0, kRelaySrv, true, true},
      {logs + "measurements", kLittleDataType, 0, kDataUploadSrv, true, true},
      {logs + "history/installation", kInstallReportType, 0, kRelaySrv, false, true},
      {logs + "clp", kClpType, 0, kDataUploadSrv, false, true},
      // A path that no device has: the test kind normally finds nothing.
      {"\\nuv\\logs\\test\\", kTestFileType, 0, kDataUploadSrv, false, true},
      {logs + "debug", kDebugFileType, 0, kDataUploadSrv, false, true},
      {logs + "tlink", kTLinkFileType, 0, kDataUploadSrv, false, true},
      {logs + "UI", kUIFileType, 0, kDataUploadSrv, false, true},
      {logs + "demand", kDemandType, 0, kDataUploadSrv, false, true},
      {logs + "tcomp", kTCompType, 0, kDataUploadSrv, false, true},
      {logs + "wg", kLGType, 0, kDataUploadSrv, false, true},  // uploaded as "lg"
      {logs + "rg", kRGType, 0, kDataUploadSrv, false, true},
      {logs + "ppstat", kPushpullStatsType, 0, kDataUploadSrv, false, true},
      {logs + "diagnostics", kDiagnosticsType, 0, kDataUploadSrv, true, true},
      {logs + "logconsumer", kLogConsumerType, 0, kDataUploadSrv, false, true},
  };
}

std::string uploadName(logFileTypes filetype) {
  static constexpr std::array<const char*, 15> kNames = {
      "Debug",   "TLink", "Test",    "UI",  "Demand",   "TComp",       "lg",         "rg",
      "measmin", "perf",  "ireport", "clp", "pushpull", "diagnostics", "logconsumer"};
  const auto index = static_cast<std::size_t>(filetype);
  return index < kNames.size() ? kNames[index] : "";
}
