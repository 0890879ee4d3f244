// stop_thread TID: stops one thread of another process, and no other of its threads, until the
// process ends. The signals that everybody knows stop a process as a whole.
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  const auto thread = static_cast<pid_t>(argc == 2 ? std::strtol(argv[1], nullptr, 10) : 0);
  if (thread <= 0 || ptrace(PTRACE_SEIZE, thread, nullptr, nullptr) != 0 ||
      ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr) != 0) {
    std::perror("stop_thread");
    return 1;
  }
  int status = 0;
  while (waitpid(thread, &status, __WALL) == thread && WIFSTOPPED(status)) {
  }
  return 0;
}
