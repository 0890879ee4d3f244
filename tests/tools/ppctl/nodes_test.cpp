// ppctl as a program, with a store on real queues: nodes, requests, and what may go wrong.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <memory>

#include "lab/sinks/datagram_sink.h"
#include "tests/support/files.h"
#include "tests/tools/ppctl/child.h"
#include "tests/tools/ppctl/fake_store.h"
#include "tests/tools/ppctl/queue_names.h"

using ppctl_test::Child;
using ppctl_test::Ended;
using ppctl_test::FakeStore;
using ppctl_test::Json;
using ppctl_test::ppctl_command;
using ppctl_test::run_ppctl;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

const char kDocument[] =
    R"({"rgw":{"aapState":"bound","configSec":{"relayServerPort":8443}},)"
    R"("serverAssigned":{"identities":{"sysId":"AB12345678"}},"list":[{"id":1},{"id":2}]})";

FakeStore::Setup with_nodes() {
  FakeStore::Setup setup;
  setup.tree = Json::parse(kDocument);
  return setup;
}

FakeStore::Setup silent() {
  FakeStore::Setup setup;
  setup.serves = false;
  return setup;
}

FakeStore::Setup without_echo() {
  FakeStore::Setup setup = with_nodes();
  setup.passes_on = false;
  return setup;
}

FakeStore::Setup ends_after(const std::string& function) {
  FakeStore::Setup setup = with_nodes();
  setup.last = function;
  return setup;
}

// "get /rgw", without what the session asks for itself.
std::vector<std::string> asked(const FakeStore& store) {
  std::vector<std::string> requests;
  for (const std::string& request : store.requests()) {
    const bool is_own = request.rfind("register ", 0) == 0 || request == "unregister " ||
                        request.rfind("sync ppctl-echo-", 0) == 0;
    if (!is_own) requests.push_back(request);
  }
  return requests;
}

std::string no_such_node(const std::string& path) {
  return "ppctl: no such node: " + path +
         " (or its answer is longer than 8192 bytes: see --message-size)\n";
}

FakeStore::Setup with_many_nodes(int count) {
  FakeStore::Setup setup;
  for (int i = 0; i < count; ++i)
    setup.tree["node" + std::to_string(i)] = i;
  setup.stops_asker = true;
  return setup;
}

#define EXPECT_ENDED(ended, expected_status, expected_out, expected_err) \
  do {                                                                   \
    const Ended& actual = (ended);                                       \
    EXPECT_EQ(actual.status, expected_status);                           \
    EXPECT_EQ(actual.signal, 0);                                         \
    EXPECT_EQ(actual.out, expected_out);                                 \
    EXPECT_EQ(actual.err, expected_err);                                 \
  } while (false)

}  // namespace

// ---- get

TEST(PpctlGet, PrintsTheDocumentOnOneLineWhenPiped) {
  const FakeStore store(with_nodes());
  EXPECT_ENDED(run_ppctl({"get", "/rgw/aapState"}), 0, "{\"rgw\":{\"aapState\":\"bound\"}}\n", "");
}

TEST(PpctlGet, IndentsTheDocumentOnATerminal) {
  const FakeStore store(with_nodes());
  Child::Setup setup;
  setup.terminal = true;
  EXPECT_ENDED(run_ppctl({"get", "/rgw/aapState"}, setup), 0,
               "{\r\n  \"rgw\": {\r\n    \"aapState\": \"bound\"\r\n  }\r\n}\r\n", "");
}

TEST(PpctlGet, JsonMeansOneLineOnATerminalToo) {
  const FakeStore store(with_nodes());
  Child::Setup setup;
  setup.terminal = true;
  EXPECT_ENDED(run_ppctl({"get", "--json", "/rgw/aapState"}, setup), 0,
               "{\"rgw\":{\"aapState\":\"bound\"}}\r\n", "");
}

