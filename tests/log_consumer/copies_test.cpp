// How often a log file lies in memory on its way from the disk to the socket: the engine, the real
// connection and the real event loop, and an operator new that knows a request by its size.
#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <string>

#include "gtest/gtest.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"
#include "tests/log_consumer/live_connection.h"
#include "tests/support/files.h"
#include "tests/support/scripted_server.h"

namespace {

// No size that a buffer which doubles itself would come by: the server's are not counted.
constexpr std::size_t kFileBytes = 5'000'011;
constexpr std::size_t kMore = 16384;  // what a request adds to its file, and malloc() to both
constexpr char kPath[] = "/tmp/copies.gz";

struct Buffers {
  std::atomic<int> made{0};
  std::atomic<int> held{0};
  std::atomic<int> most{0};  // held at once
};
Buffers buffers;

bool holds_a_file(void* memory) {
  const std::size_t size = malloc_usable_size(memory);
  return size >= kFileBytes && size < kFileBytes + kMore;
}

void note_made() {
  ++buffers.made;
  const int held = ++buffers.held;
  int before = buffers.most;
  while (held > before && !buffers.most.compare_exchange_weak(before, held)) {
  }
}

}  // namespace

void* operator new(std::size_t size) {
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  if (holds_a_file(memory)) note_made();
  return memory;
}

void operator delete(void* memory) noexcept {
  if (memory != nullptr && holds_a_file(memory)) --buffers.held;
  std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
  operator delete(memory);
}

namespace {

using test_support::expect_text;
using test_support::LiveConnection;
using test_support::ScriptedServer;
using test_support::send_bytes;

constexpr char kOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
constexpr char kRefused[] = "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\n\r\n";
constexpr char kEnd[] = "--acebdf13572468--\r\n";

class Copies : public testing::Test {
 protected:
  void SetUp() override {
    storeSharedDefaults();
    test_support::clear_journal();
    test_support::shorten_sleeps(time_double, 100);
    test_support::write_file(kPath, std::string(kFileBytes, 'x'));
  }

  // Sends the file. Counted from now on.
  static bool send(const LiveConnection& connection) {
    LogConsumer engine;
    engine.dataUploadProxy = connection.share();
    buffers.made = 0;
    buffers.most = buffers.held.load();
    return engine.sendFile(kPath, "Debug", kDataUploadSrv, "copies.gz") == 0;
  }

  test_support::FakeTime time_double{1'770'109'500};
};

// Read into the request and copied for the connection. The event loop sends straight out of the
// connection's copy and makes one of its own only of what the socket does not take at once.
TEST_F(Copies, AFileIsHeldTwiceAndWhatTheSocketDoesNotTakeAThirdTime) {
  const ScriptedServer server(
      {{expect_text(kEnd), send_bytes(kOk), expect_text(kEnd), send_bytes(kOk)}});
  LiveConnection connection(kDataUploadSrv);
  ASSERT_TRUE(connection.connect(server.port()));
  for (const char* const which : {"first", "second"}) {
    EXPECT_TRUE(send(connection)) << which;
    EXPECT_EQ(buffers.made, 2) << which;
    EXPECT_EQ(buffers.most, 2) << which;
    EXPECT_EQ(buffers.held, 0) << which << ": nothing while the service waits for the next";
  }
}

TEST_F(Copies, ASecondAttemptNeedsNoMoreMemory) {
  const ScriptedServer server(
      {{expect_text(kEnd), send_bytes(kRefused), expect_text(kEnd), send_bytes(kOk)}});
  LiveConnection connection(kDataUploadSrv);
  ASSERT_TRUE(connection.connect(server.port()));
  shared_set(&logConsumerSharedStruct::dataUploadConnectDone, true);
  EXPECT_TRUE(send(connection));
  EXPECT_EQ(buffers.made, 2) << "what the first attempt left is given away";
  EXPECT_EQ(buffers.most, 2);
  EXPECT_EQ(buffers.held, 0);
}

TEST_F(Copies, ASmallRequestStaysInTheConnectionUntilTheNext) {
  const std::string log = "a small log";
  test_support::write_file(kPath, log);
  const ScriptedServer server({{expect_text(kEnd), send_bytes(kOk)}});
  LiveConnection connection(kDataUploadSrv);
  ASSERT_TRUE(connection.connect(server.port()));
  EXPECT_TRUE(send(connection));
  const std::string request(connection->fileData.begin(), connection->fileData.end());
  EXPECT_NE(request.find(log), std::string::npos);
  EXPECT_EQ(connection->fileLength, static_cast<int>(request.size()));
}

}  // namespace
