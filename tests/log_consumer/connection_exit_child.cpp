// A process that ends while both connections' serving threads are at work:
//
//   connection_exit_child PORT WHEN HOW
//
// WHEN: started (no connect yet), connecting, connected, stopping (asked to stop, still polling)
// HOW:  main (return), thread (exit() on another thread), signal (exit() in a signal handler on a
//       serving thread, which has to be quiet: a handler that calls exit() may meet any lock)
// Status 0 when it ended as asked, 1 for anything else.
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "log_consumer/qv_log_consumer_mg.h"
#include "tests/log_consumer/live_connection.h"

namespace {

using Object = std::shared_ptr<LogConsumerMongooseClass>;

bool connected() {
  const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
  return logConsumerShared.dataUploadConnectDone && logConsumerShared.relayServerConnectDone;
}

Object start(servers type) {
  auto object = std::make_shared<LogConsumerMongooseClass>();
  object->info.serverType = type;
  init_lc_mg_client(object);
  exec_lc_mg_client(object);
  return object;
}

bool reach(const std::string& when, std::array<Object, 2>& objects, int port) {
  if (when == "started") return true;
  for (const Object& object : objects)
    object->connect_proxy_client("127.0.0.1", port);
  if (when == "connecting") return true;
  if (!test_support::eventually(connected)) return false;
  // As terminate_lc_mg_client() does, without its pause.
  if (when == "stopping") {
    for (const Object& object : objects)
      object->info.exit_flag = true;
  }
  return true;
}

int end(const std::string& how) {
  if (how == "main") return 0;
  if (how == "thread") {
    std::thread([] { std::exit(0); }).detach();
  } else if (how == "signal") {
    // By now the serving threads wait in their polls.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    kill(getpid(), SIGTERM);
  } else {
    return 1;
  }
  pause();
  return 1;
}

void blockTermination(int how) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(how, &signals, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 1;
  // Never destroyed: threads sleep until the very end. A second becomes 10 ms.
  static auto& time_double = *new test_support::FakeTime;
  test_support::shorten_sleeps(time_double, 10);
  // NOLINTNEXTLINE(bugprone-signal-handler,cert-msc54-cpp,cert-sig30-c): as the service's own does
  if (std::signal(SIGTERM, [](int /*signal*/) { std::exit(0); }) == SIG_ERR) return 1;
  std::array<Object, 2> objects = {start(kDataUploadSrv), start(kRelaySrv)};
  blockTermination(SIG_BLOCK);  // the serving threads, started before, take it
  if (!reach(argv[2], objects, std::stoi(argv[1]))) return 1;
  return end(argv[3]);
}
