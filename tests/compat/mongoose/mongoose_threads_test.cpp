// One thread connects, again and again, while another one polls. Run it under ThreadSanitizer.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <thread>

#include "compat/mongoose/mongoose.h"
#include "gtest/gtest.h"
#include "tests/support/scripted_server.h"

namespace {

constexpr int kConnections = 10'000;
constexpr int kMostAtOnce = 50;
constexpr std::chrono::milliseconds kStall(500);

// Accepts, and slams the door at once; one thread for all connections.
class SlammingServer {
 public:
  SlammingServer() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr any = {};
    socklen_t size = sizeof any;
    std::memcpy(&any, &address, sizeof any);
    EXPECT_EQ(bind(listener_, &any, size), 0);
    EXPECT_EQ(listen(listener_, 1000), 0);
    EXPECT_EQ(getsockname(listener_, &any, &size), 0);
    std::memcpy(&address, &any, sizeof any);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~SlammingServer() {
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    close(listener_);
  }
  SlammingServer(const SlammingServer&) = delete;
  SlammingServer& operator=(const SlammingServer&) = delete;
  int port() const { return port_; }

 private:
  void serve() const {
    for (;;) {
      const int connection = accept(listener_, nullptr, nullptr);
      if (connection < 0) return;
      const linger at_once = {1, 0};
      setsockopt(connection, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
      close(connection);
    }
  }

  int listener_;
  int port_ = 0;
  std::thread thread_;
};

// What one connection saw; its connection_param. Touched by the polling thread only.
struct Record {
  int connects = 0;
  int closes = 0;
  bool in_order = true;
};

struct Serving {
  mg_server* server = nullptr;
  std::atomic<bool> stop{false};
  std::atomic<bool> stopped{false};
  std::atomic<int> open{0};
  std::atomic<int> events_without_param{0};
};

int handle(mg_connection* connection, mg_event event) {
  auto& serving = *static_cast<Serving*>(connection->server_param);
  auto* const record = static_cast<Record*>(connection->connection_param);
  if (record == nullptr) {
    ++serving.events_without_param;
    return 0;
  }
  if (record->closes > 0) record->in_order = false;
  if (event == MG_CONNECT && ++record->connects > 1) record->in_order = false;
  if (event == MG_POLL) mg_write(connection, "bytes", 5);
  if (event == MG_CLOSE) {
    ++record->closes;
    --serving.open;
  }
  return event == MG_POLL ? MG_FALSE : MG_TRUE;
}

void* serve(void* param) {
  auto& serving = *static_cast<Serving*>(param);
  while (!serving.stop) {
    if (mg_poll_server(serving.server, 2000) == 0) std::this_thread::yield();
  }
  mg_destroy_server(&serving.server);
  serving.stopped = true;
  return nullptr;
}

TEST(Threads, OneConnectsTenThousandTimesWhileAnotherPolls) {
  const SlammingServer accepting;
  const test_support::RefusingPort refusing;
  std::deque<Record> records(kConnections);
  bool stalled = false;
  Serving serving;
  serving.server = mg_create_server(&serving, handle);
  ASSERT_NE(mg_start_thread(serve, &serving), nullptr);
  for (int i = 0; i < kConnections; ++i) {
    while (serving.open >= kMostAtOnce)
      std::this_thread::yield();
    const int port = i % 3 == 0 ? refusing.port() : accepting.port();
    ++serving.open;
    mg_connection* const connection = mg_connect(serving.server, "127.0.0.1", port, 0);
    const auto made = std::chrono::steady_clock::now();
    ASSERT_NE(connection, nullptr);
    if (i % 7 == 0) std::this_thread::yield();
    connection->connection_param = &records[static_cast<std::size_t>(i)];
    stalled = stalled || std::chrono::steady_clock::now() - made > kStall;
  }
  while (serving.open > 0)
    std::this_thread::yield();
  serving.stop = true;
  while (!serving.stopped)
    std::this_thread::yield();

  if (stalled) GTEST_SKIP() << "this thread stood still for longer than connections are held back";
  EXPECT_EQ(serving.events_without_param, 0);
  int connects = 0;
  for (const Record& record : records) {
    connects += record.connects;
    ASSERT_EQ(record.closes, 1);
    ASSERT_TRUE(record.in_order);
  }
  EXPECT_GT(connects, 0);
}

// The thread that connects stalls until the grace time is over and the connection has come and
// gone.
TEST(Threads, ATagThatComesTooLateStillFindsItsConnection) {
  SlammingServer peer;
  mg_server* server = mg_create_server(nullptr, [](mg_connection*, mg_event) -> int { return 1; });
  mg_connection* const connection = mg_connect(server, "127.0.0.1", peer.port(), 0);
  ASSERT_NE(connection, nullptr);
  std::thread polling([&] {
    while (mg_poll_server(server, 100) != 0) {
    }
  });
  polling.join();
  char tag[] = "late";
  connection->connection_param = tag;
  EXPECT_EQ(connection->connection_param, tag);
  mg_destroy_server(&server);
}

}  // namespace
