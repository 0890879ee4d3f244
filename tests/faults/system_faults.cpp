// A library to preload into a program: lets one call of one libc function fail, once.
//
//   SYSTEM_FAULT=FUNCTION:N:ERROR   the N-th call of FUNCTION, counted over all threads from the
//                                   program's start, fails with this errno (getaddrinfo: returns
//                                   it). N = 0: none fails. "fork:0:ERROR": no process can be
//                                   started, ever (threads can), as the kernel sees it.
//                                   "descriptors:N:0": no more than N can be open.
//   SYSTEM_FAULT_REPORT=FILE        gets "failed" when the call has failed, and at the end of the
//                                   program how often FUNCTION was called
//   SYSTEM_FAULT_HASTE=FACTOR       sleep(), usleep() and the timers of timerfd_settime() are so
//                                   many times shorter
//   SYSTEM_FAULT_HOUR=N             from the N-th call of time() on the clock is an hour ahead.
//                                   Calls of FUNCTION then count only in the thread that made that
//                                   call, until it pauses or looks up a name: while it archives
//                                   the hour's log.
//
// The variables and LD_PRELOAD are taken out of the environment: programs that the program starts
// run undisturbed. What libc calls inside itself is not reached.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <glob.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <mqueue.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

// The C library's own allocator under names that nobody replaces: dlsym() itself allocates.
extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);
extern "C" void* __libc_realloc(void* memory, std::size_t size);

namespace {

// Plain data: these are in use before constructors of this file could have run.
std::array<char, 64> target_function;
long target_call = -1;
int target_error = 0;
std::array<char, 256> report_file;
unsigned haste = 1;
std::atomic<long> calls{0};
long hour_changes_at = 0;  // a call of time(); 0: the clock is left alone
std::atomic<long> looks_at_clock{0};
std::atomic<pthread_t> archiver{};  // the thread whose calls count then; none: 0

void report(const char* text) {
  const int file = static_cast<int>(syscall(SYS_openat, AT_FDCWD, report_file.data(),
                                            O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  if (file < 0) return;
  syscall(SYS_write, file, text, strlen(text));
  syscall(SYS_close, file);
}

bool counts(const char* function) {
  return target_call >= 0 && std::strcmp(function, target_function.data()) == 0 &&
         (hour_changes_at == 0 || archiver == pthread_self());
}

// Whether this call of a function is the one to fail; errno is then set.
bool fails(const char* function) {
  if (!counts(function)) return false;
  if (++calls != target_call) return false;
  report("failed\n");
  errno = target_error;
  return true;
}

// The thread pauses or looks up a name.
void end_archiving() {
  pthread_t self = pthread_self();
  archiver.compare_exchange_strong(self, pthread_t{});
}

template <std::size_t kSize>
void take_variable(const char* name, std::array<char, kSize>& value) {
  const char* const text = getenv(name);
  if (text != nullptr) std::strncpy(value.data(), text, kSize - 1);
  unsetenv(name);
}

// From now on the kernel refuses to start processes. clone3() is said to be missing: its flags lie
// in memory, where a filter cannot look, and libc then uses clone().
void refuse_processes(int error) {
  const auto refusal = SECCOMP_RET_ERRNO | static_cast<unsigned>(error);
  std::array<struct sock_filter, 11> program = {{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, args[0])),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, CLONE_THREAD, 0, 6),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone3, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
#ifdef SYS_fork
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fork, 2, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_vfork, 1, 0),
#else
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
#endif
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, refusal),
  }};
  const struct sock_fprog filter = {program.size(), program.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0) {
    report("failed\n");
  }
}

void allow_descriptors(long count) {
  const struct rlimit limit = {static_cast<rlim_t>(count), static_cast<rlim_t>(count)};
  report("failed\n");  // while it can be written
  setrlimit(RLIMIT_NOFILE, &limit);
}

