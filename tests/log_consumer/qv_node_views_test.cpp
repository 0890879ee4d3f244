// The typed views of the store's documents: every rule of what counts, and what makes no object.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "log_consumer/qv_json_obj_factory.h"

namespace {

using namespace std::string_literals;

std::shared_ptr<QvJsonObj> make(const std::string& json) {
  return QvJsonObjFactory::makeObj(json);
}

/// The view of a document that is known to be a `View`.
template <typename View>
std::shared_ptr<View> make_as(const std::string& json) {
  auto view = std::dynamic_pointer_cast<View>(make(json));
  EXPECT_NE(view, nullptr) << json;
  return view;
}

/// A getter's result: the value, or "-" when it is absent. A getter of an absent value must leave
/// its output untouched, so each starts with a value of its own.
template <typename View>
std::string text(const View& view, bool (View::*getter)(std::string*) const) {
  std::string value = "untouched";
  const bool valid = (view.*getter)(&value);
  EXPECT_EQ((view.*getter)(nullptr), valid);
  EXPECT_TRUE(valid || value == "untouched");
  return valid ? value : "-";
}

template <typename View>
std::string number(const View& view, bool (View::*getter)(int*) const) {
  int value = -4711;
  const bool valid = (view.*getter)(&value);
  EXPECT_EQ((view.*getter)(nullptr), valid);
  EXPECT_TRUE(valid || value == -4711);
  return valid ? std::to_string(value) : "-";
}

template <typename View>
std::string flag(const View& view, bool (View::*getter)(bool*) const) {
  bool first = false;
  bool second = true;
  const bool valid = (view.*getter)(&first);
  EXPECT_EQ((view.*getter)(&second), valid);
  EXPECT_EQ((view.*getter)(nullptr), valid);
  EXPECT_TRUE(valid ? first == second : !first && second);
  return valid ? (first ? "true" : "false") : "-";
}

/// A section, null when absent.
template <typename Section, typename View>
Section* section(const View& view, bool (View::*getter)(Section**) const) {
  Section untouched("untouched");
  Section* found = &untouched;
  const bool valid = (view.*getter)(&found);
  EXPECT_EQ((view.*getter)(nullptr), valid);
  EXPECT_EQ(found == &untouched, !valid);
  return valid ? found : nullptr;
}

/// The state in a document of /rgw, as text; "-" when absent.
std::string aap_state(const std::string& json) {
  const auto view = make_as<QvRgw>(json);
  QvRgw::aapStateEnum state = QvRgw::kAapStateBinding;
  const bool valid = view->getAapState(&state);
  EXPECT_EQ(view->getAapState(nullptr), valid);
  EXPECT_TRUE(valid || state == QvRgw::kAapStateBinding);
  return valid ? view->getAapStateStr(state) : "-";
}

/// The clock's offset written as `value`; "-" when that is not valid.
std::string offset(const std::string& value) {
  const auto view = make_as<QvSystem>("{\"system\":{\"clock\":{\"offset\":" + value + "}}}");
  return number(*section(*view, &QvSystem::getClock), &QvSystemClock::getOffset);
}

/// The Wi-Fi status of one interface: its number, "-" when absent.
std::string wifi_status(const std::string& value) {
  const auto view = make_as<QvInterfacesWrapper>(
      "{\"interfaces\":[{\"id\":1,\"wifiStatus\":{\"status\":" + value + "}}]}");
  QvInterfaces interface("interfaces");
  EXPECT_EQ(view->searchQvInterfacesById(1, interface), 0);
  const QvInterfaceWiFiStatus* const wifi = section(interface, &QvInterfaces::getWifiStatus);
  auto status = QvInterfaceWiFiStatus::kStatusError;
  if (!wifi->getStatus(&status)) return "-";
  return std::to_string(status);
}

const std::string kServerAssigned = R"({"serverAssigned":{"identities":{"sysId":"AB12345678"},)"
                                    R"("security":{"nuvToken":{"encoded":"dG9rZW4="}},)"
                                    R"("urlsSec":{"dataUploadUrl":"h","dataUploadPort":443}}})";

TEST(QvJsonObjType, KeepsTheNumbersThatAppearInLogMessages) {
  EXPECT_EQ(kAlertObj, 0);
  EXPECT_EQ(kInterfacesWrapperObj, 52);
  EXPECT_EQ(kSystemObj, 76);
  EXPECT_EQ(kRgwObj, 116);
  EXPECT_EQ(kServerAssignedObj, 124);
  EXPECT_EQ(kObjError, 140);
  EXPECT_EQ(sizeof(QvJsonObjType), 4U);
  EXPECT_TRUE((std::is_convertible_v<QvJsonObjType, int>));
}

TEST(QvNodeViews, KeepTheNumbersOfTheirStates) {
  EXPECT_EQ(QvRgw::kAapStateUnregistered, 0);
  EXPECT_EQ(QvRgw::kAapStateRegistering, 1);
  EXPECT_EQ(QvRgw::kAapStateRegistered, 2);
  EXPECT_EQ(QvRgw::kAapStateBinding, 3);
  EXPECT_EQ(QvRgw::kAapStateBound, 4);
  EXPECT_EQ(QvRgw::kAapStateError, 5);
  EXPECT_EQ(sizeof(QvRgw::aapStateEnum), 4U);
  EXPECT_EQ(QvInterfaceWiFiStatus::kStatusDisassociated, 0);
  EXPECT_EQ(QvInterfaceWiFiStatus::kStatusAssociated, 1);
  EXPECT_EQ(QvInterfaceWiFiStatus::kStatusError, 2);
  EXPECT_EQ(sizeof(QvInterfaceWiFiStatus::statusEnum), 4U);
}

TEST(QvJsonObjFactory, TakesTheTypeFromTheOneMember) {
  EXPECT_EQ(make(R"({"interfaces":[]})")->getObjType(), kInterfacesWrapperObj);
  EXPECT_EQ(make(R"({"system":{}})")->getObjType(), kSystemObj);
  EXPECT_EQ(make(R"({"rgw":{}})")->getObjType(), kRgwObj);
  EXPECT_EQ(make(R"({"serverAssigned":{}})")->getObjType(), kServerAssignedObj);
  EXPECT_EQ(make(R"({"rgw":{}})")->getName(), "rgw");
}

TEST(QvJsonObjFactory, MakesNothingOfTextThatIsNotJson) {
  for (const std::string& json :
       {""s, " "s, "rgw"s, "{"s, "{\"rgw\":{}"s, "{\"rgw\":{}}}"s, "{\"rgw\":{}} x"s, "{rgw:{}}"s,
        "{\"rgw\":}"s, "{\"rgw\":{},}"s, "\0"s, "\0{\"rgw\":{}}"s, "\xff\xfe{}"s,
        "{\"rgw\":{\"aapState\":\"\xff\"}}"s, "{\"rgw\":{\"x\":NaN}}"s}) {
    EXPECT_EQ(make(json), nullptr) << json;
  }
}

TEST(QvJsonObjFactory, MakesNothingOfWhatIsNoObject) {
  for (const char* json : {"null", "true", "1", "\"rgw\"", "[]", "[\"rgw\"]", R"([{"rgw":{}}])"}) {
    EXPECT_EQ(make(json), nullptr) << json;
  }
}

TEST(QvJsonObjFactory, MakesAViewWithoutValuesOfAKnownNodeOfAnotherType) {
  for (const char* value : {"null", "true", "5", "\"bound\"", "[]", "[{\"aapState\":\"bound\"}]"}) {
    const auto view = make_as<QvRgw>(std::string("{\"rgw\":") + value + "}");
    EXPECT_EQ(view->getObjType(), kRgwObj) << value;
    EXPECT_FALSE(view->getAapState(nullptr)) << value;
    EXPECT_FALSE(view->getConfigSec(nullptr)) << value;
  }
  QvInterfaces out("interfaces");
  const auto interfaces = make_as<QvInterfacesWrapper>(R"({"interfaces":{"id":1}})");
  EXPECT_NE(interfaces->searchQvInterfacesById(1, out), 0);
}

TEST(QvJsonObjFactory, MakesNothingWithoutAMember) {
  EXPECT_EQ(make("{}"), nullptr);
}

TEST(QvJsonObjFactory, MakesNothingOfSeveralMembers) {
  EXPECT_EQ(make(R"({"rgw":{},"system":{}})"), nullptr);
  EXPECT_EQ(make(R"({"rgw":{},"other":1})"), nullptr);
  EXPECT_EQ(make(R"({"rgw":{},"rgw":{}})"), nullptr);
}

TEST(QvJsonObjFactory, CountsMembersAtTheTopOnly) {
  EXPECT_EQ(aap_state(R"({"rgw":{"a":{"b":1,"c":2},"d":[{"e":3,"f":4}],"aapState":"bound"}})"),
            "bound");
}

TEST(QvJsonObjFactory, MakesNothingOfAnUnknownNode) {
  for (const char* name : {"", "RGW", "rgw ", "/rgw", "rgw\\u0000", "configSec", "clock",
                           "interface", "alert", "aapState"}) {
    EXPECT_EQ(make("{\""s + name + "\":{}}"), nullptr) << name;
  }
}

TEST(QvJsonObjFactory, MakesAnEmptyObjectOfANodeOfTheWrongType) {
  for (const char* value : {"null", "1", "true", "\"bound\"", R"(["aapState","bound"])"}) {
    EXPECT_EQ(aap_state("{\"rgw\":"s + value + "}"), "-") << value;
  }
  const auto interfaces = make_as<QvInterfacesWrapper>(R"({"interfaces":{"id":1}})");
  QvInterfaces out("interfaces");
  EXPECT_NE(interfaces->searchQvInterfacesById(1, out), 0);
}

TEST(QvJsonObjFactory, EndsTheTextAtANulLikeAMessageFromTheQueue) {
  EXPECT_EQ(aap_state("{\"rgw\":{\"aapState\":\"bound\"}}\0rest of an older message"s), "bound");
}

TEST(QvJsonObjFactory, ReadsFormattedText) {
  EXPECT_EQ(aap_state("{\n\t\"rgw\" : {\n\t\t\"aapState\" : \"bound\"\n\t}\n}"), "bound");
}

TEST(QvJsonObjFactory, TakesTheLastOfSeveralMembersBelowTheTop) {
  EXPECT_EQ(aap_state(R"({"rgw":{"aapState":"bound","aapState":"binding"}})"), "binding");
}

TEST(QvJsonObjFactory, SurvivesNestingAsDeepAsAMessageIsLong) {
  const std::size_t depth = 262144 / 2 - 100;
  const std::string nested = std::string(depth, '[') + std::string(depth, ']');
  EXPECT_EQ(aap_state("{\"rgw\":{\"x\":" + nested + ",\"aapState\":\"bound\"}}"), "bound");
  std::string objects;
  for (int i = 0; i < 40000; ++i)
    objects += "{\"a\":";
  EXPECT_EQ(make("{\"rgw\":" + objects + "1" + std::string(40000, '}') + "}")->getObjType(),
            kRgwObj);
  EXPECT_EQ(make(std::string(262143, '[')), nullptr);
  EXPECT_EQ(make(objects), nullptr);
}

// As long as the largest message may be; an algorithm that is slower than the text is long would
// not end within the time-out of the test.
TEST(QvJsonObjFactory, ReadsALongList) {
  std::string list;
  while (list.size() < 262144)
    list += "{},7,";
  const auto view = make_as<QvInterfacesWrapper>("{\"interfaces\":[" + list + "{\"id\":1}]}");
  QvInterfaces out("interfaces");
  EXPECT_EQ(view->searchQvInterfacesById(1, out), 0);
}

TEST(QvJsonObjFactory, NamesAnObjectThatOutlivesItsText) {
  auto json = std::make_unique<std::string>(kServerAssigned);
  const auto view = make_as<QvServerAssigned>(*json);
  json.reset();
  EXPECT_EQ(text(*section(*view, &QvServerAssigned::getIdentities), &QvIdentities::getSysId),
            "AB12345678");
}

TEST(QvServerAssigned, ReadsEverySection) {
  const auto view = make_as<QvServerAssigned>(kServerAssigned);
  EXPECT_EQ(text(*section(*view, &QvServerAssigned::getIdentities), &QvIdentities::getSysId),
            "AB12345678");
  const auto* const security = section(*view, &QvServerAssigned::getSecurity);
  EXPECT_EQ(text(*section(*security, &QvSecurity::getNuvToken), &QvToken::getEncoded), "dG9rZW4=");
  EXPECT_NE(section(*view, &QvServerAssigned::getUrlsSec), nullptr);
}

TEST(QvServerAssigned, HasNoSectionThatIsMissing) {
  const auto view = make_as<QvServerAssigned>(R"({"serverAssigned":{}})");
  EXPECT_EQ(section(*view, &QvServerAssigned::getIdentities), nullptr);
  EXPECT_EQ(section(*view, &QvServerAssigned::getSecurity), nullptr);
  EXPECT_EQ(section(*view, &QvServerAssigned::getUrlsSec), nullptr);
}

TEST(QvServerAssigned, HasEmptySections) {
  const auto view = make_as<QvServerAssigned>(
      R"({"serverAssigned":{"identities":{},"security":{},"urlsSec":{}}})");
  EXPECT_EQ(text(*section(*view, &QvServerAssigned::getIdentities), &QvIdentities::getSysId), "-");
  const auto* const security = section(*view, &QvServerAssigned::getSecurity);
  EXPECT_EQ(section(*security, &QvSecurity::getNuvToken), nullptr);
  EXPECT_NE(section(*view, &QvServerAssigned::getUrlsSec), nullptr);
}

TEST(QvServerAssigned, TakesASectionOfAnotherTypeAsAbsent) {
  for (const char* value : {"null", "true", "1", "\"text\"", "[]", R"([{"sysId":"x"}])"}) {
    const auto view = make_as<QvServerAssigned>("{\"serverAssigned\":{\"identities\":"s + value +
                                                ",\"urlsSec\":" + value + ",\"security\":{}}}");
    EXPECT_EQ(section(*view, &QvServerAssigned::getIdentities), nullptr) << value;
    EXPECT_EQ(section(*view, &QvServerAssigned::getUrlsSec), nullptr) << value;
    EXPECT_NE(section(*view, &QvServerAssigned::getSecurity), nullptr) << value;
  }
}

TEST(QvServerAssigned, TakesATextOfAnotherTypeAsAbsent) {
  for (const char* value : {"null", "true", "12345678", "1.5", "[\"x\"]", "{}"}) {
    const auto view =
        make_as<QvServerAssigned>("{\"serverAssigned\":{\"identities\":{\"sysId\":"s + value +
                                  "},\"security\":{\"nuvToken\":{\"encoded\":\"kept\"}}}}");
    EXPECT_EQ(text(*section(*view, &QvServerAssigned::getIdentities), &QvIdentities::getSysId), "-")
        << value;
    const auto* const security = section(*view, &QvServerAssigned::getSecurity);
    EXPECT_EQ(text(*section(*security, &QvSecurity::getNuvToken), &QvToken::getEncoded), "kept");
  }
}

TEST(QvServerAssigned, KeepsEmptyAndForeignTexts) {
  const auto id = [](const std::string& json_text) {
    const auto view = make_as<QvServerAssigned>(R"({"serverAssigned":{"identities":{"sysId":")" +
                                                json_text + "\"}}}");
    return text(*section(*view, &QvServerAssigned::getIdentities), &QvIdentities::getSysId);
  };
  EXPECT_EQ(id(""), "");
  EXPECT_EQ(id("\u00fc\u20ac"), "\u00fc\u20ac");
  EXPECT_EQ(id(R"(a\"\\\n\u0041)"), "a\"\\\nA");
}

