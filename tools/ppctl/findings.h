// What `doctor` looks at. Each check returns one finding or several; none throws for what it finds.
#ifndef TOOLS_PPCTL_FINDINGS_H
#define TOOLS_PPCTL_FINDINGS_H

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace ppctl {

enum class Level {
  kOk,
  kNote,     ///< worth knowing, may well be meant
  kWarning,  ///< works, but not as it should
  kWrong     ///< something will not work
};

struct Finding {
  Level level;
  std::string subject;  ///< one word
  std::string text;
  std::string advice;  ///< empty when there is nothing to do
};

using Findings = std::vector<Finding>;

struct LogFolder {
  std::string path;
  bool is_searched;  ///< by `find`, to any depth; otherwise its own files alone count
};

/// The folders in which the log consumer looks for files, but for one that cannot exist.
const std::vector<LogFolder>& log_folders();

/// Whether the service can make its receive queue, has it, and reads it.
Finding check_service_queue();

/// Reply queues whose ppctl was killed.
Findings check_left_queues(const std::vector<std::string>& queues);

/// Counts the *.gz files of a log folder by what their mode says: waiting is 0644, sent is 0400;
/// the service neither sends nor marks any other.
Finding check_log_folder(const LogFolder& folder);

/// Whether the `find` on this PATH understands the service's "-perm +200". It is tried in a folder
/// of its own in $TMPDIR, else in /tmp.
Finding check_find();

/// Whether the `fuser` on this PATH sees that a file is open. It is tried as `find` is.
Finding check_fuser();

/// The trust anchors for servers, as the service takes them from its environment: a bundle
/// (SSL_CERT_FILE) and folders of hashed certificates (SSL_CERT_DIR). Null: not set.
Findings check_trust(const char* bundle, const char* folders);

/// @param now           seconds of the wall clock
/// @param synchronised  what the kernel says; empty when it does not say
Finding check_clock(std::time_t now, std::optional<bool> synchronised);

/// Whether a time service keeps the wall clock right.
std::optional<bool> clock_is_synchronised();

}  // namespace ppctl

#endif
