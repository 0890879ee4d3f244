// ppctl as a program, with a store on real queues: watch, record, replay.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <sstream>

#include "tests/support/files.h"
#include "tests/tools/ppctl/child.h"
#include "tests/tools/ppctl/fake_store.h"
#include "tests/tools/ppctl/queue_names.h"

using ppctl_test::Child;
using ppctl_test::Ended;
using ppctl_test::eventually;
using ppctl_test::FakeStore;
using ppctl_test::Json;
using ppctl_test::ppctl_command;
using ppctl_test::run_ppctl;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

// A ppctl whose subscription stands.
class Watcher : public Child {
 public:
  explicit Watcher(const std::vector<std::string>& arguments) : Child(ppctl_command(arguments)) {
    is_ready_ = eventually([this] { return err().find("watching ") != std::string::npos; });
  }
  bool is_ready() const { return is_ready_; }

 private:
  bool is_ready_;
};

void set_state(const std::string& value) {
  ASSERT_EQ(run_ppctl({"set", "/rgw/aapState", value}).status, 0);
}

std::string line_of(const std::string& state) {
  return "{\"rgw\":{\"aapState\":\"" + state + "\"}}\n";
}

std::vector<Json> read_lines(const std::string& text) {
  std::vector<Json> values;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    values.push_back(Json::parse(line));
  return values;
}

}  // namespace

// ---- watch

TEST(PpctlWatch, PrintsEachChangeAsItComes) {
  const FakeStore store;
  Watcher watcher({"watch", "/rgw"});
  ASSERT_TRUE(watcher.is_ready());
  set_state("binding");
  EXPECT_TRUE(eventually([&] { return watcher.out() == line_of("binding"); })) << watcher.out();
  set_state("bound");
  EXPECT_TRUE(eventually([&] { return watcher.out() == line_of("binding") + line_of("bound"); }));
  EXPECT_EQ(watcher.err(), "ppctl: watching /rgw\n");
}

TEST(PpctlWatch, SubscribesToAllItsPaths) {
  const FakeStore store;
  const Watcher watcher({"watch", "/rgw", "/system/clock", "--changes-only"});
  ASSERT_TRUE(watcher.is_ready());
  EXPECT_EQ(store.requests().at(1), "subscribe /rgw;/system/clock");
  EXPECT_TRUE(store.full_requests().at(1).get_notify_on_change_only());
}

TEST(PpctlWatch, EndsAfterTheCountOfMessages) {
  const FakeStore store;
  Watcher watcher({"watch", "/rgw", "-C", "2"});
  ASSERT_TRUE(watcher.is_ready());
  set_state("binding");
  set_state("bound");
  const Ended ended = watcher.wait();
  EXPECT_EQ(ended.status, 0);
  EXPECT_EQ(ended.out, line_of("binding") + line_of("bound"));
}

TEST(PpctlWatch, EndsWithItsWindow) {
  const FakeStore store;
  const Ended ended = run_ppctl({"watch", "/rgw", "-W", "0.1", "--quiet"});
  EXPECT_EQ(ended.status, 0);
  EXPECT_EQ(ended.out + ended.err, "");
}

TEST(PpctlWatch, FewerMessagesThanAskedForWithinTheWindowIsATimeOut) {
  const FakeStore store;
  const Ended ended = run_ppctl({"watch", "/rgw", "-C", "2", "-W", "0.1", "--quiet"});
  EXPECT_EQ(ended.status, 4);
  EXPECT_EQ(ended.err, "ppctl: 0 of 2 messages came within 0.1 s\n");
}

TEST(PpctlWatch, PrintsATextOfAnotherComponentAsAString) {
  const FakeStore store;
  Watcher watcher({"watch", "/rgw", "-C", "1", "--id", "0x40000020"});
  ASSERT_TRUE(watcher.is_ready());
  ASSERT_EQ(run_ppctl({"sync", "0x40000020", "say \"hello\""}).status, 0);
  EXPECT_EQ(watcher.wait().out, "\"say \\\"hello\\\"\"\n");
}