TEST(PpctlGet, RawPrintsTheValueAlone) {
  const FakeStore store(with_nodes());
  EXPECT_ENDED(run_ppctl({"get", "-r", "/rgw/aapState"}), 0, "bound\n", "");
  EXPECT_ENDED(run_ppctl({"get", "-r", "/rgw/configSec"}), 0, "{\"relayServerPort\":8443}\n", "");
}

TEST(PpctlGet, OfTheWholeTreePrintsNodeByNode) {
  const FakeStore store(with_nodes());
  EXPECT_ENDED(run_ppctl({"get", "/"}), 0,
               "{\"rgw\":{\"aapState\":\"bound\",\"configSec\":{\"relayServerPort\":8443}}}\n"
               "{\"serverAssigned\":{\"identities\":{\"sysId\":\"AB12345678\"}}}\n"
               "{\"list\":[{\"id\":1},{\"id\":2}]}\n",
               "");
}

TEST(PpctlGet, OfTheEmptyTreePrintsNothing) {
  const FakeStore store;
  EXPECT_ENDED(run_ppctl({"get", "/"}), 0, "", "");
}

TEST(PpctlGet, OfMoreNodesThanItsQueueHoldsSaysThatSomeMayBeMissing) {
  const FakeStore store(with_many_nodes(60));
  const Ended ended = run_ppctl({"get", "/", "--quiet"});
  EXPECT_EQ(ended.status, 5);
  EXPECT_THAT(ended.out, StartsWith("{\"node0\":0}\n"));
  EXPECT_EQ(ended.err,
            "ppctl: nodes may be missing: the reply queue was full, and the store drops what does "
            "not fit; get each node by its own path\n");
}

TEST(PpctlGet, OfAsManyNodesAsItsQueueHoldsIsWhole) {
  const FakeStore store(with_many_nodes(8));  // and the echo
  const Ended ended = run_ppctl({"get", "/"});
  EXPECT_EQ(ended.status, 0) << ended.err;
  EXPECT_EQ(std::count(ended.out.begin(), ended.out.end(), '\n'), 8);
}

TEST(PpctlGet, OfTheWholeTreePrintsNoNodeTwice) {
  FakeStore::Setup setup = without_echo();
  setup.tree.erase("list");
  const FakeStore store(setup);
  const Ended ended = run_ppctl({"get", "/"});
  EXPECT_EQ(ended.status, 0);
  EXPECT_EQ(std::count(ended.out.begin(), ended.out.end(), '\n'), 2) << ended.out;
}

TEST(PpctlGet, OfAMissingNodeEndsWithStatusOne) {
  const FakeStore store(with_nodes());
  EXPECT_ENDED(run_ppctl({"get", "/rgw/other"}), 1, "", no_such_node("/rgw/other"));
}

TEST(PpctlGet, KnowsAMissingNodeAlsoFromAStoreThatPassesNoTextsOn) {
  const FakeStore store(without_echo());
  EXPECT_ENDED(run_ppctl({"get", "/other"}), 1, "", no_such_node("/other"));
  EXPECT_ENDED(run_ppctl({"get", "-r", "/rgw/aapState"}), 0, "bound\n", "");
}

TEST(PpctlGet, RegistersAsksAndUnregisters) {
  const FakeStore store(with_nodes());
  Child child(ppctl_command({"get", "/rgw/aapState"}));
  const std::string pid = std::to_string(child.pid());
  ASSERT_EQ(child.wait().status, 0);
  ASSERT_TRUE(ppctl_test::eventually([&] { return store.registered() == 0; }));
  const auto requests = store.requests();
  ASSERT_THAT(requests, ElementsAre("register /ppctl." + pid, "get /rgw/aapState",
                                    StartsWith("sync ppctl-echo-" + pid), "unregister "));
  for (const auto& request : store.full_requests()) {
    EXPECT_EQ(request.getcomp_id(), 0x50000000 + std::stoi(pid));
  }
  EXPECT_THAT(ppctl_test::queue_names(), ElementsAre("/pushpull"));
}

