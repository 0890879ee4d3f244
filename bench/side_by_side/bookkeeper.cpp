// bookkeeper LOG PROGRAM ARGUMENT...: runs a program and appends a line of JSON with what it cost.
//
// For short-lived children of a shell, which nobody else can look at in time. Small and linked
// statically, so that it hardly adds to what is measured; its own processor time stands in the
// line, to be taken off again.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>

namespace {

constexpr int kNotRun = 127;

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double cpu(const rusage& usage) {
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// One write, so that lines of several processes do not mix.
bool note(const char* path, const rusage& child, int status) {
  rusage own = {};
  getrusage(RUSAGE_SELF, &own);
  std::array<char, 256> line;
  const int size = std::snprintf(
      line.data(), line.size(),
      "{\"cpu\":%.6f,\"peak_kib\":%ld,\"wakeups\":%ld,\"preempted\":%ld,\"status\":%d,"
      "\"bookkeeping\":%.6f,\"own_wakeups\":%ld}\n",
      cpu(child), child.ru_maxrss, child.ru_nvcsw, child.ru_nivcsw, status, cpu(own), own.ru_nvcsw);
  const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  const bool written =
      file >= 0 && write(file, line.data(), static_cast<std::size_t>(size)) == size;
  if (file >= 0) close(file);
  return written;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    static_cast<void>(std::fputs("usage: bookkeeper LOG PROGRAM [ARGUMENT...]\n", stderr));
    return 2;
  }
  pid_t pid = -1;
  if (posix_spawnp(&pid, argv[2], nullptr, nullptr, argv + 2, environ) != 0) return kNotRun;
  int status = 0;
  rusage usage = {};
  if (wait4(pid, &status, 0, &usage) != pid) return kNotRun;
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return note(argv[1], usage, code) ? code : kNotRun;
}
