// Connections and their events over real sockets.
#include "compat/mongoose/mongoose.h"

#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <ctime>
#include <iterator>
#include <thread>
#include <utility>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/compat/mongoose/client.h"
#include "tests/support/scripted_server.h"

namespace {

using namespace std::chrono_literals;
using namespace test_support;
using mongoose_test::Client;
using mongoose_test::Events;

const std::string kRequest = "GET / HTTP/1.1\r\n\r\n";
const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";

int send_request(mg_connection* connection) {
  return mg_write(connection, kRequest.data(), static_cast<int>(kRequest.size()));
}

Step expect_request() {
  return expect_text("\r\n\r\n");
}

// No two parts of it are alike.
std::string pattern(std::size_t size) {
  std::string bytes;
  std::uint32_t state = 99;
  while (bytes.size() < size) {
    state = state * 1664525u + 1013904223u;
    bytes.push_back(static_cast<char>(state >> 24));
  }
  return bytes;
}

template <typename Condition>
bool eventually(Condition condition) {
  for (int i = 0; i < 30'000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(2ms);
  }
  return false;
}

// ---- One request and what the server answers, in segments of 1, 2, 4, 13 bytes and whole ----

class Answer : public testing::TestWithParam<std::size_t> {
 protected:
  // Sends one request on one connection and collects `count` events.
  Events exchange(Script script, std::size_t count) {
    ScriptedServer server({std::move(script)});
    Client client;
    send_request(client.connect("127.0.0.1", server.port()));
    EXPECT_TRUE(client.poll_until_events(count));
    for (int i = 0; i < 5; ++i)
      still_connected_ = client.poll(10) == 1;
    EXPECT_EQ(server.received(), kRequest);
    return client.events;
  }

  static Step answer(std::string bytes) { return send_bytes(std::move(bytes), GetParam()); }

  bool still_connected_ = false;
};

std::string cut_name(const testing::TestParamInfo<std::size_t>& cut) {
  return cut.param == 0 ? "all" : std::to_string(cut.param);
}
INSTANTIATE_TEST_SUITE_P(Cut, Answer, testing::Values(1, 2, 4, 13, 0), cut_name);

TEST_P(Answer, WithALengthLeavesTheConnectionOpen) {
  EXPECT_EQ(exchange({expect_request(), answer(kOk)}, 2),
            (Events{"CONNECT", "REPLY 200 OK [hello]"}));
  EXPECT_TRUE(still_connected_);
}

TEST_P(Answer, InChunks) {
  EXPECT_EQ(exchange({expect_request(),
                      answer("HTTP/1.1 201 Created\r\nTransfer-Encoding: chunked\r\n\r\n"
                             "3\r\nabc\r\n4\r\ndefg\r\n0\r\n\r\n")},
                     2),
            (Events{"CONNECT", "REPLY 201 Created [abcdefg]"}));
  EXPECT_TRUE(still_connected_);
}

TEST_P(Answer, WithoutALengthEndsAtTheClose) {
  EXPECT_EQ(exchange({expect_request(), answer("HTTP/1.0 200 OK\r\n\r\nuntil the end"),
                      close_connection()},
                     3),
            (Events{"CONNECT", "REPLY 200 OK [until the end]", "CLOSE"}));
}

TEST_P(Answer, WithoutALengthThatIsResetIsNone) {
  EXPECT_EQ(exchange({expect_request(), answer("HTTP/1.0 200 OK\r\n\r\nuntil the end"),
                      reset_connection()},
                     2),
            (Events{"CONNECT", "CLOSE"}));
}

TEST_P(Answer, BehindInterimOnes) {
  EXPECT_EQ(exchange({expect_request(),
                      answer("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 102 Processing\r\n\r\n" + kOk)},
                     2),
            (Events{"CONNECT", "REPLY 200 OK [hello]"}));
}

TEST_P(Answer, WithoutContent) {
  EXPECT_EQ(exchange({expect_request(), answer("HTTP/1.1 204 No Content\r\n\r\n")}, 2),
            (Events{"CONNECT", "REPLY 204 No Content []"}));
  EXPECT_TRUE(still_connected_);
}

TEST_P(Answer, ThatAnnouncesAClose) {
  EXPECT_EQ(exchange({expect_request(),
                      answer("HTTP/1.1 503 Busy\r\nConnection: close\r\nContent-Length: 0\r\n\r\n"),
                      close_connection()},
                     3),
            (Events{"CONNECT", "REPLY 503 Busy []", "CLOSE"}));
}

TEST_P(Answer, FollowedByAnEmptyLineLeavesTheConnectionOpen) {
  EXPECT_EQ(exchange({expect_request(), answer(kOk + "\r\n")}, 2),
            (Events{"CONNECT", "REPLY 200 OK [hello]"}));
  EXPECT_TRUE(still_connected_);
}

TEST_P(Answer, ThatIsNoHttpIsUnusableAndCloses) {
  EXPECT_EQ(exchange({expect_request(), answer("220 mail.example ESMTP\r\n")}, 3),
            (Events{"CONNECT", "REPLY unusable", "CLOSE"}));
}

TEST_P(Answer, WithABrokenHeaderIsUnusableAndCloses) {
  EXPECT_EQ(exchange({expect_request(), answer("HTTP/1.1 200 OK\r\nnonsense\r\n\r\n")}, 3),
            (Events{"CONNECT", "REPLY unusable", "CLOSE"}));
}

TEST_P(Answer, ThatCloses) {
  EXPECT_EQ(exchange({expect_request(), close_connection()}, 2), (Events{"CONNECT", "CLOSE"}));
}

TEST_P(Answer, CutOffInTheHeaderIsNone) {
  EXPECT_EQ(
      exchange({expect_request(), answer("HTTP/1.1 200 OK\r\nContent-"), close_connection()}, 2),
      (Events{"CONNECT", "CLOSE"}));
}

TEST_P(Answer, CutOffInTheBodyIsNone) {
  EXPECT_EQ(
      exchange({expect_request(), answer(kOk.substr(0, kOk.size() - 1)), close_connection()}, 2),
      (Events{"CONNECT", "CLOSE"}));
}

TEST_P(Answer, CutOffInAChunkIsNone) {
  EXPECT_EQ(exchange({expect_request(),
                      answer("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nab"),
                      close_connection()},
                     2),
            (Events{"CONNECT", "CLOSE"}));
}

TEST_P(Answer, ResetInTheBodyIsNone) {
  EXPECT_EQ(
      exchange({expect_request(), answer(kOk.substr(0, kOk.size() - 1)), reset_connection()}, 2),
      (Events{"CONNECT", "CLOSE"}));
}

TEST_P(Answer, AndAHalfCloseIsAClose) {
  EXPECT_EQ(exchange({expect_request(), answer(kOk), half_close()}, 3),
            (Events{"CONNECT", "REPLY 200 OK [hello]", "CLOSE"}));
}

TEST(Answers, ToOneRequestAfterTheOther) {
  ScriptedServer server({{expect_request(), send_bytes(kOk), expect_request(),
                          send_bytes("HTTP/1.1 404 Not Found\r\nContent-Length: 2\r\n\r\nno", 1)}});
  Client client;
  mg_connection* const connection = client.connect("127.0.0.1", server.port());
  send_request(connection);
  ASSERT_TRUE(client.poll_until_events(2));
  send_request(connection);
  ASSERT_TRUE(client.poll_until_events(3));
  EXPECT_EQ(client.events, (Events{"CONNECT", "REPLY 200 OK [hello]", "REPLY 404 Not Found [no]"}));
  EXPECT_EQ(server.received(), kRequest + kRequest);
  EXPECT_EQ(server.accepted(), 1u);
}

TEST(Answers, ThatNobodyAskedForCloseTheConnection) {
  ScriptedServer server({{send_bytes("HTTP/1.1 408 Request Timeout\r\n\r\n")}});
  Client client;
  client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(2));
  EXPECT_EQ(client.events, (Events{"CONNECT", "CLOSE"}));
}