TEST(PpctlGet, UsesTheIdThatItIsGiven) {
  const FakeStore store(with_nodes());
  ASSERT_EQ(run_ppctl({"get", "/rgw", "--id", "0x40000020"}).status, 0);
  EXPECT_EQ(store.full_requests().at(1).getcomp_id(), 0x40000020);
}

TEST(PpctlGet, AsksTheStoreWithTheSuffix) {
  FakeStore::Setup setup = with_nodes();
  setup.suffix = "-lab";
  const FakeStore store(setup);
  EXPECT_EQ(run_ppctl({"get", "-r", "/rgw/aapState", "--suffix", "-lab"}).out, "bound\n");
  EXPECT_EQ(run_ppctl({"get", "-r", "/rgw/aapState"}).status, 3);
}

TEST(PpctlGet, AWrongPathIsRefusedBeforeAnythingIsSent) {
  const FakeStore store(with_nodes());
  EXPECT_ENDED(run_ppctl({"get", "rgw"}), 2, "", "ppctl: path \"rgw\": a path begins with \"/\"\n");
  EXPECT_THAT(store.requests(), ElementsAre());
}

TEST(PpctlGet, AnAnswerThatIsTooLongIsTakenWhenItIsAskedFor) {
  FakeStore::Setup setup;
  setup.tree = {{"long", std::string(9000, 'x')}};
  const FakeStore store(setup);
  const auto size = std::to_string(store.tree().dump().size() + 1);
  EXPECT_EQ(run_ppctl({"get", "-r", "/long", "--message-size", size}).out,
            std::string(9000, 'x') + "\n");
}

TEST(PpctlGet, AnAnswerThatIsTooLongIsNotTakenForAMissingNodeAlone) {
  FakeStore::Setup setup;
  setup.tree = {{"long", std::string(9000, 'x')}};
  const FakeStore store(setup);
  for (const char* const verb : {"get", "clear", "delete"}) {
    EXPECT_ENDED(run_ppctl({verb, "/long"}), 1, "", no_such_node("/long"));
  }
}

// ---- no store, or one that does not do its part

TEST(PpctlWithoutStore, EndsAtOnceWithStatusThree) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{"get", "/rgw"},
                                                {"set", "/rgw/aapState", "bound"},
                                                {"clear", "/rgw"},
                                                {"delete", "/rgw"},
                                                {"watch", "/rgw"},
                                                {"save"},
                                                {"sync", "1100"},
                                                {"send", "get", "/rgw"},
                                                {"record", "/tmp/recording"}}) {
    EXPECT_ENDED(run_ppctl(words), 3, "",
                 "ppctl: store not reachable: its queue /pushpull does not exist\n");
  }
  EXPECT_FALSE(test_support::file_exists("/tmp/recording"));
}

TEST(PpctlWithoutStore, BadInputIsReportedFirst) {
  EXPECT_EQ(run_ppctl({"set", "/a", "{"}).status, 2);
}

TEST(PpctlSilentStore, IsReportedWhenTimeIsOver) {
  const FakeStore store(silent());
  EXPECT_ENDED(
      run_ppctl({"get", "/rgw", "--timeout", "0.2"}), 4, "",
      "ppctl: the store has not answered within 0.2 s: 8 requests wait in its queue, is it "
      "running?\n");
  EXPECT_THAT(ppctl_test::queue_names(), ElementsAre("/pushpull"));
}

TEST(PpctlSilentStore, IsNotWaitedForWhenNothingIsWanted) {
  const FakeStore store(silent());
  EXPECT_ENDED(run_ppctl({"set", "/rgw/aapState", "bound", "--no-wait"}), 0, "", "");
}

TEST(PpctlFullStore, IsReportedWhenTimeIsOver) {
  FakeStore store(silent());
  store.fill_queue();
  EXPECT_ENDED(run_ppctl({"get", "/rgw", "--timeout", "0.2"}), 4, "",
               "ppctl: the store's queue /pushpull is full, and the store has taken nothing within "
               "0.2 s\n");
  EXPECT_THAT(ppctl_test::queue_names(), ElementsAre("/pushpull"));
}

