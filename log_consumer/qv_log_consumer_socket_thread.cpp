#include "log_consumer/qv_log_consumer_socket_thread.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "log_consumer/qv_json_obj_factory.h"
#include "log_consumer/qv_log_consumer_mg.h"
#include "log_consumer/qv_log_consumer_schedule.h"

namespace {

using Shared = logConsumerSharedStruct;

// A file of this name, in any kind's list, ends the service after the pass.
constexpr char kTestExitFile[] = "test_debug_exit.txt.gz";

// What a pass needs of the shared record, copied in one hold of the lock at its start.
struct PassSettings {
  std::string dataUploadAddr;
  int dataUploadPort;
  bool dataUploadDone;
  std::string relayAddr;
  int relayPort;
  bool relayDone;
  std::string sysId;
  bool setDelayMinutes;
  std::string aapStateStr;
};

PassSettings copySettings() {
  const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
  const Shared& shared = logConsumerShared;
  return {shared.dataUploadServerAddr,
          shared.dataUploadServerPort,
          shared.dataUploadConnectDone,
          shared.relayServerAddr,
          shared.relayServerPort,
          shared.relayServerConnectDone,
          shared.sysId,
          shared.setDelayMinutes,
          shared.aapStateStr};
}

// The record's one store without its lock. The text has at most 15 characters, as have all texts
// that the configuration thread stores there: it stays inside the string object, nothing is
// allocated or freed, and the worst that a reader can copy at that moment is a mixed text, which
// counts as the error state. Both functions are out of line: ThreadSanitizer sees the store inside
// the standard library and is told of it by the name of a caller (cmake/tsan_suppressions.cpp).
[[gnu::noinline]] void storeAapStateText(const char* text) {
  logConsumerShared.aapStateStr = text;
}

[[gnu::noinline]] void refreshAapState(const std::string& aapStateStr) {
  const QvRgw rgw("rgw");
  rgw.hashAapState(aapStateStr);
  storeAapStateText(rgw.getAapStateStr(QvRgw::kAapStateRegistered));
}

struct KindCounters {
  int readOnly = 0;
  int wrongExtension = 0;
  unsigned attempted = 0;
};

enum class PassEnd { kNextPass, kStop };

/// One pass over all kinds. Lives for that pass; the engine outlives it.
class UploadPass {
 public:
  explicit UploadPass(LogConsumer& engine) : engine_(engine) {}

  PassEnd run();

 private:
  void rotateActivityLog(std::time_t now);
  void generateDelays(const std::string& sysId, std::time_t now);
  void keepConnected(const PassSettings& settings);
  bool readAvailability();
  void readFlags();
  PassEnd finish();

  bool inSlot(const logConsumerType& kind);
  bool serverAvailable(const logConsumerType& kind) const;
  void serveKind(const logConsumerType& kind);
  std::vector<std::string> list(const logConsumerType& kind);
  void reportWaiting(const logConsumerType& kind, const std::vector<std::string>& files);
  KindCounters walk(const logConsumerType& kind, const std::vector<std::string>& files);
  bool send(const logConsumerType& kind, const LogFilePath& file);
  void markSent(const std::string& fullPath);

