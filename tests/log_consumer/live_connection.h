// A registered connection to a real peer over the real event loop, with pauses made short: each
// second that the code under test sleeps takes `realMilliseconds`. Polls keep their own time, up to
// two real seconds each.
#ifndef TESTS_LOG_CONSUMER_LIVE_CONNECTION_H
#define TESTS_LOG_CONSUMER_LIVE_CONNECTION_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "log_consumer/qv_log_consumer_mg.h"
#include "tests/support/fake_time.h"
#include "tests/support/journal.h"

namespace test_support {

/// Makes every fake sleep take some real time.
inline void shorten_sleeps(FakeTime& time_double, int realMilliseconds) {
  time_double.on_sleep([realMilliseconds](std::int64_t microseconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds / 1000 * realMilliseconds));
  });
}

/// One object with its serving thread; stops the thread in the end. As in the service, the object
/// itself is never destroyed.
class LiveConnection {
 public:
  explicit LiveConnection(servers type) : object_(kept()) {
    object_->info.serverType = type;
    init_lc_mg_client(object_);
    exec_lc_mg_client(object_);
  }

  ~LiveConnection() {
    terminate_lc_mg_client(object_);
    if (!eventually([this] { return !object_->info.exit_flag && !object_->info.served; })) {
      note("the serving thread did not stop");
    }
  }
  LiveConnection(const LiveConnection&) = delete;
  LiveConnection& operator=(const LiveConnection&) = delete;

  LogConsumerMongooseClass* operator->() const { return object_.get(); }
  const std::shared_ptr<LogConsumerMongooseClass>& share() const { return object_; }

  bool connected() const {
    return shared_get(object_->info.serverType == kRelaySrv
                          ? &logConsumerSharedStruct::relayServerConnectDone
                          : &logConsumerSharedStruct::dataUploadConnectDone);
  }

  /// Connects to a port of this machine and waits until the connection stands.
  bool connect(int port) {
    object_->connect_proxy_client("127.0.0.1", port);
    return eventually([this] { return connected(); });
  }

  bool send(const std::string& text) {
    return object_->send_file({text.begin(), text.end()}, static_cast<int>(text.size()));
  }

 private:
  static std::shared_ptr<LogConsumerMongooseClass> kept() {
    static auto& all = *new std::vector<std::shared_ptr<LogConsumerMongooseClass>>;
    return all.emplace_back(std::make_shared<LogConsumerMongooseClass>());
  }

  std::shared_ptr<LogConsumerMongooseClass> object_;
};

}  // namespace test_support

#endif
