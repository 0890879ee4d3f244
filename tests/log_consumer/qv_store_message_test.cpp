#include "log_consumer/qv_store_message.h"

#include <functional>
#include <nlohmann/json.hpp>
#include <random>

#include "gtest/gtest.h"
#include "log_consumer/qv_json_obj_factory.h"
#include "log_consumer/qv_log_consumer_shared.h"
#include "tests/support/fake_time.h"
#include "tests/support/journal.h"

namespace {

using test_support::FakeTime;
using test_support::journal;
using test_support::Journal;

// Every field that a message may change, and those that none may.
std::string record() {
  const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
  const logConsumerSharedStruct& shared = logConsumerShared;
  return "wifi " + std::to_string(shared.wifiAssociated) + " activity " +
         std::to_string(shared.lastActivityTime.tv_sec) + "." +
         std::to_string(shared.lastActivityTime.tv_nsec) + " initial " +
         std::to_string(shared.initialLogSending) + " state " + shared.aapStateStr + " id " +
         shared.sysId + " slots " + std::to_string(shared.setDelayMinutes) + " token " +
         shared.nuvToken + " clock " + std::to_string(shared.offset) + " " +
         std::to_string(shared.dstOffset) + " " + std::to_string(shared.enableDst) + " upload " +
         shared.dataUploadServerAddr + ":" + std::to_string(shared.dataUploadServerPort) +
         " relay " + shared.relayServerAddr + ":" + std::to_string(shared.relayServerPort) +
         " exit " + std::to_string(shared.resetLogConsumer) + std::to_string(shared.inactivityExit);
}

class StoreMessage : public testing::Test {
 protected:
  void SetUp() override {
    storeSharedDefaults();
    shared_set(&logConsumerSharedStruct::dataUploadServerAddr, "upload.example");
    shared_set(&logConsumerSharedStruct::dataUploadServerPort, 443);
    shared_set(&logConsumerSharedStruct::relayServerAddr, "relay.example");
    shared_set(&logConsumerSharedStruct::relayServerPort, 443);
    test_support::clear_journal();
  }

  // The journal of one message, without the lines before it.
  static Journal lines_of(const std::string& json) {
    test_support::clear_journal();
    handleStoreMessage(json);
    return journal();
  }

  static void expect_no_effect(const std::string& json) {
    const std::string before = record();
    EXPECT_EQ(lines_of(json), Journal{}) << json;
    EXPECT_EQ(record(), before) << json;
  }
};

// /interfaces

class Interfaces : public StoreMessage {
 protected:
  static std::string wifi(const std::string& status) {
    return R"({"interfaces":[{"id":2},{"id":1,"wifiStatus":{"status":")" + status + R"("}}]})";
  }

