// The connection to one server as a state machine: texts, priorities, pauses, flags and results,
// call by call, on one thread. The event loop library and the clock are doubles.
#include "log_consumer/qv_log_consumer_mg.h"

#include <ctime>
#include <ostream>
#include <stdexcept>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/log_consumer/fake_mongoose.h"
#include "tests/support/fake_time.h"
#include "tests/support/journal.h"

namespace {

using Shared = logConsumerSharedStruct;
using test_support::fake_mongoose;
using test_support::FakeTime;
using test_support::Journal;
using test_support::journal;
using testing::Contains;
using testing::IsEmpty;
using testing::SizeIs;

// While set, pauses of the C++ library take no time and are counted.
bool countNaps = false;
int naps = 0;

}  // namespace

extern "C" int nanosleep(const struct timespec* time, struct timespec* left) {
  if (!countNaps) return clock_nanosleep(CLOCK_MONOTONIC, 0, time, left);
  ++naps;
  return 0;
}

namespace {

// One of the two servers, and the texts that differ.
struct ServerCase {
  servers type;
  const char* name;
  const char* tag;
  bool Shared::*connectDone;
  bool Shared::*otherConnectDone;
  const char* registered;
  const char* terminating;
  const char* connectFailed;
  const char* connectSent;
  const char* connected;
  const char* closed;
};

void PrintTo(const ServerCase& server, std::ostream* out) {
  *out << server.name;
}

const ServerCase kDataUploadCase = {kDataUploadSrv,
                                    "DataUpload",
                                    dataUploadConn,
                                    &Shared::dataUploadConnectDone,
                                    &Shared::relayServerConnectDone,
                                    "syslog 7 LogConsumer client - DataUpLoad",
                                    "syslog 7 Terminating LogConsumer client - DataUpLoad",
                                    "syslog 7 Data upload client connection failed",
                                    "syslog 7 Data upload client connection sent",
                                    "syslog 7 Connect event from data upload srv",
                                    "syslog 7 Data upload connection closed"};
const ServerCase kRelayCase = {kRelaySrv,
                               "Relay",
                               relaySrvConn,
                               &Shared::relayServerConnectDone,
                               &Shared::dataUploadConnectDone,
                               "syslog 7 LogConsumer client - RelayServer",
                               "syslog 7 Terminating LogConsumer client - RelayServer",
                               "syslog 7 Relay server client connection failed",
                               "syslog 7 Relay server client connection sent",
                               "syslog 7 Connect event from relay srv",
                               "syslog 7 Relay server connection closed"};

class ConnectionBase : public testing::Test {
 protected:
  void SetUp() override {
    fake_mongoose().createFails = false;
    fake_mongoose().connectFails = false;
    fake_mongoose().poll = nullptr;
    storeSharedDefaults();
    dataUploadServer.reset();
    relayServer.reset();
    connection = std::make_shared<LogConsumerMongooseClass>();
    test_support::clear_journal();
  }

  void TearDown() override {
    if (connection->info.mg_server_ptr != nullptr) {
      mg_destroy_server(&connection->info.mg_server_ptr);
    }
    dataUploadServer.reset();
    relayServer.reset();
    fake_mongoose().connections.clear();
  }

  // Registered and connected, with an empty journal.
  void connect(servers type = kDataUploadSrv) {
    connection->info.serverType = type;
    init_lc_mg_client(connection);
    connection->connect_proxy_client("host", 80);
    test_support::clear_journal();
  }

  mongooseFileSendState state() const { return connection->state; }
  int event(enum mg_event event) const { return proxy_ev_handler(connection->client, event); }
  void reply(const char* code, const char* reason) const {
    connection->client->uri = code;
    connection->client->http_version = reason;
    event(MG_REPLY);
  }

