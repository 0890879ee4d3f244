// The lab's programs as a person or a script uses them.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <utility>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "lab/pushpull_store/queues.h"
#include "lab/pushpull_store/tree.h"
#include "lab/sinks/datagram_sink.h"
#include "lab/support/options.h"
#include "lab/support/record.h"
#include "pushpull_data/qv_pushpull_api.h"
#include "tests/lab/program.h"
#include "tests/lab/requests.h"
#include "tests/lab/tcp_client.h"
#include "tests/support/files.h"
#include "tests/support/message_queue.h"
#include "tests/support/processes.h"

namespace {

using lab::Json;
using test_support::gzip;
using test_support::MessageQueue;
using test_support::multipart_upload;
using test_support::Program;
using test_support::ScopedEnvironment;
using test_support::TcpClient;
using test_support::TempDir;
using test_support::with_nul;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class CommandLine : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Of, CommandLine,
                         testing::Values("upload_server", "pushpull_store", "syslog_sink",
                                         "notify_sink"));

TEST_P(CommandLine, WrongOptionGivesOneLineThatNamesItAndStatus2) {
  for (const char* wrong : {"--wrong", "-w", "--wrong=1", "word"}) {
    Program program(GetParam(), {wrong});
    EXPECT_THAT(program.line(),
                AllOf(StartsWith(std::string(GetParam()) + ": "), HasSubstr(wrong)));
    EXPECT_EQ(program.rest(), "");
    EXPECT_EQ(program.wait(), lab::kWrongOption);
  }
}

TEST_P(CommandLine, HelpListsTheOptions) {
  Program program(GetParam(), {"--help"});
  EXPECT_THAT(program.rest(), AllOf(StartsWith("usage: "), HasSubstr("  --help ")));
  EXPECT_EQ(program.wait(), 0);
}

TEST_P(CommandLine, VersionIsTheTrees) {
  Program program(GetParam(), {"--version"});
  EXPECT_EQ(program.rest(), std::string(GetParam()) + " " PROJECT_VERSION_TEXT "\n");
  EXPECT_EQ(program.wait(), 0);
}

TEST(CommandLine, UnusableValueIsNamedWithItsOption) {
  const auto line = [](const std::string& name, const std::vector<std::string>& arguments) {
    Program program(name, arguments);
    std::string first = program.line();
    EXPECT_EQ(program.rest(), "");
    EXPECT_EQ(program.wait(), lab::kWrongOption);
    return first;
  };
  EXPECT_EQ(line("upload_server", {"--port", "65536"}),
            "upload_server: option --port: '65536' is no number from 0 to 65535; --help lists the "
            "options");
  EXPECT_EQ(line("upload_server", {"--port"}),
            "upload_server: option --port needs a value; --help lists the options");
  EXPECT_THAT(line("pushpull_store", {"--queue", "10"}), HasSubstr("'10' is not MAX:SIZE"));
  EXPECT_THAT(line("pushpull_store", {"--queue", "0:10"}), HasSubstr("--queue: '0:10'"));
  EXPECT_THAT(line("pushpull_store", {"--component-queue", "name:1:1"}),
              HasSubstr("'name:1:1' is not /NAME:MAX:SIZE"));
}

TEST(CommandLine, ACertificateAndItsKeyAreGivenTogether) {
  for (const auto& [given, missing] :
       {std::pair("--certificate", "--key"), std::pair("--key", "--certificate")}) {
    Program program("upload_server", {given, "/nowhere"});
    EXPECT_EQ(program.rest(), std::string("upload_server: option ") + given + " needs " + missing +
                                  "; --help lists the options\n");
    EXPECT_EQ(program.wait(), lab::kWrongOption);
  }
}

TEST(CommandLine, WhatCannotBeDoneIsStatus1) {
  Program server("upload_server", {"--address", "nowhere"});
  EXPECT_THAT(server.line(), StartsWith("upload_server: address nowhere: "));
  EXPECT_EQ(server.wait(), 1);
  Program store("pushpull_store", {"--document", "/nowhere"});
  EXPECT_THAT(store.line(), StartsWith("pushpull_store: cannot read /nowhere: "));
  EXPECT_EQ(store.wait(), 1);
  Program sink("notify_sink");
  EXPECT_THAT(sink.line(), StartsWith("notify_sink: no usable path"));
  EXPECT_EQ(sink.wait(), 1);
}

