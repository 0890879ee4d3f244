#include "log_consumer/qv_log_consumer_logger.h"

#include <glob.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "log_consumer/qv_log_consumer_schedule.h"
#include "utility/qv_utilities_zlib.h"

namespace {

// Literals, not strings: nothing is to be destroyed while a signal ends the process.
constexpr char kLogDirectory[] = "/tarv/data/logs/logconsumer";
constexpr char kCurrentLogPath[] = "/tarv/data/logs/logconsumer/logconsumer.log";
constexpr char kArchivePattern[] = "/tarv/data/logs/logconsumer/*.gz";

void writeRecord(std::ofstream& log, const std::string& text) {
  log << text << '\n' << std::flush;
}

// The result of glob(), freed at the end of the scope. A glob() that fails has freed it already:
// nothing matches, or a folder cannot be read before anything was found.
struct GlobResult {
  glob_t paths = {};
  int status;
  explicit GlobResult(const char* pattern) : status(glob(pattern, GLOB_ERR, nullptr, &paths)) {}
  ~GlobResult() {
    if (status == 0) globfree(&paths);
  }
  GlobResult(const GlobResult&) = delete;
  GlobResult& operator=(const GlobResult&) = delete;
};

void removeIfExpired(const char* path, std::time_t now) {
  struct stat status = {};
  if (stat(path, &status) != 0 || !archiveExpired(status.st_mtime, now)) return;
  syslog(LOG_INFO, "removing log archive file '%s'", path);
  static_cast<void>(std::remove(path));
}

}  // namespace

std::string activityLogTimestamp(std::time_t now) {
  const struct tm parts = utc(now);
  const auto text = [](int value) { return std::to_string(value); };
  return text(parts.tm_year + 1900) + "_" + text(parts.tm_mon + 1) + "_" + text(parts.tm_mday) +
         "_" + text(parts.tm_hour) + "_" + text(parts.tm_min);
}

std::string activityLogArchivePath(std::time_t now) {
  return std::string(kLogDirectory) + "/logconsumer_log__" + activityLogTimestamp(now) + "_.log.gz";
}

bool archiveExpired(std::time_t modified, std::time_t now) {
  return modified < now - kArchiveRetentionSeconds;
}

LogConsumerLogger::LogConsumerLogger() {
  if (!exists(kLogDirectory, true)) makeDirectory(kLogDirectory);
}

void LogConsumerLogger::enableLog() {
  syslog(LOG_INFO, "Enabling logging");
  logEnabled = true;
  currentHour = utcHour(time(nullptr));
  startNewLog();
}

void LogConsumerLogger::disableLog() {
  archiveLog();
  logEnabled = false;
}

void LogConsumerLogger::startNewLog() {
  if (!logEnabled) return;
  archiveLog();
  syslog(LOG_INFO, "Starting log at %s", kCurrentLogPath);
  // Still open when somebody deleted the file meanwhile: open() would refuse for ever.
  if (currentLog.is_open()) currentLog.close();
  currentLog.open(kCurrentLogPath, std::ios::out | std::ios::trunc);
  currentLog << "Log Consumer log file time " << getTimestamp() << std::flush;
  logName = kCurrentLogPath;
}

void LogConsumerLogger::archiveLog() {
  syslog(LOG_INFO, "archiving log file '%s'", logName.c_str());
  if (logName.empty() || !exists(logName.c_str(), false)) return;
  if (currentLog.is_open()) currentLog.close();
  sync();
  syslog(LOG_INFO, "File system sync'd");
  const std::string archive = activityLogArchivePath(time(nullptr));
  qv_zlibCompress(logName, archive);
  if (std::remove(logName.c_str()) != 0) {
    syslog(LOG_ERR, "Failed to remove %s", logName.c_str());
  } else {
    syslog(LOG_INFO, "Removed current log file '%s' after archiving to '%s'", logName.c_str(),
           archive.c_str());
  }
  removeOldArchives();
}

void LogConsumerLogger::removeOldArchives() {
  const GlobResult archives(kArchivePattern);
  if (archives.status != 0) return;
  const std::time_t now = time(nullptr);
  for (std::size_t i = 0; i < archives.paths.gl_pathc; ++i) {
    removeIfExpired(archives.paths.gl_pathv[i], now);
  }
}

void LogConsumerLogger::logHeader(std::string header) {
  if (!logEnabled || !currentLog.is_open()) return;
  syslog(LOG_DEBUG, "Logging header");
  writeRecord(currentLog, header);
}

void LogConsumerLogger::logFilesize(long size) {
  if (!logEnabled || !currentLog.is_open()) return;
  syslog(LOG_DEBUG, "Logging filesize");
  writeRecord(currentLog, "Logged filesize: " + std::to_string(size));
}

void LogConsumerLogger::logResponse(std::string response) {
  if (!logEnabled || !currentLog.is_open()) return;
  syslog(LOG_DEBUG, "Logging response");
  writeRecord(currentLog, "Logged response: " + response);
}

std::string LogConsumerLogger::getTimestamp() {
  return activityLogTimestamp(time(nullptr));
}

bool LogConsumerLogger::exists(const char* fsobj, bool acceptDir) {
  struct stat status = {};
  if (stat(fsobj, &status) != 0) return false;
  return (status.st_mode & S_IFREG) != 0 || (acceptDir && (status.st_mode & S_IFDIR) != 0);
}

void LogConsumerLogger::makeDirectory(const char* path) {
  [[maybe_unused]] const int status = std::system((std::string("mkdir ") + path).c_str());
}