  const std::string kNotAssociated = "syslog 7 PushpullLC thread: wifi is not associated";
  const std::string kNowAssociated = "syslog 7 PushpullLC thread: wifi now associated";
};

TEST_F(Interfaces, AssociationIsStoredAndArmsTheActivityClock) {
  const FakeTime clock(1000, 7000);
  logConsumerShared.lastActivityTime = {0, 55};
  EXPECT_EQ(lines_of(wifi("associated")), Journal{kNowAssociated});
  EXPECT_TRUE(logConsumerShared.wifiAssociated);
  EXPECT_EQ(logConsumerShared.lastActivityTime.tv_sec, 7000);
  EXPECT_EQ(logConsumerShared.lastActivityTime.tv_nsec, 55) << "seconds only";
}

TEST_F(Interfaces, AssociationReportedAgainChangesNothing) {
  FakeTime clock(1000, 7000);
  handleStoreMessage(wifi("associated"));
  clock.advance(60);
  expect_no_effect(wifi("associated"));
  EXPECT_EQ(logConsumerShared.lastActivityTime.tv_sec, 7000);
}

TEST_F(Interfaces, AssociationKeepsAnActivityClockThatRuns) {
  const FakeTime clock(1000, 7000);
  logConsumerShared.lastActivityTime = {6000, 1};
  EXPECT_EQ(lines_of(wifi("associated")), Journal{kNowAssociated});
  EXPECT_EQ(logConsumerShared.lastActivityTime.tv_sec, 6000);
}

TEST_F(Interfaces, NoAssociationDisarmsTheActivityClock) {
  logConsumerShared.wifiAssociated = true;
  logConsumerShared.initialLogSending = false;
  logConsumerShared.lastActivityTime = {6000, 55};
  EXPECT_EQ(lines_of(wifi("disassociated")), Journal{kNotAssociated});
  EXPECT_FALSE(logConsumerShared.wifiAssociated);
  EXPECT_TRUE(logConsumerShared.initialLogSending);
  EXPECT_EQ(logConsumerShared.lastActivityTime.tv_sec, 0);
  EXPECT_EQ(logConsumerShared.lastActivityTime.tv_nsec, 55) << "seconds only";
}

TEST_F(Interfaces, NoAssociationIsLoggedEveryTime) {
  EXPECT_EQ(lines_of(wifi("disassociated")), Journal{kNotAssociated});
  EXPECT_EQ(lines_of(wifi("disassociated")), Journal{kNotAssociated});
}

TEST_F(Interfaces, AnErrorOfTheWifiIsNoAssociation) {
  logConsumerShared.wifiAssociated = true;
  EXPECT_EQ(lines_of(wifi("error")), Journal{kNotAssociated});
  EXPECT_FALSE(logConsumerShared.wifiAssociated);
}

TEST_F(Interfaces, AssociationAfterALossRestartsTheInactivityPeriod) {
  FakeTime clock(1000, 7000);
  handleStoreMessage(wifi("associated"));
  clock.advance(14000);
  handleStoreMessage(wifi("disassociated"));
  clock.advance(300);
  EXPECT_EQ(lines_of(wifi("associated")), Journal{kNowAssociated});
  EXPECT_EQ(logConsumerShared.lastActivityTime.tv_sec, 21300);
}

TEST_F(Interfaces, AFailingClockIsReportedAndLeavesTheActivityClock) {
  FakeTime clock(1000, 7000);
  clock.fail_monotonic(EINVAL);
  EXPECT_EQ(lines_of(wifi("associated")),
            (Journal{kNowAssociated, "syslog 3 pushpull thread: clock_gettime() failed 22"}));
  EXPECT_TRUE(logConsumerShared.wifiAssociated);
  EXPECT_EQ(logConsumerShared.lastActivityTime.tv_sec, 0);
}

TEST_F(Interfaces, WithoutTheWifiOrItsStatusNothingChanges) {
  logConsumerShared.wifiAssociated = true;
  logConsumerShared.lastActivityTime = {6000, 0};
  for (const char* json : {
           R"({"interfaces":[]})",
           R"({"interfaces":[{"id":2,"wifiStatus":{"status":"disassociated"}}]})",
           R"({"interfaces":[{"id":1}]})",
           R"({"interfaces":[{"id":1,"wifiStatus":{}}]})",
           R"({"interfaces":[{"id":1,"wifiStatus":{"status":"asleep"}}]})",
           R"({"interfaces":[{"id":1,"wifiStatus":{"status":0}}]})",
           R"({"interfaces":{"id":1,"wifiStatus":{"status":"disassociated"}}})",
       }) {
    expect_no_effect(json);
  }
}

// /rgw

class Rgw : public StoreMessage {
 protected:
  static std::string setting(const std::string& state) {
    return "syslog 7 PushpullLC thread: Setting aapStateStr = " + state;
  }
  static std::string registration(const std::string& sysId, const std::string& state) {
    return "syslog 7 PushpullLC thread: sysId = " + sysId + ", aapStateStr = " + state;
  }
  const std::string kIgnoredAddr =
      "syslog 7 PushpullLC thread: ignoring relay server addr from pushpull";
  const std::string kIgnoredPort =
      "syslog 7 PushpullLC thread: ignoring relay server port from pushpull";
};

TEST_F(Rgw, EveryStateIsStoredAsItsText) {
  for (const std::string state :
       {"registering", "registered", "binding", "bound", "error", "unregistered"}) {
    EXPECT_EQ(lines_of(R"({"rgw":{"aapState":")" + state + R"("}})"),
              (Journal{setting(state), registration("NUVSerialNumber", state)}));
    EXPECT_EQ(logConsumerShared.aapStateStr, state);
  }
}

TEST_F(Rgw, WithoutAStateStillLogsTheCurrentIdAndState) {
  logConsumerShared.sysId = "AB12345678";
  logConsumerShared.aapStateStr = "bound";
  const std::string before = record();
  EXPECT_EQ(lines_of(R"({"rgw":{}})"), Journal{registration("AB12345678", "bound")});
  EXPECT_EQ(record(), before);
}

TEST_F(Rgw, AStateOutsideTheListIsAbsent) {
  logConsumerShared.aapStateStr = "bound";
  for (const char* json : {R"({"rgw":{"aapState":"adrift"}})", R"({"rgw":{"aapState":4}})",
                           R"({"rgw":{"aapState":""}})"}) {
    EXPECT_EQ(lines_of(json), Journal{registration("NUVSerialNumber", "bound")}) << json;
    EXPECT_EQ(logConsumerShared.aapStateStr, "bound");
  }
}

TEST_F(Rgw, ARelayServerIsReportedAndIgnored) {
  const std::string before = record();
  EXPECT_EQ(lines_of(R"({"rgw":{"configSec":{"relayServerUrl":"h","relayServerPort":8443}}})"),
            (Journal{registration("NUVSerialNumber", "unregistered"), kIgnoredAddr, kIgnoredPort}));
  EXPECT_EQ(lines_of(R"({"rgw":{"configSec":{"relayServerUrl":"h"}}})"),
            (Journal{registration("NUVSerialNumber", "unregistered"), kIgnoredAddr}));
  EXPECT_EQ(lines_of(R"({"rgw":{"configSec":{"relayServerPort":8443}}})"),
            (Journal{registration("NUVSerialNumber", "unregistered"), kIgnoredPort}));
  EXPECT_EQ(record(), before);
}

TEST_F(Rgw, StateComesBeforeTheRelayServer) {
  EXPECT_EQ(lines_of(R"({"rgw":{"configSec":{"relayServerPort":1},"aapState":"bound"}})"),
            (Journal{setting("bound"), registration("NUVSerialNumber", "bound"), kIgnoredPort}));
}

// /system

class System : public StoreMessage {
 protected:
  void SetUp() override {
    StoreMessage::SetUp();
    logConsumerShared.offset = 1;
    logConsumerShared.dstOffset = 2;
    logConsumerShared.enableDst = true;
  }