  LogConsumer& engine_;
  bool dataUploadAvailable_ = false;
  bool relayAvailable_ = false;
  bool bypassAll_ = false;
  bool skipPerFileDelay_ = false;
  int debugOutOfSlot_ = 0;
  bool sentOk_ = false;
  bool testExitSeen_ = false;
};

PassEnd UploadPass::run() {
  const PassSettings settings = copySettings();
  refreshAapState(settings.aapStateStr);
  const std::time_t now = time(nullptr);
  rotateActivityLog(now);
  if (settings.setDelayMinutes) generateDelays(settings.sysId, now);
  keepConnected(settings);
  if (!readAvailability()) {
    engine_.sleepSharedSeconds();
    return PassEnd::kNextPass;
  }
  readFlags();
  for (const logConsumerType& kind : engine_.logInfo) {
    if (inSlot(kind) && serverAvailable(kind)) serveKind(kind);
  }
  return finish();
}

void UploadPass::rotateActivityLog(std::time_t now) {
  const int hour = utcHour(now);
  if (hour == engine_.logger.currentHour) return;
  engine_.logger.startNewLog();
  engine_.logger.currentHour = hour;
}

// The drawn delay is logged only: every kind's slot opens at minute 1, whatever was drawn.
void UploadPass::generateDelays(const std::string& sysId, std::time_t now) {
  shared_set(&Shared::setDelayMinutes, false);
  const unsigned seed = delaySeed(sysId, now);
  syslog(LOG_INFO, "Generating random delay values with a seed value of %d",
         static_cast<int>(seed));
  srand(seed);
  for (logConsumerType& kind : engine_.logInfo) {
    const int drawn = rand();
    kind.delayMinutes = 1;
    syslog(LOG_INFO, "Log type %d set to delay %d", kind.filetype, drawn % kDelayRange);
  }
}

void keepOneConnected(LogConsumerMongooseClass& proxy, bool done, const std::string& address,
                      int port, const char* notDone) {
  if (done || address.empty() || port == -1) return;
  syslog(LOG_DEBUG, "%s", notDone);
  if (shared_get(&Shared::wifiAssociated)) {
    proxy.connect_proxy_client(address, port);
  } else {
    syslog(LOG_DEBUG, "wifi not associated");
  }
}

void UploadPass::keepConnected(const PassSettings& settings) {
  keepOneConnected(*engine_.dataUploadProxy, settings.dataUploadDone, settings.dataUploadAddr,
                   settings.dataUploadPort, "Data upload mongoose connection not done");
  keepOneConnected(*engine_.relayServerProxy, settings.relayDone, settings.relayAddr,
                   settings.relayPort, "Relay server socket connection not done");
}

// A connection asked for a moment ago is seldom established by now: the pass then runs without
// that server, or is given up when neither is there.
bool UploadPass::readAvailability() {
  {
    const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
    dataUploadAvailable_ = logConsumerShared.dataUploadConnectDone;
    relayAvailable_ = logConsumerShared.relayServerConnectDone;
  }
  if (!dataUploadAvailable_) {
    syslog(LOG_DEBUG, "data upload connection not done con = %d", dataUploadAvailable_);
  }
  if (!relayAvailable_) {
    syslog(LOG_DEBUG, "relay server connection not done con = %d", relayAvailable_);
  }
  return dataUploadAvailable_ || relayAvailable_;
}

void UploadPass::readFlags() {
  const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
  bypassAll_ = logConsumerShared.initialLogSending || logConsumerShared.alwaysBypassRandomDelay;
  skipPerFileDelay_ = logConsumerShared.skipPerFileDelay;
}

PassEnd UploadPass::finish() {
  if (debugOutOfSlot_ == 0 || testExitSeen_) {
    syslog(LOG_INFO, "No files found in debug! Resetting");
    shared_set(&Shared::resetLogConsumer, true);
  }
  if (sentOk_) shared_set(&Shared::initialLogSending, false);
  if (shared_get(&Shared::resetLogConsumer)) return PassEnd::kStop;
  if (shared_get(&Shared::inactivityExit)) {
    syslog(LOG_WARNING, "LC thread: exit due to no activity %d", 1);
    return PassEnd::kStop;
  }
  if (skipPerFileDelay_) {
    sleep(kSecondsBetweenPasses);
  } else {
    engine_.sleepSharedSeconds();
  }
  return PassEnd::kNextPass;
}

bool UploadPass::inSlot(const logConsumerType& kind) {
  const int minute = utcMinute(time(nullptr));
  if (bypassAll_) {
    syslog(LOG_INFO, "Bypassing random delay values for all log types\n");
    return true;
  }
  if (!kind.useRandomDelay) {
    syslog(LOG_DEBUG, "Bypassing random delay values for log type %d\n", kind.filetype);
    return true;
  }
  if (!slotIsOpen(minute, kind.delayMinutes)) {
    if (kind.filetype == kDebugFileType) ++debugOutOfSlot_;
    return false;
  }
  syslog(LOG_DEBUG, "Time is good for log type %d, checking to send, delay %d curr %d\n",
         kind.filetype, kind.delayMinutes, minute);
  return true;
}

bool UploadPass::serverAvailable(const logConsumerType& kind) const {
  switch (kind.server) {
    case kDataUploadSrv:
      return dataUploadAvailable_;
    case kRelaySrv:
      return relayAvailable_;
  }
  return true;
}

void UploadPass::serveKind(const logConsumerType& kind) {
  const std::vector<std::string> files = list(kind);
  reportWaiting(kind, files);
  const KindCounters counters = walk(kind, files);
  if (kind.filetype == kDebugFileType) {
    syslog(LOG_DEBUG,
           "Debug type found %d files, %d read only, %d wrong extension, %d attempted sent",
           static_cast<int>(files.size()), counters.readOnly, counters.wrongExtension,
           static_cast<int>(counters.attempted));
  }
}

std::vector<std::string> UploadPass::list(const logConsumerType& kind) {
  if (!kind.useLogFinder) return engine_.getFileList(kind.filepath);
  QvLogFinder finder;
  finder = kind.filepath;
  std::vector<std::string> files;
  finder.findFiles(false, kMaxFilesPerKind, files);
  return files;
}

void UploadPass::reportWaiting(const logConsumerType& kind, const std::vector<std::string>& files) {
  constexpr int kBacklog = 5;
  const int waiting = engine_.getNotReadOnlySize(files, kind.filepath, kind.useLogFinder);
  syslog(LOG_DEBUG, "%d not read only files found for filetype %d at directory %s", waiting,
         kind.filetype, kind.filepath.c_str());
  if (waiting > kBacklog) {
    syslog(LOG_INFO, "Backlog of over 5 unsent logs found for filetype %d, using short delays.",
           kind.filetype);
  }
}

KindCounters UploadPass::walk(const logConsumerType& kind, const std::vector<std::string>& files) {
  KindCounters counters;
  for (const std::string& entry : files) {
    if (!isArchiveName(entry)) {
      ++counters.wrongExtension;
      continue;
    }
    const LogFilePath file = locate(entry, kind.filepath, kind.useLogFinder);
    if (file.fileName == kTestExitFile) testExitSeen_ = true;
    if (engine_.checkReadOnly(file.fullPath)) {
      ++counters.readOnly;
      continue;
    }
    ++counters.attempted;
    if (!send(kind, file)) break;
    if (counters.attempted == kMaxFilesPerKind) {
      syslog(LOG_DEBUG, "Ending sending of files for type %s, max number attempted sent = %d",
             uploadName(kind.filetype).c_str(), static_cast<int>(counters.attempted));
      break;
    }
  }
  return counters;
}

bool UploadPass::send(const logConsumerType& kind, const LogFilePath& file) {
  syslog(LOG_INFO, "Filename %s is not read only", file.fullPath.c_str());
  syslog(LOG_DEBUG, "Sleeping %d seconds before next file send",
         static_cast<int>(kSecondsBeforeSend));
  sleep(kSecondsBeforeSend);
  if (engine_.sendFile(file.fullPath, uploadName(kind.filetype), kind.server, file.fileName) != 0) {
    syslog(LOG_ERR, "Send %s failed. Sleeping %d seconds.", file.fullPath.c_str(),
           static_cast<int>(kSecondsAfterFailure));
    sleep(kSecondsAfterFailure);
    return false;
  }
  markSent(file.fullPath);
  return true;
}

void UploadPass::markSent(const std::string& fullPath) {
  if (chmod(fullPath.c_str(), 0400) == 0) {
    syslog(LOG_INFO, "Sending %s went okay", fullPath.c_str());
    sentOk_ = true;
  } else {
    syslog(LOG_WARNING, "Failed to make %s read-only", fullPath.c_str());
  }
  struct timespec now = {};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
    syslog(LOG_ERR, "socket thread: clock_gettime() failed %d", errno);
    return;
  }
  shared_set(&Shared::lastActivityTime, now);
}

}  // namespace

