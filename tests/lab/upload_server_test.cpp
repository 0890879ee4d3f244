#include "lab/upload_server/upload_server.h"

#include <unistd.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <thread>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "lab/upload_server/control.h"
#include "tests/lab/requests.h"
#include "tests/lab/tcp_client.h"
#include "tests/support/files.h"
#include "tests/support/journal.h"

namespace lab {
namespace {

using test_support::gzip;
using test_support::multipart_upload;
using test_support::noise;
using test_support::TcpClient;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char kGood[] =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 10\r\n\r\n{\"code\":1}";

class UploadServerTest : public testing::Test {
 protected:
  UploadReport report(std::size_t index) {
    EXPECT_TRUE(server.wait_for_reports(index + 1, std::chrono::seconds(60)));
    return server.reports().at(index);
  }
  std::string outcome(std::size_t index) { return report(index).outcome; }

  UploadServer server{UploadServer::Settings()};
  TcpClient client{server.port()};
};

TEST_F(UploadServerTest, AnswersBothKindsOnOnePersistentConnection) {
  const std::string log = noise(5003);
  const std::string relay = gzip(noise(700));
  client.send(multipart_upload(log, "one.gz"));
  EXPECT_EQ(client.receive_through("}"), kGood);
  client.send(relay);
  EXPECT_EQ(client.receive_through("}"), kGood);

  const UploadReport first = report(0);
  EXPECT_EQ(first.number, 1U);
  EXPECT_EQ(first.connection, 1U);
  EXPECT_EQ(first.upload.file_name, "one.gz");
  EXPECT_EQ(first.upload.file, log);
  EXPECT_TRUE(first.accepted());
  const UploadReport second = report(1);
  EXPECT_EQ(second.number, 2U);
  EXPECT_EQ(second.connection, 1U);
  EXPECT_EQ(second.upload.kind, UploadKind::kRaw);
  EXPECT_EQ(second.upload.file, relay);
  EXPECT_TRUE(second.accepted());
  EXPECT_EQ(server.connections_accepted(), 1U);
}

TEST_F(UploadServerTest, UploadsThatArriveTogetherAreToldApart) {
  client.send(gzip("first") + gzip("second") + multipart_upload("third"));
  EXPECT_EQ(client.receive_through("}") + client.receive_through("}") + client.receive_through("}"),
            std::string(kGood) + kGood + kGood);
  EXPECT_EQ(report(0).upload.file, gzip("first"));
  EXPECT_EQ(report(1).upload.file, gzip("second"));
  EXPECT_EQ(report(2).upload.file, "third");
}

TEST_F(UploadServerTest, ServesConnectionsSideBySide) {
  constexpr unsigned kClients = 8;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kClients; ++i) {
    threads.emplace_back([this, i] {
      TcpClient other(server.port());
      for (unsigned j = 0; j < 5; ++j) {
        other.send(multipart_upload(noise(10'000 + i, i * 10 + j + 1)));
        EXPECT_EQ(other.receive_through("}"), kGood);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_TRUE(server.wait_for_reports(std::size_t{5} * kClients, std::chrono::seconds(60)));
  for (const UploadReport& each : server.reports())
    EXPECT_EQ(each.upload.problem, "");
}

TEST_F(UploadServerTest, RefusesWhatNobodyCanUse) {
  client.send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_THAT(client.receive_all(), StartsWith("HTTP/1.1 400 Bad Request\r\n"));
  EXPECT_EQ(report(0).upload.problem, "neither a POST request nor a gzip stream");
  EXPECT_EQ(report(0).status, 400);
  EXPECT_FALSE(report(0).accepted());
}

TEST_F(UploadServerTest, NotesWhatTheClientCutOff) {
  client.send(multipart_upload("whole").substr(0, 100));
  client.close();
  EXPECT_EQ(outcome(0), "cut off by the client");
  EXPECT_EQ(report(0).upload.request.size(), 100U);
}

TEST_F(UploadServerTest, ScriptedAnswersComeInOrderThenTheDefault) {
  Reply busy;
  busy.status = 503;
  busy.reason = "Busy";
  Reply fallback;
  fallback.body = "{}";
  server.script(busy, 2);
  server.set_default_reply(fallback);
  for (const char* expected :
       {"HTTP/1.1 503 Busy\r\n", "HTTP/1.1 503 Busy\r\n", "HTTP/1.1 200 OK\r\n"}) {
    client.send(gzip("x"));
    EXPECT_THAT(client.receive_through("}"), StartsWith(expected));
  }
  server.clear_script();
  client.send(gzip("x"));
  EXPECT_EQ(client.receive_through("}"), kGood);
  EXPECT_EQ(report(1).status, 503);
}

TEST_F(UploadServerTest, ScriptedAnswerMayBeForOneKindAlone) {
  Reply bad;
  bad.status = 500;
  bad.only_for = UploadKind::kRaw;
  server.script(bad);
  client.send(multipart_upload("x"));
  EXPECT_EQ(client.receive_through("}"), kGood);
  client.send(gzip("x"));
  EXPECT_THAT(client.receive_through("}"), StartsWith("HTTP/1.1 500 "));
}

TEST_F(UploadServerTest, ClosesInTheRequest) {
  Reply reply;
  reply.close = CloseAt::kInRequest;
  reply.close_after = 50;
  server.script(reply);
  client.send(multipart_upload(noise(1000)));
  EXPECT_EQ(client.receive_all(), "");
  EXPECT_EQ(outcome(0), "closed in the request");
  EXPECT_EQ(report(0).upload.request.size(), 50U);
}

TEST_F(UploadServerTest, ClosesInsteadOfAnswering) {
  Reply reply;
  reply.close = CloseAt::kBeforeReply;
  server.script(reply);
  client.send(gzip("x"));
  EXPECT_EQ(client.receive_all(), "");
  EXPECT_EQ(client.error(), 0);
  EXPECT_EQ(outcome(0), "closed without an answer");
  EXPECT_TRUE(report(0).upload.complete);
}

TEST_F(UploadServerTest, ClosesInTheAnswer) {
  Reply reply;
  reply.close = CloseAt::kInReply;
  reply.close_after = 20;
  server.script(reply);
  client.send(gzip("x"));
  EXPECT_EQ(client.receive_all(), std::string(kGood).substr(0, 20));
  EXPECT_EQ(outcome(0), "closed in the answer");
  EXPECT_FALSE(report(0).accepted());
}

TEST_F(UploadServerTest, ClosesAfterTheAnswer) {
  Reply reply;
  reply.close = CloseAt::kAfterReply;
  server.script(reply);
  client.send(gzip("x"));
  EXPECT_EQ(client.receive_all(), kGood);
  EXPECT_EQ(outcome(0), "closed after the answer");
  EXPECT_TRUE(report(0).accepted());
}

TEST_F(UploadServerTest, ResetsTheConnection) {
  Reply reply;
  reply.close = CloseAt::kBeforeReply;
  reply.reset = true;
  server.script(reply);
  client.send(gzip("x"));
  EXPECT_EQ(client.receive_all(), "");
  EXPECT_EQ(client.error(), ECONNRESET);
}

TEST_F(UploadServerTest, SendsAnAnswerByteByByte) {
  Reply reply;
  reply.piece = 1;
  reply.piece_pause = std::chrono::milliseconds(0);
  server.script(reply);
  client.send(gzip("x"));
  EXPECT_EQ(client.receive_through("}"), kGood);
  EXPECT_EQ(outcome(0), "answered");
}

TEST_F(UploadServerTest, SendsChunkedAnswers) {
  Reply reply;
  reply.framing = Framing::kChunked;
  server.script(reply);
  client.send(gzip("x"));
  EXPECT_EQ(client.receive_through("0\r\n\r\n"),
            "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nTransfer-Encoding: chunked\r\n"
            "\r\n5\r\n{\"cod\r\n5\r\ne\":1}\r\n0\r\n\r\n");
}

TEST_F(UploadServerTest, SendsAnswersThatEndWithTheConnection) {
  Reply reply;
  reply.framing = Framing::kUntilClose;
  server.script(reply);
  client.send(gzip("x"));
  EXPECT_EQ(client.receive_all(),
            "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nConnection: close\r\n\r\n"
            "{\"code\":1}");
  EXPECT_TRUE(report(0).accepted());
}

TEST_F(UploadServerTest, SendsGarbage) {
  Reply reply;
  reply.raw = std::string("\x00\xff no HTTP", 10);
  server.script(reply);
  client.send(gzip("x"));
  EXPECT_EQ(client.receive_through("HTTP"), reply.raw);
  EXPECT_EQ(report(0).status, 0);
  EXPECT_FALSE(report(0).accepted());
}

TEST_F(UploadServerTest, StaysSilentAndGoesOnListening) {
  Reply silent;
  silent.silent = true;
  server.script(silent);
  client.send(gzip("x"));
  EXPECT_EQ(outcome(0), "left without an answer");
  client.send(gzip("y"));
  EXPECT_EQ(client.receive_through("}"), kGood);
}

TEST_F(UploadServerTest, DelaysAnAnswer) {
  Reply late;
  late.delay = std::chrono::milliseconds(150);
  server.script(late);
  const auto start = std::chrono::steady_clock::now();
  client.send(gzip("x"));
  EXPECT_EQ(client.receive_through("}"), kGood);
  EXPECT_GE(std::chrono::steady_clock::now() - start, late.delay);
}

TEST_F(UploadServerTest, ReadsSlowly) {
  Reply slow;
  slow.read_piece = 100;
  slow.read_pause = std::chrono::milliseconds(10);
  server.script(slow);
  const auto start = std::chrono::steady_clock::now();
  client.send(multipart_upload(noise(1000)));
  EXPECT_EQ(client.receive_through("}"), kGood);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 10 * slow.read_pause);
}

TEST_F(UploadServerTest, HonoursConnectionClose) {
  std::string request = multipart_upload("x");
  request.insert(request.find("Host:"), "Connection: close\r\n");
  client.send(request);
  EXPECT_EQ(client.receive_all(), kGood);
}

TEST_F(UploadServerTest, RefusesTheNextConnections) {
  ASSERT_TRUE(test_support::eventually([this] { return server.connections_accepted() == 1; }));
  server.refuse_connections(1);
  TcpClient refused(server.port());
  EXPECT_EQ(refused.receive_all(), "");
  TcpClient welcome(server.port());
  welcome.send(gzip("x"));
  EXPECT_EQ(welcome.receive_through("}"), kGood);
}

TEST_F(UploadServerTest, PausesAndResumesOnTheSamePort) {
  client.send(gzip("x"));
  client.receive_through("}");
  server.pause();
  EXPECT_EQ(client.receive_all(), "");
  EXPECT_FALSE(TcpClient(server.port()).connected());
  server.resume();
  TcpClient again(server.port());
  again.send(gzip("x"));
  EXPECT_EQ(again.receive_through("}"), kGood);
}

TEST_F(UploadServerTest, DroppingEndsEvenAStalledConnection) {
  Reply stalled;
  stalled.delay = std::chrono::hours(1);
  server.script(stalled);
  client.send(gzip("x"));
  ASSERT_TRUE(test_support::eventually([this] { return server.connections_open() == 1; }));
  server.drop_connections();
  EXPECT_EQ(client.receive_all(), "");
  EXPECT_EQ(server.connections_open(), 0U);
  EXPECT_EQ(outcome(0), "closed without an answer");
}

TEST(UploadServer, SaysWhatItCannotDo) {
  UploadServer::Settings settings;
  settings.address = "no address";
  EXPECT_THROW(UploadServer{settings}, std::runtime_error);
  settings = UploadServer::Settings();
  settings.certificate = "/nowhere/certificate.pem";
  EXPECT_THROW(UploadServer{settings}, std::runtime_error);
  const UploadServer first{UploadServer::Settings()};
  settings = UploadServer::Settings();
  settings.port = first.port();
  EXPECT_THROW(UploadServer{settings}, std::runtime_error) << "the port is taken";
}

TEST(UploadServer, ListensOnIPv6) {
  UploadServer::Settings settings;
  settings.address = "::1";
  const UploadServer server(settings);
  EXPECT_NE(server.port(), 0);
}

class TlsUploadServerTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    settings.certificate = directory + "/certificate.pem";
    settings.key = directory + "/key.pem";
    ASSERT_EQ(run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes"
                  " -days 1 -subj /CN=localhost -addext subjectAltName=IP:127.0.0.1 -keyout " +
                  settings.key + " -out " + settings.certificate + " 2>/dev/null"),
              0);
  }
  void TearDown() override { run("rm -r " + directory); }
  static int run(const std::string& command) { return std::system(command.c_str()); }

  std::string directory = "/tmp/upload_server_test.XXXXXX";
  UploadServer::Settings settings;
};

TEST_F(TlsUploadServerTest, AnswersAnotherProgramOverTls) {
  UploadServer server(settings);
  EXPECT_EQ(
      run("echo some log >" + directory + "/log.gz; curl --silent --fail --cacert " +
          settings.certificate + " --form SenderId=me --form Data=@" + directory +
          "/log.gz https://127.0.0.1:" + std::to_string(server.port()) + "/v1/Upload >/dev/null"),
      0);
  ASSERT_TRUE(server.wait_for_reports(1, std::chrono::seconds(60)));
  const UploadReport report = server.reports().at(0);
  EXPECT_EQ(report.upload.problem, "");
  EXPECT_EQ(report.upload.file, "some log\n");
  EXPECT_EQ(report.upload.file_name, "log.gz");
}

TEST_F(TlsUploadServerTest, ReportsAFailedHandshake) {
  std::string problem;
  settings.on_failed_connection = [&problem](unsigned, const std::string& why) { problem = why; };
  {
    UploadServer server(settings);
    TcpClient client(server.port());
    client.send("no TLS at all\r\n");
    client.receive_all();
  }
  EXPECT_THAT(problem, StartsWith("TLS: "));
}

TEST_F(TlsUploadServerTest, RefusesAKeyThatDoesNotFit) {
  settings.key = settings.certificate;
  EXPECT_THROW(UploadServer{settings}, std::runtime_error);
}

class ControlTest : public UploadServerTest {
 protected:
  nlohmann::json tell(const std::string& line) {
    return nlohmann::json::parse(control(server, line));
  }
  std::string error(const std::string& line) { return tell(line).at("error").dump(); }
};

TEST_F(ControlTest, EveryMemberOfAReplyIsCarriedOut) {
  const Reply reply = reply_from_json(nlohmann::ordered_json::parse(
      R"({"kind":"raw","status":404,"reason":"No","body":"b","framing":"close","raw":"r",
          "silent":true,"delay_ms":1,"close":"in_reply","close_after":2,"reset":true,"piece":3,
          "piece_pause_ms":4,"read_piece":5,"read_pause_ms":6})"));
  EXPECT_EQ(reply.only_for, UploadKind::kRaw);
  EXPECT_EQ(reply.status, 404);
  EXPECT_EQ(reply.reason, "No");
  EXPECT_EQ(reply.body, "b");
  EXPECT_EQ(reply.framing, Framing::kUntilClose);
  EXPECT_EQ(reply.raw, "r");
  EXPECT_TRUE(reply.silent);
  EXPECT_EQ(reply.delay.count(), 1);
  EXPECT_EQ(reply.close, CloseAt::kInReply);
  EXPECT_EQ(reply.close_after, 2U);
  EXPECT_TRUE(reply.reset);
  EXPECT_EQ(reply.piece, 3U);
  EXPECT_EQ(reply.piece_pause.count(), 4);
  EXPECT_EQ(reply.read_piece, 5U);
  EXPECT_EQ(reply.read_pause.count(), 6);
}

TEST_F(ControlTest, ScriptsAnswers) {
  EXPECT_EQ(tell(R"({"do":"reply","times":2,"status":500})").at("ok"), true);
  EXPECT_EQ(tell(R"({"do":"default","status":201})").at("ok"), true);
  for (const char* status : {"500", "500", "201"}) {
    client.send(gzip("x"));
    EXPECT_THAT(client.receive_through("}"), HasSubstr(status));
  }
  EXPECT_EQ(tell(R"({"do":"clear"})").at("ok"), true);
  client.send(gzip("x"));
  EXPECT_EQ(client.receive_through("}"), kGood);
}

TEST_F(ControlTest, PausesResumesDropsAndRefuses) {
  EXPECT_EQ(tell(R"({"do":"pause"})").at("ok"), true);
  EXPECT_FALSE(TcpClient(server.port()).connected());
  EXPECT_EQ(tell(R"({"do":"resume"})").at("ok"), true);
  TcpClient dropped(server.port());
  ASSERT_TRUE(dropped.connected());
  ASSERT_TRUE(test_support::eventually([this] { return server.connections_open() == 1; }));
  EXPECT_EQ(tell(R"({"do":"drop"})").at("ok"), true);
  EXPECT_EQ(dropped.receive_all(), "");
  EXPECT_EQ(tell(R"({"do":"refuse"})").at("ok"), true);
  EXPECT_EQ(TcpClient(server.port()).receive_all(), "");
}

TEST_F(ControlTest, ReportsWhatItSaw) {
  client.send(multipart_upload("some bytes", "n\xff.gz"));
  client.receive_through("}");
  report(0);
  const nlohmann::json answer = tell(R"({"do":"report"})");
  EXPECT_EQ(answer.at("connections_accepted"), 1);
  EXPECT_EQ(answer.at("connections_open"), 1);
  const nlohmann::json upload = answer.at("uploads").at(0);
  EXPECT_EQ(upload.at("kind"), "multipart");
  EXPECT_EQ(upload.at("fields").at("LogType"), "TLink");
  EXPECT_EQ(upload.at("file_name"), "n\xef\xbf\xbd.gz");
  EXPECT_EQ(upload.at("bytes"), 10);
  EXPECT_EQ(upload["sha256"], "0d22cdcc10e6d049dbe1af5123d50873fdfc1a4f58306e58cb6241be9472014d");
  EXPECT_EQ(upload.at("status"), 200);
  EXPECT_EQ(upload.at("outcome"), "answered");
}

TEST_F(ControlTest, NamesWhatItDoesNotUnderstand) {
  EXPECT_EQ(error(R"({"do":"reply","statuss":1})"), "\"no such member: statuss\"");
  EXPECT_EQ(error(R"({"do":"reply","status":"x"})"), "\"member status has an unusable value\"");
  EXPECT_EQ(error(R"({"do":"reply","status":-1})"), "\"member status has an unusable value\"");
  EXPECT_EQ(error(R"({"do":"reply","body":1})"), "\"member body has an unusable value\"");
  EXPECT_EQ(error(R"({"do":"reply","silent":1})"), "\"member silent has an unusable value\"");
  EXPECT_EQ(error(R"({"do":"reply","close":"never again"})"),
            "\"member close has an unusable value\"");
  EXPECT_EQ(error(R"({"do":"reply","times":-1})"), "\"member times has an unusable value\"");
  EXPECT_EQ(error(R"({"do":"dance"})"), "\"no such command\"");
  EXPECT_EQ(error("[]"), "\"no such command\"");
  EXPECT_THAT(error("{"), HasSubstr("parse error"));
}

}  // namespace
}  // namespace lab