TEST(Answers, ThatNobodyAskedForBehindOneThatWasCloseTheConnection) {
  ScriptedServer server({{expect_request(), send_bytes(kOk), pause_ms(50), send_bytes(kOk)}});
  Client client;
  send_request(client.connect("127.0.0.1", server.port()));
  ASSERT_TRUE(client.poll_until_events(3));
  EXPECT_EQ(client.events, (Events{"CONNECT", "REPLY 200 OK [hello]", "CLOSE"}));
}

TEST(Answers, MoreThanOneToOneRequestCloseTheConnectionBehindTheFirst) {
  ScriptedServer server({{expect_request(), send_bytes(kOk + kOk)}});
  Client client;
  send_request(client.connect("127.0.0.1", server.port()));
  ASSERT_TRUE(client.poll_until_events(3));
  EXPECT_EQ(client.events, (Events{"CONNECT", "REPLY 200 OK [hello]", "CLOSE"}));
}

TEST(Answers, TooLargeAreUnusable) {
  const std::string long_header = "HTTP/1.1 200 OK\r\nA: " + std::string(65536, 'a') + "\r\n\r\n";
  const std::string long_body = "HTTP/1.1 200 OK\r\n\r\n" + std::string(1024 * 1024 + 1, 'b');
  for (const std::string& bytes : {long_header, long_body}) {
    ScriptedServer server({{expect_request(), send_bytes(bytes)}});
    Client client;
    send_request(client.connect("127.0.0.1", server.port()));
    ASSERT_TRUE(client.poll_until_events(3));
    EXPECT_EQ(client.events, (Events{"CONNECT", "REPLY unusable", "CLOSE"}));
  }
}

