#include "lab/pushpull_store/store.h"

#include <stdexcept>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/files.h"

namespace lab {
namespace {

using test_support::read_file;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::int64_t kService = 0x40000010;
constexpr std::int64_t kPublisher = 77;

std::string request(const std::string& function, std::int64_t comp_id, const std::string& buffer,
                    const Json& more = Json::object()) {
  Json arg = {{"comp_id", comp_id}, {"buffer", buffer}};
  arg.update(more);
  return Json{{"function", function}, {"arg", arg}}.dump(1, '\t');
}

class StoreTest : public testing::Test {
 protected:
  StoreTest() {
    store.load(R"({"rgw":{"aapState":"bound","configSec":{"relayServerPort":8443}},
                   "system":{"clock":{"offset":-18000}}})");
    tell("register", kService, "/log_consumer");
  }

  /// The outcome; what is to be sent is kept in `sent` as "QUEUE TEXT".
  std::string tell(const std::string& function, std::int64_t comp_id, const std::string& buffer,
                   const Json& more = Json::object()) {
    return tell_text(request(function, comp_id, buffer, more));
  }
  std::string tell_text(const std::string& text) {
    const Handled handled = store.handle(text);
    sent.clear();
    for (const Message& message : handled.messages) {
      sent.push_back(message.queue + " " + message.text);
    }
    return handled.outcome;
  }