TEST(QvRgw, ReadsItsWholeDocument) {
  const auto view = make_as<QvRgw>(
      R"({"rgw":{"aapState":"bound","configSec":{"relayServerUrl":"h","relayServerPort":8443}}})");
  QvRgw::aapStateEnum state = QvRgw::kAapStateError;
  EXPECT_TRUE(view->getAapState(&state));
  EXPECT_EQ(state, QvRgw::kAapStateBound);
  const auto* const config = section(*view, &QvRgw::getConfigSec);
  EXPECT_EQ(text(*config, &QvRgwConfigSec::getRelayServerUrl), "h");
  EXPECT_EQ(number(*config, &QvRgwConfigSec::getRelayServerPort), "8443");
}

TEST(QvRgw, ReadsTheAnswersToDeeperPaths) {
  EXPECT_EQ(aap_state(R"({"rgw":{"aapState":"registering"}})"), "registering");
  const auto view = make_as<QvRgw>(R"({"rgw":{"configSec":{"relayServerPort":8443}}})");
  EXPECT_FALSE(view->getAapState(nullptr));
  const auto* const config = section(*view, &QvRgw::getConfigSec);
  EXPECT_EQ(text(*config, &QvRgwConfigSec::getRelayServerUrl), "-");
  EXPECT_EQ(number(*config, &QvRgwConfigSec::getRelayServerPort), "8443");
}