  static void expect_clock(int offset, int dst_offset, bool enable_dst) {
    EXPECT_EQ(logConsumerShared.offset, offset);
    EXPECT_EQ(logConsumerShared.dstOffset, dst_offset);
    EXPECT_EQ(logConsumerShared.enableDst, enable_dst);
  }

  const Journal kUpdating = {"syslog 7 PushpullLC thread: updating system clock values"};
};

TEST_F(System, ClockValuesAreStored) {
  EXPECT_EQ(
      lines_of(R"({"system":{"clock":{"offset":-18000,"dstOffset":3600,"enableDst":false}}})"),
      kUpdating);
  expect_clock(-18000, 3600, false);
}

TEST_F(System, EachClockValueIsStoredAlone) {
  EXPECT_EQ(lines_of(R"({"system":{"clock":{"offset":10}}})"), kUpdating);
  expect_clock(10, 2, true);
  EXPECT_EQ(lines_of(R"({"system":{"clock":{"dstOffset":20}}})"), kUpdating);
  expect_clock(10, 20, true);
  EXPECT_EQ(lines_of(R"({"system":{"clock":{"enableDst":false}}})"), kUpdating);
  expect_clock(10, 20, false);
}

TEST_F(System, AbsentAndInvalidClockValuesStay) {
  EXPECT_EQ(lines_of(R"({"system":{"clock":{}}})"), kUpdating);
  EXPECT_EQ(lines_of(R"({"system":{"clock":{"offset":"5","dstOffset":1.5,"enableDst":0}}})"),
            kUpdating);
  EXPECT_EQ(lines_of(R"({"system":{"clock":{"offset":2147483648}}})"), kUpdating);
  expect_clock(1, 2, true);
}

TEST_F(System, WithoutAClockChangesNothing) {
  expect_no_effect(R"({"system":{}})");
  expect_no_effect(R"({"system":{"clock":7}})");
}

// /serverAssigned

class ServerAssigned : public StoreMessage {
 protected:
  static std::string setting(const std::string& sysId) {
    return "syslog 7 PushpullLC thread: Setting system id " + sysId;
  }
  static std::string registration(const std::string& sysId, const std::string& state) {
    return "syslog 6 PushpullLC thread: sysId = " + sysId + ", aap_state_str = " + state;
  }
  static std::string token(const std::string& encoded) {
    return "syslog 7 PushpullLC thread: token = " + encoded;
  }
  const std::string kIgnored =
      "syslog 7 PushpullLC thread: Ignoring data upload server addr from pushpull";
};

TEST_F(ServerAssigned, SystemIdAndTokenAreStoredAndServersIgnored) {
  logConsumerShared.aapStateStr = "bound";
  EXPECT_EQ(lines_of(R"({"serverAssigned":{"identities":{"sysId":"AB12345678"},
      "security":{"nuvToken":{"encoded":"dG9rZW4="}},
      "urlsSec":{"dataUploadUrl":"evil.example","dataUploadPort":1}}})"),
            (Journal{setting("AB12345678"), registration("AB12345678", "bound"), token("dG9rZW4="),
                     kIgnored}));
  EXPECT_EQ(logConsumerShared.sysId, "AB12345678");
  EXPECT_TRUE(logConsumerShared.setDelayMinutes);
  EXPECT_EQ(logConsumerShared.nuvToken, "dG9rZW4=");
  EXPECT_EQ(logConsumerShared.dataUploadServerAddr, "upload.example");
  EXPECT_EQ(logConsumerShared.dataUploadServerPort, 443);
}

