// How the engine finds the files that wait, and what makes a file one of them. The engine's own
// operations are declared in qv_log_consumer_socket_thread.h.
//
// A producer writes NAME.gz with mode 0644; a sent file has mode 0400. So a file waits while its
// mode is exactly 0644 and no process holds it open. `find` (three kinds) or the directory (the
// others) gives the candidates; `fuser` tells who holds one, at the price of one process a file.
#ifndef LOG_CONSUMER_QV_LOG_FINDER_H
#define LOG_CONSUMER_QV_LOG_FINDER_H

#include <sys/stat.h>

#include <string>
#include <utility>
#include <vector>

/// The shell command that appends the paths of a directory's "*.gz" files, sorted, to
/// "/var/tmp/logfinder.tmp".
///
/// Two things in it are as they are on purpose: the pattern is not quoted, so the shell expands it
/// where the service's working directory holds such files ("/" does not), and "+200" is the form
/// of the device's find (BusyBox), which GNU findutils since 4.5.12 refuses: it then lists nothing.
///
/// @param directory  goes into the command as it is; it comes from the table of kinds
/// @param allFiles   true: also files that their owner may not write any more
/// @param maxFiles   at most so many lines
std::string logFinderCommand(const std::string& directory, bool allFiles, unsigned maxFiles);

/// @param mode  st_mode, type included
/// @return whether it is that of a waiting file: a regular file, 0644, nothing more and nothing
/// less.
constexpr bool isWaitingMode(mode_t mode) {
  return mode == 0100644;
}

/// Finds log files with the platform's `find`, see logFinderCommand(). Its value is the directory
/// to search: `finder = "/tarv/data/logs/reports"`.
class QvLogFinder {
 public:
  std::string directory;  ///< where to search; set before each use

  QvLogFinder& operator=(std::string toSearch) {
    directory = std::move(toSearch);
    return *this;
  }

  /// Lists "*.gz" files below `directory`, sorted by full path.
  /// @param allFiles  true: also those that their owner may not write any more
  /// @param maxFiles  at most so many from this run
  /// @param files     receives the paths, after what an earlier run may have left behind
  /// @return true when find's output could be read; a failing `find` gives an empty list.
  bool findFiles(bool allFiles, unsigned maxFiles, std::vector<std::string>& files);
};

#endif