// The library tries five times, for 10 s in all, and reports each attempt to syslog.
TEST(PpctlFullStore, IsNotLeftToTheLibrarysAttempts) {
  const lab::DatagramSink syslog("/dev/log");
  FakeStore store(silent());
  store.fill_queue();
  ASSERT_EQ(run_ppctl({"get", "/rgw", "--timeout", "0.2"}).status, 4);
  std::size_t lines = 0;
  for (; const auto line = syslog.receive(); ++lines) {
    EXPECT_THAT(line->bytes, testing::Not(HasSubstr("mq_timedsend failed")));
  }
  EXPECT_GT(lines, 0U);  // the library's others did come
}

TEST(PpctlStoreThatDies, BeforeItAnswersLeavesATimeOut) {
  const FakeStore store(ends_after("register"));
  const Ended ended = run_ppctl({"get", "/rgw", "--timeout", "0.2"});
  EXPECT_EQ(ended.status, 4);
  EXPECT_THAT(ended.err, StartsWith("ppctl: the store has not answered within 0.2 s: "));
}

TEST(PpctlStoreThatDies, AfterAPublishLeavesItUnconfirmed) {
  const FakeStore store(ends_after("publish"));
  const Ended ended = run_ppctl({"set", "/rgw/aapState", "error", "--timeout", "0.2"});
  EXPECT_EQ(ended.status, 4);
  EXPECT_THAT(ended.err, StartsWith("ppctl: sent, but the store has not answered within 0.2 s"));
  EXPECT_EQ(store.tree()["rgw"]["aapState"], "error");
}

TEST(PpctlStoreThatDies, AndTakesItsQueueWithItIsNotReachable) {
  const FakeStore store(ends_after("get"));
  Child child(ppctl_command({"get", "/other", "--timeout", "60"}));
  ASSERT_TRUE(ppctl_test::eventually([&] { return !asked(store).empty(); }));
  store.remove_queue();
  EXPECT_ENDED(child.wait(), 3, "", "ppctl: the store has gone: its queue /pushpull was removed\n");
  EXPECT_THAT(ppctl_test::queue_names(), ElementsAre());
}

TEST(PpctlStoreQueue, ThatMayNotBeOpenedIsNotReachable) {
  const FakeStore store(with_nodes());
  ASSERT_EQ(chmod("/dev/mqueue/pushpull", 0), 0);
  const mqd_t queue = mq_open("/pushpull", O_RDWR);
  if (queue != -1) {
    mq_close(queue);
    GTEST_SKIP() << "this user may open every queue";
  }
  EXPECT_ENDED(run_ppctl({"get", "/rgw"}), 3, "",
               "ppctl: store not reachable: its queue /pushpull cannot be opened: Permission "
               "denied\n");
}

// ---- set, publish

TEST(PpctlSet, StoresAValueAndWaitsUntilItIsServed) {
  const FakeStore store(with_nodes());
  EXPECT_ENDED(run_ppctl({"set", "/rgw/aapState", "error"}), 0, "", "");
  EXPECT_EQ(store.tree()["rgw"]["aapState"], "error");
  EXPECT_EQ(store.tree()["rgw"]["configSec"]["relayServerPort"], 8443);
  EXPECT_THAT(asked(store), ElementsAre("publish {\"rgw\":{\"aapState\":\"error\"}}"));
}

TEST(PpctlSet, TakesNumbersBooleansAndStrings) {
  const FakeStore store;
  ASSERT_EQ(run_ppctl({"set", "/system/clock/offset", "-18000"}).status, 0);
  ASSERT_EQ(run_ppctl({"set", "/system/clock/enableDst", "true"}).status, 0);
  ASSERT_EQ(run_ppctl({"set", "/system/name", "--string", "5"}).status, 0);
  EXPECT_EQ(store.tree().dump(),
            R"({"system":{"clock":{"offset":-18000,"enableDst":true},"name":"5"}})");
}