TEST(UploadServerProgram, KeepsRequestsAndFilesAndReportsThem) {
  const TempDir directory;
  Program server("upload_server", {"--json", "--out", directory / "out"});
  const Json listening = server.json();
  TcpClient client(listening["port"]);
  const std::string request = multipart_upload("some bytes", "../a b.gz");
  client.send(request);
  client.receive_through("}");
  const Json first = server.json();
  EXPECT_EQ(first["event"], "upload");
  EXPECT_EQ(first["file_name"], "../a b.gz");
  EXPECT_EQ(first["request"], directory / "out/0001.request");
  EXPECT_EQ(first["file"], directory / "out/0001-.._a b.gz");
  EXPECT_EQ(test_support::read_file(first["request"]), request);
  EXPECT_EQ(test_support::read_file(first["file"]), "some bytes");
  client.send(gzip("relay"));
  client.receive_through("}");
  EXPECT_EQ(test_support::read_file(server.json()["file"]), gzip("relay"));
  EXPECT_EQ(server.stop(), 0);
}

TEST(UploadServerProgram, PrintsPlainLines) {
  Program server("upload_server");
  EXPECT_THAT(server.line(), StartsWith("listening on 127.0.0.1 port "));
}

TEST(UploadServerProgram, TakesCommands) {
  Program server("upload_server", {"--json"});
  const Json listening = server.json();
  TcpClient commands(listening["control_port"]);
  commands.send("{\"do\":\"refuse\"}\n{\"do\":\"reply\",\"sta");
  EXPECT_EQ(commands.receive_through("\n"), "{\"ok\":true}\n");
  commands.send("tus\":500}\n");
  EXPECT_EQ(commands.receive_through("\n"), "{\"ok\":true}\n");
  TcpClient refused(listening["port"]);
  EXPECT_EQ(refused.receive_all(), "");
  EXPECT_EQ(server.json()["event"], "failed connection");
  TcpClient client(listening["port"]);
  client.send(gzip("x"));
  EXPECT_THAT(client.receive_through("}"), StartsWith("HTTP/1.1 500 "));
  EXPECT_EQ(server.json()["status"], 500);
}

std::string request(const std::string& function, const std::string& buffer) {
  return Json{{"function", function}, {"arg", {{"comp_id", 1073741840}, {"buffer", buffer}}}}
      .dump();
}

class StoreProgram : public testing::Test {
 protected:
  StoreProgram() {
    test_support::write_file(directory / "tree.json", R"({"rgw":{"aapState":"bound"}})");
    store = std::make_unique<Program>(
        "pushpull_store", std::vector<std::string>{"--json", "--document", directory / "tree.json",
                                                   "--component-queue", "/wanted:10:512"});
    ready = store->json();
  }
  // It removes its queues. Those of a sandbox that ends are freed some time later only, and until
  // then they take room, which counts per user.
  ~StoreProgram() override { store->stop(); }

  /// Sends a request as a component does. @return what the store says of it
  Json tell(const std::string& text) {
    EXPECT_EQ(lab::send_message("/pushpull", text), "sent");
    return store->json();
  }

  const TempDir directory;
  std::unique_ptr<Program> store;
  Json ready;
};

TEST_F(StoreProgram, MakesItsQueueAndThoseOfComponents) {
  EXPECT_EQ(ready["queue"], "/pushpull");
  EXPECT_EQ(ready["maxmsg"], 10);
  EXPECT_EQ(ready["msgsize"], 8192);
  EXPECT_EQ(ready["component_queues"][0]["queue"], "/wanted");
  EXPECT_EQ(ready["component_queues"][0]["maxmsg"], 10);
  EXPECT_EQ(ready["component_queues"][0]["msgsize"], 512);
  EXPECT_EQ(test_support::file_mode("/dev/mqueue/wanted"), 0660);
  EXPECT_EQ(store->stop(), 0);
  EXPECT_FALSE(test_support::file_exists("/dev/mqueue/wanted"));
  EXPECT_FALSE(test_support::file_exists("/dev/mqueue/pushpull"));
}

