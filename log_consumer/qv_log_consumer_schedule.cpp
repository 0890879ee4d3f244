#include "log_consumer/qv_log_consumer_schedule.h"

bool slotIsOpen(int minute, int delayMinutes) {
  return minute >= delayMinutes && minute <= delayMinutes + kSlotMinutes;
}

unsigned delaySeed(const std::string& sysId, std::time_t now) {
  auto seed = static_cast<unsigned>(now);
  for (const char byte : sysId)
    seed += static_cast<unsigned char>(byte);
  return seed;
}

struct tm utc(std::time_t now) {
  const struct tm* const parts = gmtime(&now);
  if (parts == nullptr) return {};
  return *parts;
}

int utcMinute(std::time_t now) {
  return utc(now).tm_min;
}

int utcHour(std::time_t now) {
  return utc(now).tm_hour;
}

bool isArchiveName(const std::string& entry) {
  return entry.find(".gz") != std::string::npos;
}

LogFilePath locate(const std::string& entry, const std::string& directory, bool fromFinder) {
  if (!fromFinder) return {directory + "/" + entry, entry};
  // npos + 1 is 0: a path without "/" is its own name.
  return {entry, entry.substr(entry.rfind('/') + 1)};
}
