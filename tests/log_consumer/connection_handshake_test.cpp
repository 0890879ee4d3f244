// The hand-shake between the upload thread and the serving threads, under stress: threads that
// start late, polls that take long, reconnects that come too early. The event loop library is a
// double with real threads that notices every misuse of a server: two threads in it at once, any
// use of it after its destruction, a write to a dead connection.
#include <atomic>
#include <ctime>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "log_consumer/qv_log_consumer_mg.h"
#include "tests/support/fake_time.h"
#include "tests/support/journal.h"

using test_support::eventually;

namespace {

void pause(unsigned microseconds) {
  const struct timespec amount = {0, static_cast<long>(1000 * microseconds)};
  clock_nanosleep(CLOCK_MONOTONIC, 0, &amount, nullptr);  // nanosleep() is replaced here
}

// Mostly short, sometimes long.
void pauseAtRandom() {
  thread_local std::minstd_rand random(std::random_device{}());
  const unsigned draw = static_cast<unsigned>(random());
  pause(draw % 16 == 0 ? draw % 20'000 : draw % 500);
}

struct FakeConnection {
  mg_connection connection = {};
  bool replyIsDue = false;
};

}  // namespace

// Never deleted before the end of the program, so that misuse is seen and not merely undefined.
struct mg_server {
  std::atomic<int> users{0};
  std::atomic<bool> served{false};
  std::atomic<bool> destroyed{false};
  mg_handler_t handler = nullptr;
  std::mutex mutex;  // guards what follows
  std::vector<std::unique_ptr<FakeConnection>> connections;
};

namespace {

struct World {
  std::mutex mutex;  // guards `servers`
  std::vector<std::unique_ptr<mg_server>> servers;
  std::atomic<int> threads{0};
  std::atomic<int> misuses{0};

  // A server whose thread has not even started when the next reconnect comes stays behind unserved.
  std::size_t livingServed() {
    const std::lock_guard<std::mutex> lock(mutex);
    std::size_t count = 0;
    for (const auto& server : servers) {
      if (server->served && !server->destroyed) ++count;
    }
    return count;
  }

  bool isLiving(const mg_connection* connection) {
    const std::lock_guard<std::mutex> lock(mutex);
    for (const auto& server : servers) {
      if (server->destroyed) continue;
      const std::lock_guard<std::mutex> connectionsLock(server->mutex);
      for (const auto& held : server->connections) {
        if (&held->connection == connection) return true;
      }
    }
    return false;
  }
};
World& world() {
  static World& instance = *new World;
  return instance;
}

// The exclusive use that polling and destroying need.
class Use {
 public:
  explicit Use(mg_server& server) : server_(server) {
    if (server_.users.fetch_add(1) != 0 || server_.destroyed) ++world().misuses;
    server_.served = true;
  }
  ~Use() {
    if (server_.users.fetch_sub(1) != 1) ++world().misuses;
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

 private:
  mg_server& server_;
};

std::vector<FakeConnection*> connectionsOf(mg_server& server) {
  const std::lock_guard<std::mutex> lock(server.mutex);
  std::vector<FakeConnection*> all;
  for (const auto& held : server.connections) {
    if (held->connection.connection_param != nullptr) all.push_back(held.get());
  }
  return all;
}

}  // namespace

extern "C" {

// The C++ library's pauses: the wait for a thread that does not stop looks every tenth of a second.
int nanosleep(const struct timespec* /*time*/, struct timespec* /*left*/) {
  pause(500);
  return 0;
}

mg_server* mg_create_server(void* /*server_param*/, mg_handler_t handler) {
  auto server = std::make_unique<mg_server>();
  server->handler = handler;
  const std::lock_guard<std::mutex> lock(world().mutex);
  return world().servers.emplace_back(std::move(server)).get();
}

mg_connection* mg_connect(mg_server* server, const char* /*host*/, int /*port*/, int /*use_ssl*/) {
  if (server->destroyed) ++world().misuses;
  const std::lock_guard<std::mutex> lock(server->mutex);
  return &server->connections.emplace_back(std::make_unique<FakeConnection>())->connection;
}

int mg_poll_server(mg_server* server, int /*milliseconds*/) {
  const Use use(*server);
  for (FakeConnection* held : connectionsOf(*server)) {
    server->handler(&held->connection, MG_POLL);
    if (!std::exchange(held->replyIsDue, false)) continue;
    held->connection.uri = "200";
    server->handler(&held->connection, MG_REPLY);
  }
  pauseAtRandom();
  return static_cast<int>(connectionsOf(*server).size());
}

void mg_destroy_server(mg_server** server) {
  const Use use(**server);
  for (FakeConnection* held : connectionsOf(**server)) {
    (*server)->handler(&held->connection, MG_CLOSE);
  }
  pauseAtRandom();
  (*server)->destroyed = true;
  *server = nullptr;
}

int mg_write(mg_connection* connection, const void* /*bytes*/, int length) {
  if (!world().isLiving(connection)) {
    ++world().misuses;
    return 0;
  }
  // The connection is the first member.
  reinterpret_cast<FakeConnection*>(connection)->replyIsDue = true;
  return length;
}

void* mg_start_thread(void* (*function)(void*), void* param) {
  ++world().threads;
  std::thread([function, param] {
    pauseAtRandom();
    function(param);
    --world().threads;
  }).detach();
  return param;
}

}  // extern "C"

namespace {

class HandShake : public testing::Test {
 protected:
  void SetUp() override {
    storeSharedDefaults();
    connection = kept();
    // A send looks again when it was answered or its connection closed; all others oversleep now
    // and then, or wake too early.
    time_double.on_sleep([this, uploadThread = std::this_thread::get_id()](std::int64_t time) {
      if (std::this_thread::get_id() == uploadThread && sending && time == 1'000'000) {
        EXPECT_TRUE(eventually([this] { return isAnswered(); }));
      } else {
        pauseAtRandom();
      }
    });
  }

