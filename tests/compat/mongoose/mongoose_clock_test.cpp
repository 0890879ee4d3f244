// The interface reads no clock: one that stands still or jumps makes no difference.
#include <thread>

#include "compat/mongoose/mongoose.h"
#include "gtest/gtest.h"
#include "tests/compat/mongoose/client.h"
#include "tests/support/fake_time.h"
#include "tests/support/journal.h"
#include "tests/support/scripted_server.h"

namespace {

using namespace test_support;
using mongoose_test::Client;
using mongoose_test::Events;

TEST(Clock, ThatStandsStillLeavesPollsTheirEnd) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  const FakeTime standing_still;
  client.connect("127.0.0.1", server.port());
  client.poll(60'000);
  EXPECT_EQ(client.events, Events{"CONNECT"});
  EXPECT_EQ(client.poll(20), 1);
  EXPECT_EQ(client.poll(20), 1);
}

TEST(Clock, ThatStandsStillLeavesTheGraceTimeItsEnd) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  const FakeTime standing_still;
  std::thread([&] { mg_connect(client.server(), "127.0.0.1", server.port(), 0); }).join();
  while (client.events.empty())
    client.poll(60'000);
  EXPECT_EQ(client.events, Events{"untagged CONNECT"});
}

TEST(Clock, ThatJumpsEndsNoPoll) {
  ScriptedServer server(
      {{expect_text("!"), send_bytes("HTTP/1.1 200 OK\r\n\r\n"), close_connection()}});
  Client client;
  FakeTime jumping;
  mg_connection* const connection = client.connect("127.0.0.1", server.port());
  client.poll(60'000);
  std::thread other([&] {
    for (int i = 0; i < 50; ++i) {
      jumping.advance(i % 2 == 0 ? 86'400 : -86'400);
      wait_a_little();
    }
    mg_write(connection, "!", 1);
  });
  client.poll(60'000);
  other.join();
  EXPECT_EQ(client.events.size(), 3u) << "that poll lasted until the reply and the close";
}

}  // namespace
