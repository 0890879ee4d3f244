// What the interface does when memory runs out, at every single allocation in turn.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "compat/mongoose/mongoose.h"
#include "gtest/gtest.h"
#include "tests/compat/mongoose/client.h"
#include "tests/support/scarce_memory.h"
#include "tests/support/scripted_server.h"
#include "tests/support/test_certificates.h"

namespace {

using mongoose_test::Client;
using mongoose_test::Events;
using test_support::allocations_needed;

int ignore(mg_connection* /*connection*/, mg_event /*event*/) {
  return 0;
}

TEST(MongooseOutOfMemory, GivesNoServer) {
  EXPECT_GE(allocations_needed([] {
              mg_server* server = mg_create_server(nullptr, ignore);
              const bool made = server != nullptr;
              mg_destroy_server(&server);
              return made;
            }),
            3);
}

TEST(MongooseOutOfMemory, GivesNoConnection) {
  const test_support::RefusingPort port;
  Client client;
  mg_connection* connection = nullptr;
  EXPECT_GE(allocations_needed([&] {
              connection = mg_connect(client.server(), "127.0.0.1", port.port(), 0);
              return connection != nullptr;
            }),
            3);
  ASSERT_TRUE(client.poll_until([&] { return client.poll(0) == 0; }));
  EXPECT_EQ(client.events, Events{"untagged CLOSE"}) << "of the one that was made, and no other";
}

TEST(MongooseOutOfMemory, QueuesNothing) {
  test_support::ScriptedServer server({{test_support::read_to_end()}});
  Client client;
  mg_connection* const connection = client.connect("127.0.0.1", server.port());
  const std::string bytes(1'000'000, 'x');
  {
    const test_support::NoLargeMemory no_large_memory(bytes.size());
    EXPECT_EQ(mg_write(connection, bytes.data(), static_cast<int>(bytes.size())), 0);
  }
  EXPECT_EQ(mg_write(connection, "behind", 6), 6);
  ASSERT_TRUE(client.poll_until([&] { return server.received().size() >= 6; }));
  EXPECT_EQ(server.received(), "behind");
}

// Some of it has gone out already: nobody can use half a request.
TEST(MongooseOutOfMemory, GivesUpAConnectionWithHalfARequest) {
  std::atomic<bool> over{false};
  test_support::ScriptedServer::Options options;
  options.receive_buffer = 4096;
  test_support::ScriptedServer server({{test_support::run([&] {
                                        while (!over)
                                          std::this_thread::sleep_for(std::chrono::milliseconds(2));
                                      })}},
                                      options);
  Client client;
  client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(1));
  const std::string bytes(64'000'000, 'x');
  int queued = -1;
  client.on_event = [&](mg_connection* connection, mg_event event) {
    if (event != MG_POLL || queued != -1) return 0;
    const test_support::NoLargeMemory no_large_memory(1'000'000);
    queued = mg_write(connection, bytes.data(), static_cast<int>(bytes.size()));
    EXPECT_EQ(mg_write(connection, "behind", 6), 6) << "queued, and lost with the connection";
    return 0;
  };
  EXPECT_TRUE(client.poll_until_events(2));
  over = true;
  EXPECT_EQ(queued, 0);
  EXPECT_EQ(client.events, (Events{"CONNECT", "CLOSE"}));
}

// TLS may have begun to send a record of which nothing counts as sent: what is written next would
// be taken for the rest of it.
TEST(MongooseOutOfMemory, GivesUpATlsConnectionWithHalfARecord) {
  unsetenv("SSL_CERT_FILE");
  unsetenv("SSL_CERT_DIR");
  const test_support::Identity identity = test_support::make_self_signed({"localhost", "", -1, 1});
  std::atomic<bool> over{false};
  test_support::ScriptedServer::Options options;
  options.tls = &identity;
  options.receive_buffer = 4096;
  test_support::ScriptedServer server(
      {{test_support::run([&] {
          while (!over)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }),
        test_support::read_to_end()}},
      options);
  Client client;
  client.connect("127.0.0.1", server.port(), true);
  ASSERT_TRUE(client.poll_until_events(1));
  const std::string first(16'000, 'x');  // less than a record of TLS
  const std::string second(2 * first.size(), 'y');
  int queued = -1;
  client.on_event = [&](mg_connection* connection, mg_event event) {
    if (event != MG_POLL || queued == 0) return 0;
    const test_support::NoLargeMemory no_large_memory(first.size());
    do {
      queued = mg_write(connection, first.data(), static_cast<int>(first.size()));
    } while (queued != 0);
    return 0;
  };
  ASSERT_EQ(client.events, Events{"CONNECT"});
  ASSERT_TRUE(client.poll_until([&] { return queued == 0; }));
  client.on_event = [&](mg_connection* connection, mg_event event) {
    if (event == MG_POLL) mg_write(connection, second.data(), static_cast<int>(second.size()));
    return 0;
  };
  over = true;
  EXPECT_TRUE(client.poll_until([&] {
    return client.events.size() == 2 || server.received().find('y') != std::string::npos;
  }));
  EXPECT_EQ(client.events, (Events{"CONNECT", "CLOSE"}));
  EXPECT_EQ(server.received().find('y'), std::string::npos);
}

void* nothing(void* /*param*/) {
  return nullptr;
}

TEST(MongooseOutOfMemory, StartsNoThread) {
  EXPECT_GE(allocations_needed([] { return mg_start_thread(nothing, nullptr) != nullptr; }), 1);
}

}  // namespace