TEST(QvRgw, KnowsEveryStateByItsText) {
  const QvRgw view("rgw");
  const std::vector<std::string> texts = {"unregistered", "registering", "registered",
                                          "binding",      "bound",       "error"};
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const auto state = static_cast<QvRgw::aapStateEnum>(i);
    EXPECT_STREQ(view.getAapStateStr(state), texts[i].c_str());
    EXPECT_STREQ(view.getAapStateStr(static_cast<int>(i)), texts[i].c_str()) << "by its number";
    EXPECT_EQ(view.hashAapState(texts[i]), state);
    EXPECT_EQ(aap_state(R"({"rgw":{"aapState":")" + texts[i] + "\"}}"), texts[i]);
  }
  EXPECT_EQ((std::set<std::string>(texts.begin(), texts.end()).size()), texts.size());
}

TEST(QvRgw, TakesAnyOtherTextOrNumberAsTheErrorState) {
  const QvRgw view("rgw");
  for (const std::string& state : {""s, "Bound"s, "bound "s, "boun"s, "bound\0"s, "4"s}) {
    EXPECT_EQ(view.hashAapState(state), QvRgw::kAapStateError) << state;
  }
  for (const int state : {-1, 6, 7, INT_MAX, INT_MIN}) {
    EXPECT_STREQ(view.getAapStateStr(state), "error") << state;
  }
}

