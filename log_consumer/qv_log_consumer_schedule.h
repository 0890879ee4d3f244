// Decisions of the scheduler, as functions of values.
#ifndef LOG_CONSUMER_QV_LOG_CONSUMER_SCHEDULE_H
#define LOG_CONSUMER_QV_LOG_CONSUMER_SCHEDULE_H

#include <ctime>
#include <string>

inline constexpr unsigned kMaxFilesPerKind = 20;      ///< sends attempted per kind and pass
inline constexpr unsigned kSecondsBeforeSend = 5;     ///< pause before each file
inline constexpr unsigned kSecondsAfterFailure = 10;  ///< back-off after a failed send
inline constexpr unsigned kSecondsBetweenPasses = 1;  ///< instead of -d, with skipPerFileDelay
inline constexpr int kSlotMinutes = 4;                ///< a slot spans its minute and four more
inline constexpr int kDelayRange = 55;                ///< random delays are 0..54

/// @return whether a kind with random delay may send in this minute of the UTC hour.
bool slotIsOpen(int minute, int delayMinutes);

/// Seed of the delay generation: the byte values of the system id, summed, plus the time.
unsigned delaySeed(const std::string& sysId, std::time_t now);

/// A time broken down in UTC; all zero when its year fits no int. One thread at a time: the C
/// library keeps the result of gmtime() in one place. The upload thread alone asks for it.
struct tm utc(std::time_t now);
int utcMinute(std::time_t now);  ///< 0..59
int utcHour(std::time_t now);    ///< 0..23

/// @return whether an entry of a listing is an archive at all: ".gz" stands anywhere in it.
bool isArchiveName(const std::string& entry);

/// Where one entry of a listing is: its full path and its bare name.
struct LogFilePath {
  std::string fullPath;
  std::string fileName;
};

/// @param fromFinder  the entry is a full path already, not a name in `directory`
LogFilePath locate(const std::string& entry, const std::string& directory, bool fromFinder);

#endif
