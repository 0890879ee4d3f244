// The connection over real sockets: what each fate of a request and of a connection costs, and
// what comes out of it.
#include "tests/log_consumer/live_connection.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"
#include "tests/support/files.h"
#include "tests/support/scripted_server.h"

namespace {

using Shared = logConsumerSharedStruct;
using test_support::close_connection;
using test_support::count;
using test_support::eventually;
using test_support::expect_bytes;
using test_support::expect_text;
using test_support::FakeTime;
using test_support::journal;
using test_support::LiveConnection;
using test_support::read_file;
using test_support::RefusingPort;
using test_support::Script;
using test_support::ScriptedServer;
using test_support::send_bytes;
using testing::Contains;
using testing::Not;
using testing::SizeIs;

constexpr char kOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n{\"code\":1}";
constexpr char kNotFound[] = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";

std::string golden(const std::string& name) {
  return std::string(GOLDEN_DIR) + "/" + name;
}

class Live : public testing::Test {
 protected:
  void SetUp() override {
    storeSharedDefaults();
    test_support::clear_journal();
    // The 181 s of a send become 18, of which a poll may take two.
    test_support::shorten_sleeps(time_double, 100);
  }

  void TearDown() override { EXPECT_EQ(count("the serving thread did not stop"), 0U); }

  FakeTime time_double{1'770'109'500};
};

TEST_F(Live, GoodAnswersKeepTheConnectionForTheNextRequest) {
  const ScriptedServer server(
      {{expect_text("first"), send_bytes(kOk), expect_text("second"), send_bytes(kOk)}});
  LiveConnection connection(kDataUploadSrv);
  ASSERT_TRUE(connection.connect(server.port()));
  EXPECT_EQ(count("syslog 7 Connect event from data upload srv"), 1U);
  EXPECT_TRUE(connection.send("first"));
  EXPECT_TRUE(connection.send("second"));
  EXPECT_EQ(server.received(), "firstsecond");
  EXPECT_EQ(server.accepted(), 1U);
  EXPECT_TRUE(connection.connected());
  EXPECT_EQ(count("syslog 6 Good response for send"), 2U);
}

TEST_F(Live, AnswerInSingleBytesIsOneAnswer) {
  const ScriptedServer server({{expect_text("data"), send_bytes(kOk, 1)}});
  LiveConnection connection(kDataUploadSrv);
  ASSERT_TRUE(connection.connect(server.port()));
  EXPECT_TRUE(connection.send("data"));
  EXPECT_EQ(count("syslog 7 Response event"), 1U);
}

TEST_F(Live, BadAnswerFailsTheSendAndKeepsTheConnection) {
  const ScriptedServer server(
      {{expect_text("first"), send_bytes(kNotFound), expect_text("second"), send_bytes(kOk)}});
  LiveConnection connection(kDataUploadSrv);
  ASSERT_TRUE(connection.connect(server.port()));
  EXPECT_FALSE(connection.send("first"));
  EXPECT_EQ(count("syslog 6 Got bad code from server: 404 Not Found"), 1U);
  EXPECT_TRUE(connection.send("second"));
}

TEST_F(Live, GarbageFailsTheSendAndTheNextGoesOutOnAFreshConnection) {
  const ScriptedServer server({{expect_text("first"), send_bytes("220 mail.example.com ESMTP\r\n")},
                               {expect_text("second"), send_bytes(kOk)}});
  LiveConnection connection(kDataUploadSrv);
  ASSERT_TRUE(connection.connect(server.port()));
  EXPECT_FALSE(connection.send("first"));
  EXPECT_EQ(count("syslog 6 Invalid URI in server response"), 1U);
  ASSERT_TRUE(eventually([&] { return !connection.connected(); }));
  ASSERT_TRUE(connection.connect(server.port()));
  EXPECT_TRUE(connection.send("second"));
  EXPECT_EQ(server.received(1), "second");
}

TEST_F(Live, CloseBeforeTheAnswerFailsTheSendAtOnce) {
  const ScriptedServer server({{expect_text("data"), close_connection()}});
  LiveConnection connection(kRelaySrv);
  ASSERT_TRUE(connection.connect(server.port()));
  EXPECT_FALSE(connection.send("data"));
  EXPECT_EQ(count("syslog 7 Relay server connection closed"), 1U);
  EXPECT_THAT(journal(), Not(Contains("syslog 6 Timeout for send. serverType = 1")));
}

TEST_F(Live, CloseInTheAnswerFailsTheSend) {
  const ScriptedServer server(
      {{expect_text("data"), send_bytes("HTTP/1.1 200 OK\r\nContent-Le"), close_connection()}});
  LiveConnection connection(kDataUploadSrv);
  ASSERT_TRUE(connection.connect(server.port()));
  EXPECT_FALSE(connection.send("data"));
  EXPECT_THAT(journal(), Not(Contains("syslog 7 Response event")));
}

TEST_F(Live, CloseRightAfterAGoodAnswerCountsAsFailed) {
  const ScriptedServer server({{expect_text("data"), send_bytes(kOk), close_connection()}});
  LiveConnection connection(kDataUploadSrv);
  ASSERT_TRUE(connection.connect(server.port()));
  // The send looks only after the close.
  time_double.on_sleep([&](std::int64_t /*microseconds*/) {
    EXPECT_TRUE(eventually([&] { return !connection.connected(); }));
  });
  EXPECT_FALSE(connection.send("data"));
  EXPECT_EQ(count("syslog 6 Got 200 good resp from server"), 1U);
  EXPECT_EQ(count("syslog 6 Bad response for send"), 1U);
}

TEST_F(Live, RefusedConnectionIsClosedWithoutEverStanding) {
  const RefusingPort refusing;
  LiveConnection connection(kDataUploadSrv);
  shared_set(&Shared::dataUploadConnectDone, true);
  connection->connect_proxy_client("127.0.0.1", refusing.port());
  EXPECT_TRUE(eventually([&] { return !connection.connected(); }));
  EXPECT_EQ(count("syslog 7 Data upload connection closed"), 1U);
  EXPECT_EQ(count("syslog 7 Connect event from data upload srv"), 0U);
}

TEST_F(Live, UnresolvableNameFailsAtOnceAndTheNextConnectSucceeds) {
  const ScriptedServer server({{expect_text("data"), send_bytes(kOk)}});
  LiveConnection connection(kDataUploadSrv);
  connection->connect_proxy_client("device.invalid", 80);
  EXPECT_EQ(connection->client, nullptr);
  EXPECT_EQ(count("syslog 7 Data upload client connection failed"), 1U);
  ASSERT_TRUE(connection.connect(server.port()));
  EXPECT_TRUE(connection.send("data"));
}

TEST_F(Live, ReconnectsUseAFreshConnectionEachTime) {
  const ScriptedServer server({{expect_text("data"), send_bytes(kOk)}});
  LiveConnection connection(kDataUploadSrv);
  for (std::size_t i = 0; i < 3; ++i) {
    ASSERT_TRUE(connection.connect(server.port()));
    EXPECT_TRUE(connection.send("data"));
    EXPECT_TRUE(eventually([&] { return server.accepted() == i + 1; }));
  }
  EXPECT_THAT(journal("sleep 3"), SizeIs(2));
}

TEST_F(Live, SendBeforeTheConnectionStandsGoesOutWhenItDoes) {
  const ScriptedServer server({{expect_text("data"), send_bytes(kOk)}});
  LiveConnection connection(kDataUploadSrv);
  connection->connect_proxy_client("127.0.0.1", server.port());
  EXPECT_TRUE(connection.send("data"));
}

TEST_F(Live, SilentServerTimesTheSendOut) {
  const ScriptedServer server({{test_support::read_to_end()}});
  LiveConnection connection(kRelaySrv);
  ASSERT_TRUE(connection.connect(server.port()));
  test_support::shorten_sleeps(time_double, 30);
  EXPECT_FALSE(connection.send("data"));
  EXPECT_EQ(count("syslog 6 Timeout for send. serverType = 1"), 1U);
  EXPECT_TRUE(eventually([&] { return server.received() == "data"; }));
  EXPECT_TRUE(connection.connected());
}

TEST_F(Live, IdleConnectionThatTheServerClosedCostsTheWholeTimeOut) {
  const ScriptedServer server({{expect_text("first"), send_bytes(kOk), close_connection()}});
  LiveConnection connection(kDataUploadSrv);
  ASSERT_TRUE(connection.connect(server.port()));
  connection.send("first");
  ASSERT_TRUE(eventually([&] { return !connection.connected(); }));
  test_support::shorten_sleeps(time_double, 10);
  EXPECT_FALSE(connection.send("second"));
  EXPECT_EQ(count("syslog 6 Timeout for send. serverType = 0"), 1U);
  EXPECT_EQ(count("syslog 7 Writing file to mg_write"), 1U) << "the second was never written";
}

TEST_F(Live, SecondSendWaitsUntilTheFirstIsThrough) {
  std::atomic<bool> secondCalled{false};
  std::atomic<bool> answered{false};
  const ScriptedServer server({{expect_text("first"), test_support::run([&] {
                                  EXPECT_TRUE(eventually([&] { return secondCalled.load(); }));
                                  answered = true;
                                }),
                                send_bytes(kOk), expect_text("second"), send_bytes(kOk)}});
  LiveConnection connection(kDataUploadSrv);
  ASSERT_TRUE(connection.connect(server.port()));
  std::thread first([&] { EXPECT_TRUE(connection.send("first")); });
  ASSERT_TRUE(eventually([&] { return server.received() == "first"; }));
  std::thread second([&] {
    secondCalled = true;
    EXPECT_TRUE(connection.send("second"));
    EXPECT_TRUE(answered);
  });
  first.join();
  second.join();
  EXPECT_EQ(server.received(), "firstsecond");
}

TEST_F(Live, EachServerHasItsOwnConnectionAndAnswers) {
  const ScriptedServer dataUpload({{expect_text("data"), send_bytes(kOk)}});
  const ScriptedServer relay({{expect_text("raw"), send_bytes(kNotFound)}});
  LiveConnection dataUploadConnection(kDataUploadSrv);
  LiveConnection relayConnection(kRelaySrv);
  ASSERT_TRUE(dataUploadConnection.connect(dataUpload.port()));
  EXPECT_FALSE(relayConnection.connected());
  ASSERT_TRUE(relayConnection.connect(relay.port()));
  std::thread other([&] { EXPECT_FALSE(relayConnection.send("raw")); });
  EXPECT_TRUE(dataUploadConnection.send("data"));
  other.join();
  EXPECT_EQ(dataUpload.received(), "data");
  EXPECT_EQ(relay.received(), "raw");
}

TEST_F(Live, LargeRequestReachesASlowReaderWhole) {
  const std::string request = test_support::noise(8'000'003);
  const ScriptedServer server({{expect_bytes(request.size()), send_bytes(kOk)}},
                              {false, nullptr, 4096});
  LiveConnection connection(kDataUploadSrv);
  ASSERT_TRUE(connection.connect(server.port()));
  EXPECT_TRUE(connection.send(request));
  EXPECT_TRUE(server.received() == request);
}

// --- whole files through the engine ---

class LiveEngine : public Live {
 protected:
  void SetUp() override {
    Live::SetUp();
    shared_set(&Shared::sysId, "AB12345678");
    shared_set(&Shared::dataUploadServerAddr, "upload.example.com");
    engine.dataUploadProxy = connection.share();
  }

  // At the golden files' time; the clock has moved on while the thread waited for a connection.
  int send(const std::string& name, const char* filetype, servers server) {
    time_double.set_wall(1'770'109'500);
    return engine.sendFile(golden(name), filetype, server, name);
  }

  LogConsumer engine;
  std::optional<ScriptedServer> lossy;  // pauses of the thread look at it: it outlives the thread
  LiveConnection connection{kDataUploadSrv};
};

TEST_F(LiveEngine, FileArrivesAsItsGoldenRequest) {
  const std::string request = read_file(golden("large.request"));
  const ScriptedServer server({{expect_bytes(request.size()), send_bytes(kOk)}});
  ASSERT_TRUE(connection.connect(server.port()));
  EXPECT_EQ(send("large.gz", "measmin", kDataUploadSrv), 0);
  EXPECT_TRUE(server.received() == request);
}

TEST_F(LiveEngine, FileArrivesBareAtTheRelay) {
  const std::string file = read_file(golden("odd.gz"));
  const ScriptedServer server({{expect_bytes(file.size()), send_bytes(kOk)}});
  LiveConnection relay(kRelaySrv);
  engine.relayServerProxy = relay.share();
  ASSERT_TRUE(relay.connect(server.port()));
  EXPECT_EQ(send("odd.gz", "perf", kRelaySrv), 0);
  EXPECT_TRUE(server.received() == file);
}

TEST_F(LiveEngine, LostConnectionIsReplacedAndTheSameBytesGoOutAgain) {
  std::string request = read_file(golden("small.request"));
  const std::string host = "upload.example.com";
  request.replace(request.find(host), host.size(), "127.0.0.1");  // where the reconnect goes
  lossy.emplace(std::vector<Script>{{expect_bytes(request.size()), close_connection()},
                                    {expect_bytes(request.size()), send_bytes(kOk)}});
  shared_set(&Shared::dataUploadServerAddr, "127.0.0.1");
  shared_set(&Shared::dataUploadServerPort, lossy->port());
  ASSERT_TRUE(connection.connect(lossy->port()));
  // The failed send is not looked at before its connection's flag is down, too.
  time_double.on_sleep([&](std::int64_t microseconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds / 10));
    if (lossy->accepted() == 1 && lossy->ended(0)) {
      EXPECT_TRUE(eventually([&] { return !connection.connected(); }));
    }
  });
  EXPECT_EQ(send("small.gz", "measmin", kDataUploadSrv), 0);
  EXPECT_TRUE(lossy->received(0) == request);
  EXPECT_TRUE(lossy->received(1) == request);
}

}  // namespace