TEST(PpctlWatch, LeavesOutWhatItDidNotAskFor) {
  const FakeStore store;
  Watcher watcher({"watch", "/rgw", "-C", "1"});
  ASSERT_TRUE(watcher.is_ready());
  store.send_to_all("{\"system\":{}}");
  store.send_to_all("{\"rgw\":{}}");
  EXPECT_EQ(watcher.wait().out, "{\"rgw\":{}}\n");
}

TEST(PpctlWatch, OfTheWholeTreePrintsEverything) {
  const FakeStore store;
  Watcher watcher({"watch", "/", "-C", "1"});
  ASSERT_TRUE(watcher.is_ready());
  store.send_to_all("{\"anything\":{}}");
  EXPECT_EQ(watcher.wait().out, "{\"anything\":{}}\n");
}

TEST(PpctlWatch, SaysOnceThatMessagesMayBeLost) {
  const FakeStore store;
  Watcher watcher({"watch", "/rgw"});
  ASSERT_TRUE(watcher.is_ready());
  const std::string queue = "/ppctl." + std::to_string(watcher.pid());
  for (int burst = 0; burst < 2; ++burst) {
    watcher.send_signal(SIGSTOP);
    while (ppctl_test::messages_in(queue) < 10)
      store.send_to_all("{\"rgw\":{}}");
    watcher.send_signal(SIGCONT);
    ASSERT_TRUE(eventually([&] { return ppctl_test::messages_in(queue) == 0; }));
  }
  const auto text = [&watcher] { return watcher.err(); };
  const std::string expected =
      "ppctl: watching /rgw\nppctl: messages may be lost: the reply queue was full, and the store "
      "drops what does not fit\n";
  EXPECT_TRUE(eventually([&] { return text() == expected; })) << text();
  watcher.send_signal(SIGTERM);
  EXPECT_EQ(watcher.wait().err, expected);
}

TEST(PpctlWatch, AnySignalUnregistersAndRemovesItsQueue) {
  if (std::getenv("LOG_CONSUMER_EMULATED") != nullptr) {
    GTEST_SKIP() << "the emulator writes a line of its own when SIGQUIT ends a program";
  }
  const FakeStore store;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM,
                           SIGPROF, SIGXCPU, SIGIO, SIGPWR, SIGSTKFLT, SIGRTMIN, SIGRTMAX}) {
    Watcher watcher({"watch", "/rgw"});
    ASSERT_TRUE(watcher.is_ready());
    ASSERT_EQ(store.registered(), 1U);
    ASSERT_EQ(ppctl_test::queue_names().size(), 2U);
    watcher.send_signal(signal);
    const Ended ended = watcher.wait();
    EXPECT_EQ(ended.signal, signal);
    EXPECT_EQ(ended.err, "ppctl: watching /rgw\n");
    EXPECT_THAT(ppctl_test::queue_names(), ElementsAre("/pushpull"));
    EXPECT_TRUE(eventually([&] { return store.registered() == 0; }));
  }
}

TEST(PpctlWatch, AReaderThatHasGoneEndsItBeforeTheNextMessage) {
  const FakeStore store;
  Watcher watcher({"watch", "/rgw"});
  ASSERT_TRUE(watcher.is_ready());
  watcher.close_stdout();
  EXPECT_EQ(watcher.wait().signal, SIGPIPE);
  EXPECT_THAT(ppctl_test::queue_names(), ElementsAre("/pushpull"));
}

TEST(PpctlWatch, AnIgnoredSignalStaysIgnored) {
  const FakeStore store;
  Child child({"/bin/sh", "-c", "trap '' HUP; exec " + ppctl_command({})[0] + " watch /rgw -C 1"});
  ASSERT_TRUE(eventually([&] { return child.err().find("watching") != std::string::npos; }));
  child.send_signal(SIGHUP);
  set_state("bound");
  const Ended ended = child.wait();
  EXPECT_EQ(ended.status, 0);
  EXPECT_EQ(ended.out, line_of("bound"));
}

TEST(PpctlWatch, EndsWhenTheStoreTakesItsQueueAway) {
  const FakeStore store;
  Watcher watcher({"watch", "/rgw", "-W", "600"});
  ASSERT_TRUE(watcher.is_ready());
  store.remove_queue();
  const Ended ended = watcher.wait();
  EXPECT_EQ(ended.status, 3);
  EXPECT_THAT(ended.err, HasSubstr("ppctl: the store has gone: its queue /pushpull was removed\n"));
}