TEST(QvRgw, GivesTextsThatAStringStoresWithoutAllocating) {
  const QvRgw view("rgw");
  for (int i = -1; i <= 6; ++i) {
    EXPECT_LE(std::string(view.getAapStateStr(static_cast<QvRgw::aapStateEnum>(i))).size(), 15U);
  }
}

TEST(QvRgw, TakesAStateOutsideTheListAsAbsent) {
  for (const char* value : {"\"\"", "\"unknown\"", "\"Bound\"", "\"bound\\u0000\"", "4", "null",
                            "true", "[\"bound\"]", R"({"state":"bound"})"}) {
    EXPECT_EQ(aap_state("{\"rgw\":{\"aapState\":"s + value + "}}"), "-") << value;
  }
}

TEST(QvRgw, KeepsTheNeighboursOfWhatIsAbsent) {
  const auto view = make_as<QvRgw>(
      R"({"rgw":{"aapState":"nonsense","configSec":{"relayServerUrl":5,"relayServerPort":1}}})");
  EXPECT_FALSE(view->getAapState(nullptr));
  const auto* const config = section(*view, &QvRgw::getConfigSec);
  EXPECT_EQ(text(*config, &QvRgwConfigSec::getRelayServerUrl), "-");
  EXPECT_EQ(number(*config, &QvRgwConfigSec::getRelayServerPort), "1");
  EXPECT_EQ(aap_state(R"({"rgw":{"aapState":"bound","configSec":"text"}})"), "bound");
}

