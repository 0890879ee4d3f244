#include "log_consumer/qv_log_consumer_main.h"

#include <execinfo.h>
#include <malloc.h>
#include <syslog.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <thread>

#include "log_consumer/qv_log_consumer_mg.h"
#include "os/linux/backtrace/qv_backtrace.h"

namespace {

using Shared = logConsumerSharedStruct;

int decimal(const char* value) {
  return static_cast<int>(std::strtol(value, nullptr, 10));
}

void setFlag(bool Shared::*flag, const char* message) {
  shared_set(flag, true);
  syslog(LOG_INFO, "%s", message);
}

void readOption(char letter, const char* value, LogConsumerOptions& options) {
  switch (letter) {
    case 'd':
      options.sleepSeconds = decimal(value);
      break;
    case 's':
      options.server = value;
      break;
    case 'p':
      options.port = decimal(value);
      break;
    case 'r':
      if (decimal(value) == 0) {
        setFlag(&Shared::alwaysBypassRandomDelay, "Bypassing all random delays");
      }
      break;
    case 'f':
      if (decimal(value) == 0) {
        setFlag(&Shared::skipPerFileDelay, "Bypassing delay between files");
      }
      break;
    case 'l':
      if (decimal(value) == 1) setFlag(&Shared::loggingEnabled, "Enabling logging");
      break;
    default:
      break;
  }
}

// Streaming a null text would be undefined, so its effect is spelled out.
void echo(const char* argument) {
  if (argument == nullptr) {
    std::cout.setstate(std::ios::badbit);
  } else {
    std::cout << argument;
  }
  std::cout << std::endl;
}

// Large buffers, a log file's, come from the system and go back to it when they are freed. That is
// the C library's default too, but only until the first one is freed: from then on it keeps
// buffers of that size in the heap of each thread that had one.
void giveLargeMemoryBack() {
#ifdef M_MMAP_THRESHOLD
  mallopt(M_MMAP_THRESHOLD, static_cast<int>(kLargeBuffer));
#endif
}

// The first trace that a process takes loads the unwinder: not something to do in a handler.
void loadUnwinder() {
  constexpr int kFrames = 64;
  void* frames[kFrames];
  backtrace(frames, kFrames);
}

void installCrashHandler(const char* program) {
  constexpr int kStackTrace[] = {SIGSEGV, -1};
  constexpr int kCallBack[] = {SIGSEGV, SIGTERM, SIGABRT, SIGILL, -1};
  loadUnwinder();
  qv_bt_install(program, kStackTrace, kCallBack, qv_bt_default_callback);
}

}  // namespace

LogConsumerOptions readOptions(int argc, const char* const* argv) {
  LogConsumerOptions options;
  for (int index = 1; index < argc; ++index) {
    const char* argument = argv[index];
    echo(argument);
    if (argument == nullptr || argument[0] == '\0' || argument[1] == '\0') continue;
    readOption(argument[1], argument + 2, options);
  }
  return options;
}

int log_consumer_main(int argc, const char* const* argv) {
  giveLargeMemoryBack();
  LogConsumer engine;
  storeSharedDefaults();
  installCrashHandler(argv[0]);
  openlog("LogConsumer", LOG_ODELAY, LOG_USER);
  syslog(LOG_DEBUG, "Build@ %s %s", __DATE__, __TIME__);
  const LogConsumerOptions options = readOptions(argc, argv);
  std::vector<logConsumerType> table = buildLogTypeTable();

  std::thread configuration(LogConsumerPushpullThreadExecute);
  engine.init(table, options.sleepSeconds, options.server, options.port);
  engine.execute();
  configuration.join();
  return 0;
}
