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

int utcMinute(std::time_t now) {
  struct tm parts = {};
  gmtime_r(&now, &parts);
  return parts.tm_min;
}

bool isArchiveName(const std::string& entry) {
  return entry.find(".gz") != std::string::npos;
}

LogFilePath locate(const std::string& entry, const std::string& directory, bool fromFinder) {
  if (!fromFinder) return {directory + "/" + entry, entry};
  // npos + 1 is 0: a path without "/" is its own name.
  return {entry, entry.substr(entry.rfind('/') + 1)};
}