TEST(Answers, MayComeLateInAMegabyte) {
  const std::string body = pattern(1024 * 1024 - 1);
  ScriptedServer server({{expect_request(), pause_ms(300),
                          send_bytes("HTTP/1.1 200 OK\r\nContent-Length: 1048575\r\n\r\n"),
                          send_bytes(body, 100'003)}});
  Client client;
  send_request(client.connect("127.0.0.1", server.port()));
  ASSERT_TRUE(client.poll_until_events(2));
  EXPECT_EQ(client.events[1], "REPLY 200 OK [" + body + "]");
}

TEST(Answers, ShowTheirFieldsDuringTheEventOnly) {
  ScriptedServer server({{expect_request(), send_bytes("HTTP/1.1 201 Made\r\nServer: s 1\r\n"
                                                       "Content-Length: 2\r\n\r\nab")}});
  Client client;
  client.on_event = [](mg_connection* connection, mg_event event) {
    if (event != MG_REPLY) return event == MG_CONNECT ? 1 : 0;
    EXPECT_STREQ(connection->uri, "201");
    EXPECT_STREQ(connection->http_version, "Made");
    EXPECT_EQ(connection->status_code, 201);
    EXPECT_STREQ(connection->content, "ab");
    EXPECT_EQ(connection->content_len, 2u);
    EXPECT_EQ(connection->num_headers, 2);
    EXPECT_STREQ(connection->http_headers[0].name, "Server");
    EXPECT_STREQ(connection->http_headers[0].value, "s 1");
    EXPECT_STREQ(connection->http_headers[1].name, "Content-Length");
    EXPECT_EQ(connection->http_headers[2].name, nullptr);
    return 1;
  };
  mg_connection* const connection = client.connect("127.0.0.1", server.port());
  send_request(connection);
  ASSERT_TRUE(client.poll_until_events(2));
  EXPECT_EQ(connection->uri, nullptr);
  EXPECT_EQ(connection->http_version, nullptr);
  EXPECT_EQ(connection->content, nullptr);
  EXPECT_EQ(connection->content_len, 0u);
  EXPECT_EQ(connection->status_code, 0);
  EXPECT_EQ(connection->num_headers, 0);
  EXPECT_EQ(connection->http_headers[0].name, nullptr);
}

TEST(Answers, ShowThirtyHeadersAtMost) {
  std::string reply = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 40; ++i)
    reply += "X-" + std::to_string(i) + ": v\r\n";
  ScriptedServer server({{expect_request(), send_bytes(reply + "Content-Length: 0\r\n\r\n")}});
  Client client;
  int headers = 0;
  std::string last;
  client.on_event = [&](mg_connection* connection, mg_event event) {
    if (event == MG_REPLY) {
      headers = connection->num_headers;
      last = connection->http_headers[29].name;
    }
    return event == MG_POLL ? 0 : 1;
  };
  send_request(client.connect("127.0.0.1", server.port()));
  ASSERT_TRUE(client.poll_until_events(2));
  EXPECT_EQ(headers, 30);
  EXPECT_EQ(last, "X-29");
}

TEST(Answers, BeforeTheRequestWasReadAreDelivered) {
  const std::string request = pattern(2'000'003);
  ScriptedServer server(
      {{expect_bytes(1000), send_bytes("HTTP/1.1 413 Too Large\r\nContent-Length: 0\r\n\r\n"),
        expect_bytes(request.size() - 1000)}});
  Client client;
  mg_write(client.connect("127.0.0.1", server.port()), request.data(),
           static_cast<int>(request.size()));
  ASSERT_TRUE(client.poll_until_events(2));
  EXPECT_EQ(client.events, (Events{"CONNECT", "REPLY 413 Too Large []"}));
  ASSERT_TRUE(client.poll_until([&] { return server.received().size() == request.size(); }));
  EXPECT_EQ(client.events.size(), 2u) << "the rest of the request is written all the same";
}

TEST(Answers, OfAServerThatThenSlamsTheDoorAreDelivered) {
  // Unread bytes of the request turn the close into a reset.
  const std::string request = pattern(8'000'001);
  ScriptedServer::Options options;
  options.receive_buffer = 4096;
  ScriptedServer server(
      {{expect_bytes(1000), send_bytes("HTTP/1.1 413 Too Large\r\nContent-Length: 0\r\n\r\n"),
        close_connection()}},
      options);
  Client client;
  mg_write(client.connect("127.0.0.1", server.port()), request.data(),
           static_cast<int>(request.size()));
  ASSERT_TRUE(client.poll_until_events(3));
  EXPECT_EQ(client.events, (Events{"CONNECT", "REPLY 413 Too Large []", "CLOSE"}));
}

TEST(Answers, ThatWaitBehindABrokenPipeAreDelivered) {
  std::atomic<bool> slammed{false};
  ScriptedServer server({{expect_request(), send_bytes(kOk), pause_ms(50),
                          run([&] { slammed = true; }), reset_connection()}});
  Client client;
  mg_connection* const connection = client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(1));
  // The request goes out through a poll that looks at nothing else.
  bool asked = false;
  client.on_event = [&](mg_connection*, mg_event event) {
    if (event == MG_POLL && !asked) {
      asked = true;
      send_request(connection);
    } else if (event == MG_POLL && asked) {
      EXPECT_TRUE(eventually([&] { return slammed && server.ended(); }));
      mg_write(connection, "more", 4);
    }
    return event == MG_POLL ? 0 : 1;
  };
  client.poll(0);
  ASSERT_TRUE(client.poll_until_events(3));
  EXPECT_EQ(client.events, (Events{"CONNECT", "REPLY 200 OK [hello]", "CLOSE"}));
}

// ---- Connecting ----

TEST(Connecting, RefusedGivesCloseAlone) {
  const RefusingPort port;
  Client client;
  ASSERT_NE(client.connect("127.0.0.1", port.port()), nullptr);
  ASSERT_TRUE(client.poll_until_events(1));
  EXPECT_EQ(client.poll(0), 0);
  EXPECT_EQ(client.events, Events{"CLOSE"});
}

TEST(Connecting, OverIpv6) {
  ScriptedServer::Options options;
  options.ipv6 = true;
  ScriptedServer server({{expect_request(), send_bytes(kOk)}}, options);
  Client client;
  mg_connection* const connection = client.connect("::1", server.port());
  send_request(connection);
  ASSERT_TRUE(client.poll_until_events(2));
  EXPECT_EQ(client.events, (Events{"CONNECT", "REPLY 200 OK [hello]"}));
  EXPECT_STREQ(connection->remote_ip, "::1");
  EXPECT_STREQ(connection->local_ip, "::1");
  EXPECT_EQ(connection->remote_port, server.port());
}

TEST(Connecting, OverIpv6RefusedGivesCloseAlone) {
  const RefusingPort port(true);
  Client client;
  ASSERT_NE(client.connect("::1", port.port()), nullptr);
  ASSERT_TRUE(client.poll_until_events(1));
  EXPECT_EQ(client.events, Events{"CLOSE"});
}

// The sandbox's own /etc/hosts gives this name 127.0.0.1 and ::1.
constexpr const char* kTwoAddresses = "two-addresses.test";

TEST(Connecting, TriesEveryAddressOfAName) {
  for (const bool ipv6 : {false, true}) {
    ScriptedServer::Options options;
    options.ipv6 = ipv6;
    ScriptedServer server({{expect_request(), send_bytes(kOk)}}, options);
    Client client;
    mg_connection* const connection = client.connect(kTwoAddresses, server.port());
    send_request(connection);
    ASSERT_TRUE(client.poll_until_events(2));
    EXPECT_EQ(client.events, (Events{"CONNECT", "REPLY 200 OK [hello]"}));
    EXPECT_STREQ(connection->remote_ip, ipv6 ? "::1" : "127.0.0.1");
  }
}

TEST(Connecting, ToEveryAddressRefusedGivesOneClose) {
  const RefusingPort port;
  Client client;
  ASSERT_NE(client.connect(kTwoAddresses, port.port()), nullptr);
  ASSERT_TRUE(client.poll_until_events(1));
  EXPECT_EQ(client.poll(10), 0);
  EXPECT_EQ(client.events, Events{"CLOSE"});
}

TEST(Connecting, ToANameThatDoesNotResolveGivesNull) {
  Client client;
  EXPECT_EQ(client.connect("no-such-host.invalid", 80), nullptr);
  EXPECT_EQ(client.poll(1000), 0);
  EXPECT_TRUE(client.events.empty());
}

TEST(Connecting, WithoutServerHostOrPortGivesNull) {
  Client client;
  EXPECT_EQ(mg_connect(nullptr, "127.0.0.1", 80, 0), nullptr);
  EXPECT_EQ(mg_connect(client.server(), nullptr, 80, 0), nullptr);
  EXPECT_EQ(client.connect("", 80), nullptr);
  EXPECT_EQ(client.connect("127.0.0.1", -1), nullptr);
  EXPECT_EQ(client.connect("127.0.0.1", 65536), nullptr);
}

TEST(Connecting, NotesTheAddresses) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  mg_connection* const connection = client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(1));
  EXPECT_STREQ(connection->remote_ip, "127.0.0.1");
  EXPECT_STREQ(connection->local_ip, "127.0.0.1");
  EXPECT_EQ(connection->remote_port, server.port());
  EXPECT_GT(connection->local_port, 0);
}