  FakeTime time_double;
  std::shared_ptr<LogConsumerMongooseClass> connection;
};

class Connection : public ConnectionBase {};

class EitherServer : public ConnectionBase, public testing::WithParamInterface<ServerCase> {
 protected:
  void SetUp() override {
    ConnectionBase::SetUp();
    connection->info.serverType = GetParam().type;
  }
};

INSTANTIATE_TEST_SUITE_P(Servers, EitherServer, testing::Values(kDataUploadCase, kRelayCase),
                         [](const auto& server) { return server.param.name; });

// --- init, exec, terminate ---

TEST(ConnectionObject, StartsIdleAndUnconnected) {
  const LogConsumerMongooseClass fresh;
  EXPECT_EQ(fresh.client, nullptr);
  EXPECT_EQ(fresh.state, kNone);
  EXPECT_EQ(fresh.info.mg_server_ptr, nullptr);
  EXPECT_FALSE(fresh.info.alive);
  EXPECT_FALSE(fresh.info.exit_flag);
}

TEST_P(EitherServer, InitCreatesTheEventLoopAndRegistersTheObject) {
  connection->info.exit_flag = true;
  connection->state = kBadResp;
  init_lc_mg_client(connection);
  EXPECT_EQ(journal(), (Journal{"mg_create_server", "syslog 6 Mongoose server started.",
                                GetParam().registered}));
  EXPECT_EQ(fake_mongoose().serverParam, &connection->info);
  EXPECT_EQ(fake_mongoose().handler, &proxy_ev_handler);
  EXPECT_NE(connection->info.mg_server_ptr, nullptr);
  EXPECT_TRUE(connection->info.alive);
  EXPECT_FALSE(connection->info.exit_flag);
  EXPECT_EQ(state(), kNone);
  const bool relay = GetParam().type == kRelaySrv;
  EXPECT_EQ(relay ? relayServer : dataUploadServer, connection);
  EXPECT_EQ(relay ? dataUploadServer : relayServer, nullptr);
}

// Its serving thread may still be in its last poll.
TEST_P(EitherServer, InitOfANextObjectKeepsTheOneBefore) {
  init_lc_mg_client(connection);
  const std::weak_ptr<LogConsumerMongooseClass> before = connection;
  auto next = std::make_shared<LogConsumerMongooseClass>();
  next->info.serverType = GetParam().type;
  init_lc_mg_client(next);
  mg_destroy_server(&connection->info.mg_server_ptr);
  connection = next;
  EXPECT_FALSE(before.expired());
}

TEST_P(EitherServer, InitWithoutAnEventLoopGoesOn) {
  fake_mongoose().createFails = true;
  init_lc_mg_client(connection);
  EXPECT_EQ(journal(), (Journal{"mg_create_server", "syslog 3 Failed to start proxy client.",
                                GetParam().registered}));
  EXPECT_EQ(connection->info.mg_server_ptr, nullptr);
  EXPECT_TRUE(connection->info.alive);
}

TEST_F(Connection, InitOfAnotherTypeRegistersNothing) {
  connection->info.serverType = static_cast<servers>(2);
  init_lc_mg_client(connection);
  EXPECT_EQ(journal(), (Journal{"mg_create_server", "syslog 6 Mongoose server started."}));
  EXPECT_EQ(dataUploadServer, nullptr);
  EXPECT_EQ(relayServer, nullptr);
}

TEST_F(Connection, ExecStartsTheServingThread) {
  exec_lc_mg_client(connection);
  EXPECT_EQ(journal(), Journal{"mg_start_thread"});
  EXPECT_EQ(fake_mongoose().threadFunction, &serving_thread_func);
  EXPECT_EQ(fake_mongoose().threadParam, &connection->info);
}

TEST_P(EitherServer, TerminateAsksTheThreadToStopAndWaitsASecond) {
  init_lc_mg_client(connection);
  test_support::clear_journal();
  terminate_lc_mg_client(connection);
  EXPECT_EQ(journal(), (Journal{GetParam().terminating, "sleep 1"}));
  EXPECT_TRUE(connection->info.exit_flag);
  EXPECT_FALSE(connection->info.alive);
}

TEST_F(Connection, TerminateOfAnotherTypeSaysNothing) {
  connection->info.serverType = static_cast<servers>(2);
  terminate_lc_mg_client(connection);
  EXPECT_EQ(journal(), Journal{"sleep 1"});
}

// --- connect ---

TEST_P(EitherServer, FirstConnectNeedsNoRestart) {
  init_lc_mg_client(connection);
  test_support::clear_journal();
  connection->connect_proxy_client("10.0.0.5", 8080);
  EXPECT_EQ(journal(), (Journal{"syslog 6 Connecting to 10.0.0.5:8080",
                                "mg_connect 10.0.0.5:8080 ssl 0", GetParam().connectSent}));
  ASSERT_NE(connection->client, nullptr);
  EXPECT_EQ(connection->client->connection_param, GetParam().tag);
}

TEST_F(Connection, TagsAreTheServersNames) {
  EXPECT_STREQ(dataUploadConn, "DataServer");
  EXPECT_STREQ(relaySrvConn, "RelayServer");
}

TEST_F(Connection, Port443AloneMakesItTls) {
  init_lc_mg_client(connection);
  for (const int port : {442, 443, 444, 80, 0, -1}) {
    connection->client = nullptr;
    connection->connect_proxy_client("host", port);
    EXPECT_THAT(journal(), Contains("mg_connect host:" + std::to_string(port) + " ssl " +
                                    (port == 443 ? "1" : "0")));
  }
}

TEST_P(EitherServer, ConnectThatFailsAtOnceClearsTheFlag) {
  init_lc_mg_client(connection);
  shared_set(&Shared::dataUploadConnectDone, true);
  shared_set(&Shared::relayServerConnectDone, true);
  fake_mongoose().connectFails = true;
  test_support::clear_journal();
  connection->connect_proxy_client("no.invalid", 80);
  EXPECT_EQ(journal(), (Journal{"syslog 6 Connecting to no.invalid:80",
                                "mg_connect no.invalid:80 ssl 0", GetParam().connectFailed}));
  EXPECT_EQ(connection->client, nullptr);
  EXPECT_FALSE(shared_get(GetParam().connectDone));
  EXPECT_TRUE(shared_get(GetParam().otherConnectDone));
}

TEST_F(Connection, ConnectAfterAFailedOneNeedsNoRestart) {
  init_lc_mg_client(connection);
  fake_mongoose().connectFails = true;
  connection->connect_proxy_client("host", 80);
  fake_mongoose().connectFails = false;
  test_support::clear_journal();
  connection->connect_proxy_client("host", 80);
  EXPECT_THAT(journal("sleep"), IsEmpty());
  EXPECT_NE(connection->client, nullptr);
}

TEST_F(Connection, ConnectWithoutAnEventLoopFails) {
  fake_mongoose().createFails = true;
  init_lc_mg_client(connection);
  shared_set(&Shared::dataUploadConnectDone, true);
  test_support::clear_journal();
  connection->connect_proxy_client("host", 80);
  EXPECT_EQ(journal(), (Journal{"syslog 6 Connecting to host:80", "mg_connect host:80 ssl 0",
                                "syslog 7 Data upload client connection failed"}));
  EXPECT_FALSE(shared_get(&Shared::dataUploadConnectDone));
}

TEST_F(Connection, ConnectOfAnotherTypeGivesNoTag) {
  connection->info.serverType = static_cast<servers>(2);
  init_lc_mg_client(connection);
  connection->connect_proxy_client("host", 80);
  ASSERT_NE(connection->client, nullptr);
  EXPECT_EQ(connection->client->connection_param, nullptr);
  EXPECT_EQ(journal().back(), "mg_connect host:80 ssl 0");
}

TEST_P(EitherServer, ReconnectReplacesTheEventLoopAfterThreeSeconds) {
  connect(GetParam().type);
  bool askedToStop = false;
  time_double.on_sleep([&](std::int64_t /*microseconds*/) {
    askedToStop = connection->info.exit_flag && !connection->info.alive;
  });
  connection->connect_proxy_client("host", 81);
  EXPECT_EQ(journal(), (Journal{"syslog 6 Connecting to host:81", "sleep 3", "mg_create_server",
                                "syslog 6 Mongoose server started.", "mg_start_thread",
                                "mg_connect host:81 ssl 0", GetParam().connectSent}));
  EXPECT_TRUE(askedToStop);
  EXPECT_TRUE(connection->info.alive);
  EXPECT_FALSE(connection->info.exit_flag);
  EXPECT_FALSE(connection->info.served) << "free for the new thread";
  EXPECT_EQ(connection->client, fake_mongoose().connections.back().get());
}

TEST_F(Connection, ReconnectLeavesAStoppedThreadsServerAlone) {
  connect();
  time_double.on_sleep(
      [&](std::int64_t /*microseconds*/) { serving_thread_func(&connection->info); });
  connection->connect_proxy_client("host", 81);
  EXPECT_THAT(journal("mg_destroy"), SizeIs(1)) << "by the thread, not once more";
}

TEST_F(Connection, ReconnectWithoutANewEventLoopGivesUp) {
  connect();
  fake_mongoose().createFails = true;
  connection->connect_proxy_client("host", 81);
  EXPECT_EQ(journal(), (Journal{"syslog 6 Connecting to host:81", "sleep 3", "mg_create_server",
                                "syslog 3 Failed to start proxy client."}));
  EXPECT_NE(connection->client, nullptr) << "it has connected before";

  fake_mongoose().createFails = false;
  test_support::clear_journal();
  connection->connect_proxy_client("host", 82);
  EXPECT_EQ(journal(),
            (Journal{"syslog 6 Connecting to host:82", "sleep 3", "mg_create_server",
                     "syslog 6 Mongoose server started.", "mg_start_thread",
                     "mg_connect host:82 ssl 0", "syslog 7 Data upload client connection sent"}));
}

TEST_F(Connection, ReconnectNeverTouchesAServerThatIsStillServed) {
  connect();
  connection->info.served = true;
  countNaps = true;
  naps = 0;
  connection->connect_proxy_client("host", 81);
  countNaps = false;
  EXPECT_EQ(journal(), (Journal{"syslog 6 Connecting to host:81", "sleep 3",
                                "syslog 3 Serving thread has not stopped, not connecting."}));
  EXPECT_EQ(naps, 600) << "a minute, in tenths of a second";
  EXPECT_TRUE(connection->info.exit_flag) << "still asked to stop";
  EXPECT_TRUE(connection->info.served);
}

// --- the serving thread ---

TEST_F(Connection, ServingNothingEndsAtOnce) {
  EXPECT_EQ(serving_thread_func(nullptr), nullptr);
  EXPECT_EQ(serving_thread_func(&connection->info), nullptr) << "no server";
  EXPECT_THAT(journal(), IsEmpty());
  EXPECT_FALSE(connection->info.served);
}

TEST_F(Connection, ServingPollsUntilAskedToStop) {
  init_lc_mg_client(connection);
  test_support::clear_journal();
  int polls = 0;
  fake_mongoose().poll = [&] {
    EXPECT_TRUE(connection->info.served);
    if (++polls == 3) connection->info.exit_flag = true;
    return polls == 2 ? 1 : 0;
  };
  EXPECT_EQ(serving_thread_func(&connection->info), nullptr);
  EXPECT_EQ(journal(), (Journal{"mg_poll_server 2000", "sleep 1", "mg_poll_server 2000",
                                "mg_poll_server 2000", "sleep 1", "mg_destroy_server"}));
  EXPECT_EQ(connection->info.mg_server_ptr, nullptr);
  EXPECT_FALSE(connection->info.exit_flag) << "cleared when it has stopped";
  EXPECT_FALSE(connection->info.served);
}

TEST_F(Connection, ServingThatStartsAfterTheStopDestroysTheServer) {
  init_lc_mg_client(connection);
  connection->info.exit_flag = true;
  test_support::clear_journal();
  serving_thread_func(&connection->info);
  EXPECT_EQ(journal(), Journal{"mg_destroy_server"});
  EXPECT_FALSE(connection->info.exit_flag);
}

TEST_F(Connection, SecondThreadLeavesTheServerToTheFirst) {
  init_lc_mg_client(connection);
  connection->info.served = true;
  connection->info.exit_flag = true;
  test_support::clear_journal();
  serving_thread_func(&connection->info);
  EXPECT_THAT(journal(), IsEmpty());
  EXPECT_TRUE(connection->info.exit_flag) << "the first has to see it";
}

// --- sending ---

class Sending : public ConnectionBase {
 protected:
  void SetUp() override {
    ConnectionBase::SetUp();
    connect();
  }