LogConsumer::LogConsumer() = default;

LogConsumer::~LogConsumer() {
  for (const int sockfd : {dataUploadSockfd, relayServerSockfd}) {
    if (sockfd > 0) close(sockfd);
  }
}

void LogConsumer::init(std::vector<logConsumerType>& table, int sleepSeconds, std::string server,
                       int port) {
  logInfo = table;
  if (shared_get(&Shared::wifiAssociated)) {
    initDataUploadSocket();
    initRelayServerSocket();
  } else {
    syslog(LOG_DEBUG, "wifi not associated");
  }
  {
    const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
    logConsumerShared.sleepSeconds = sleepSeconds;
    logConsumerShared.dataUploadServerAddr = server;
    logConsumerShared.relayServerAddr = server;
    logConsumerShared.dataUploadServerPort = port;
    logConsumerShared.relayServerPort = port;
  }
  syslog(LOG_DEBUG, "Starting. server = %s, ip = %d", server.c_str(), port);
}

void LogConsumer::execute() {
  dataUploadProxy = std::make_shared<LogConsumerMongooseClass>();
  relayServerProxy = std::make_shared<LogConsumerMongooseClass>();
  dataUploadProxy->info.serverType = kDataUploadSrv;
  relayServerProxy->info.serverType = kRelaySrv;
  for (auto* proxy : {&dataUploadProxy, &relayServerProxy}) {
    init_lc_mg_client(*proxy);
    exec_lc_mg_client(*proxy);
  }
  if (shared_get(&Shared::loggingEnabled)) logger.enableLog();

  while (UploadPass(*this).run() == PassEnd::kNextPass) {
  }

  terminate_lc_mg_client(dataUploadProxy);
  terminate_lc_mg_client(relayServerProxy);
  sleepSharedSeconds();
  syslog(LOG_INFO, "Exiting socket thread");
}

void LogConsumer::terminate() {}

void LogConsumer::sleepSharedSeconds() {
  constexpr useconds_t kMicrosecondsPerSecond = 1'000'000;
  constexpr int kLongestPause = 4294;  // more microseconds than this do not fit 32 bits
  int seconds = shared_get(&Shared::sleepSeconds);
  for (; seconds > kLongestPause; seconds -= kLongestPause)
    usleep(kLongestPause * kMicrosecondsPerSecond);
  usleep(static_cast<useconds_t>(seconds) * kMicrosecondsPerSecond);
}
