// Dies in the way that its argument names, with the crash handler installed as the service does.
#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>

#include "os/linux/backtrace/qv_backtrace.h"

namespace crash {

struct Record {};

// Not null itself: a sanitizer would stop the program at the sight of it.
std::uintptr_t nearly_null = 16;
volatile int sink = 0;
volatile bool keep_going = true;

[[gnu::noinline]] int readNull(const Record& /*record*/, int add) {
  const volatile int* target = nullptr;
  std::memcpy(&target, &nearly_null, sizeof target);
  sink = *target + add;
  return sink;
}

[[gnu::noinline]] int descend(int levels) {
  const int result = levels == 0 ? readNull(Record{}, 1) : descend(levels - 1);
  sink = result;  // not the last thing that this level does, so that it keeps a frame
  return result + 1;
}

[[gnu::noinline]] int overflow(int level) {
  volatile char frame[4096];
  frame[0] = static_cast<char>(level);
  const int result = keep_going ? overflow(level + 1) : 0;
  return result + frame[0];
}

[[gnu::noinline]] void illegal() {
  __builtin_trap();
}

}  // namespace crash

namespace {

[[gnu::noinline]] int nobodyKnowsMe() {
  const int result = crash::readNull(crash::Record{}, 2);
  crash::sink = result;
  return result;
}

constexpr int kNone[] = {-1};
constexpr int kUser1[] = {SIGUSR1, -1};
constexpr int kUser2[] = {SIGUSR2, -1};

void install(const int* trace, const int* call, void (*function)(int)) {
  qv_bt_install("crash_child", trace, call, function);
}

void installAsTheServiceDoes() {
  constexpr int kTrace[] = {SIGSEGV, -1};
  constexpr int kCall[] = {SIGSEGV, SIGTERM, SIGABRT, SIGILL, -1};
  install(kTrace, kCall, qv_bt_default_callback);
}

void deliver(int signal) {
  if (raise(signal) != 0) std::abort();
}

void report(int signal) {
  syslog(LOG_ERR, "callback %d", signal);
}

const std::map<std::string, void (*)()> kWays = {
    {"null", [] { crash::readNull(crash::Record{}, 0); }},
    {"abort", [] { std::abort(); }},
    {"illegal", crash::illegal},
    {"wait",
     [] {
       for (;;)
         pause();
     }},
    {"overflow", [] { crash::overflow(0); }},
    {"thread", [] { std::thread([] { crash::readNull(crash::Record{}, 0); }).join(); }},
    {"deep", [] { crash::descend(100); }},
    {"unnamed", [] { nobodyKnowsMe(); }},
    {"trace only",
     [] {
       install(kUser1, kNone, report);
       deliver(SIGUSR1);
     }},
    {"forgotten",
     [] {
       install(kUser1, kUser1, report);
       install(kUser2, nullptr, report);
       deliver(SIGUSR1);
     }},
    {"call only",
     [] {
       install(kNone, kUser1, report);
       deliver(SIGUSR1);
     }},
    {"ignored",
     [] {
       install(kNone, kUser1, nullptr);
       deliver(SIGUSR1);
     }},
    {"trace and call",
     [] {
       install(kUser1, kUser1, report);
       deliver(SIGUSR1);
     }},
    {"trace and no function",
     [] {
       install(kUser1, kUser1, nullptr);
       deliver(SIGUSR1);
     }},
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  openlog("crash_child", LOG_NDELAY, LOG_USER);
  installAsTheServiceDoes();
  if (std::atexit([] { syslog(LOG_NOTICE, "exit() ran"); }) != 0) return 2;
  kWays.at(argv[1])();
  constexpr int kStillAlive = 42;
  return kStillAlive;
}