// A listening socket whose queue is full leaves further ones without an answer.
class SilentPort {
 public:
  SilentPort() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr any = {};
    std::memcpy(&any, &address_, sizeof any);
    socklen_t size = sizeof any;
    EXPECT_EQ(bind(listener_, &any, size), 0);
    EXPECT_EQ(listen(listener_, 0), 0);
    EXPECT_EQ(getsockname(listener_, &any, &size), 0);
    std::memcpy(&address_, &any, sizeof any);
    for (int& filler : fillers_) {
      filler = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      [[maybe_unused]] const int result = connect(filler, &any, size);
      std::this_thread::sleep_for(5ms);
    }
  }
  ~SilentPort() {
    close(listener_);
    for (const int filler : fillers_)
      close(filler);
  }
  SilentPort(const SilentPort&) = delete;
  SilentPort& operator=(const SilentPort&) = delete;
  int port() const { return ntohs(address_.sin_port); }

 private:
  int listener_;
  int fillers_[4] = {};
  sockaddr_in address_ = {};
};

TEST(Connecting, GetsAPollWithEachPollMeanwhile) {
  const SilentPort port;
  Client client;
  client.connect("127.0.0.1", port.port());
  for (int i = 1; i <= 5; ++i) {
    EXPECT_EQ(client.poll(10), 1);
    EXPECT_EQ(client.polls, i);
  }
  EXPECT_TRUE(client.events.empty());
  client.destroy();
  EXPECT_EQ(client.events, Events{"CLOSE"});
}