  const test_support::TempDir directory;
  Store store{directory / "tree.json"};
  std::vector<std::string> sent;
};

TEST_F(StoreTest, AnswersAGetIntoTheComponentsQueue) {
  EXPECT_EQ(tell("get", kService, "/rgw/aapState"), "answered");
  EXPECT_THAT(sent, ElementsAre(R"(/log_consumer {"rgw":{"aapState":"bound"}})"));
  EXPECT_EQ(tell("get", kService, "/system", {{"sender_id", "x"}, {"pack_and_send", true}}),
            "answered");
  EXPECT_THAT(sent, ElementsAre(R"(/log_consumer {"system":{"clock":{"offset":-18000}}})"));
}

TEST_F(StoreTest, AnswersAGetOfEverythingNodeByNode) {
  tell("get", kService, "/");
  EXPECT_THAT(
      sent,
      ElementsAre(
          R"(/log_consumer {"rgw":{"aapState":"bound","configSec":{"relayServerPort":8443}}})",
          R"(/log_consumer {"system":{"clock":{"offset":-18000}}})"));
}

TEST_F(StoreTest, AMissingNodeIsNotAnswered) {
  EXPECT_EQ(tell("get", kService, "/nothing"), "refused: no such node");
  EXPECT_THAT(sent, IsEmpty());
}

TEST_F(StoreTest, OnlyRegisteredComponentsAskOrSubscribe) {
  EXPECT_EQ(tell("get", kPublisher, "/rgw"), "refused: the component is not registered");
  EXPECT_EQ(tell("subscribe", kPublisher, "/rgw"), "refused: the component is not registered");
  EXPECT_EQ(tell("unsubscribe", kPublisher, "/rgw"), "refused: the component is not registered");
  EXPECT_EQ(tell("unregister", kPublisher, ""), "refused: the component is not registered");
}

TEST_F(StoreTest, TellsSubscribersTheWholeNodeAfterAPublish) {
  EXPECT_EQ(tell("subscribe", kService, "/serverAssigned;/rgw"), "subscribed");
  EXPECT_THAT(sent, IsEmpty()) << "subscribing alone sends nothing";
  EXPECT_EQ(tell("publish", kPublisher, R"({"rgw":{"aapState":"error"}})"), "stored");
  EXPECT_THAT(
      sent,
      ElementsAre(
          R"(/log_consumer {"rgw":{"aapState":"error","configSec":{"relayServerPort":8443}}})"));
  tell("publish", kPublisher, R"({"system":{"clock":{"offset":0}}})");
  EXPECT_THAT(sent, IsEmpty()) << "nobody subscribed to it";
  tell("publish", kPublisher, R"({"serverAssigned":{"identities":{"sysId":"AB"}}})");
  EXPECT_THAT(sent,
              ElementsAre(R"(/log_consumer {"serverAssigned":{"identities":{"sysId":"AB"}}})"));
}

TEST_F(StoreTest, AnUnchangedValueIsToldUnlessOnlyChangesAreWanted) {
  tell("subscribe", kService, "/rgw/aapState");
  const std::string same = R"({"rgw":{"aapState":"bound"}})";
  tell("publish", kPublisher, same);
  EXPECT_THAT(sent, ElementsAre("/log_consumer " + same));
  tell("subscribe", kService, "/rgw/aapState", {{"notifyOnChangeOnly", true}});
  tell("publish", kPublisher, same);
  EXPECT_THAT(sent, IsEmpty());
  tell("publish", kPublisher, R"({"rgw":{"aapState":"error"}})");
  EXPECT_THAT(sent, ElementsAre(R"(/log_consumer {"rgw":{"aapState":"error"}})"));
}

TEST_F(StoreTest, UnsubscribedAndUnregisteredComponentsAreLeftAlone) {
  const std::string change = R"({"rgw":{"aapState":"error"}})";
  tell("subscribe", kService, "/rgw;/system");
  EXPECT_EQ(tell("unsubscribe", kService, "/rgw"), "unsubscribed");
  tell("publish", kPublisher, change);
  EXPECT_THAT(sent, IsEmpty());
  tell("subscribe", kService, "/rgw");
  EXPECT_EQ(tell("unregister", kService, ""), "unregistered");
  tell("publish", kPublisher, change);
  EXPECT_THAT(sent, IsEmpty());
}

TEST_F(StoreTest, AComponentThatRegistersAgainStartsAnew) {
  tell("subscribe", kService, "/rgw");
  tell("register", kService, "/another");
  tell("publish", kPublisher, R"({"rgw":{"aapState":"error"}})");
  EXPECT_THAT(sent, IsEmpty());
  tell("get", kService, "/rgw/aapState");
  EXPECT_THAT(sent, ElementsAre(R"(/another {"rgw":{"aapState":"error"}})"));
}

TEST_F(StoreTest, ClearsANode) {
  tell("subscribe", kService, "/rgw");
  EXPECT_EQ(tell("clear", kPublisher, "/rgw/configSec"), "cleared");
  EXPECT_THAT(sent, ElementsAre(R"(/log_consumer {"rgw":{"aapState":"bound","configSec":{}}})"));
  EXPECT_EQ(tell("clear", kPublisher, "/rgw/aapState"), "cleared");
  EXPECT_THAT(sent, ElementsAre(R"(/log_consumer {"rgw":{"aapState":null,"configSec":{}}})"));
  EXPECT_EQ(tell("clear", kPublisher, "/nothing"), "refused: no such node");
}

TEST_F(StoreTest, DeletesForAuthorisedComponentsAlone) {
  for (const std::int64_t id : {kService, std::int64_t{0x40000002}, std::int64_t{0x40000008}}) {
    EXPECT_EQ(tell("delete", id, "/system"), "refused: the component may not delete");
  }
  tell("subscribe", kService, "/rgw;/system");
  EXPECT_EQ(tell("delete", 0x40000003, "/rgw/configSec"), "deleted");
  EXPECT_THAT(sent, ElementsAre(R"(/log_consumer {"rgw":{"aapState":"bound"}})"));
  EXPECT_EQ(tell("delete", 0x40000007, "/system"), "deleted");
  EXPECT_THAT(sent, IsEmpty()) << "a node that is gone has no value";
  EXPECT_EQ(store.tree().dump(), R"({"rgw":{"aapState":"bound"}})");
  EXPECT_EQ(tell("delete", 0x40000003, "/system"), "refused: no such node");
  EXPECT_EQ(tell("delete", 0x40000003, "/"), "refused: the whole tree cannot be deleted");
}

TEST_F(StoreTest, DeletesAnElementOfAnArray) {
  tell("publish", kPublisher, R"({"list":[{"a":1},{"a":2}]})");
  tell("subscribe", kService, "/list");
  EXPECT_EQ(tell("delete", 0x40000003, "/list/0"), "deleted");
  EXPECT_THAT(sent, ElementsAre(R"(/log_consumer {"list":[{"a":2}]})"));
}

TEST_F(StoreTest, PassesASyncOnToItsDestination) {
  EXPECT_EQ(tell("sync", kPublisher, "any text", {{"dst_comp_id", kService}}), "passed on");
  EXPECT_THAT(sent, ElementsAre("/log_consumer any text"));
  EXPECT_EQ(tell("sync", kPublisher, "any text"), "noted");
  EXPECT_THAT(sent, IsEmpty());
  EXPECT_EQ(tell("sync", kPublisher, "any text", {{"dst_comp_id", 5}}),
            "refused: the component is not registered");
}

TEST_F(StoreTest, SavesTheTreeAndWithItWhoIsRegistered) {
  tell("subscribe", kService, "/rgw", {{"notifyOnChangeOnly", true}});
  EXPECT_EQ(tell("save", kPublisher, ""), "saved to " + directory / "tree.json");
  EXPECT_EQ(Json::parse(read_file(directory / "tree.json")), store.tree());
  EXPECT_EQ(tell("save_debug", kPublisher, ""), "saved to " + directory / "tree.json.debug");
  const Json debug = Json::parse(read_file(directory / "tree.json.debug"));
  EXPECT_EQ(debug.at("tree"), store.tree());
  EXPECT_EQ(debug.at("components").dump(),
            R"([{"comp_id":1073741840,"queue":"/log_consumer",)"
            R"("subscriptions":[{"path":"/rgw","notifyOnChangeOnly":true}]}])");
}

TEST_F(StoreTest, SaysWhenItCannotSave) {
  Store nowhere("/nowhere/tree.json");
  EXPECT_THAT(nowhere.handle(request("save", 1, "")).outcome,
              HasSubstr("failed: cannot write /nowhere/tree.json"));
  Store memory_only;
  EXPECT_EQ(memory_only.handle(request("save", 1, "")).outcome,
            "refused: started without a file to save to");
}

TEST_F(StoreTest, NotesInitAndExit) {
  EXPECT_EQ(tell("init", kService, "text"), "noted");
  EXPECT_EQ(tell("exit", kService, "text"), "noted");
}

TEST_F(StoreTest, ReportsWhatARequestSaid) {
  Json with_queue = Json::parse(request("register", kService, "/q", {{"sender_id", "s"}}));
  with_queue["que"] = {{"maxmsg", 64}};
  const Handled handled = store.handle(with_queue.dump());
  EXPECT_TRUE(handled.ok);
  EXPECT_EQ(handled.function, "register");
  EXPECT_EQ(handled.comp_id, kService);
  EXPECT_EQ(handled.buffer, "/q");
  EXPECT_EQ(handled.options, R"({"sender_id":"s","que":{"maxmsg":64}})");
}

TEST_F(StoreTest, BadRequestsSayWhyAndChangeNothing) {
  const Json before = store.tree();
  EXPECT_EQ(tell_text(""), "bad request: no JSON");
  EXPECT_EQ(tell_text("\xff\xfe{"), "bad request: no JSON");
  EXPECT_EQ(tell_text("[]"), "bad request: no JSON object");
  EXPECT_EQ(tell_text(std::string(200'000, '[')), "bad request: nested too deeply");
  EXPECT_EQ(tell_text("{}"), "bad request: no function");
  EXPECT_EQ(tell_text(R"({"function":5,"arg":{}})"), "bad request: no function");
  EXPECT_EQ(tell_text(R"({"function":"get"})"), "bad request: no arg");
  EXPECT_EQ(tell_text(R"({"function":"get","arg":{"buffer":""}})"), "bad request: no comp_id");
  for (const char* id : {"-1", "1.5", "\"1\"", "4294967296", "null"}) {
    EXPECT_EQ(
        tell_text(std::string(R"({"function":"get","arg":{"buffer":"","comp_id":)") + id + "}}"),
        "bad request: no comp_id")
        << id;
  }
  EXPECT_EQ(tell_text(R"({"function":"get","arg":{"comp_id":1}})"), "bad request: no buffer");
  EXPECT_EQ(tell("dance", kService, ""), "bad request: no such function");
  EXPECT_EQ(tell("register", kService, "no slash"), "bad request: no queue name");
  EXPECT_EQ(tell("get", kService, "rgw"), "bad request: no path: rgw");
  EXPECT_EQ(tell("subscribe", kService, ""), "bad request: no path");
  EXPECT_EQ(tell("publish", kService, "{"), "bad request: no JSON");
  EXPECT_EQ(tell("publish", kService, "[1]"), "bad request: no JSON object to publish");
  EXPECT_EQ(tell("sync", kService, "", {{"dst_comp_id", -1}}), "bad request: no dst_comp_id");
  EXPECT_THAT(sent, IsEmpty());
  EXPECT_EQ(store.tree(), before);
}

TEST_F(StoreTest, StartDocumentMustBeAnObject) {
  EXPECT_THROW(store.load("[]"), std::invalid_argument);
  EXPECT_THROW(store.load("nonsense"), std::invalid_argument);
}

}  // namespace
}  // namespace lab