  void TearDown() override {
    EXPECT_TRUE(eventually([] { return world().threads == 0; }));
    EXPECT_EQ(world().misuses, 0);
    EXPECT_EQ(world().livingServed(), 0U);
  }

  // As in the service, no object is ever destroyed.
  static std::shared_ptr<LogConsumerMongooseClass> kept() {
    static auto& all = *new std::vector<std::shared_ptr<LogConsumerMongooseClass>>;
    return all.emplace_back(std::make_shared<LogConsumerMongooseClass>());
  }

  bool isAnswered() const {
    const std::lock_guard<std::mutex> lock(connection->stateMutex);
    return connection->state == kGoodResp || connection->state == kBadResp;
  }

  bool send() {
    sending = true;
    const bool result = connection->send_file({'x'}, 1);
    sending = false;
    return result;
  }

  std::shared_ptr<LogConsumerMongooseClass> connection;
  std::atomic<bool> sending{false};
  test_support::FakeTime time_double;
};

TEST_F(HandShake, EveryReconnectIsServedByOneThread) {
  init_lc_mg_client(connection);
  exec_lc_mg_client(connection);
  for (int i = 0; i < 300; ++i) {
    test_support::clear_journal();
    connection->connect_proxy_client("host", 80);
    ASSERT_LE(world().livingServed(), 1U);
    if (i % 3 == 0) continue;
    ASSERT_TRUE(send()) << "after reconnect " << i;
  }
  terminate_lc_mg_client(connection);
}

TEST_F(HandShake, ReconnectsInARowLeaveLateThreadsHarmless) {
  init_lc_mg_client(connection);
  exec_lc_mg_client(connection);
  for (int i = 0; i < 300; ++i)
    connection->connect_proxy_client("host", 80);
  EXPECT_TRUE(send());
  terminate_lc_mg_client(connection);
}

TEST_F(HandShake, TerminateWorksAtAnyMoment) {
  for (int i = 0; i < 200; ++i) {
    connection = kept();
    init_lc_mg_client(connection);
    exec_lc_mg_client(connection);
    if (i % 2 == 0) pauseAtRandom();
    if (i % 3 == 0) connection->connect_proxy_client("host", 80);
    terminate_lc_mg_client(connection);
    ASSERT_TRUE(eventually([] { return world().threads == 0; }));
    ASSERT_EQ(world().livingServed(), 0U);
    ASSERT_FALSE(connection->info.exit_flag);
  }
}

TEST_F(HandShake, ReconnectAfterTerminateServesAgain) {
  init_lc_mg_client(connection);
  exec_lc_mg_client(connection);
  for (int i = 0; i < 100; ++i) {
    connection->connect_proxy_client("host", 80);
    terminate_lc_mg_client(connection);
  }
  connection->connect_proxy_client("host", 80);
  EXPECT_TRUE(send());
  terminate_lc_mg_client(connection);
}

TEST_F(HandShake, ThreadsStartedTwiceShareNothing) {
  init_lc_mg_client(connection);
  for (int i = 0; i < 20; ++i)
    exec_lc_mg_client(connection);
  connection->connect_proxy_client("host", 80);
  EXPECT_TRUE(send());
  EXPECT_TRUE(eventually([] { return world().threads == 1; }));
  terminate_lc_mg_client(connection);
}

}  // namespace