TEST(Connecting, AnsweredWithFalseCloses) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  client.on_event = [](mg_connection*, mg_event) { return 0; };
  client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(2));
  EXPECT_EQ(client.poll(0), 0);
  EXPECT_EQ(client.events, (Events{"CONNECT", "CLOSE"}));
  EXPECT_TRUE(eventually([&] { return server.ended(); }));
}

std::vector<int> open_sockets() {
  std::vector<int> result;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    int type = 0;
    socklen_t size = sizeof type;
    if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0)
      result.push_back(descriptor);
  }
  return result;
}

int open_descriptors() {
  DIR* const folder = opendir("/proc/self/fd");
  int count = 0;
  while (readdir(folder) != nullptr)
    ++count;
  closedir(folder);
  return count;
}

TEST(Connecting, LeavesNothingToTheChildrenOfTheProcess) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(1));
  ASSERT_TRUE(eventually([&] { return server.accepted() == 1; }));
  const std::vector<int> sockets = open_sockets();
  EXPECT_GE(sockets.size(), 3u) << "listener, its connection, ours";
  for (const int descriptor : sockets) {
    EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC) << descriptor;
  }
}

// ---- Polling ----

TEST(Polling, WithoutConnectionsReturnsZeroAtOnce) {
  Client client;
  EXPECT_EQ(client.poll(INT_MAX), 0);
}

TEST(Polling, WithoutAServerReturnsZero) {
  EXPECT_EQ(mg_poll_server(nullptr, INT_MAX), 0);
}

TEST(Polling, ReturnsTheNumberOfConnectionsAndPollsEachOnce) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  for (const char* tag : {"a ", "b ", "c "})
    client.connect("127.0.0.1", server.port(), false, tag);
  ASSERT_TRUE(client.poll_until_events(3));
  EXPECT_THAT(client.events, testing::UnorderedElementsAre("a CONNECT", "b CONNECT", "c CONNECT"));
  client.polls = 0;
  EXPECT_EQ(client.poll(10), 3);
  EXPECT_EQ(client.polls, 3);
}

double seconds_of(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

TEST(Polling, WaitsForTheWholeTimeWithoutWorking) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(1));
  client.poll(0);
  const double begin = seconds_of(CLOCK_MONOTONIC);
  const double work = seconds_of(CLOCK_THREAD_CPUTIME_ID);
  EXPECT_EQ(client.poll(1200), 1);
  EXPECT_GE(seconds_of(CLOCK_MONOTONIC) - begin, 1.19);
  EXPECT_LT(seconds_of(CLOCK_THREAD_CPUTIME_ID) - work, 0.05);
}

TEST(Polling, WithZeroOrLessDoesNotWait) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until([&] {
    client.poll(-1);
    return client.events.size() == 1;
  }));
  EXPECT_EQ(client.poll(0), 1);
}

TEST(Polling, EndsWithAnEvent) {
  ScriptedServer server({{pause_ms(100), close_connection()}});
  Client client;
  client.connect("127.0.0.1", server.port());
  client.poll(INT_MAX);
  client.poll(INT_MAX);
  EXPECT_EQ(client.events, (Events{"CONNECT", "CLOSE"}));
}

TEST(Polling, EndsInTimeWhileBytesTrickleIn) {
  ScriptedServer server({{expect_request(), send_bytes("HTTP/1.1 200 OK\r\n\r\n"),
                          send_bytes(std::string(1'000'000, 'x'), 1)}});
  Client client;
  send_request(client.connect("127.0.0.1", server.port()));
  ASSERT_TRUE(client.poll_until_events(1));
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(client.poll(20), 1);
  EXPECT_EQ(client.events, Events{"CONNECT"});
}

TEST(Polling, AnsweredWithTrueCloses) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(1));
  client.on_event = [](mg_connection*, mg_event event) { return event == MG_POLL ? 1 : 0; };
  EXPECT_EQ(client.poll(INT_MAX), 0);
  EXPECT_EQ(client.events, (Events{"CONNECT", "CLOSE"}));
}

TEST(Answers, AnsweredWithFalseClose) {
  ScriptedServer server({{expect_request(), send_bytes(kOk)}});
  Client client;
  client.on_event = [](mg_connection*, mg_event event) { return event == MG_CONNECT ? 1 : 0; };
  send_request(client.connect("127.0.0.1", server.port()));
  ASSERT_TRUE(client.poll_until_events(3));
  EXPECT_EQ(client.events, (Events{"CONNECT", "REPLY 200 OK [hello]", "CLOSE"}));
}

// ---- Writing ----