TEST(QvRgw, IsEmptyWhenConstructed) {
  const QvRgw view("rgw");
  EXPECT_EQ(view.getName(), "rgw");
  EXPECT_EQ(view.getObjType(), kRgwObj);
  EXPECT_FALSE(view.getAapState(nullptr));
  EXPECT_FALSE(view.getConfigSec(nullptr));
  EXPECT_EQ(text(QvRgwConfigSec("configSec"), &QvRgwConfigSec::getRelayServerUrl), "-");
}

TEST(QvRgw, CopiesValidValuesAndLeavesTheOthersAlone) {
  const auto both = make_as<QvRgw>(
      R"({"rgw":{"aapState":"binding","configSec":{"relayServerUrl":"old","relayServerPort":1}}})");
  const auto state_only = make_as<QvRgw>(R"({"rgw":{"aapState":"bound"}})");
  const auto url_only = make_as<QvRgw>(R"({"rgw":{"configSec":{"relayServerUrl":"new"}}})");
  QvRgw target("rgw");
  both->copyValid(target);
  state_only->copyValid(target);
  url_only->copyValid(target);
  make_as<QvRgw>(R"({"rgw":{}})")->copyValid(target);
  QvRgw::aapStateEnum state = QvRgw::kAapStateError;
  EXPECT_TRUE(target.getAapState(&state));
  EXPECT_EQ(state, QvRgw::kAapStateBound);
  const auto* const config = section(target, &QvRgw::getConfigSec);
  EXPECT_EQ(text(*config, &QvRgwConfigSec::getRelayServerUrl), "new");
  EXPECT_EQ(number(*config, &QvRgwConfigSec::getRelayServerPort), "1");
}