TEST_F(ServerAssigned, WithoutASystemIdLogsAnEmptyOneAndKeepsIt) {
  logConsumerShared.sysId = "AB12345678";
  const std::string before = record();
  for (const char* json : {R"({"serverAssigned":{}})", R"({"serverAssigned":{"identities":{}}})",
                           R"({"serverAssigned":{"identities":{"sysId":12}}})"}) {
    EXPECT_EQ(lines_of(json), Journal{registration("", "unregistered")}) << json;
  }
  EXPECT_EQ(record(), before);
}

TEST_F(ServerAssigned, WithoutATokenKeepsIt) {
  logConsumerShared.nuvToken = "old";
  for (const char* json : {R"({"serverAssigned":{"security":{}}})",
                           R"({"serverAssigned":{"security":{"nuvToken":{}}}})",
                           R"({"serverAssigned":{"security":{"nuvToken":"dG9rZW4="}}})",
                           R"({"serverAssigned":{"security":{"nuvToken":{"encoded":null}}}})"}) {
    EXPECT_EQ(lines_of(json), Journal{registration("", "unregistered")}) << json;
  }
  EXPECT_EQ(logConsumerShared.nuvToken, "old");
}

TEST_F(ServerAssigned, ATokenAloneIsStored) {
  EXPECT_EQ(lines_of(R"({"serverAssigned":{"security":{"nuvToken":{"encoded":"new"}}}})"),
            (Journal{registration("", "unregistered"), token("new")}));
  EXPECT_EQ(logConsumerShared.nuvToken, "new");
  EXPECT_FALSE(logConsumerShared.setDelayMinutes);
}

TEST_F(ServerAssigned, FormatsInAValueAreText) {
  EXPECT_EQ(lines_of(R"({"serverAssigned":{"identities":{"sysId":"%s%n%d"}}})"),
            (Journal{setting("%s%n%d"), registration("%s%n%d", "unregistered")}));
}

// Everything else

TEST_F(StoreMessage, AnObjectOfAnotherTypeIsReported) {
  const std::string before = record();
  handleStoreObject(QvJsonObj(kAlertObj, "alert"));
  handleStoreObject(QvJsonObj(kObjError, "error"));
  EXPECT_EQ(journal(), (Journal{"syslog 7 PushpullLC thread: got unknown object type  0",
                                "syslog 7 PushpullLC thread: got unknown object type  140"}));
  EXPECT_EQ(record(), before);
}

TEST_F(StoreMessage, WhatMakesNoObjectIsDroppedWithoutAWord) {
  for (const char* json :
       {"", " ", "x", "null", "7", "[]", "{}", R"("rgw")", R"({"rgw":{"aapState":"bound"})",
        R"({"rgw":{"aapState":"bound"},"system":{}})", R"({"unknown":{"aapState":"bound"}})",
        "DESTRUCTOR CALLED"}) {
    expect_no_effect(json);
  }
}

// Bytes that nobody meant for this service: no crash, and nothing it holds is lost.
class Hostile : public StoreMessage {
 protected:
  void SetUp() override {
    StoreMessage::SetUp();
    logConsumerShared.sysId = "AB12345678";
    logConsumerShared.nuvToken = "dG9rZW4=";
    logConsumerShared.aapStateStr = "bound";
  }