  // What the serving thread does, second by second, while send_file() sleeps.
  void eachSecond(std::function<void(int second)> action) {
    time_double.on_sleep([action = std::move(action),
                          second = std::make_shared<int>(0)](std::int64_t /*microseconds*/) {
      if (++*second > 5000) throw std::runtime_error("this send never ends");
      action(*second);
    });
  }

  bool send(const std::string& text) {
    return connection->send_file({text.begin(), text.end()}, static_cast<int>(text.size()));
  }
};

TEST_F(Sending, RequestIsWrittenAtTheNextPollAndTheReplyDecides) {
  std::vector<int> states;
  eachSecond([&](int second) {
    states.push_back(state());
    if (second == 1) event(MG_POLL);
    if (second == 2) event(MG_POLL);
    if (second == 3) reply("200", "OK");
    states.push_back(state());
  });
  EXPECT_TRUE(send("data"));
  EXPECT_EQ(states, (std::vector<int>{kOutgoingPending, kWaitingResp, kWaitingResp, kWaitingResp,
                                      kWaitingResp, kGoodResp}));
  EXPECT_EQ(journal(),
            (Journal{"sleep 1", "syslog 7 Writing file to mg_write", "mg_write 4: data",
                     "syslog 7 mg_write returned 4, file length is 4", "sleep 1", "sleep 1",
                     "syslog 7 Response event", "syslog 6 Got 200 good resp from server",
                     "syslog 6 Good response for send"}));
  EXPECT_EQ(state(), kNone);
}

TEST_F(Sending, ReplyWithAnotherCodeFailsTheSend) {
  eachSecond([&](int second) {
    event(MG_POLL);
    if (second == 2) reply("404", "Not Found");
  });
  EXPECT_FALSE(send("data"));
  EXPECT_THAT(journal("syslog 6"),
              testing::ElementsAre("syslog 6 Got bad code from server: 404 Not Found",
                                   "syslog 6 Bad response for send"));
  EXPECT_EQ(state(), kNone);
}

TEST_F(Sending, UnusableReplyFailsTheSend) {
  eachSecond([&](int /*second*/) {
    event(MG_POLL);
    reply(nullptr, nullptr);
  });
  EXPECT_FALSE(send("data"));
  EXPECT_THAT(journal("syslog 6"), testing::ElementsAre("syslog 6 Invalid URI in server response",
                                                        "syslog 6 Bad response for send"));
}

TEST_F(Sending, CloseFailsTheSendAtOnce) {
  eachSecond([&](int second) {
    event(MG_POLL);
    if (second == 2) event(MG_CLOSE);
  });
  EXPECT_FALSE(send("data"));
  EXPECT_THAT(journal("sleep"), SizeIs(2));
}

TEST_F(Sending, CloseWhilePendingFailsTheSendUnwritten) {
  eachSecond([&](int /*second*/) { event(MG_CLOSE); });
  EXPECT_FALSE(send("data"));
  EXPECT_THAT(journal("mg_write"), IsEmpty());
}

TEST_F(Sending, GoodReplyBeforeACloseCountsAsFailed) {
  eachSecond([&](int /*second*/) {
    event(MG_POLL);
    reply("200", "OK");
    event(MG_CLOSE);
  });
  EXPECT_FALSE(send("data"));
}

TEST_F(Sending, NoReplyTimesOutAfter181Checks) {
  eachSecond([&](int /*second*/) { event(MG_POLL); });
  EXPECT_FALSE(send("data"));
  EXPECT_THAT(journal("sleep 1"), SizeIs(181));
  EXPECT_THAT(journal("mg_write"), SizeIs(1));
  EXPECT_THAT(journal("syslog 6"), testing::ElementsAre("syslog 6 Timeout for send. serverType = 0",
                                                        "syslog 6 Bad response for send"));
  EXPECT_EQ(state(), kNone);
}

TEST_F(Sending, TimeOutNamesTheServersType) {
  connection->info.serverType = kRelaySrv;
  EXPECT_FALSE(send("data"));
  EXPECT_THAT(journal(), Contains("syslog 6 Timeout for send. serverType = 1"));
}

TEST_F(Sending, ReplyInTheLastCheckStillCounts) {
  eachSecond([&](int second) {
    event(MG_POLL);
    if (second == 180) reply("200", "OK");
  });
  EXPECT_TRUE(send("data"));
}

TEST_F(Sending, ReplyInTheLastSleepComesTooLate) {
  eachSecond([&](int second) {
    event(MG_POLL);
    if (second == 181) reply("200", "OK");
  });
  EXPECT_FALSE(send("data"));
  EXPECT_EQ(state(), kNone);
}

TEST_F(Sending, TimeOutBeforeAnyPollForgetsTheRequest) {
  EXPECT_FALSE(send("data"));
  event(MG_POLL);
  EXPECT_THAT(journal("mg_write"), IsEmpty());
  EXPECT_EQ(state(), kNone);
}

TEST_F(Sending, SecondSendWaitsForTheFirstWithoutLimit) {
  connection->state = kWaitingResp;
  eachSecond([&](int second) {
    if (second < 1000) return;
    if (second == 1000) {
      EXPECT_EQ(state(), kWaitingResp);
      EXPECT_THAT(connection->fileData, IsEmpty()) << "not loaded yet";
      connection->state = kNone;
      return;
    }
    event(MG_POLL);
    reply("200", "OK");
  });
  EXPECT_TRUE(send("second"));
  EXPECT_THAT(journal("sleep 1"), SizeIs(1001));
  EXPECT_THAT(journal("mg_write"), testing::ElementsAre("mg_write 6: second"));
}

TEST_F(Sending, ReplyThatNobodyWaitsForKeepsTheNextSendWaiting) {
  reply("200", "OK");
  EXPECT_EQ(state(), kGoodResp);
  event(MG_CLOSE);
  EXPECT_EQ(state(), kBadResp);
  eachSecond([&](int second) {
    if (second == 500) connection->state = kNone;
    if (second > 500) event(MG_CLOSE);
  });
  EXPECT_FALSE(send("data"));
  EXPECT_THAT(journal("sleep 1"), SizeIs(501));
}

TEST_F(Sending, CloseOfAnIdleConnectionLeavesItIdle) {
  event(MG_CLOSE);
  EXPECT_EQ(state(), kNone);
}

TEST_F(Sending, NoMoreIsWrittenThanThereIs) {
  const std::vector<char> data = {'d', 'a', 't', 'a'};
  const std::vector<std::pair<int, std::string>> cases = {
      {2, "mg_write 2: da"}, {0, "mg_write 0: "}, {-1, "mg_write 0: "}, {5, "mg_write 4: data"}};
  for (const auto& [length, written] : cases) {
    test_support::clear_journal();
    eachSecond([&](int second) { event(second == 1 ? MG_POLL : MG_CLOSE); });
    EXPECT_FALSE(connection->send_file(data, length));
    EXPECT_THAT(journal("mg_write"), testing::ElementsAre(written));
    EXPECT_EQ(connection->fileLength, length);
  }
}

TEST_F(Sending, RequestIsKeptUntilTheNext) {
  eachSecond([&](int /*second*/) { event(MG_CLOSE); });
  send("data");
  EXPECT_EQ(connection->fileData, (std::vector<char>{'d', 'a', 't', 'a'}));
  EXPECT_EQ(connection->fileLength, 4);
}

// --- judging a reply ---

TEST_F(Sending, OnlyTheExactCode200IsGood) {
  for (const char* const code : {"201", "204", "20", "2000", " 200", "", "500", "100"}) {
    connection->state = kWaitingResp;
    test_support::clear_journal();
    reply(code, "Reason");
    EXPECT_EQ(state(), kBadResp) << code;
    EXPECT_EQ(journal().back(),
              "syslog 6 Got bad code from server: " + std::string(code) + " Reason");
  }
}

TEST_F(Sending, ReplyOfAnyBodyIsGood) {
  char body[] = R"({"code":0})";
  connection->client->content = body;
  connection->client->content_len = sizeof body - 1;
  reply("200", "OK");
  EXPECT_EQ(state(), kGoodResp);
}

TEST(ConnectionObject, ReplyWithoutAConnectionIsUnusable) {
  test_support::clear_journal();
  LogConsumerMongooseClass fresh;
  fresh.response_handler();
  EXPECT_EQ(fresh.state, kBadResp);
  EXPECT_EQ(journal(), Journal{"syslog 6 Invalid URI in server response"});
}

// --- events ---

TEST_F(Connection, EventWithoutAConnectionIsRefused) {
  EXPECT_EQ(proxy_ev_handler(nullptr, MG_POLL), 0);
  EXPECT_EQ(journal(), Journal{"syslog 4 Bad Param - conn"});
}

TEST_F(Connection, EventWithoutATagIsRefused) {
  mg_connection untagged = {};
  EXPECT_EQ(proxy_ev_handler(&untagged, MG_CONNECT), 0);
  EXPECT_EQ(journal(), Journal{"syslog 4 Bad Param - connection_param"});
}

TEST_F(Connection, EventOfAnUnknownTagIsIgnoredWhateverItsText) {
  connect();
  char text[] = "DataServer";
  mg_connection stranger = {};
  stranger.connection_param = text;
  EXPECT_EQ(proxy_ev_handler(&stranger, MG_CONNECT), 0);
  EXPECT_EQ(journal(), Journal{"syslog 7 Event from unknown connection"});
}

TEST_F(Connection, EventOfAnUnregisteredServerIsIgnored) {
  connect(kDataUploadSrv);
  dataUploadServer.reset();
  EXPECT_EQ(event(MG_CONNECT), 0);
  EXPECT_EQ(journal(), Journal{"syslog 7 Event from unknown connection"});
}

TEST_P(EitherServer, PollWithNothingToSendDoesNothing) {
  connect(GetParam().type);
  for (const auto waiting : {kNone, kProcessing, kWaitingResp, kGoodResp, kBadResp}) {
    connection->state = waiting;
    EXPECT_EQ(event(MG_POLL), 0);
    EXPECT_EQ(state(), waiting);
  }
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_P(EitherServer, PollWritesThePendingRequest) {
  connect(GetParam().type);
  connection->state = kOutgoingPending;
  EXPECT_EQ(event(MG_POLL), 0);
  EXPECT_EQ(journal(), (Journal{"syslog 7 Writing file to mg_write",
                                "mg_write 0: ", "syslog 7 mg_write returned 0, file length is 0"}));
}

TEST_P(EitherServer, PollSaysThatItWritesBeforeTheRequestCountsAsWritten) {
  connect(GetParam().type);
  connection->state = kOutgoingPending;
  std::vector<int> states;
  test_support::on_note([&](const std::string& /*line*/) { states.push_back(state()); });
  event(MG_POLL);
  test_support::on_note(nullptr);
  EXPECT_EQ(states, (std::vector<int>{kOutgoingPending, kWaitingResp, kWaitingResp}));
}

TEST_P(EitherServer, ConnectEventSetsItsFlag) {
  connect(GetParam().type);
  EXPECT_EQ(event(MG_CONNECT), 1);
  EXPECT_EQ(journal(), Journal{GetParam().connected});
  EXPECT_TRUE(shared_get(GetParam().connectDone));
  EXPECT_FALSE(shared_get(GetParam().otherConnectDone));
}

TEST_P(EitherServer, RequestEventIsAccepted) {
  connect(GetParam().type);
  EXPECT_EQ(event(MG_REQUEST), 1);
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_P(EitherServer, ReplyEventIsJudged) {
  connect(GetParam().type);
  connection->client->uri = "200";
  EXPECT_EQ(event(MG_REPLY), 1);
  EXPECT_EQ(journal(),
            (Journal{"syslog 7 Response event", "syslog 6 Got 200 good resp from server"}));
  EXPECT_EQ(state(), kGoodResp);
}

TEST_P(EitherServer, CloseEventFailsTheRequestAndClearsItsFlag) {
  connect(GetParam().type);
  shared_set(&Shared::dataUploadConnectDone, true);
  shared_set(&Shared::relayServerConnectDone, true);
  connection->state = kProcessing;
  EXPECT_EQ(event(MG_CLOSE), 0);
  EXPECT_EQ(journal(), Journal{GetParam().closed});
  EXPECT_EQ(state(), kBadResp);
  EXPECT_FALSE(shared_get(GetParam().connectDone));
  EXPECT_TRUE(shared_get(GetParam().otherConnectDone));
}

TEST_P(EitherServer, AnyOtherEventDoesNothing) {
  connect(GetParam().type);
  EXPECT_EQ(event(MG_AUTH), 0);
  EXPECT_THAT(journal(), IsEmpty());
}

}  // namespace