TEST(QvRgw, CopiesIntoAnIndependentView) {
  auto source = make_as<QvRgw>(R"({"rgw":{"configSec":{"relayServerUrl":"h"}}})");
  QvRgw target("mine");
  source->copyValid(target);
  source.reset();
  EXPECT_EQ(target.getName(), "mine");
  EXPECT_EQ(text(*section(target, &QvRgw::getConfigSec), &QvRgwConfigSec::getRelayServerUrl), "h");
}

TEST(QvRgwConfigSec, CopiesValidValuesAndLeavesTheOthersAlone) {
  const auto with_port = make_as<QvRgw>(R"({"rgw":{"configSec":{"relayServerPort":1}}})");
  const auto with_url = make_as<QvRgw>(R"({"rgw":{"configSec":{"relayServerUrl":"h"}}})");
  QvRgwConfigSec target("configSec");
  section(*with_port, &QvRgw::getConfigSec)->copyValid(target);
  section(*with_url, &QvRgw::getConfigSec)->copyValid(target);
  EXPECT_EQ(text(target, &QvRgwConfigSec::getRelayServerUrl), "h");
  EXPECT_EQ(number(target, &QvRgwConfigSec::getRelayServerPort), "1");
}

TEST(QvSystem, ReadsItsClock) {
  const auto view = make_as<QvSystem>(
      R"({"system":{"clock":{"offset":-18000,"dstOffset":3600,"enableDst":true}}})");
  const auto* const clock = section(*view, &QvSystem::getClock);
  EXPECT_EQ(number(*clock, &QvSystemClock::getOffset), "-18000");
  EXPECT_EQ(number(*clock, &QvSystemClock::getDstOffset), "3600");
  EXPECT_EQ(flag(*clock, &QvSystemClock::getEnableDst), "true");
}

TEST(QvSystem, ReadsEachValueOfItsClockAlone) {
  const auto dst = make_as<QvSystem>(R"({"system":{"clock":{"enableDst":false}}})");
  const auto* const clock = section(*dst, &QvSystem::getClock);
  EXPECT_EQ(number(*clock, &QvSystemClock::getOffset), "-");
  EXPECT_EQ(number(*clock, &QvSystemClock::getDstOffset), "-");
  EXPECT_EQ(flag(*clock, &QvSystemClock::getEnableDst), "false");
}

TEST(QvSystem, HasNoClockThatIsMissing) {
  EXPECT_EQ(section(*make_as<QvSystem>(R"({"system":{}})"), &QvSystem::getClock), nullptr);
  EXPECT_EQ(section(*make_as<QvSystem>(R"({"system":{"Clock":{}}})"), &QvSystem::getClock),
            nullptr);
}