TEST(PpctlSet, BadJsonIsRefusedBeforeAnythingIsSent) {
  const FakeStore store;
  const Ended ended = run_ppctl({"set", "/a", "{\"b\":1,}"});
  EXPECT_EQ(ended.status, 2);
  EXPECT_THAT(ended.err, StartsWith("ppctl: VALUE: line 1, column 8: "));
  EXPECT_THAT(store.requests(), ElementsAre());
}

TEST(PpctlSet, DoesNotReplaceAnArrayByAnObject) {
  const FakeStore store(with_nodes());
  const Ended ended = run_ppctl({"set", "/list/0/id", "7"});
  EXPECT_EQ(ended.status, 2);
  EXPECT_THAT(ended.err, HasSubstr("set does not reach into arrays"));
  EXPECT_THAT(store.requests(), ElementsAre());
}

TEST(PpctlSet, PathAndValueTogetherMustNotBeTooDeep) {
  const FakeStore store;
  const std::string value = std::string(127, '[') + std::string(127, ']');
  EXPECT_EQ(run_ppctl({"set", "/a", value}).status, 0);
  const Ended ended = run_ppctl({"set", "/a/b", value});
  EXPECT_EQ(ended.status, 2);
  EXPECT_THAT(ended.err, HasSubstr("deeper than 128 levels"));
}

TEST(PpctlSet, ANumberThatWouldBecomeAnotherIsRefused) {
  const FakeStore store;
  for (const char* const value : {"1e309", "18446744073709551616"}) {
    const Ended ended = run_ppctl({"set", "/a", value});
    EXPECT_EQ(ended.status, 2) << value;
    EXPECT_THAT(ended.err, StartsWith("ppctl: VALUE: line 1, column "));
  }
  EXPECT_THAT(store.requests(), ElementsAre());
}

TEST(PpctlPublish, ReadsStdin) {
  const FakeStore store;
  Child::Setup setup;
  setup.input = "{\n \"rgw\" : {\"aapState\": \"bound\"}\n}\n";
  EXPECT_ENDED(run_ppctl({"publish"}, setup), 0, "", "");
  EXPECT_ENDED(run_ppctl({"publish", "-"}, setup), 0, "", "");
  EXPECT_THAT(asked(store), ElementsAre("publish {\"rgw\":{\"aapState\":\"bound\"}}",
                                        "publish {\"rgw\":{\"aapState\":\"bound\"}}"));
}

TEST(PpctlPublish, ReadsAFile) {
  const FakeStore store;
  test_support::write_file("/tmp/document.json", "{\"a\":[1,2]}");
  EXPECT_ENDED(run_ppctl({"publish", "/tmp/document.json"}), 0, "", "");
  EXPECT_EQ(store.tree().dump(), "{\"a\":[1,2]}");
}

TEST(PpctlPublish, BadJsonIsRefusedWithItsPlaceBeforeAnythingIsSent) {
  const FakeStore store;
  Child::Setup setup;
  setup.input = "{\"rgw\":\n  {\"aapState\": bound}}\n";
  const Ended ended = run_ppctl({"publish"}, setup);
  EXPECT_EQ(ended.status, 2);
  EXPECT_THAT(ended.err, StartsWith("ppctl: stdin: line 2, column 16: "));
  EXPECT_EQ(std::count(ended.err.begin(), ended.err.end(), '\n'), 1);
  EXPECT_THAT(store.requests(), ElementsAre());
}

TEST(PpctlPublish, AFileThatCannotBeReadIsNamed) {
  const FakeStore store;
  EXPECT_ENDED(run_ppctl({"publish", "/tmp/missing"}), 2, "",
               "ppctl: cannot open /tmp/missing: No such file or directory\n");
  EXPECT_ENDED(run_ppctl({"publish", "/tmp"}), 2, "", "ppctl: cannot read /tmp: Is a directory\n");
}

