// The service's own activity log, separate from syslog: for each upload the request header, the
// file's size and the server's answer.
//
// The log is one text file, "logconsumer.log" in "/tarv/data/logs/logconsumer". Each change of the
// UTC hour turns it into a gzip archive beside it and starts a new one; archives older than seven
// days are deleted. The archives are themselves a log kind and are uploaded from there.
//
// A log, as it stands in the file (the start line has no line end, so the first record follows it):
//
//     Log Consumer log file time 2026_2_3_9_5POST /v1/Upload HTTP/1.1
//     ...
//     Logged filesize: 4711
//     Logged response: ...
#ifndef LOG_CONSUMER_QV_LOG_CONSUMER_LOGGER_H
#define LOG_CONSUMER_QV_LOG_CONSUMER_LOGGER_H

#include <ctime>
#include <fstream>
#include <string>

/// Age in seconds up to which an archive is kept: seven days.
inline constexpr std::time_t kArchiveRetentionSeconds = 604800;

/// Year, month (1..12), day, hour and minute of `now` in UTC, without leading zeros:
/// "2026_2_3_9_5" for 09:05 on 3 February 2026.
std::string activityLogTimestamp(std::time_t now);

/// Full path of the archive that is made at `now`; the same for two archives of one minute.
std::string activityLogArchivePath(std::time_t now);

/// @return true when an archive last modified at `modified` is more than the retention old. An
/// archive from the future (the clock was set back since) is not.
bool archiveExpired(std::time_t modified, std::time_t now);

/// The activity log. Used by the upload thread alone, so it has no lock.
///
/// No operation throws or reports an error to its caller: the log is a diary, and a full or missing
/// disk must not stop an upload. When the file cannot be opened or written, records are dropped
/// until the next startNewLog() that succeeds.
class LogConsumerLogger {
 public:
  bool logEnabled = false;   ///< while false, nothing is written
  std::ofstream currentLog;  ///< open while a log is being written
  std::string logName;       ///< path of the current log; empty until the first one is started
  int currentHour = -1;      ///< UTC hour of the current log; the scheduler compares and stores it

  /// Creates the log directory if it is missing (not its parents).
  LogConsumerLogger();

  /// Switches logging on and starts a log.
  void enableLog();

  /// Archives the current log and switches logging off.
  void disableLog();

  /// Archives the current log, if there is one, and starts a new one; nothing while logging is off.
  /// A log that an earlier run left behind is not archived but overwritten.
  void startNewLog();

  /// Closes the current log, compresses it and deletes the plain file, whether or not compressing
  /// succeeded: a disk without room for the archive gets its room back. Then removeOldArchives().
  void archiveLog();

  /// Deletes every "*.gz" in the log directory, whatever its name, that is more than seven days old
  /// by its modification time.
  void removeOldArchives();

  /// Append a record and hand it to the system at once, if logging is on and the file is open.
  void logHeader(std::string header);
  void logFilesize(long size);  ///< bytes
  void logResponse(std::string response);

  /// activityLogTimestamp() of the current time.
  std::string getTimestamp();

  /// @return true when `fsobj` names a file, or with `acceptDir` also a directory. Only the file
  /// type's bit of each is looked at, which sockets and block devices have too.
  bool exists(const char* fsobj, bool acceptDir);

  /// Runs "mkdir" on `path` in a shell, which sees the path unquoted; failure is not reported.
  void makeDirectory(const char* path);
};

#endif
