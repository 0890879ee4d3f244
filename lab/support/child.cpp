#include "lab/support/child.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "lab/support/spawn_arguments.h"

namespace lab {
namespace {

class SpawnPlan {
 public:
  SpawnPlan() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  }
  ~SpawnPlan() {
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  void redirect(int descriptor, const Output& output, int pipe) {
    if (output.to == Output::To::kPipe) {
      posix_spawn_file_actions_adddup2(&actions, pipe, descriptor);
    } else if (output.to == Output::To::kFile) {
      posix_spawn_file_actions_addopen(&actions, descriptor, output.file.c_str(),
                                       O_WRONLY | O_CREAT | O_APPEND, 0644);
    }
  }

  posix_spawn_file_actions_t actions = {};
  posix_spawnattr_t attributes = {};
};

}  // namespace

Child::Child(const ChildSettings& settings) {
  std::array<int, 2> ends = {-1, -1};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  UniqueFd read_end(ends[0]);
  const UniqueFd write_end(ends[1]);

  SpawnPlan plan;
  plan.redirect(STDOUT_FILENO, settings.standard_output, write_end.get());
  plan.redirect(STDERR_FILENO, settings.standard_error, write_end.get());
  if (!settings.directory.empty()) {
    posix_spawn_file_actions_addchdir_np(&plan.actions, settings.directory.c_str());
  }
  std::vector<std::string> command = settings.command;
  std::vector<std::string> environment = environment_with(settings.environment);
  const int error = posix_spawnp(&pid_, command.at(0).c_str(), &plan.actions, &plan.attributes,
                                 pointers(command).data(), pointers(environment).data());
  if (error != 0) {
    pid_ = -1;
    throw std::runtime_error("cannot start " + command[0] + ": " + std::strerror(error));
  }
  if (settings.standard_output.to == Output::To::kPipe) output_ = std::move(read_end);
}

Child::~Child() {
  if (pid_ == -1 || !running()) return;
  signal(SIGKILL);
  wait();
}

Child::Child(Child&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      status_(other.status_),
      output_(std::move(other.output_)),
      received_(std::move(other.received_)) {}

void Child::note_end(int wait_status) {
  constexpr int kKilled = 128;
  status_ = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : kKilled + WTERMSIG(wait_status);
}

bool Child::running() {
  int wait_status = 0;
  if (status_ == -1 && waitpid(pid_, &wait_status, WNOHANG) == pid_) note_end(wait_status);
  return status_ == -1;
}

int Child::wait() {
  int wait_status = 0;
  while (status_ == -1) {
    if (waitpid(pid_, &wait_status, 0) == pid_) note_end(wait_status);
  }
  return status_;
}

void Child::signal(int number) {
  if (running()) kill(pid_, number);
}

bool Child::fill() {
  std::array<char, 65536> buffer = {};
  ssize_t count = 0;
  do {
    count = read(output_.get(), buffer.data(), buffer.size());
  } while (count == -1 && errno == EINTR);
  if (count > 0) received_.append(buffer.data(), static_cast<std::size_t>(count));
  return count > 0;
}

std::optional<std::string> Child::take_line() {
  const std::size_t end = received_.find('\n');
  if (end == std::string::npos) return std::nullopt;
  std::string line = received_.substr(0, end);
  received_.erase(0, end + 1);
  return line;
}

std::optional<std::string> Child::read_line() {
  for (;;) {
    if (auto line = take_line()) return line;
    if (!fill()) return std::nullopt;
  }
}

bool Child::read_lines(std::vector<std::string>& lines) {
  const bool more = fill();
  while (auto line = take_line())
    lines.push_back(*std::move(line));
  return more;
}

}  // namespace lab
