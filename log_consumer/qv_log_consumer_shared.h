// The record that all threads of the service share, and the table of log kinds.
//
// Everything here is plain data. The one rule: each access to a field of `logConsumerShared`
// holds `logsMutex` for the copy in or out only, never across a send, a sleep or a call into
// another unit. `shared_get` and `shared_set` below are that rule as a function. (One store, of
// `aapStateStr` at the start of a pass, is made without the lock; see LogConsumer::execute.)
#ifndef LOG_CONSUMER_QV_LOG_CONSUMER_SHARED_H
#define LOG_CONSUMER_QV_LOG_CONSUMER_SHARED_H

#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// The server that a log kind is uploaded to.
enum servers : std::int32_t {
  kDataUploadSrv = 0,  ///< multipart POST
  kRelaySrv = 1,       ///< the file's raw bytes
};

/// The kind of a log. The values appear in log messages and never change.
enum logFileTypes : std::int32_t {
  kDebugFileType = 0,
  kTLinkFileType = 1,
  kTestFileType = 2,
  kUIFileType = 3,
  kDemandType = 4,
  kTCompType = 5,
  kLGType = 6,
  kRGType = 7,
  kLittleDataType = 8,
  kPerfReportType = 9,
  kInstallReportType = 10,
  kClpType = 11,
  kPushpullStatsType = 12,
  kDiagnosticsType = 13,
  kLogConsumerType = 14,
};

/// One log kind. A value: the engine works on its own copy.
struct logConsumerType {
  std::string filepath;  ///< directory that holds the kind's gzip files
  logFileTypes filetype;
  std::int16_t delayMinutes;  ///< minute of the UTC hour at which the five-minute slot opens
  servers server;
  bool useLogFinder;    ///< true: found by `find`; false: by reading the directory
  bool useRandomDelay;  ///< true: sent only inside its slot; false: on every pass
};

/// Text of `sysId` while the device has no system id of its own.
inline constexpr char kDefaultSysId[] = "NUVSerialNumber";

/// State and configuration that the threads share; the initialisers are the defaults that start-up
/// stores. Writers: start-up and LogConsumer::init (before and while the threads start), the
/// configuration thread (device values, Wi-Fi, clock), the connections (connect-done flags) and
/// the scheduler (pass state).
struct logConsumerSharedStruct {
  bool alwaysBypassRandomDelay = true;  ///< no kind waits for its slot
  bool skipPerFileDelay = true;         ///< 1 s at the end of a pass instead of `sleepSeconds`
  std::mutex logsMutex;                 ///< guards every other field
  std::string dataUploadServerAddr;     ///< from the command line alone
  int dataUploadServerPort = -1;        ///< -1: not configured
  std::string relayServerAddr;          ///< same value as the data upload host
  int relayServerPort = -1;
  bool dataUploadConnectDone = false;  ///< the connection is established
  bool relayServerConnectDone = false;
  bool wifiAssociated = false;               ///< no connection is attempted without it
  std::string aapStateStr = "unregistered";  ///< registration state of the device, as text
  std::string sysId = kDefaultSysId;         ///< sent with every upload
  std::string nuvToken;           ///< kept up to date from the store; nothing here reads it
  bool manualUpdate = false;      ///< asks the configuration thread to fetch again
  int sleepSeconds = 5;           ///< pause while not connected and before the end, seconds
  bool setDelayMinutes = false;   ///< asks the scheduler for new slots
  bool resetLogConsumer = false;  ///< asks all threads to end after the current pass
  bool initialLogSending = true;  ///< every kind is sent without waiting for its slot
  int offset = 0;                 ///< device clock's offset from UTC, as the store gives it
  int dstOffset = 0;              ///< likewise for summer time; nothing here reads the three
  bool enableDst = false;
  bool loggingEnabled = false;                ///< the activity log is written
  struct timespec lastActivityTime = {0, 0};  ///< CLOCK_MONOTONIC; 0 s: not armed
  bool inactivityExit = false;                ///< asks the scheduler to end for want of activity
};

/// The one record. It is constructed before main() and its storage outlives every thread: a
/// serving thread may still be in its last poll, and a signal may call exit() on any thread, so
/// nothing is torn down under them.
extern logConsumerSharedStruct logConsumerShared;

/// Copies one field out of the record under its lock, e.g.
/// `shared_get(&logConsumerSharedStruct::sysId)`.
/// @throws std::system_error when the lock fails, which ends the process.
template <typename T>
T shared_get(T logConsumerSharedStruct::*field) {
  const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
  return logConsumerShared.*field;
}

/// Stores one field of the record under its lock.
/// @throws std::system_error when the lock fails, which ends the process.
template <typename T, typename U>
void shared_set(T logConsumerSharedStruct::*field, U&& value) {
  const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
  logConsumerShared.*field = std::forward<U>(value);
}

/// Stores the defaults of every field, under the lock. Called before any thread is started.
void storeSharedDefaults();

/// The fifteen log kinds, in the order in which each pass walks them.
std::vector<logConsumerType> buildLogTypeTable();

/// The name under which a kind is uploaded; empty for a value outside the enumeration.
std::string uploadName(logFileTypes filetype);

#endif