  static const std::vector<std::string>& documents() {
    static const std::vector<std::string> texts = {
        R"({"serverAssigned":{"identities":{"sysId":"AB12345678"},"security":{"nuvToken":{"encoded":"dG9rZW4="}},"urlsSec":{"dataUploadUrl":"h","dataUploadPort":443}}})",
        R"({"rgw":{"aapState":"bound","configSec":{"relayServerUrl":"h","relayServerPort":8443}}})",
        R"({"interfaces":[{"id":1,"wifiStatus":{"status":"associated"}},{"id":2}]})",
        R"({"system":{"clock":{"offset":-18000,"dstOffset":3600,"enableDst":true}}})",
    };
    return texts;
  }

  static void expect_nothing_cleared(const std::string& json) {
    EXPECT_NE(logConsumerShared.sysId, "") << json;
    EXPECT_NE(logConsumerShared.nuvToken, "") << json;
    EXPECT_EQ(logConsumerShared.aapStateStr, "bound") << json;
    EXPECT_EQ(logConsumerShared.dataUploadServerAddr, "upload.example") << json;
    EXPECT_EQ(logConsumerShared.relayServerPort, 443) << json;
  }

  std::mt19937 random{1};
  std::size_t below(std::size_t end) { return random() % end; }
};

TEST_F(Hostile, RandomBytesHaveNoEffect) {
  for (int i = 0; i < 2000; ++i) {
    std::string bytes(below(i % 50 == 0 ? 20000 : 200), '\0');
    for (char& byte : bytes)
      byte = static_cast<char>(random());
    expect_no_effect(bytes);
  }
}

TEST_F(Hostile, EveryBeginningOfADocumentHasNoEffect) {
  for (const std::string& document : documents()) {
    for (std::size_t size = 0; size < document.size(); ++size) {
      expect_no_effect(document.substr(0, size));
    }
  }
}

TEST_F(Hostile, DocumentsWithDamagedBytesClearNothing) {
  for (int i = 0; i < 20000; ++i) {
    std::string json = documents()[below(documents().size())];
    for (std::size_t damage = 1 + below(2); damage > 0; --damage) {
      json[below(json.size())] = static_cast<char>(random());
    }
    handleStoreMessage(json);
    expect_nothing_cleared(json);
    if (HasFailure()) return;
  }
}

// Calls `use` with a copy of the document for each of its values, that value replaced.
void replace_each(nlohmann::json& document, nlohmann::json& place, const nlohmann::json& value,
                  const std::function<void(const std::string&)>& use) {
  const nlohmann::json original = place;
  place = value;
  use(document.dump());
  place = original;
  for (auto& child : place) {
    if (place.is_structured()) replace_each(document, child, value, use);
  }
}

TEST_F(Hostile, ValuesOfEveryOtherTypeClearNothing) {
  int texts = 0;
  for (const char* value : {"null", "true", "0", "-1.5e300", "18446744073709551616", "[]", "{}",
                            "[[]]", "[{}]", R"({"status":{}})"}) {
    for (const std::string& document : documents()) {
      nlohmann::json json = nlohmann::json::parse(document);
      replace_each(json, json, nlohmann::json::parse(value), [&](const std::string& text) {
        handleStoreMessage(text);
        expect_nothing_cleared(text);
        ++texts;
      });
    }
  }
  EXPECT_GT(texts, 200);
}

TEST_F(Hostile, NestingAsDeepAsAMessageAllowsHasNoEffect) {
  constexpr std::size_t kBytes = 262143;
  expect_no_effect(std::string(kBytes, '['));
  expect_no_effect(R"({"rgw":)" + std::string(kBytes / 2 - 7, '[') +
                   std::string(kBytes / 2 - 7, ']'));
  std::string objects = R"({"serverAssigned":)";
  while (objects.size() < kBytes - 5)
    objects += R"({"a":)";
  expect_no_effect(objects);
}

TEST_F(Hostile, ValuesAsLongAsAMessageAllowsAreStored) {
  const std::string id(262000, 'x');
  handleStoreMessage(R"({"serverAssigned":{"identities":{"sysId":")" + id + R"("}}})");
  EXPECT_EQ(logConsumerShared.sysId, id);
}

}  // namespace
