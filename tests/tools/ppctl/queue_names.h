// The queues that exist, and how far a process has come.
#ifndef TESTS_TOOLS_PPCTL_QUEUE_NAMES_H
#define TESTS_TOOLS_PPCTL_QUEUE_NAMES_H

#include <fcntl.h>
#include <mqueue.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/journal.h"

namespace ppctl_test {

using test_support::eventually;

/// All of them, each with its "/", in order. Needs the kernel's list at /dev/mqueue.
inline std::vector<std::string> queue_names() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/mqueue")) {
    names.push_back("/" + entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// How many messages stand in a queue; -1 when there is none.
inline long messages_in(const std::string& name) {
  const mqd_t queue = mq_open(name.c_str(), O_RDONLY);
  if (queue == -1) return -1;
  struct mq_attr attributes = {};
  mq_getattr(queue, &attributes);
  mq_close(queue);
  return attributes.mq_curmsgs;
}

/// Whether a process has come so far that signals wait for its own reading.
inline bool holds_signals_back(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("SigBlk:", 0) == 0)
      return line.find_first_of("123456789abcdef", 7) != std::string::npos;
  }
  return false;
}

}  // namespace ppctl_test

#endif