TEST(QvSystem, TakesAFlagOfAnotherTypeAsAbsent) {
  for (const char* value : {"0", "1", "\"true\"", "null", "[true]", "{}"}) {
    const auto view =
        make_as<QvSystem>("{\"system\":{\"clock\":{\"enableDst\":"s + value + ",\"offset\":1}}}");
    const auto* const clock = section(*view, &QvSystem::getClock);
    EXPECT_EQ(flag(*clock, &QvSystemClock::getEnableDst), "-") << value;
    EXPECT_EQ(number(*clock, &QvSystemClock::getOffset), "1") << value;
  }
}

TEST(QvNodeViewsNumbers, AreWholeNumbersThatFitInt) {
  EXPECT_EQ(offset("0"), "0");
  EXPECT_EQ(offset("-0"), "0");
  EXPECT_EQ(offset("2147483647"), "2147483647");
  EXPECT_EQ(offset("-2147483648"), "-2147483648");
}

TEST(QvNodeViewsNumbers, AreAbsentBeyondTheRangeOfInt) {
  for (const char* value :
       {"2147483648", "-2147483649", "4294967295", "4294967296", "9223372036854775807",
        "-9223372036854775808", "9223372036854775808", "18446744073709551615",
        "18446744073709551616", "-9223372036854775809", "123456789012345678901234567890"}) {
    EXPECT_EQ(offset(value), "-") << value;
  }
}

TEST(QvNodeViewsNumbers, AreAbsentWithFractionOrExponent) {
  for (const char* value : {"1.5", "1.0", "1e3", "0.0", "-1E0"}) {
    EXPECT_EQ(offset(value), "-") << value;
  }
}

TEST(QvNodeViewsNumbers, AreAbsentInAnotherType) {
  for (const char* value : {"null", "true", "\"1\"", "[1]", "{}"}) {
    EXPECT_EQ(offset(value), "-") << value;
  }
}

TEST(QvInterfaces, FindsAnInterfaceById) {
  const auto view = make_as<QvInterfacesWrapper>(
      R"({"interfaces":[{"id":2},{"id":1,"wifiStatus":{"status":"associated"}}]})");
  QvInterfaces out("interfaces");
  ASSERT_EQ(view->searchQvInterfacesById(1, out), 0);
  EXPECT_EQ(number(out, &QvInterfaces::getId), "1");
  auto status = QvInterfaceWiFiStatus::kStatusError;
  EXPECT_TRUE(section(out, &QvInterfaces::getWifiStatus)->getStatus(&status));
  EXPECT_EQ(status, QvInterfaceWiFiStatus::kStatusAssociated);
}

TEST(QvInterfaces, CopiesAnInterfaceThatOutlivesTheList) {
  auto view =
      make_as<QvInterfacesWrapper>(R"({"interfaces":[{"id":1,"wifiStatus":{"status":"error"}}]})");
  QvInterfaces out("interfaces");
  ASSERT_EQ(view->searchQvInterfacesById(1, out), 0);
  view.reset();
  EXPECT_TRUE(section(out, &QvInterfaces::getWifiStatus)->getStatus(nullptr));
}

TEST(QvInterfaces, LeavesTheOutputAloneWhenThereIsNone) {
  const auto view = make_as<QvInterfacesWrapper>(
      R"({"interfaces":[{"id":1,"wifiStatus":{"status":"associated"}},{"id":2}]})");
  QvInterfaces out("interfaces");
  ASSERT_EQ(view->searchQvInterfacesById(1, out), 0);
  EXPECT_NE(view->searchQvInterfacesById(3, out), 0);
  EXPECT_EQ(number(out, &QvInterfaces::getId), "1");
}

TEST(QvInterfaces, CopiesWhatIsMissingToo) {
  const auto view = make_as<QvInterfacesWrapper>(
      R"({"interfaces":[{"id":1,"wifiStatus":{"status":"associated"}},{"id":2}]})");
  QvInterfaces out("interfaces");
  ASSERT_EQ(view->searchQvInterfacesById(1, out), 0);
  ASSERT_EQ(view->searchQvInterfacesById(2, out), 0);
  EXPECT_EQ(section(out, &QvInterfaces::getWifiStatus), nullptr);
}

