#include "tools/ppctl/findings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/timex.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <memory>
#include <sstream>
#include <system_error>

#include "tools/ppctl/failure.h"
#include "tools/ppctl/queue_facts.h"
#include "tools/ppctl/unique_fd.h"

namespace ppctl {

namespace {

namespace fs = std::filesystem;

constexpr mode_t kWaiting = S_IFREG | 0644;
constexpr mode_t kSent = S_IFREG | 0400;
constexpr std::time_t kPlausibleTime = 1704067200;  // 2024-01-01: this program did not exist before

/// A folder with one waiting log in it, removed with all that is in it. It stands in $TMPDIR, else
/// in /tmp.
class SampleFolder {
 public:
  SampleFolder() : place_(temporary_folder()) {
    std::string name = place_ + "/ppctl.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      error_ = errno;
      return;
    }
    folder_ = name;
    const UniqueFd file(open(log().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (file.get() == -1 || fchmod(file.get(), 0644) != 0) error_ = errno;
  }
  ~SampleFolder() {
    std::error_code ignored;
    if (!folder_.empty()) fs::remove_all(folder_, ignored);
  }
  SampleFolder(const SampleFolder&) = delete;
  SampleFolder& operator=(const SampleFolder&) = delete;

  const std::string& path() const { return folder_; }
  std::string log() const { return folder_ + "/sample.gz"; }

  bool is_usable() const { return error_ == 0; }
  /// What there is to say of a program that cannot be tried without the folder.
  Finding not_tried(const std::string& program) const {
    return {Level::kWarning, program, with_reason("cannot be tried: " + place_, error_),
            "name a folder that can be written in TMPDIR"};
  }

 private:
  static std::string temporary_folder() {
    const char* const folder = std::getenv("TMPDIR");
    return fs::absolute(folder == nullptr || *folder == '\0' ? "/tmp" : folder).string();
  }

  const std::string place_;
  std::string folder_;
  int error_ = 0;
};

std::string quoted(const std::string& text) {
  std::string result = "'";
  for (const char c : text)
    result += c == '\'' ? "'\\''" : std::string(1, c);
  return result + "'";
}

std::string first_line(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

// What a shell command prints. It asks nothing and ends by itself.
std::string output_of(const std::string& command) {
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  if (!pipe) return {};
  std::string text;
  std::array<char, 512> piece = {};
  while (std::fgets(piece.data(), static_cast<int>(piece.size()), pipe.get()) != nullptr) {
    text += piece.data();
  }
  return text;
}

struct LogCount {
  int waiting = 0;
  int sent = 0;
  int other = 0;
  std::string first_other;
};

// What the service takes for a log: a regular file, found by `find` ("-type f -name *.gz"), or by
// reading the folder, where a link is as good as its file and ".gz" may stand anywhere.
bool is_log(const fs::path& path, bool is_searched, struct stat& status) {
  const std::string name = path.filename().string();
  const bool is_named = is_searched ? path.extension() == ".gz" || name == ".gz"
                                    : name.find(".gz") != std::string::npos;
  const int flags = is_searched ? AT_SYMLINK_NOFOLLOW : 0;
  return is_named && fstatat(AT_FDCWD, path.c_str(), &status, flags) == 0 &&
         S_ISREG(status.st_mode);
}

void count_log(LogCount& count, const LogFolder& folder, const fs::path& path) {
  struct stat status = {};
  if (!is_log(path, folder.is_searched, status)) return;
  if (status.st_mode == kWaiting) {
    ++count.waiting;
  } else if (status.st_mode == kSent) {
    ++count.sent;
  } else if (++count.other == 1) {
    count.first_other = path.lexically_relative(folder.path).string() + " (" +
                        mode_text(status.st_mode & 07777U) + ")";
  }
}

bool is_running(const std::string& process) {
  return kill(static_cast<pid_t>(std::strtol(process.c_str(), nullptr, 10)), 0) == 0 ||
         errno == EPERM;
}

}  // namespace

const std::vector<LogFolder>& log_folders() {
  static const std::vector<LogFolder> folders = {{"/tarv/data/logs/reports", true},
                                                 {"/tarv/data/logs/measurements", true},
                                                 {"/tarv/data/logs/history/installation", false},
                                                 {"/tarv/data/logs/clp", false},
                                                 {"/tarv/data/logs/debug", false},
                                                 {"/tarv/data/logs/tlink", false},
                                                 {"/tarv/data/logs/UI", false},
                                                 {"/tarv/data/logs/demand", false},
                                                 {"/tarv/data/logs/tcomp", false},
                                                 {"/tarv/data/logs/wg", false},
                                                 {"/tarv/data/logs/rg", false},
                                                 {"/tarv/data/logs/ppstat", false},
                                                 {"/tarv/data/logs/diagnostics", true},
                                                 {"/tarv/data/logs/logconsumer", false}};
  return folders;
}

Finding check_service_queue() {
  const std::string size =
      std::to_string(kServiceMessages) + " x " + std::to_string(kServiceMessageSize);
  const QueueFacts queue = look_at_queue(kServiceQueue);
  if (queue.error != 0 && queue.error != ENOENT) {
    return {Level::kWarning, "queues",
            with_reason("/log_consumer cannot be looked at", queue.error),
            "run this as the user of the service"};
  }
  if (!queue.attributes) {
    const int error = try_queue(kServiceMessages, kServiceMessageSize);
    if (error == 0) return {Level::kOk, "queues", size + " fits here", ""};
    return {Level::kWrong, "queues", size + " does not fit here: the service gets no answers",
            advice_for_queue_error(error)};
  }
  const long waiting = queue.attributes->mq_curmsgs;
  const long most = queue.attributes->mq_maxmsg;
  const std::string text = "/log_consumer: " + std::to_string(waiting) + " of " +
                           std::to_string(most) + " messages of " +
                           std::to_string(queue.attributes->mq_msgsize) + " bytes wait";
  if (waiting >= most) {
    return {Level::kWrong, "queues", text, "the service does not read it: does it run?"};
  }
  if (queue.attributes->mq_msgsize < kServiceMessageSize) {
    return {Level::kWarning, "queues", text,
            "longer documents cannot reach the service: remove the queue and start it again"};
  }
  return {Level::kOk, "queues", text, ""};
}

Findings check_left_queues(const std::vector<std::string>& queues) {
  constexpr char kPrefix[] = "/ppctl.";
  Findings findings;
  for (const std::string& name : queues) {
    if (name.rfind(kPrefix, 0) != 0 || is_running(name.substr(sizeof kPrefix - 1))) continue;
    findings.push_back({Level::kWarning, "queues", name + " was left by a ppctl that was killed",
                        "rm " + (kQueueFolder + name)});
  }
  return findings;
}

Finding check_log_folder(const LogFolder& log_folder) {
  const std::string& folder = log_folder.path;
  LogCount count;
  std::error_code error;
  for (fs::recursive_directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    if (!log_folder.is_searched) entry.disable_recursion_pending();
    count_log(count, log_folder, entry->path());
  }
  if (error == std::errc::no_such_file_or_directory) {
    return {Level::kNote, "logs", folder + ": no such folder", "nothing of this kind is uploaded"};
  }
  if (error) {
    return {Level::kWrong, "logs", folder + ": " + error.message(),
            "the service must be able to read it"};
  }
  const std::string text = folder + ": " + std::to_string(count.waiting) + " waiting, " +
                           std::to_string(count.sent) + " sent";
  if (count.other == 0) return {Level::kOk, "logs", text, ""};
  return {Level::kWarning, "logs",
          text + ", " + std::to_string(count.other) + " neither: " + count.first_other,
          "only mode 0644 is uploaded: chmod 0644 sends it, chmod 0400 takes it for sent"};
}

Finding check_find() {
  const SampleFolder folder;
  if (!folder.is_usable()) return folder.not_tried("find");
  const std::string printed = first_line(
      output_of("find " + quoted(folder.path()) + " -type f -perm +200 -name '*.gz' 2>&1"));
  if (printed == folder.log()) return {Level::kOk, "find", "understands -perm +200", ""};
  return {Level::kWrong, "find", "no use for the reports, measurements and diagnostics: " + printed,
          "put BusyBox's find first on the service's PATH"};
}

Finding check_fuser() {
  const SampleFolder folder;
  if (!folder.is_usable()) return folder.not_tried("fuser");
  const UniqueFd held(open(folder.log().c_str(), O_RDONLY | O_CLOEXEC));
  if (!output_of("fuser " + quoted(folder.log()) + " 2>/dev/null").empty()) {
    return {Level::kOk, "fuser", "sees open files", ""};
  }
  return {Level::kWrong, "fuser", "does not see that a file is open",
          "install it (psmisc, BusyBox): logs that are still being written are uploaded"};
}

Finding check_clock(std::time_t now, std::optional<bool> synchronised) {
  struct tm parts = {};
  gmtime_r(&now, &parts);
  std::ostringstream date;
  date << "it is " << std::put_time(&parts, "%Y-%m-%d %H:%M:%S UTC");
  const std::string text = date.str();
  if (now < kPlausibleTime) {
    return {Level::kWrong, "clock", text, "set the clock: no server's certificate is valid yet"};
  }
  if (synchronised && !*synchronised) {
    return {Level::kWarning, "clock", text + ", not synchronised", "check the time service"};
  }
  return {Level::kOk, "clock", text, ""};
}

std::optional<bool> clock_is_synchronised() {
  struct timex state = {};
  const int result = adjtimex(&state);
  if (result == -1) return std::nullopt;
  return result != TIME_ERROR;
}

}  // namespace ppctl