TEST(PpctlPublish, ARequestLongerThanTheStoresMessagesIsRefusedAtOnce) {
  const FakeStore store;
  test_support::write_file("/tmp/long.json", "{\"a\":\"" + std::string(8192, 'x') + "\"}");
  const Ended ended = run_ppctl({"publish", "/tmp/long.json"});
  EXPECT_EQ(ended.status, 2);
  EXPECT_THAT(ended.err, HasSubstr(" bytes, the store's queue takes 8192\n"));
  EXPECT_THAT(asked(store), ElementsAre());
}

TEST(PpctlPublish, WaitingForStdinEndsWithTheSignal) {
  const FakeStore store;
  Child::Setup setup;
  setup.input = "{\"a\"";
  setup.keep_stdin_open = true;
  Child child(ppctl_command({"publish"}), setup);
  ASSERT_TRUE(ppctl_test::eventually([&] { return ppctl_test::holds_signals_back(child.pid()); }));
  child.send_signal(SIGTERM);
  EXPECT_EQ(child.wait().signal, SIGTERM);
  EXPECT_THAT(store.requests(), ElementsAre());
}

// ---- clear, delete

TEST(PpctlClear, ClearsANode) {
  const FakeStore store(with_nodes());
  EXPECT_ENDED(run_ppctl({"clear", "/rgw/aapState"}), 0, "", "");
  EXPECT_THAT(asked(store), ElementsAre("get /rgw/aapState", "clear /rgw/aapState"));
  EXPECT_EQ(store.tree()["rgw"]["aapState"], nullptr);
}

TEST(PpctlClear, OfAMissingNodeEndsWithStatusOne) {
  const FakeStore store(with_nodes());
  EXPECT_ENDED(run_ppctl({"clear", "/other"}), 1, "", no_such_node("/other"));
  EXPECT_THAT(asked(store), ElementsAre("get /other"));
}

TEST(PpctlClear, IsServedWhenItEnds) {
  const FakeStore store(ends_after("clear"));
  EXPECT_EQ(run_ppctl({"clear", "/rgw", "--timeout", "0.2"}).status, 4);
}

TEST(PpctlClear, OfTheWholeTreeIsRefused) {
  const FakeStore store(with_nodes());
  EXPECT_EQ(run_ppctl({"clear", "/"}).status, 2);
  EXPECT_EQ(run_ppctl({"delete", "/"}).status, 2);
  EXPECT_THAT(store.requests(), ElementsAre());
}

TEST(PpctlDelete, GoesOutUnderAnIdThatMayDeleteAndLeavesItsRegistrationAlone) {
  const FakeStore store(with_nodes());
  EXPECT_ENDED(run_ppctl({"delete", "/rgw/aapState"}), 0, "", "");
  EXPECT_FALSE(store.tree()["rgw"].contains("aapState"));
  for (const auto& request : store.full_requests()) {
    if (request.getfunction() == "delete") {
      EXPECT_EQ(request.getcomp_id(), 0x40000007);
    } else {
      EXPECT_GE(request.getcomp_id(), 0x50000000) << request.getfunction();
    }
  }
}

TEST(PpctlDelete, TakesAnotherIdThatMay) {
  const FakeStore store(with_nodes());
  ASSERT_EQ(run_ppctl({"delete", "/rgw", "--id", "0x40000003"}).status, 0);
  EXPECT_EQ(store.full_requests().at(3).getfunction(), "delete");
  EXPECT_EQ(store.full_requests().at(3).getcomp_id(), 0x40000003);
  EXPECT_GE(store.full_requests().at(0).getcomp_id(), 0x50000000);  // register
}