TEST(QvInterfaces, FindsTheFirstOfSeveral) {
  const auto view = make_as<QvInterfacesWrapper>(
      R"({"interfaces":[{"id":1},{"id":1,"wifiStatus":{"status":"associated"}}]})");
  QvInterfaces out("interfaces");
  ASSERT_EQ(view->searchQvInterfacesById(1, out), 0);
  EXPECT_EQ(section(out, &QvInterfaces::getWifiStatus), nullptr);
}

TEST(QvInterfaces, SkipsElementsWithoutAValidId) {
  const auto view = make_as<QvInterfacesWrapper>(
      R"({"interfaces":[null,0,"id",[1],{},{"id":"1"},{"id":1.0},{"id":4294967297},{"id":1}]})");
  QvInterfaces out("interfaces");
  EXPECT_EQ(view->searchQvInterfacesById(1, out), 0);
  EXPECT_NE(view->searchQvInterfacesById(0, out), 0);
}

TEST(QvInterfaces, LooksIntoNoListWithinTheList) {
  const auto view = make_as<QvInterfacesWrapper>(
      R"({"interfaces":[[{"id":1},[{"id":2}]],{"id":2,"more":[[1],{"id":1}],"wifiStatus":{}}]})");
  QvInterfaces out("interfaces");
  EXPECT_NE(view->searchQvInterfacesById(1, out), 0);
  ASSERT_EQ(view->searchQvInterfacesById(2, out), 0);
  EXPECT_NE(section(out, &QvInterfaces::getWifiStatus), nullptr);
}

TEST(QvInterfaces, FindsNothingInAnEmptyList) {
  const auto view = make_as<QvInterfacesWrapper>(R"({"interfaces":[]})");
  QvInterfaces out("interfaces");
  EXPECT_NE(view->searchQvInterfacesById(1, out), 0);
  EXPECT_EQ(out.getName(), "interfaces");
}

TEST(QvInterfaceWiFiStatus, KnowsEachStatusByItsText) {
  EXPECT_EQ(wifi_status("\"disassociated\""), "0");
  EXPECT_EQ(wifi_status("\"associated\""), "1");
  EXPECT_EQ(wifi_status("\"error\""), "2");
}

TEST(QvInterfaceWiFiStatus, TakesAnyOtherStatusAsAbsent) {
  for (const char* value : {"\"\"", "\"Associated\"", "\"bound\"", "1", "true", "null", "{}"}) {
    EXPECT_EQ(wifi_status(value), "-") << value;
  }
}

TEST(QvJB_base, IsInvalidAndUnchangedAtFirst) {
  const QvJB_base<int> value;
  EXPECT_FALSE(value.is_valid());
  EXPECT_FALSE(value.is_changed());
  EXPECT_EQ(static_cast<int>(value), 0);
}

TEST(QvJB_base, IsValidAndChangedOnceAssigned) {
  QvJB_base<int> value;
  value = 0;
  EXPECT_TRUE(value.is_valid());
  EXPECT_TRUE(value.is_changed());
}

TEST(QvJB_base, IsChangedByAnotherValueOnly) {
  QvJB_base<std::string> value;
  value = "a";
  value.set_changed(false);
  value = "a";
  EXPECT_FALSE(value.is_changed());
  value = "b";
  EXPECT_TRUE(value.is_changed());
  value = "b";
  EXPECT_TRUE(value.is_changed());
}

TEST(QvJB_base, IsChangedByBecomingValidAgain) {
  QvJB_base<int> value;
  value = 1;
  value.set_changed(false);
  value.invalidate();
  EXPECT_FALSE(value.is_valid());
  EXPECT_FALSE(value.get(nullptr));
  value = 1;
  EXPECT_TRUE(value.is_valid());
  EXPECT_TRUE(value.is_changed());
}

TEST(QvJB_base, ConvertsToItsValue) {
  QvJB_base<std::string> value;
  value = "text";
  const std::string& converted = value;
  EXPECT_EQ(converted, "text");
}

TEST(QvJsonObj, CanStandForATypeThatHasNoViewHere) {
  const QvJsonObj object(kWeatherObj, "weather");
  EXPECT_EQ(object.getObjType(), kWeatherObj);
  EXPECT_EQ(object.getName(), "weather");
}

}  // namespace
