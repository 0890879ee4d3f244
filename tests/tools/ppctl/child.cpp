#include "tests/tools/ppctl/child.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include "lab/support/spawn_arguments.h"

namespace ppctl_test {

namespace {

struct Pipe {
  int read_end = -1;
  int write_end = -1;
};

Pipe make_pipe() {
  std::array<int, 2> ends = {};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  return {ends[0], ends[1]};
}

Pipe make_terminal() {
  Pipe terminal;
  if (openpty(&terminal.read_end, &terminal.write_end, nullptr, nullptr, nullptr) != 0) {
    throw std::system_error(errno, std::generic_category(), "openpty");
  }
  fcntl(terminal.read_end, F_SETFD, FD_CLOEXEC);
  fcntl(terminal.write_end, F_SETFD, FD_CLOEXEC);
  return terminal;
}

pid_t spawn(std::vector<std::string> command, std::vector<std::string> environment, int input,
            int out, int err) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, command[0].c_str(), &actions, nullptr,
                                 lab::pointers(command).data(), lab::pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::system_error(error, std::generic_category(), command[0]);
  return pid;
}

}  // namespace

Child::Child(const std::vector<std::string>& command) : Child(command, Setup{}) {}

Child::Child(const std::vector<std::string>& command, const Setup& setup) {
  const Pipe in = make_pipe();
  const Pipe out = setup.terminal ? make_terminal() : make_pipe();
  const Pipe err = make_pipe();
  const Pipe stop = make_pipe();
  stop_[0] = stop.read_end;
  stop_[1] = stop.write_end;
  pid_ = spawn(command, lab::environment_with(setup.environment), in.read_end, out.write_end,
               err.write_end);
  for (const int descriptor : {in.read_end, out.write_end, err.write_end})
    close(descriptor);
  // Short enough for the pipe to take it at once.
  if (write(in.write_end, setup.input.data(), setup.input.size()) < 0) close(in.write_end);
  if (setup.keep_stdin_open) {
    input_ = in.write_end;
  } else {
    close(in.write_end);
  }
  collector_ = std::thread([this, out, err] { collect(out.read_end, err.read_end); });
}

Child::~Child() {
  if (pid_ != -1) {
    kill(pid_, SIGKILL);
    wait();
  }
  for (const int descriptor : {input_, stop_[0], stop_[1]}) {
    if (descriptor != -1) close(descriptor);
  }
}

std::string Child::out() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return out_;
}

std::string Child::err() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return err_;
}

void Child::send_signal(int signal) const {
  kill(pid_, signal);
}

void Child::close_stdout() {
  const char byte = 0;
  if (write(stop_[1], &byte, 1) != 1) throw std::system_error(errno, std::generic_category());
}

Ended Child::wait() {
  int status = 0;
  waitpid(std::exchange(pid_, -1), &status, 0);
  collector_.join();
  Ended ended;
  if (WIFEXITED(status)) ended.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) ended.signal = WTERMSIG(status);
  ended.out = out_;
  ended.err = err_;
  return ended;
}

// Reads both until their ends.
void Child::collect(int out, int err) {
  std::array<struct pollfd, 3> watched = {
      {{out, POLLIN, 0}, {err, POLLIN, 0}, {stop_[0], POLLIN, 0}}};
  const std::array<std::string*, 2> texts = {&out_, &err_};
  const auto finish = [&watched](std::size_t i) {
    close(watched.at(i).fd);
    watched.at(i).fd = -1;
  };
  while (watched[0].fd != -1 || watched[1].fd != -1) {
    poll(watched.data(), watched.size(), -1);
    if (watched[2].revents != 0) {
      finish(0);
      watched[2].fd = -1;
    }
    for (std::size_t i = 0; i < texts.size(); ++i) {
      if (watched.at(i).fd == -1 || watched.at(i).revents == 0) continue;
      std::array<char, 4096> piece = {};
      const ssize_t bytes = read(watched.at(i).fd, piece.data(), piece.size());
      if (bytes <= 0) {
        finish(i);
        continue;
      }
      const std::lock_guard<std::mutex> lock(mutex_);
      texts.at(i)->append(piece.data(), static_cast<std::size_t>(bytes));
    }
  }
  if (watched[2].fd == -1) stop_[0] = -1;
}

std::vector<std::string> ppctl_command(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {PPCTL_PROGRAM};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

Ended run_ppctl(const std::vector<std::string>& arguments) {
  return run_ppctl(arguments, Child::Setup{});
}

Ended run_ppctl(const std::vector<std::string>& arguments, const Child::Setup& setup) {
  return Child(ppctl_command(arguments), setup).wait();
}

}  // namespace ppctl_test