TEST(PpctlDelete, RefusesAnIdThatMayNot) {
  const FakeStore store(with_nodes());
  for (const char* const id : {"0x40000002", "0x40000008", "0x40000010", "1"}) {
    EXPECT_ENDED(run_ppctl({"delete", "/rgw", "--id", id}), 2, "",
                 "ppctl: only the ids 0x40000003 to 0x40000007 may delete\n");
  }
  EXPECT_THAT(store.requests(), ElementsAre());
}

TEST(PpctlDelete, OfAMissingNodeEndsWithStatusOne) {
  const FakeStore store(with_nodes());
  EXPECT_ENDED(run_ppctl({"delete", "/other"}), 1, "", no_such_node("/other"));
}

// ---- save, sync, send

TEST(PpctlSave, AsksForDataOrForTheCompleteTree) {
  const FakeStore store;
  EXPECT_ENDED(run_ppctl({"save"}), 0, "", "");
  EXPECT_ENDED(run_ppctl({"save", "--debug"}), 0, "", "");
  EXPECT_THAT(asked(store), ElementsAre("save ", "save_debug "));
}

TEST(PpctlSync, SendsATextToAComponent) {
  const FakeStore store;
  EXPECT_ENDED(run_ppctl({"sync", "0x40000010", "hello"}), 0, "", "");
  EXPECT_ENDED(run_ppctl({"sync", "1100"}), 0, "", "");
  EXPECT_THAT(asked(store), ElementsAre("sync hello", "sync "));
  EXPECT_EQ(store.full_requests().at(1).getdstcomp_id(), 0x40000010);
}

TEST(PpctlSync, RefusesWhatIsNoId) {
  const FakeStore store;
  EXPECT_ENDED(run_ppctl({"sync", "nobody"}), 2, "",
               "ppctl: \"nobody\" is no component id: 1 to 0x7fffffff\n");
  EXPECT_THAT(store.requests(), ElementsAre());
}

TEST(PpctlSend, SendsTheRequestAsItIsGiven) {
  const FakeStore store;
  ASSERT_EQ(run_ppctl({"send", "init", "some text", "--to", "1100", "--sender", "me", "--pack",
                       "--changes-only"})
                .status,
            0);
  const auto request = store.full_requests().at(1);
  EXPECT_EQ(request.getfunction(), "init");
  EXPECT_EQ(request.getBuff(), "some text");
  EXPECT_EQ(request.getdstcomp_id(), 1100);
  EXPECT_EQ(request.getsenderId(), "me");
  EXPECT_TRUE(request.get_pack_and_send());
  EXPECT_TRUE(request.get_notify_on_change_only());
}

TEST(PpctlSend, SaysThatWhatItPublishesIsNoDocument) {
  const FakeStore store;
  const Ended ended = run_ppctl({"send", "publish", "{\"a\":", "--no-wait"});
  EXPECT_EQ(ended.status, 0);
  EXPECT_THAT(ended.err, AllOf(StartsWith("ppctl: BUFFER: line 1, column 6: "),
                               EndsWith("; sent as it is\n")));
  EXPECT_ENDED(run_ppctl({"send", "publish", "[1]", "--quiet"}), 0, "", "");
  EXPECT_ENDED(run_ppctl({"send", "publish", "{\"a\":1}"}), 0, "", "");
  EXPECT_THAT(asked(store), ElementsAre("publish {\"a\":", "publish [1]", "publish {\"a\":1}"));
}

TEST(PpctlSend, AndSyncRefuseWhatNoRequestCanHold) {
  const FakeStore store;
  EXPECT_ENDED(run_ppctl({"sync", "1100", "\xff"}), 2, "", "ppctl: TEXT is not UTF-8 text\n");
  EXPECT_ENDED(run_ppctl({"send", "sync", "\xff"}), 2, "", "ppctl: BUFFER is not UTF-8 text\n");
  EXPECT_ENDED(run_ppctl({"send", "\xff"}), 2, "", "ppctl: FUNCTION is not UTF-8 text\n");
  EXPECT_THAT(store.requests(), ElementsAre());
}