__attribute__((constructor)) void read_environment() {
  std::array<char, 64> fault = {};  // FUNCTION:N:ERROR
  std::array<char, 16> factor = {};
  std::array<char, 16> hour = {};
  take_variable("SYSTEM_FAULT", fault);
  take_variable("SYSTEM_FAULT_HASTE", factor);
  take_variable("SYSTEM_FAULT_HOUR", hour);
  take_variable("SYSTEM_FAULT_REPORT", report_file);
  unsetenv("LD_PRELOAD");
  if (factor[0] != '\0') haste = static_cast<unsigned>(std::strtoul(factor.data(), nullptr, 10));
  hour_changes_at = std::strtol(hour.data(), nullptr, 10);
  char* const call = std::strchr(fault.data(), ':');
  char* const error = call == nullptr ? nullptr : std::strchr(call + 1, ':');
  if (error == nullptr) return;
  *call = '\0';
  target_function = fault;
  target_error = static_cast<int>(std::strtol(error + 1, nullptr, 10));
  if (std::strcmp(target_function.data(), "fork") == 0) return refuse_processes(target_error);
  target_call = std::strtol(call + 1, nullptr, 10);
  if (std::strcmp(target_function.data(), "descriptors") == 0) allow_descriptors(target_call);
}

__attribute__((destructor)) void report_calls() {
  std::array<char, 96> line = {};
  static_cast<void>(
      std::snprintf(line.data(), line.size(), "%s %ld\n", target_function.data(), calls.load()));
  report(line.data());
}

}  // namespace

// Defines a function that fails when its call is due, under the name that the fault goes by, and
// otherwise calls the next one of its name.
#define FAULTY(result, name, group, failure, qualifier, parameters, arguments)             \
  result name parameters qualifier {                                                       \
    static const auto next = reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name)); \
    if (fails(group)) return failure;                                                      \
    return next arguments;                                                                 \
  }

// The same for what gives something back: that has gone all the same, as Linux does it.
#define FAULTY_RELEASE(result, name, group, failure, qualifier, parameters, arguments)     \
  result name parameters qualifier {                                                       \
    static const auto next = reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name)); \
    const bool fail = fails(group);                                                        \
    const result done = next arguments;                                                    \
    if (!fail) return done;                                                                \
    errno = target_error;                                                                  \
    return failure;                                                                        \
  }

#define NO_QUALIFIER