TEST(Writing, TellsHowMuchItQueued) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  mg_connection* const connection = client.connect("127.0.0.1", server.port());
  EXPECT_EQ(mg_write(connection, "abc", 3), 3);
  EXPECT_EQ(mg_write(connection, "abc", 0), 0);
  EXPECT_EQ(mg_write(connection, "abc", -1), 0);
  EXPECT_EQ(mg_write(connection, nullptr, 3), 0);
  EXPECT_EQ(mg_write(nullptr, "abc", 3), 0);
  ASSERT_TRUE(client.poll_until([&] { return server.received() == "abc"; }));
}

TEST(Writing, CopiesTheBytes) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  std::string bytes = "before";
  mg_write(client.connect("127.0.0.1", server.port()), bytes.data(), 6);
  bytes = "behind";
  ASSERT_TRUE(client.poll_until([&] { return server.received().size() == 6; }));
  EXPECT_EQ(server.received(), "before");
}

TEST(Writing, InAPollGoesOutWithTheSamePoll) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(1));
  client.on_event = [](mg_connection* connection, mg_event event) {
    if (event == MG_POLL) send_request(connection);
    return 0;
  };
  client.poll(0);
  EXPECT_TRUE(eventually([&] { return server.received() == kRequest; }));
}

TEST(Writing, InAPollGoesOutWithTheSamePollOnEveryOneOfManyConnections) {
  constexpr std::size_t kMany = 100;
  ScriptedServer server({{read_to_end()}});
  Client client;
  for (std::size_t i = 0; i < kMany; ++i)
    client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(kMany));
  ASSERT_TRUE(eventually([&] { return server.accepted() == kMany; }));
  client.on_event = [](mg_connection* connection, mg_event event) {
    if (event == MG_POLL) send_request(connection);
    return 0;
  };
  client.poll(0);
  for (std::size_t i = 0; i < kMany; ++i) {
    EXPECT_TRUE(eventually([&] { return server.received(i) == kRequest; })) << i;
  }
}

TEST(Writing, InAConnectOrAReplyGoesOutAtOnce) {
  ScriptedServer server({{expect_request(), send_bytes(kOk), expect_request(), send_bytes(kOk)}});
  Client client;
  client.on_event = [&](mg_connection* connection, mg_event event) {
    if (event != MG_POLL && event != MG_CLOSE && client.events.size() < 3) send_request(connection);
    return event == MG_POLL ? 0 : 1;
  };
  client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(3));
  EXPECT_EQ(client.events, (Events{"CONNECT", "REPLY 200 OK [hello]", "REPLY 200 OK [hello]"}));
}

TEST(Writing, OnAnotherThreadIsNoticedByARunningPoll) {
  ScriptedServer server({{expect_request(), send_bytes(kOk)}});
  Client client;
  mg_connection* const connection = client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(1));
  std::thread writer([&] {
    std::this_thread::sleep_for(100ms);
    send_request(connection);
  });
  client.poll(INT_MAX);
  writer.join();
  EXPECT_EQ(client.events, (Events{"CONNECT", "REPLY 200 OK [hello]"}));
}

TEST(Writing, EightMegabytesToASlowReaderBlocksNobody) {
  const std::string request = pattern(8'000'001);
  std::atomic<bool> reading{false};
  ScriptedServer::Options options;
  options.receive_buffer = 4096;
  ScriptedServer server({{run([&] { eventually([&] { return reading.load(); }); }),
                          expect_bytes(request.size()), send_bytes(kOk)}},
                        options);
  Client client;
  mg_connection* const connection = client.connect("127.0.0.1", server.port());
  EXPECT_EQ(mg_write(connection, request.data(), static_cast<int>(request.size())),
            static_cast<int>(request.size()));
  // The server reads nothing at all, and yet each of these comes back.
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(client.poll(20), 1);
  EXPECT_EQ(client.events, Events{"CONNECT"});
  reading = true;
  ASSERT_TRUE(client.poll_until_events(2));
  EXPECT_EQ(client.events.back(), "REPLY 200 OK [hello]");
  EXPECT_TRUE(server.received() == request);
}

// Some of it goes out while the handler runs, the rest must come before what is written next.
TEST(Writing, InAPollManyMegabytesAndThenAFewBytesKeepTheirOrder) {
  const std::string first = pattern(8'000'001);
  const std::string second = "behind it";
  std::atomic<bool> reading{false};
  ScriptedServer::Options options;
  options.receive_buffer = 4096;
  ScriptedServer server({{run([&] { eventually([&] { return reading.load(); }); }),
                          expect_bytes(first.size() + second.size()), send_bytes(kOk)}},
                        options);
  Client client;
  client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(1));
  bool written = false;
  client.on_event = [&](mg_connection* connection, mg_event event) {
    if (event != MG_POLL) return 1;
    if (std::exchange(written, true)) return 0;
    std::string bytes = first;
    EXPECT_EQ(mg_write(connection, bytes.data(), static_cast<int>(bytes.size())),
              static_cast<int>(bytes.size()));
    bytes = second;
    EXPECT_EQ(mg_write(connection, bytes.data(), static_cast<int>(bytes.size())),
              static_cast<int>(bytes.size()));
    return 0;
  };
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(client.poll(20), 1);
  reading = true;
  ASSERT_TRUE(client.poll_until_events(2));
  EXPECT_EQ(client.events.back(), "REPLY 200 OK [hello]");
  EXPECT_TRUE(server.received() == first + second);
}

