// ppctl as a program, with the lab's store: what a person does with the two of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "tests/lab/program.h"
#include "tests/support/files.h"
#include "tests/tools/ppctl/child.h"
#include "tests/tools/ppctl/queue_names.h"

using ppctl_test::Child;
using ppctl_test::Ended;
using ppctl_test::eventually;
using ppctl_test::ppctl_command;
using ppctl_test::run_ppctl;
using test_support::Program;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

using Json = nlohmann::ordered_json;

// The lab's store, with a document and a file to save to.
class LabStore {
 public:
  LabStore() : program_("pushpull_store", {"--document", document(), "--save", "/tmp/saved"}) {
    ready_ = program_.line();
  }

  const std::string& ready() const { return ready_; }
  lab::Child& child() { return program_.child(); }
  void kill_it() {
    child().signal(SIGKILL);
    child().wait();
  }

 private:
  static std::string document() {
    test_support::write_file("/tmp/document.json",
                             R"({"rgw":{"aapState":"binding"},"interfaces":[{"id":1},{"id":2}],)"
                             R"("system":{"clock":{"offset":0}}})");
    return "/tmp/document.json";
  }

  Program program_;
  std::string ready_;
};

bool is_watching(const Child& child) {
  return eventually([&child] { return child.err().find("watching ") != std::string::npos; });
}

std::string out_of(const std::vector<std::string>& arguments) {
  const Ended ended = run_ppctl(arguments);
  EXPECT_EQ(ended.status, 0) << ended.err;
  return ended.out;
}

}  // namespace

TEST(PpctlInTheLab, AChangeAppearsInAnotherTerminalAtOnce) {
  const LabStore store;
  ASSERT_THAT(store.ready(), StartsWith("serving "));
  Child::Setup terminal;
  terminal.terminal = true;
  Child watcher(ppctl_command({"watch", "/rgw"}), terminal);
  ASSERT_TRUE(is_watching(watcher));
  ASSERT_EQ(out_of({"set", "/rgw/aapState", "bound"}), "");
  const std::string expected = "{\r\n  \"rgw\": {\r\n    \"aapState\": \"bound\"\r\n  }\r\n}\r\n";
  EXPECT_TRUE(eventually([&] { return watcher.out() == expected; })) << watcher.out();
  watcher.send_signal(SIGINT);
  EXPECT_EQ(watcher.wait().signal, SIGINT);
  EXPECT_THAT(ppctl_test::queue_names(), ElementsAre("/pushpull"));
}

TEST(PpctlInTheLab, ReadsNodes) {
  const LabStore store;
  EXPECT_EQ(out_of({"get", "/rgw"}), "{\"rgw\":{\"aapState\":\"binding\"}}\n");
  EXPECT_EQ(out_of({"get", "-r", "/interfaces/1/id"}), "2\n");
  EXPECT_EQ(out_of({"get", "/"}),
            "{\"rgw\":{\"aapState\":\"binding\"}}\n"
            "{\"interfaces\":[{\"id\":1},{\"id\":2}]}\n"
            "{\"system\":{\"clock\":{\"offset\":0}}}\n");
}

