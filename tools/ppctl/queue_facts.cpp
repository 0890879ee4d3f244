#include "tools/ppctl/queue_facts.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <system_error>

#include "pushpull_data/qv_pushpull_utilities.h"
#include "tools/ppctl/unique_fd.h"

namespace ppctl {

namespace {

constexpr long kQueueFileSystem = 0x19800202;  // MQUEUE_MAGIC of the kernel's ipc/mqueue.c
constexpr mode_t kPermissions = 07777;

void take_status(QueueFacts& facts, const struct stat& status) {
  facts.mode = status.st_mode & kPermissions;
  facts.owner = status.st_uid;
}

}  // namespace

std::optional<std::vector<std::string>> list_queues(const std::string& folder) {
  struct statfs file_system = {};
  if (statfs(folder.c_str(), &file_system) != 0 || file_system.f_type != kQueueFileSystem) {
    return std::nullopt;
  }
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    names.push_back("/" + entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

QueueFacts look_at_queue(const std::string& name) {
  QueueFacts facts;
  facts.name = name;
  struct stat status = {};
  const UniqueFd descriptor(mq_open(name.c_str(), O_RDONLY | O_CLOEXEC));
  if (descriptor.get() == -1) {
    facts.error = errno;
    // A queue that may not be read still shows in the folder.
    if (facts.error == EACCES && stat((kQueueFolder + name).c_str(), &status) == 0) {
      take_status(facts, status);
    }
    return facts;
  }
  struct mq_attr attributes = {};
  if (fstat(descriptor.get(), &status) == 0) take_status(facts, status);
  if (mq_getattr(descriptor.get(), &attributes) == 0) facts.attributes = attributes;
  return facts;
}

int try_queue(long messages, long message_size) {
  const std::string name = "/ppctl." + std::to_string(getpid()) + ".probe";
  struct mq_attr attributes = {};
  attributes.mq_maxmsg = messages;
  attributes.mq_msgsize = message_size;
  qv_set_mqueue_limits();
  mq_unlink(name.c_str());
  const UniqueFd descriptor(
      mq_open(name.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600, &attributes));
  if (descriptor.get() == -1) return errno;
  mq_unlink(name.c_str());
  return 0;
}

std::string advice_for_queue_error(int error) {
  if (error == EINVAL) {
    return "raise fs.mqueue.msg_max and fs.mqueue.msgsize_max, or run it with CAP_SYS_RESOURCE";
  }
  if (error == EMFILE) {
    struct rlimit limit = {};
    getrlimit(RLIMIT_MSGQUEUE, &limit);
    return "this user's queues may take " + std::to_string(limit.rlim_cur) +
           " bytes together (RLIMIT_MSGQUEUE): raise it (LimitMSGQUEUE=), or run it with "
           "CAP_SYS_RESOURCE";
  }
  return std::generic_category().message(error);
}

std::string user_name(uid_t user) {
  std::array<char, 4096> buffer = {};
  struct passwd entry = {};
  struct passwd* found = nullptr;
  getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found);
  return found == nullptr ? std::to_string(user) : found->pw_name;
}

std::string mode_text(mode_t mode) {
  std::ostringstream text;
  text << std::oct << std::setfill('0') << std::setw(4) << mode;
  return text.str();
}

}  // namespace ppctl