TEST(PpctlSend, PrintsWhatComesBack) {
  const FakeStore store(with_nodes());
  EXPECT_ENDED(run_ppctl({"send", "get", "/rgw/aapState"}), 0,
               "{\"rgw\":{\"aapState\":\"bound\"}}\n", "");
  EXPECT_ENDED(run_ppctl({"send", "get", "/other"}), 0, "", "");
}

TEST(PpctlSend, SaysThatAnswersMayBeLost) {
  const FakeStore store(with_many_nodes(60));
  const Ended ended = run_ppctl({"send", "get", "/"});
  EXPECT_EQ(ended.status, 0);
  EXPECT_THAT(ended.err, StartsWith("ppctl: messages may be lost: "));
}

TEST(PpctlSend, WithoutABufferSendsAnEmptyOne) {
  const FakeStore store;
  ASSERT_EQ(run_ppctl({"send", "exit", "--no-wait"}).status, 0);
  ASSERT_TRUE(ppctl_test::eventually([&] { return !store.requests().empty(); }));
  EXPECT_THAT(store.requests(), ElementsAre("exit "));
}

// ---- the program around it

TEST(Ppctl, TwoAtOnceEachGetTheirOwnAnswers) {
  const FakeStore store(with_nodes());
  std::vector<std::unique_ptr<Child>> children;
  for (int i = 0; i < 6; ++i) {
    const std::string path = i % 2 == 0 ? "/rgw/aapState" : "/serverAssigned/identities/sysId";
    children.push_back(std::make_unique<Child>(ppctl_command({"get", "-r", path, "-t", "60"})));
  }
  for (std::size_t i = 0; i < children.size(); ++i) {
    EXPECT_ENDED(children[i]->wait(), 0, i % 2 == 0 ? "bound\n" : "AB12345678\n", "");
  }
}

TEST(Ppctl, AQueueThatAKilledOneLeftUnderItsNameIsReplaced) {
  const FakeStore store(with_nodes());
  // The shell becomes the program, so that its name is known beforehand.
  Child child({"/bin/sh", "-c",
               "until [ -e /tmp/go ]; do sleep 0.01; done; exec " + ppctl_command({})[0] +
                   " get -r /rgw/aapState"});
  // Too small for any answer.
  const test_support::MessageQueue left("/ppctl." + std::to_string(child.pid()), 1, 8);
  test_support::write_file("/tmp/go", "");
  EXPECT_ENDED(child.wait(), 0, "bound\n", "");
}

TEST(Ppctl, OutputThatCannotBeWrittenIsReported) {
  const Ended ended = Child({"/bin/sh", "-c", ppctl_command({})[0] + " --help > /dev/full"}).wait();
  EXPECT_ENDED(ended, 5, "", "ppctl: cannot write stdout: No space left on device\n");
}

TEST(Ppctl, AReaderThatHasGoneEndsItQuietly) {
  const Ended ended = Child({"/bin/sh", "-c",
                             "mkfifo /tmp/pipe; exec 3<>/tmp/pipe 4>/tmp/pipe 3>&-; exec " +
                                 ppctl_command({})[0] + " --help >&4"})
                          .wait();
  EXPECT_EQ(ended.signal, SIGPIPE);
  EXPECT_EQ(ended.err, "");
}

TEST(Ppctl, HelpAndVersionGoToStdout) {
  const Ended help = run_ppctl({"watch", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, HasSubstr("Usage: ppctl watch PATH...\n"));
  EXPECT_EQ(run_ppctl({"--version"}).out, "ppctl " PROJECT_VERSION_TEXT "\n");
}

TEST(Ppctl, AMessageIsOneLineWhateverItNames) {
  const Ended ended = run_ppctl({"get", "/a\nb\x1b[2J"});
  EXPECT_EQ(ended.status, 2);
  EXPECT_THAT(ended.err, StartsWith("ppctl: path \"/a?b?[2J\": "));
}