TEST(Writing, ToAServerThatHasGoneGivesNoCloseInsideTheHandler) {
  ScriptedServer server({{expect_request(), reset_connection()}});
  Client client;
  mg_connection* const connection = client.connect("127.0.0.1", server.port());
  send_request(connection);
  ASSERT_TRUE(client.poll_until([&] { return server.ended(); }));
  const std::string request = pattern(8'000'001);
  std::size_t events_after_writing = 0;
  client.on_event = [&](mg_connection* polled, mg_event event) {
    if (event != MG_POLL) return 0;
    mg_write(polled, request.data(), static_cast<int>(request.size()));
    mg_write(polled, request.data(), static_cast<int>(request.size()));
    events_after_writing = client.events.size();
    return 0;
  };
  ASSERT_TRUE(client.poll_until_events(2));
  EXPECT_EQ(client.events, (Events{"CONNECT", "CLOSE"}));
  EXPECT_LE(events_after_writing, 1U);
}

TEST(Writing, ToAServerThatHasGoneGivesCloseNotSigpipe) {
  ScriptedServer server({{expect_request(), close_connection()}});
  Client client;
  mg_connection* const connection = client.connect("127.0.0.1", server.port());
  send_request(connection);
  ASSERT_TRUE(client.poll_until_events(1));
  // Written without a look at the server's goodbye: what goes out first is answered with a reset,
  // what follows finds a broken pipe.
  const std::string request = pattern(8'000'001);
  client.on_event = [&](mg_connection*, mg_event event) {
    if (event != MG_POLL) return 0;
    EXPECT_TRUE(eventually([&] { return server.ended(); }));
    mg_write(connection, request.data(), static_cast<int>(request.size()));
    return 0;
  };
  ASSERT_TRUE(client.poll_until_events(2));
  EXPECT_EQ(client.events, (Events{"CONNECT", "CLOSE"}));
}

// ---- Threads ----

TEST(Threads, ConnectingIsNoticedByARunningPoll) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  client.connect("127.0.0.1", server.port(), false, "first ");
  ASSERT_TRUE(client.poll_until_events(1));
  std::thread other([&] {
    std::this_thread::sleep_for(100ms);
    client.connect("127.0.0.1", server.port(), false, "second ");
  });
  while (client.events.size() < 2)
    client.poll(INT_MAX);
  other.join();
  EXPECT_EQ(client.events, (Events{"first CONNECT", "second CONNECT"}));
}

TEST(ConnectionParam, ComparesLikeAPlainPointer) {
  char text[] = "tag";
  char other[] = "tag";
  const char* const read_only = text;
  mg_connection connection = {};
  EXPECT_TRUE(connection.connection_param == nullptr);
  connection.connection_param = text;
  EXPECT_TRUE(connection.connection_param == static_cast<void*>(text));
  EXPECT_TRUE(static_cast<void*>(text) == connection.connection_param);
  EXPECT_TRUE(connection.connection_param == read_only);
  EXPECT_TRUE(connection.connection_param != static_cast<void*>(other));
  EXPECT_TRUE(connection.connection_param != nullptr);
}

TEST(ConnectionParam, IsCopiedWithItsConnection) {
  char text[] = "tag";
  mg_connection connection = {};
  connection.connection_param = text;
  const mg_connection copy = connection;
  EXPECT_TRUE(copy.connection_param == static_cast<void*>(text));
  mg_connection assigned = {};
  assigned = connection;
  EXPECT_TRUE(assigned.connection_param == static_cast<void*>(text));
}

TEST(Threads, NoEventComesBeforeTheConnectionParam) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  bool saw_null = false;
  client.on_event = [&](mg_connection* connection, mg_event event) {
    saw_null = saw_null || connection->connection_param == nullptr;
    return event == MG_POLL ? 0 : 1;
  };
  std::thread other([&] {
    mg_connection* const connection = mg_connect(client.server(), "127.0.0.1", server.port(), 0);
    std::this_thread::sleep_for(300ms);
    connection->connection_param = const_cast<char*>("tag ");
  });
  ASSERT_TRUE(client.poll_until_events(1));
  other.join();
  EXPECT_EQ(client.events, Events{"tag CONNECT"});
  EXPECT_FALSE(saw_null);
}

TEST(Threads, AConnectionThatGetsNoParamStartsAfterAboutASecond) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  const double begin = seconds_of(CLOCK_MONOTONIC);
  std::thread([&] {
    EXPECT_NE(mg_connect(client.server(), "127.0.0.1", server.port(), 0), nullptr);
  }).join();
  EXPECT_EQ(client.poll(0), 1) << "held back, but there";
  EXPECT_EQ(client.polls, 0);
  ASSERT_TRUE(client.poll_until_events(1));
  EXPECT_GE(seconds_of(CLOCK_MONOTONIC) - begin, 0.9);
  EXPECT_EQ(client.events, Events{"untagged CONNECT"});
}