TEST(PpctlWatch, OfASilentStoreIsATimeOut) {
  FakeStore::Setup setup;
  setup.serves = false;
  const FakeStore store(setup);
  const Ended ended = run_ppctl({"watch", "/rgw", "--timeout", "0.2"});
  EXPECT_EQ(ended.status, 4);
  EXPECT_THAT(ended.err, StartsWith("ppctl: the store has not answered within 0.2 s: "));
}

TEST(PpctlWatch, NoticesAStoreThatHasStoppedServing) {
  FakeStore::Setup setup;
  setup.last = "publish";
  const FakeStore store(setup);
  Watcher watcher({"watch", "/rgw", "--timeout", "0.5"});
  ASSERT_TRUE(watcher.is_ready());
  run_ppctl({"set", "/rgw/aapState", "bound", "--no-wait"});
  const Ended ended = watcher.wait();
  EXPECT_EQ(ended.status, 4);
  EXPECT_EQ(ended.out, line_of("bound"));
  EXPECT_THAT(ended.err, HasSubstr("ppctl: the store does not answer any more\n"));
}

TEST(PpctlWatch, AsksASilentStoreAndShowsNothingOfIt) {
  const FakeStore store;
  Watcher watcher({"watch", "/rgw", "-C", "1"});
  ASSERT_TRUE(watcher.is_ready());
  const auto asked = [&store] {
    std::size_t echoes = 0;
    for (const std::string& request : store.requests()) {
      if (request.rfind("sync ppctl-echo-", 0) == 0) ++echoes;
    }
    return echoes;
  };
  ASSERT_TRUE(eventually([&] { return asked() == 2; }));
  set_state("bound");
  EXPECT_EQ(watcher.wait().out, line_of("bound"));
}

TEST(PpctlWatch, WorksWithAStoreThatPassesNoTextsOn) {
  FakeStore::Setup setup;
  setup.passes_on = false;
  setup.tree = {{"system", Json::object()}};
  const FakeStore store(setup);
  Watcher watcher({"watch", "/rgw", "-C", "1"});
  ASSERT_TRUE(watcher.is_ready());
  ASSERT_EQ(run_ppctl({"set", "/rgw/aapState", "bound", "--no-wait"}).status, 0);
  EXPECT_EQ(watcher.wait().out, line_of("bound"));
}

TEST(PpctlWatch, TwoAtOnceBothSeeTheChange) {
  const FakeStore store;
  Watcher first({"watch", "/rgw", "-C", "1"});
  Watcher second({"watch", "/rgw/aapState", "-C", "1"});
  ASSERT_TRUE(first.is_ready() && second.is_ready());
  EXPECT_EQ(store.registered(), 2U);
  set_state("bound");
  EXPECT_EQ(first.wait().out, line_of("bound"));
  EXPECT_EQ(second.wait().out, line_of("bound"));
}

TEST(PpctlWatch, AWrongPathIsRefusedBeforeAnythingIsSent) {
  const FakeStore store;
  EXPECT_EQ(run_ppctl({"watch", "/rgw", "/a;/b"}).status, 2);
  EXPECT_THAT(store.requests(), ElementsAre());
}

TEST(PpctlWatch, AStalledReaderDoesNotKeepASignalFromEndingIt) {
  const FakeStore store;
  // A pipe that its owner never reads.
  Child child({"/bin/sh", "-c",
               "mkfifo /tmp/pipe; exec 3<>/tmp/pipe; exec " + ppctl_command({})[0] +
                   " watch /rgw > /tmp/pipe"});
  ASSERT_TRUE(eventually([&] { return child.err().find("watching") != std::string::npos; }));
  const std::string long_text = "{\"rgw\":\"" + std::string(8000, 'x') + "\"}";
  // Its queue fills up once the pipe, of 64 KiB, is full.
  ASSERT_TRUE(eventually([&] {
    store.send_to_all(long_text);
    return ppctl_test::messages_in("/ppctl." + std::to_string(child.pid())) == 10;
  }));
  child.send_signal(SIGTERM);
  EXPECT_EQ(child.wait().signal, SIGTERM);
  EXPECT_THAT(ppctl_test::queue_names(), ElementsAre("/pushpull"));
}