TEST_F(StoreProgram, ServesTheClientLibrary) {
  QvPushpullApi api;
  ASSERT_EQ(api.init(""), 0);
  const std::unique_ptr<QvPushpullReceiveQueue> queue(api.create_receive_queue("/me", 10, 8192));
  ASSERT_NE(queue, nullptr);
  ASSERT_EQ(api.comp_register(QV_CMPID_LOG_CONSUMER, "/me", nullptr), 0);
  EXPECT_EQ(store->json()["outcome"], "registered");
  ASSERT_EQ(api.subscribe(QV_CMPID_LOG_CONSUMER, "/rgw", false), 0);
  EXPECT_EQ(store->json()["outcome"], "subscribed");
  ASSERT_EQ(api.get(QV_CMPID_LOG_CONSUMER, "/rgw/aapState", "", false), 0);
  EXPECT_GT(queue->timed_receive(60), 0);
  EXPECT_STREQ(queue->get_queue_buffer(), R"({"rgw":{"aapState":"bound"}})");
  store->json();
  ASSERT_EQ(api.publish(QV_CMPID_LOG_CONSUMER, R"({"rgw":{"aapState":"error"}})"), 0);
  EXPECT_GT(queue->timed_receive(60), 0);
  EXPECT_STREQ(queue->get_queue_buffer(), R"({"rgw":{"aapState":"error"}})");
  mq_unlink("/me");
}

TEST_F(StoreProgram, EndsAMessageWithANul) {
  MessageQueue component("/me");
  tell(request("register", "/me"));
  const Json line = tell(request("get", "/rgw"));
  EXPECT_EQ(line["outcome"], "answered");
  EXPECT_EQ(line["sent"][0]["result"], "sent");
  EXPECT_EQ(component.take()->bytes, with_nul(R"({"rgw":{"aapState":"bound"}})"));
}

TEST_F(StoreProgram, NeverWaitsForAFullQueue) {
  MessageQueue component("/me", 1);
  tell(request("register", "/me"));
  EXPECT_EQ(tell(request("get", "/rgw"))["sent"][0]["result"], "sent");
  EXPECT_EQ(tell(request("get", "/rgw"))["sent"][0]["result"], "dropped: the queue is full");
  EXPECT_EQ(component.count(), 1);
}

TEST_F(StoreProgram, SaysWhatItCouldNotDeliver) {
  const MessageQueue component("/me", 1, 10);
  tell(request("register", "/me"));
  EXPECT_EQ(tell(request("get", "/rgw"))["sent"][0]["result"],
            "dropped: longer than the queue takes");
  tell(request("register", "/nobody"));
  EXPECT_EQ(tell(request("get", "/rgw"))["sent"][0]["result"], "dropped: no such queue");
}

TEST_F(StoreProgram, OutlivesBadRequests) {
  EXPECT_EQ(tell("no JSON")["outcome"], "bad request: no JSON");
  EXPECT_EQ(tell("")["ok"], false);
  EXPECT_EQ(tell(request("dance", "\x01"))["outcome"], "bad request: no such function");
  EXPECT_EQ(tell(request("init", ""))["outcome"], "noted");
}

TEST_F(StoreProgram, TakesOverTheQueueOfAStoreThatDied) {
  store->child().signal(SIGKILL);
  store->wait();
  EXPECT_EQ(lab::send_message("/pushpull", request("init", "waited for")), "sent");
  Program next("pushpull_store", {"--json"});
  next.json();
  EXPECT_EQ(next.json()["buffer"], "waited for");
  EXPECT_EQ(next.stop(), 0);
  mq_unlink("/pushpull");
  mq_unlink("/wanted");
}

TEST(StoreProgramPlain, PrintsALineForEachRequest) {
  Program store("pushpull_store", {"--suffix", "_plain"});
  EXPECT_THAT(store.line(), StartsWith("serving {\"queue\":\"/pushpull_plain\""));
  EXPECT_EQ(lab::send_message("/pushpull_plain", request("get", "/rgw")), "sent");
  EXPECT_THAT(store.line(),
              EndsWith(" get 0x40000010 '/rgw': refused: the component is not registered"));
  EXPECT_EQ(store.stop(), 0);
}

TEST(Queues, AQueueThatDoesNotFitIsMadeSmaller) {
  const lab::Queue queue("/too_large", {1000, 8192});
  EXPECT_TRUE(queue.size().messages == 64 || queue.size().messages == 10);
  EXPECT_EQ(queue.size().bytes, 8192);
  EXPECT_EQ(queue.receive(), std::nullopt);
}

TEST(Queues, AnExistingQueueIsTakenAsItIsAndLeft) {
  MessageQueue other("/other", 3, 100);
  other.send_text("waiting");
  {
    const lab::Queue queue("/other", {10, 8192});
    EXPECT_EQ(queue.size().messages, 3);
    EXPECT_EQ(queue.receive(), "waiting");
  }
  EXPECT_TRUE(test_support::file_exists("/dev/mqueue/other"));
}

