#include "log_consumer/qv_log_finder.h"

#include <dirent.h>
#include <sys/types.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <memory>
#include <system_error>

#include "log_consumer/qv_log_consumer_schedule.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"
#include "log_consumer/qv_shell_quote.h"

// stat() of a log beyond 2 GiB would fail, and the log would never be sent.
static_assert(sizeof(off_t) == 8, "compile with _FILE_OFFSET_BITS=64");

namespace {

// Carries find's output from the shell back to the program.
constexpr char kFinderOutput[] = "/var/tmp/logfinder.tmp";

struct CloseDirectory {
  void operator()(DIR* directory) const { static_cast<void>(closedir(directory)); }
};

struct ClosePipe {
  void operator()(std::FILE* pipe) const { static_cast<void>(pclose(pipe)); }
};

// What a command writes to its standard output. Its error output goes where the service's goes.
std::string outputOf(const std::string& command) {
  // Without O_CLOEXEC: no other thread starts processes that could inherit it.
  const std::unique_ptr<std::FILE, ClosePipe> pipe(popen(command.c_str(), "r"));
  if (!pipe) throw std::system_error(errno, std::generic_category(), "popen");
  std::string output;
  std::array<char, 128> piece = {};
  while (std::fgets(piece.data(), piece.size(), pipe.get()) != nullptr)
    output += piece.data();
  return output;
}

// The processes that hold a file open, as fuser writes them; empty when there is none. The ids are
// all that fuser puts on its standard output, names and kinds of access go to its error output. A
// missing fuser writes nothing there either, so that no file looks held.
std::string processesHolding(const std::string& path) {
  return outputOf("fuser " + shellQuotePath(path));
}

}  // namespace

std::string logFinderCommand(const std::string& directory, bool allFiles, unsigned maxFiles) {
  return "find " + directory +
         (allFiles ? " -type f -name *.gz" : " -type f -perm +200 -name *.gz") + "| sort" +
         "| head -n " + std::to_string(maxFiles) + " >> " + kFinderOutput;
}

bool QvLogFinder::findFiles(bool allFiles, unsigned maxFiles, std::vector<std::string>& files) {
  const std::string command = logFinderCommand(directory, allFiles, maxFiles);
  [[maybe_unused]] const int status = std::system(command.c_str());
  std::ifstream output(kFinderOutput);
  if (!output.is_open()) return false;
  // A newline in a name makes two entries of it, and whoever may write to /var/tmp or make folders
  // among the logs can list any path. Each entry is quoted for the shell, and only a regular file
  // of mode 0644 is ever sent and marked; that may be one of the system's own: see docs/hazards.md.
  for (std::string line; std::getline(output, line);)
    files.push_back(line);
  output.close();
  static_cast<void>(std::remove(kFinderOutput));
  return true;
}

std::vector<std::string> LogConsumer::getFileList(std::string directory) {
  const std::unique_ptr<DIR, CloseDirectory> stream(opendir(directory.c_str()));
  if (!stream) {
    const int error = errno;
    syslog(LOG_DEBUG, "opendir failed, errno: %d, err: %s", error, std::strerror(error));
    return {};
  }
  std::vector<std::string> names;
  while (const struct dirent* entry = readdir(stream.get())) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(std::move(name));
  }
  return names;
}

int LogConsumer::getNotReadOnlySize(const std::vector<std::string>& files, std::string directory,
                                    bool fromFinder) {
  return static_cast<int>(std::count_if(files.begin(), files.end(), [&](const std::string& file) {
    return isArchiveName(file) && !checkReadOnly(locate(file, directory, fromFinder).fullPath);
  }));
}

// The answer holds for this moment only. What a producer may do after it: docs/hazards.md, "Files".
bool LogConsumer::checkReadOnly(std::string path) {
  try {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || !isWaitingMode(status.st_mode)) return true;
    const std::string holders = processesHolding(path);
    if (holders.empty()) return false;
    syslog(LOG_DEBUG, "Attempt to upload %s still in Access\n", path.c_str());
    syslog(LOG_DEBUG, "fuser: %s \n", holders.c_str());
  } catch (const std::exception& exception) {
    syslog(LOG_ERR, "%s:exception %s", "checkReadOnly", exception.what());
  }
  return true;
}

int LogConsumer::setReadOnly(std::string path) {
  return chmod(path.c_str(), 0400);
}