// ---- record, replay

TEST(PpctlRecord, WritesMessagesAndTimesDown) {
  const FakeStore store;
  Watcher recorder({"record", "/tmp/session", "/rgw", "-C", "2"});
  ASSERT_TRUE(recorder.is_ready());
  set_state("binding");
  set_state("bound");
  EXPECT_EQ(recorder.wait().status, 0);
  const auto lines = read_lines(test_support::read_file("/tmp/session"));
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0]["recording"], 1);
  EXPECT_EQ(lines[0]["paths"], Json({"/rgw"}));
  EXPECT_EQ(lines[1]["message"].dump() + "\n", line_of("binding"));
  EXPECT_EQ(lines[2]["message"].dump() + "\n", line_of("bound"));
  EXPECT_LE(lines[1]["t"].get<double>(), lines[2]["t"].get<double>());
}

TEST(PpctlRecord, WithoutPathsTakesTheDevicesNodes) {
  const FakeStore store;
  const Watcher recorder({"record", "/tmp/session"});
  ASSERT_TRUE(recorder.is_ready());
  EXPECT_EQ(store.requests().at(1), "subscribe /serverAssigned;/rgw;/interfaces;/system");
}

TEST(PpctlRecord, WritesToStdout) {
  const FakeStore store;
  Watcher recorder({"record", "-", "/rgw", "-C", "1"});
  ASSERT_TRUE(recorder.is_ready());
  set_state("bound");
  const auto lines = read_lines(recorder.wait().out);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[1]["message"]["rgw"]["aapState"], "bound");
}

TEST(PpctlRecord, AnInterruptedRecordingIsWhole) {
  const FakeStore store;
  Watcher recorder({"record", "/tmp/session", "/rgw"});
  ASSERT_TRUE(recorder.is_ready());
  set_state("bound");
  ASSERT_TRUE(
      eventually([] { return read_lines(test_support::read_file("/tmp/session")).size() == 2; }));
  recorder.send_signal(SIGINT);
  EXPECT_EQ(recorder.wait().signal, SIGINT);
  EXPECT_EQ(read_lines(test_support::read_file("/tmp/session")).size(), 2U);
}

TEST(PpctlRecord, AFileThatCannotBeWrittenIsNamed) {
  const FakeStore store;
  const Ended ended = run_ppctl({"record", "/missing/session"});
  EXPECT_EQ(ended.status, 2);
  EXPECT_EQ(ended.err, "ppctl: cannot open /missing/session: No such file or directory\n");
}

TEST(PpctlRecord, OfASilentStoreLeavesAnOlderRecordingAlone) {
  FakeStore::Setup setup;
  setup.serves = false;
  const FakeStore store(setup);
  test_support::write_file("/tmp/session", "older");
  EXPECT_EQ(run_ppctl({"record", "/tmp/session", "/rgw", "--timeout", "0.2"}).status, 4);
  EXPECT_EQ(test_support::read_file("/tmp/session"), "older");
  EXPECT_EQ(run_ppctl({"record", "/tmp/new", "/rgw", "--timeout", "0.2"}).status, 4);
  EXPECT_FALSE(test_support::file_exists("/tmp/new"));
}

TEST(PpctlRecord, ReplacesAnOlderRecordingWhole) {
  const FakeStore store;
  test_support::write_file("/tmp/session", std::string(10000, 'x') + "\n");
  EXPECT_EQ(run_ppctl({"record", "/tmp/session", "/rgw", "-W", "0"}).status, 0);
  EXPECT_EQ(read_lines(test_support::read_file("/tmp/session")).size(), 1U);
}

TEST(PpctlRecord, AFullDiskIsReported) {
  const FakeStore store;
  const Ended ended = run_ppctl({"record", "/dev/full", "/rgw"});
  EXPECT_EQ(ended.status, 5);
  EXPECT_EQ(ended.err, "ppctl: cannot write /dev/full: No space left on device\n");
}