TEST(Threads, AConnectionOfThePollingThreadNeedsNoParam) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  ASSERT_NE(mg_connect(client.server(), "127.0.0.1", server.port(), 0), nullptr);
  client.poll(0);
  EXPECT_EQ(client.polls, 1);
}

TEST(Threads, AHandlerMayConnect) {
  ScriptedServer server({{close_connection()}, {}});
  Client client;
  client.on_event = [&](mg_connection*, mg_event event) {
    if (event == MG_CLOSE) client.connect("127.0.0.1", server.port(), false, "again ");
    return event == MG_POLL ? 0 : 1;
  };
  client.connect("127.0.0.1", server.port());
  ASSERT_TRUE(client.poll_until_events(3));
  EXPECT_EQ(client.events, (Events{"CONNECT", "CLOSE", "again CONNECT"}));
  client.on_event = nullptr;
}

TEST(Threads, AHandlerThatConnectsInAPollIsServedByTheNext) {
  ScriptedServer server({{read_to_end()}});
  Client client;
  client.connect("127.0.0.1", server.port(), false, "first ");
  ASSERT_TRUE(client.poll_until_events(1));
  bool connected = false;
  client.on_event = [&](mg_connection*, mg_event event) {
    if (event == MG_POLL && !connected) {
      connected = true;
      client.connect("127.0.0.1", server.port(), false, "second ");
    }
    return event == MG_POLL ? 0 : 1;
  };
  client.poll(INT_MAX);  // comes back for the sake of the new one
  client.poll(INT_MAX);
  EXPECT_EQ(client.events, (Events{"first CONNECT", "second CONNECT"}));
}

std::atomic<int> thread_param{0};

void* take_param(void* param) {
  thread_param = *static_cast<int*>(param);
  return nullptr;
}

TEST(Threads, StartRunsTheFunctionWithItsParam) {
  static int value = 42;
  EXPECT_NE(mg_start_thread(take_param, &value), nullptr);
  EXPECT_TRUE(eventually([] { return thread_param == 42; }));
}

TEST(Threads, StartWithoutAFunctionGivesNull) {
  EXPECT_EQ(mg_start_thread(nullptr, nullptr), nullptr);
}

// ---- Servers ----

TEST(Servers, WithoutAHandlerAreNull) {
  EXPECT_EQ(mg_create_server(nullptr, nullptr), nullptr);
}

int ignore(mg_connection* /*connection*/, mg_event /*event*/) {
  return 0;
}

TEST(Servers, WithoutDescriptorsAreNull) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's check of thrown objects needs descriptors itself";
#endif
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const int lowest_free = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(lowest_free);
  int refused = 0;
  for (rlim_t spare = 0; spare < 20; ++spare) {
    const rlimit few = {static_cast<rlim_t>(lowest_free) + spare, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    mg_server* server = mg_create_server(nullptr, ignore);
    if (server == nullptr) ++refused;
    mg_destroy_server(&server);
  }
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_GE(refused, 3);
  EXPECT_LT(refused, 20);
}

TEST(Servers, DestroyedCloseEveryConnectionAndTheHandleIsNull) {
  ScriptedServer server({{read_to_end()}});
  const SilentPort silent;
  Client client;
  client.connect("127.0.0.1", server.port(), false, "connected ");
  client.connect("127.0.0.1", silent.port(), false, "connecting ");
  ASSERT_TRUE(client.poll_until_events(1));
  client.connect("127.0.0.1", server.port(), false, "new ");
  bool connected_again = false;
  client.on_event = [&](mg_connection*, mg_event) {
    connected_again = client.connect("127.0.0.1", server.port()) != nullptr;
    return 0;
  };
  client.destroy();
  EXPECT_EQ(client.server(), nullptr);
  EXPECT_THAT(client.events, testing::UnorderedElementsAre("connected CONNECT", "connected CLOSE",
                                                           "connecting CLOSE", "new CLOSE"));
  EXPECT_FALSE(connected_again) << "a server that is going takes no more";
  EXPECT_TRUE(eventually([&] { return server.ended(); }));
}

TEST(Servers, DestroyedTwiceOrWithoutAHandleAreHarmless) {
  mg_destroy_server(nullptr);
  mg_server* server = mg_create_server(nullptr, ignore);
  mg_destroy_server(&server);
  mg_destroy_server(&server);
  EXPECT_EQ(server, nullptr);
}

TEST(Servers, GiveEveryDescriptorBack) {
  ScriptedServer server({{expect_request(), send_bytes(kOk), close_connection()}});
  const int before = open_descriptors();
  for (int i = 0; i < 50; ++i) {
    Client client;
    send_request(client.connect("127.0.0.1", server.port()));
    ASSERT_TRUE(client.poll_until_events(i % 2 == 0 ? 3 : 1));
  }
  EXPECT_TRUE(eventually([&] { return open_descriptors() == before; }));
}

}  // namespace