extern "C" {

// Files.

int open(const char* path, int flags, ...) {
  static auto* const next =
      reinterpret_cast<int (*)(const char*, int, ...)>(dlsym(RTLD_NEXT, "open"));
  va_list more;
  va_start(more, flags);
  const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(more, unsigned) : 0;
  va_end(more);
  return fails("open") ? -1 : next(path, flags, mode);
}

FAULTY(std::FILE*, fopen, "fopen", nullptr, NO_QUALIFIER, (const char* path, const char* mode),
       (path, mode))
FAULTY(std::FILE*, fopen64, "fopen", nullptr, NO_QUALIFIER, (const char* path, const char* mode),
       (path, mode))
FAULTY(ssize_t, read, "read", -1, NO_QUALIFIER, (int file, void* bytes, std::size_t size),
       (file, bytes, size))
FAULTY(ssize_t, write, "write", -1, NO_QUALIFIER, (int file, const void* bytes, std::size_t size),
       (file, bytes, size))
FAULTY(ssize_t, writev, "write", -1, NO_QUALIFIER,
       (int file, const struct iovec* pieces, int count), (file, pieces, count))
FAULTY(std::size_t, fread, "fread", 0, NO_QUALIFIER,
       (void* bytes, std::size_t size, std::size_t count, std::FILE* file),
       (bytes, size, count, file))
FAULTY(char*, fgets, "fgets", nullptr, NO_QUALIFIER, (char* text, int size, std::FILE* file),
       (text, size, file))
FAULTY(std::size_t, fwrite, "fwrite", 0, NO_QUALIFIER,
       (const void* bytes, std::size_t size, std::size_t count, std::FILE* file),
       (bytes, size, count, file))
FAULTY(int, putc, "fwrite", EOF, NO_QUALIFIER, (int byte, std::FILE* file), (byte, file))
FAULTY(int, fflush, "fflush", EOF, NO_QUALIFIER, (std::FILE * file), (file))
FAULTY_RELEASE(int, fclose, "fclose", EOF, NO_QUALIFIER, (std::FILE * file), (file))
FAULTY_RELEASE(int, close, "close", -1, NO_QUALIFIER, (int file), (file))
FAULTY(off64_t, lseek64, "lseek", -1, noexcept, (int file, off64_t offset, int origin),
       (file, offset, origin))
FAULTY(int, stat, "stat", -1, noexcept, (const char* path, struct stat* result), (path, result))
FAULTY(int, lstat, "stat", -1, noexcept, (const char* path, struct stat* result), (path, result))
FAULTY(int, fstat, "stat", -1, noexcept, (int file, struct stat* result), (file, result))
FAULTY(int, stat64, "stat", -1, noexcept, (const char* path, struct stat64* result), (path, result))
FAULTY(int, fstat64, "stat", -1, noexcept, (int file, struct stat64* result), (file, result))
FAULTY(int, chmod, "chmod", -1, noexcept, (const char* path, mode_t mode), (path, mode))
FAULTY(int, remove, "remove", -1, noexcept, (const char* path), (path))
FAULTY(DIR*, opendir, "opendir", nullptr, NO_QUALIFIER, (const char* path), (path))
FAULTY(struct dirent*, readdir, "readdir", nullptr, NO_QUALIFIER, (DIR * directory), (directory))
FAULTY_RELEASE(int, closedir, "closedir", -1, NO_QUALIFIER, (DIR * directory), (directory))
FAULTY(int, glob, "glob", GLOB_ABORTED, noexcept,
       (const char* pattern, int flags, int (*on_error)(const char*, int), glob_t* result),
       (pattern, flags, on_error, result))

// Processes and threads.

FAULTY(std::FILE*, popen, "popen", nullptr, NO_QUALIFIER, (const char* command, const char* mode),
       (command, mode))
FAULTY_RELEASE(int, pclose, "pclose", -1, NO_QUALIFIER, (std::FILE * pipe), (pipe))
FAULTY(int, system, "system", -1, NO_QUALIFIER, (const char* command), (command))
FAULTY(int, pthread_create, "pthread_create", target_error, noexcept,
       (pthread_t * thread, const pthread_attr_t* attributes, void* (*function)(void*), void* data),
       (thread, attributes, function, data))

FAULTY(int, sigaction, "sigaction", -1, noexcept,
       (int signal, const struct sigaction* action, struct sigaction* before),
       (signal, action, before))
FAULTY(int, setrlimit, "setrlimit", -1, noexcept,
       (__rlimit_resource_t resource, const struct rlimit* limit), (resource, limit))

// Queues.

mqd_t mq_open(const char* name, int flags, ...) noexcept {
  static auto* const next =
      reinterpret_cast<mqd_t (*)(const char*, int, ...)>(dlsym(RTLD_NEXT, "mq_open"));
  if (fails("mq_open")) return -1;
  if ((flags & O_CREAT) == 0) return next(name, flags);
  va_list more;
  va_start(more, flags);
  const unsigned mode = va_arg(more, unsigned);
  struct mq_attr* const attributes = va_arg(more, struct mq_attr*);
  va_end(more);
  return next(name, flags, mode, attributes);
}

FAULTY(int, mq_getattr, "mq_getattr", -1, noexcept, (mqd_t queue, struct mq_attr* result),
       (queue, result))
FAULTY(int, mq_setattr, "mq_setattr", -1, noexcept,
       (mqd_t queue, const struct mq_attr* attributes, struct mq_attr* before),
       (queue, attributes, before))
FAULTY_RELEASE(int, mq_close, "mq_close", -1, noexcept, (mqd_t queue), (queue))
FAULTY(ssize_t, mq_receive, "mq_receive", -1, NO_QUALIFIER,
       (mqd_t queue, char* bytes, std::size_t size, unsigned* priority),
       (queue, bytes, size, priority))
FAULTY(int, mq_send, "mq_send", -1, NO_QUALIFIER,
       (mqd_t queue, const char* bytes, std::size_t size, unsigned priority),
       (queue, bytes, size, priority))
FAULTY(int, mq_timedsend, "mq_timedsend", -1, NO_QUALIFIER,
       (mqd_t queue, const char* bytes, std::size_t size, unsigned priority,
        const struct timespec* deadline),
       (queue, bytes, size, priority, deadline))

// Network and events.

FAULTY(int, socket, "socket", -1, noexcept, (int domain, int type, int protocol),
       (domain, type, protocol))
FAULTY(int, connect, "connect", -1, NO_QUALIFIER,
       (int socket, const struct sockaddr* address, socklen_t size), (socket, address, size))

int getaddrinfo(const char* host, const char* service, const struct addrinfo* hints,
                struct addrinfo** result) {
  static auto* const next =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  end_archiving();
  return fails("getaddrinfo") ? target_error : next(host, service, hints, result);
}

FAULTY(ssize_t, send, "send", -1, NO_QUALIFIER,
       (int socket, const void* bytes, std::size_t size, int flags), (socket, bytes, size, flags))
FAULTY(ssize_t, sendmsg, "sendmsg", -1, NO_QUALIFIER,
       (int socket, const struct msghdr* message, int flags), (socket, message, flags))
FAULTY(ssize_t, recv, "recv", -1, NO_QUALIFIER,
       (int socket, void* bytes, std::size_t size, int flags), (socket, bytes, size, flags))
FAULTY(int, getsockopt, "getsockopt", -1, noexcept,
       (int socket, int level, int option, void* value, socklen_t* size),
       (socket, level, option, value, size))
FAULTY(int, setsockopt, "setsockopt", -1, noexcept,
       (int socket, int level, int option, const void* value, socklen_t size),
       (socket, level, option, value, size))
FAULTY(int, getpeername, "getpeername", -1, noexcept,
       (int socket, struct sockaddr* address, socklen_t* size), (socket, address, size))
FAULTY(int, getsockname, "getsockname", -1, noexcept,
       (int socket, struct sockaddr* address, socklen_t* size), (socket, address, size))

int ioctl(int file, unsigned long request, ...) noexcept {
  static auto* const next =
      reinterpret_cast<int (*)(int, unsigned long, ...)>(dlsym(RTLD_NEXT, "ioctl"));
  va_list more;
  va_start(more, request);
  void* const argument = va_arg(more, void*);
  va_end(more);
  return fails("ioctl") ? -1 : next(file, request, argument);
}

FAULTY(int, epoll_create1, "epoll_create1", -1, noexcept, (int flags), (flags))
FAULTY(int, epoll_create, "epoll_create1", -1, noexcept, (int size), (size))
FAULTY(int, epoll_ctl, "epoll_ctl", -1, noexcept,
       (int epoll, int operation, int file, struct epoll_event* event),
       (epoll, operation, file, event))
FAULTY(int, epoll_wait, "epoll_wait", -1, NO_QUALIFIER,
       (int epoll, struct epoll_event* events, int count, int milliseconds),
       (epoll, events, count, milliseconds))
FAULTY(int, poll, "poll", -1, NO_QUALIFIER, (struct pollfd * files, nfds_t count, int milliseconds),
       (files, count, milliseconds))
FAULTY(int, eventfd, "eventfd", -1, noexcept, (unsigned value, int flags), (value, flags))
FAULTY(int, timerfd_create, "timerfd_create", -1, noexcept, (clockid_t clock, int flags),
       (clock, flags))

// Clocks and pauses.

FAULTY(int, clock_gettime, "clock_gettime", -1, noexcept, (clockid_t clock, struct timespec* now),
       (clock, now))

FAULTY(struct tm*, gmtime, "gmtime", nullptr, noexcept, (const time_t* moment), (moment))

time_t time(time_t* result) noexcept {
  struct timespec now = {};
  syscall(SYS_clock_gettime, CLOCK_REALTIME, &now);
  const long look = ++looks_at_clock;
  if (hour_changes_at != 0 && look >= hour_changes_at) now.tv_sec += 3600;
  if (look == hour_changes_at) archiver = pthread_self();
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}

unsigned sleep(unsigned seconds) {
  static auto* const next = reinterpret_cast<int (*)(useconds_t)>(dlsym(RTLD_NEXT, "usleep"));
  next(static_cast<useconds_t>(std::size_t{1000000} * seconds / haste));
  return 0;
}

int usleep(useconds_t microseconds) {
  end_archiving();
  static auto* const next = reinterpret_cast<int (*)(useconds_t)>(dlsym(RTLD_NEXT, "usleep"));
  return next(microseconds / haste);
}

int timerfd_settime(int timer, int flags, const struct itimerspec* value,
                    struct itimerspec* before) noexcept {
  static auto* const next =
      reinterpret_cast<decltype(&timerfd_settime)>(dlsym(RTLD_NEXT, "timerfd_settime"));
  const auto shorter = [](const struct timespec& time) {
    const long nanoseconds = (time.tv_sec * 1'000'000'000L + time.tv_nsec) / haste;
    return timespec{nanoseconds / 1'000'000'000L, nanoseconds % 1'000'000'000L};
  };
  if (fails("timerfd_settime")) return -1;
  const struct itimerspec hasty = {shorter(value->it_interval), shorter(value->it_value)};
  return next(timer, flags, &hasty, before);
}

// Memory.

void* malloc(std::size_t size) noexcept {
  return fails("malloc") ? nullptr : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  return fails("malloc") ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) noexcept {
  return fails("malloc") ? nullptr : __libc_realloc(memory, size);
}

}  // extern "C"