TEST(PpctlReplay, PublishesWhatWasRecorded) {
  const FakeStore store;
  test_support::write_file("/tmp/session",
                           "{\"recording\":1}\n"
                           "{\"t\":0.001,\"message\":{\"rgw\":{\"aapState\":\"binding\"}}}\n"
                           "{\"t\":0.002,\"message\":\"a text\"}\n"
                           "{\"t\":0.003,\"message\":{\"rgw\":{\"aapState\":\"bound\"}}}\n");
  const Ended ended = run_ppctl({"replay", "/tmp/session"});
  EXPECT_EQ(ended.status, 0);
  EXPECT_EQ(ended.err, "ppctl: 2 documents published, 1 texts left out\n");
  const auto requests = store.requests();
  EXPECT_EQ(requests.at(1), "publish {\"rgw\":{\"aapState\":\"binding\"}}");
  EXPECT_EQ(requests.at(2), "publish {\"rgw\":{\"aapState\":\"bound\"}}");
}

TEST(PpctlReplay, KeepsTheTimesOrScalesThem) {
  const FakeStore store;
  test_support::write_file("/tmp/session",
                           "{\"recording\":1}\n"
                           "{\"t\":86400,\"message\":{\"a\":1}}\n"
                           "{\"t\":172800,\"message\":{\"a\":2}}\n");
  EXPECT_EQ(run_ppctl({"replay", "/tmp/session", "--speed", "0", "-q"}).status, 0);
  EXPECT_EQ(store.tree()["a"], 2);

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(run_ppctl({"replay", "/tmp/session", "--speed", "864000", "-q"}).status, 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));

  Child slow(ppctl_command({"replay", "/tmp/session"}));
  ASSERT_TRUE(eventually([&] { return store.registered() == 1; }));
  slow.send_signal(SIGTERM);
  EXPECT_EQ(slow.wait().signal, SIGTERM);
}

TEST(PpctlReplay, IsCheckedWholeBeforeAnythingIsSent) {
  const FakeStore store;
  test_support::write_file("/tmp/session",
                           "{\"recording\":1}\n{\"t\":0,\"message\":{\"a\":1}}\n{\"t\":0,\n");
  const Ended ended = run_ppctl({"replay", "/tmp/session"});
  EXPECT_EQ(ended.status, 2);
  EXPECT_THAT(ended.err, StartsWith("ppctl: /tmp/session: line 3, column 8: "));
  EXPECT_THAT(store.requests(), ElementsAre());
}

TEST(PpctlReplay, ADocumentThatIsTooLongIsFoundBeforeAnythingIsSent) {
  const FakeStore store;
  test_support::write_file("/tmp/session",
                           "{\"recording\":1}\n{\"t\":0,\"message\":{\"a\":1}}\n"
                           "{\"t\":0,\"message\":{\"b\":\"" +
                               std::string(8192, 'x') + "\"}}\n");
  const Ended ended = run_ppctl({"replay", "/tmp/session"});
  EXPECT_EQ(ended.status, 2);
  EXPECT_THAT(ended.err, HasSubstr(" bytes, the store's queue takes 8192\n"));
  EXPECT_THAT(store.requests(), ElementsAre());
}

TEST(PpctlReplay, OfARecordingGivesTheSameTree) {
  std::string recording;
  Json recorded_tree;
  {
    const FakeStore store;
    Watcher recorder({"record", "-", "/rgw", "-C", "3"});
    ASSERT_TRUE(recorder.is_ready());
    for (const char* const state : {"registering", "binding", "bound"})
      set_state(state);
    recording = recorder.wait().out;
    recorded_tree = store.tree();
  }
  const FakeStore store;
  Child::Setup setup;
  setup.input = recording;
  EXPECT_EQ(run_ppctl({"replay", "-", "-q"}, setup).status, 0);
  EXPECT_EQ(store.tree(), recorded_tree);
}

TEST(PpctlReplay, AStoreThatDiesHalfWayIsReported) {
  FakeStore::Setup setup;
  setup.last = "publish";
  const FakeStore store(setup);
  test_support::write_file("/tmp/session", "{\"recording\":1}\n{\"t\":0,\"message\":{\"a\":1}}\n");
  const Ended ended = run_ppctl({"replay", "/tmp/session", "--timeout", "0.2"});
  EXPECT_EQ(ended.status, 4);
  EXPECT_THAT(ended.err, StartsWith("ppctl: sent, but the store has not answered within 0.2 s"));
}