TEST(Queues, AnImpossibleNameIsAnError) {
  EXPECT_THROW(lab::Queue("no slash", {10, 10}), std::runtime_error);
}

TEST(SyslogSink, RecordsPriorityAndText) {
  const TempDir directory;
  Program sink("syslog_sink");
  EXPECT_EQ(sink.json()["path"], "/dev/log");
  openlog("LogConsumer", LOG_PID, LOG_USER);
  syslog(LOG_WARNING, "a text: %d\n", 5);
  closelog();
  const Json line = sink.json();
  EXPECT_EQ(line["priority"], LOG_WARNING);
  EXPECT_EQ(line["facility"], 1);
  EXPECT_EQ(line["ident"], "LogConsumer");
  EXPECT_EQ(line["pid"], getpid());
  EXPECT_EQ(line["sender"], getpid());
  EXPECT_EQ(line["text"], "a text: 5\n");
  EXPECT_THAT(std::string(line["time"]), testing::MatchesRegex("....-..-..T..:..:..[.]...Z"));
  EXPECT_EQ(sink.stop(), 0);
  EXPECT_FALSE(test_support::file_exists("/dev/log"));
}

TEST(SyslogSink, AppendsToAFile) {
  const TempDir directory;
  test_support::write_file(directory / "out", "before\n");
  Program sink("syslog_sink", {"--path", directory / "log", "--out", directory / "out"});
  while (!test_support::file_exists(directory / "log"))
    usleep(1000);
  EXPECT_EQ(sink.stop(), 0);
  EXPECT_THAT(test_support::read_file(directory / "out"), StartsWith("before\n"));
}

TEST(SyslogSink, TakesLinesApart) {
  EXPECT_EQ(lab::parse_syslog("<15>Nov  1 01:41:15 a b[12]: x: y").dump(),
            R"({"priority":7,"facility":1,"ident":"a b","pid":12,"text":"x: y"})");
  EXPECT_EQ(lab::parse_syslog("<29>Nov 21 01:41:15 ident: ").dump(),
            R"({"priority":5,"facility":3,"ident":"ident","pid":0,"text":""})");
  EXPECT_EQ(lab::parse_syslog("anything").dump(), R"({"raw":"anything"})");
  EXPECT_EQ(lab::parse_syslog("<29>Nov 21 01:41:15 i[1]: " + std::string(60'000, 'x'))["text"],
            std::string(60'000, 'x'));
}

TEST(NotifySink, RecordsEachState) {
  const TempDir directory;
  Program sink("notify_sink", {"--path", directory / "notify"});
  sink.json();
  const ScopedEnvironment socket("NOTIFY_SOCKET", directory / "notify");
  EXPECT_GT(sd_notify(0, "READY=1\nSTATUS=fine"), 0);
  EXPECT_GT(sd_notify(0, "WATCHDOG=1"), 0);
  EXPECT_EQ(sink.json()["state"], "READY=1");
  EXPECT_EQ(sink.json()["state"], "STATUS=fine");
  const Json line = sink.json();
  EXPECT_EQ(line["state"], "WATCHDOG=1");
  EXPECT_EQ(line["sender"], getpid());
}

TEST(NotifySink, ReplacesADeadSocketButNotALiveOneNorAFile) {
  const TempDir directory;
  const std::string path = directory / "notify";
  Program first("notify_sink", {"--path", path});
  first.json();
  Program second("notify_sink", {"--path", path});
  EXPECT_EQ(second.line(), "notify_sink: already served: " + path);
  EXPECT_EQ(second.wait(), 1);
  first.child().signal(SIGKILL);
  first.wait();
  Program third("notify_sink", {"--path", path});
  EXPECT_EQ(third.json()["event"], "ready");

  test_support::write_file(directory / "file", "precious");
  Program fourth("notify_sink", {"--path", directory / "file"});
  EXPECT_THAT(fourth.line(), StartsWith("notify_sink: cannot bind "));
  EXPECT_EQ(test_support::read_file(directory / "file"), "precious");
}

TEST(Record, FileNamesBecomeSafe) {
  EXPECT_EQ(lab::safe_file_name("a b.gz"), "a b.gz");
  EXPECT_EQ(lab::safe_file_name("../x\n.gz"), ".._x_.gz");
  EXPECT_EQ(lab::safe_file_name(".."), "unnamed");
  EXPECT_EQ(lab::safe_file_name(""), "unnamed");
  EXPECT_EQ(lab::safe_file_name(std::string(1000, 'x')).size(), 200U);
}

}  // namespace