TEST(PpctlInTheLab, AMissingNodeIsStatusOne) {
  const LabStore store;
  for (const char* const verb : {"get", "clear", "delete"}) {
    const Ended ended = run_ppctl({verb, "/rgw/other"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.err, StartsWith("ppctl: no such node: /rgw/other (or its answer is longer "));
  }
}

TEST(PpctlInTheLab, WritesClearsAndDeletesNodes) {
  const LabStore store;
  EXPECT_EQ(out_of({"set", "/system/clock/offset", "-18000"}), "");
  EXPECT_EQ(out_of({"get", "-r", "/system/clock/offset"}), "-18000\n");
  Child::Setup setup;
  setup.input = R"({"rgw":{"configSec":{"relayServerPort":8443}}})";
  EXPECT_EQ(run_ppctl({"publish"}, setup).status, 0);
  EXPECT_EQ(out_of({"get", "-r", "/rgw"}),
            "{\"aapState\":\"binding\",\"configSec\":{\"relayServerPort\":8443}}\n");
  EXPECT_EQ(out_of({"clear", "/rgw/configSec"}), "");
  EXPECT_EQ(out_of({"get", "-r", "/rgw/configSec"}), "{}\n");
  EXPECT_EQ(out_of({"delete", "/rgw/configSec"}), "");
  EXPECT_EQ(run_ppctl({"get", "/rgw/configSec"}).status, 1);
}

TEST(PpctlInTheLab, HasTheStoreSave) {
  const LabStore store;
  EXPECT_EQ(out_of({"save"}), "");
  EXPECT_EQ(Json::parse(test_support::read_file("/tmp/saved"))["rgw"]["aapState"], "binding");
  EXPECT_EQ(out_of({"save", "--debug"}), "");
  EXPECT_TRUE(Json::parse(test_support::read_file("/tmp/saved.debug")).contains("components"));
}

TEST(PpctlInTheLab, SendsTextsBetweenComponents) {
  const LabStore store;
  Child watcher(ppctl_command({"watch", "/rgw", "-C", "1", "--id", "0x40000020"}));
  ASSERT_TRUE(is_watching(watcher));
  EXPECT_EQ(out_of({"sync", "0x40000020", "hello"}), "");
  EXPECT_EQ(watcher.wait().out, "\"hello\"\n");
}

TEST(PpctlInTheLab, SendsRequestsByHand) {
  const LabStore store;
  EXPECT_EQ(out_of({"send", "get", "/rgw"}), "{\"rgw\":{\"aapState\":\"binding\"}}\n");
  EXPECT_EQ(out_of({"send", "publish", "{\"rgw\":{\"aapState\":\"error\"}}"}), "");
  EXPECT_EQ(out_of({"get", "-r", "/rgw/aapState"}), "error\n");
}

TEST(PpctlInTheLab, WatchesForChangesOnly) {
  const LabStore store;
  Child watcher(ppctl_command({"watch", "/rgw", "--changes-only", "-C", "2"}));
  ASSERT_TRUE(is_watching(watcher));
  for (const char* const state : {"binding", "bound", "bound", "error"}) {
    ASSERT_EQ(out_of({"set", "/rgw/aapState", state}), "");
  }
  EXPECT_EQ(watcher.wait().out,
            "{\"rgw\":{\"aapState\":\"bound\"}}\n{\"rgw\":{\"aapState\":\"error\"}}\n");
}

TEST(PpctlInTheLab, TwoAtOnceBothSeeTheChange) {
  const LabStore store;
  Child first(ppctl_command({"watch", "/rgw", "-C", "1"}));
  Child second(ppctl_command({"watch", "/rgw/aapState", "-C", "1"}));
  ASSERT_TRUE(is_watching(first) && is_watching(second));
  ASSERT_EQ(out_of({"set", "/rgw/aapState", "bound"}), "");
  EXPECT_EQ(first.wait().out, "{\"rgw\":{\"aapState\":\"bound\"}}\n");
  EXPECT_EQ(second.wait().out, "{\"rgw\":{\"aapState\":\"bound\"}}\n");
}

TEST(PpctlInTheLab, RecordsAndReplays) {
  const LabStore store;
  Child recorder(ppctl_command({"record", "/tmp/session", "/rgw", "-C", "2"}));
  ASSERT_TRUE(is_watching(recorder));
  ASSERT_EQ(out_of({"set", "/rgw/aapState", "bound"}), "");
  ASSERT_EQ(out_of({"set", "/rgw/aapState", "error"}), "");
  ASSERT_EQ(recorder.wait().status, 0);
  ASSERT_EQ(out_of({"set", "/rgw/aapState", "binding"}), "");
  EXPECT_EQ(out_of({"replay", "/tmp/session"}), "");
  EXPECT_EQ(out_of({"get", "-r", "/rgw/aapState"}), "error\n");
}

TEST(PpctlInTheLab, TheDoctorFindsTheStoreWell) {
  const LabStore store;
  EXPECT_THAT(run_ppctl({"doctor"}).out, HasSubstr("ok       store   /pushpull answers, in "));
}

TEST(PpctlInTheLab, AStoreThatHasEndedIsNotReachable) {
  LabStore store;
  Child watcher(ppctl_command({"watch", "/rgw"}));
  ASSERT_TRUE(is_watching(watcher));
  store.child().signal(SIGTERM);
  store.child().wait();
  const Ended ended = watcher.wait();
  EXPECT_EQ(ended.status, 3);
  EXPECT_THAT(ended.err, HasSubstr("ppctl: the store has gone: its queue /pushpull was removed\n"));
  EXPECT_EQ(run_ppctl({"get", "/rgw"}).status, 3);
}

TEST(PpctlInTheLab, AStoreThatWasKilledLeavesATimeOut) {
  LabStore store;
  ASSERT_EQ(run_ppctl({"get", "/rgw"}).status, 0);
  store.kill_it();
  const Ended ended = run_ppctl({"get", "/rgw", "--timeout", "0.2"});
  EXPECT_EQ(ended.status, 4);
  EXPECT_THAT(ended.err, HasSubstr("requests wait in its queue, is it running?"));
}

TEST(PpctlInTheLab, AStoreThatDiesHalfWayLeavesATimeOut) {
  LabStore store;
  store.child().signal(SIGSTOP);  // between two requests
  Child child(ppctl_command({"set", "/rgw/aapState", "bound", "--timeout", "5"}));
  ASSERT_TRUE(eventually([] { return ppctl_test::messages_in("/pushpull") >= 2; }));
  store.kill_it();
  const Ended ended = child.wait();
  EXPECT_EQ(ended.status, 4);
  EXPECT_THAT(ended.err, StartsWith("ppctl: sent, but the store has not answered within 5 s: "));
  EXPECT_THAT(ppctl_test::queue_names(), ElementsAre("/pushpull"));
}

TEST(PpctlInTheLab, AFullStoreIsATimeOutAndTheStoreGoesOnAfterwards) {
  LabStore store;
  store.child().signal(SIGSTOP);
  while (ppctl_test::messages_in("/pushpull") < 10) {
    ASSERT_EQ(run_ppctl({"set", "/rgw/aapState", "bound", "--no-wait"}).status, 0);
  }
  const Ended ended = run_ppctl({"get", "/rgw", "--timeout", "0.2"});
  EXPECT_EQ(ended.status, 4);
  EXPECT_THAT(ended.err, StartsWith("ppctl: the store's queue /pushpull is full"));
  store.child().signal(SIGCONT);
  EXPECT_EQ(out_of({"get", "-r", "/rgw/aapState"}), "bound\n");
}
