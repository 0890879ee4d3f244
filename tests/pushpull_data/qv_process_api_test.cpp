#include "pushpull_data/qv_process_api.h"

#include <limits>

#include "gtest/gtest.h"
#include "tests/support/scarce_memory.h"

namespace {

QvProcessApi full_request() {
  QvProcessApi request;
  request.setfunction("get");
  request.setBuff("/rgw");
  request.setsenderId("me");
  request.setcomp_id(QV_CMPID_LOG_CONSUMER);
  request.setdstcomp_id(QV_CMPID_PUSHPULL);
  request.setque_flags(1);
  request.setque_maxmsg(64);
  request.setque_msgsize(262144);
  request.setque_curmsgs(3);
  request.set_notify_on_change_only(true);
  request.set_pack_and_send(true);
  return request;
}

void expect_full(const QvProcessApi& request) {
  EXPECT_EQ(request.getfunction(), "get");
  EXPECT_EQ(request.getBuff(), "/rgw");
  EXPECT_EQ(request.getsenderId(), "me");
  EXPECT_EQ(request.getcomp_id(), QV_CMPID_LOG_CONSUMER);
  EXPECT_EQ(request.getdstcomp_id(), QV_CMPID_PUSHPULL);
  EXPECT_EQ(request.getque_flags(), 1);
  EXPECT_EQ(request.getque_maxmsg(), 64);
  EXPECT_EQ(request.getque_msgsize(), 262144);
  EXPECT_EQ(request.getque_curmsgs(), 3);
  EXPECT_TRUE(request.get_notify_on_change_only());
  EXPECT_TRUE(request.get_pack_and_send());
}

void expect_new(const QvProcessApi& request) {
  EXPECT_EQ(request.getBuff(), "");
  EXPECT_EQ(request.getsenderId(), "");
  EXPECT_EQ(request.getcomp_id(), QV_CMPID_RESERVED);
  EXPECT_EQ(request.getdstcomp_id(), QV_CMPID_RESERVED);
  EXPECT_EQ(request.getque_flags(), 0);
  EXPECT_EQ(request.getque_maxmsg(), 0);
  EXPECT_EQ(request.getque_msgsize(), 0);
  EXPECT_EQ(request.getque_curmsgs(), 0);
  EXPECT_FALSE(request.get_notify_on_change_only());
  EXPECT_FALSE(request.get_pack_and_send());
}

QvProcessApi parsed(const std::string& text) {
  QvProcessApi request = full_request();
  request.setJsonString(text);
  EXPECT_TRUE(request.parseJSON()) << text;
  return request;
}

TEST(ComponentIds, AreTheDevices) {
  EXPECT_EQ(sizeof(eQV_CMP_IDs_), 4U);
  EXPECT_EQ(QV_CMPID_RESERVED, 0);
  EXPECT_EQ(QV_CMPID_PUSHPULL, 1100);
  EXPECT_EQ(QV_CMPID_LOG_CONSUMER, 1073741840);
}

TEST(QvProcessApi, ANewRecordIsEmpty) {
  const QvProcessApi request;
  EXPECT_EQ(request.getfunction(), "");
  EXPECT_EQ(request.getJsonString(), "");
  EXPECT_EQ(request.getJsonStringSize(), 0U);
  expect_new(request);
}

TEST(QvProcessApi, EachGetterGivesWhatItsSetterStored) {
  expect_full(full_request());
}

TEST(QvProcessApi, SettersFillTheNamedFields) {
  const QvProcessApi request = full_request();
  EXPECT_EQ(*request.paction, "get");
  EXPECT_EQ(*request.pbuff, "/rgw");
  EXPECT_EQ(*request.psenderId, "me");
  EXPECT_EQ(request.pcomp_id, QV_CMPID_LOG_CONSUMER);
  EXPECT_EQ(request.dst_comp_id, QV_CMPID_PUSHPULL);
  EXPECT_EQ(request.que_flags, 1);
  EXPECT_EQ(request.que_maxmsg, 64);
  EXPECT_EQ(request.que_msgsize, 262144);
  EXPECT_EQ(request.que_curmsgs, 3);
  EXPECT_TRUE(request.notify_on_change_only);
  EXPECT_TRUE(request.pack_and_send);
}

TEST(QvProcessApi, JsonStringSizeCountsBytes) {
  QvProcessApi request;
  request.setJsonString("{\"ä\":1}");
  EXPECT_EQ(request.getJsonStringSize(), 8U);
}

TEST(QvProcessApi, WrittenTextReadsBackAsTheSameFields) {
  QvProcessApi request = full_request();
  ASSERT_TRUE(request.toJSON());
  expect_full(parsed(request.getJsonString()));
}

TEST(QvProcessApi, MembersLeftOutReadAsThoseOfANewRecord) {
  expect_new(parsed(R"({"function":"save"})"));
  expect_new(parsed(R"({"function":"save","arg":{},"que":{}})"));
}

TEST(QvProcessApi, MembersOfOtherTypesReadAsThoseOfANewRecord) {
  expect_new(parsed(R"({"function":"save","arg":[],"que":7})"));
  expect_new(parsed(R"({"function":"save","arg":{"comp_id":"7","dst_comp_id":1.5,"buffer":1,
      "notifyOnChangeOnly":1,"pack_and_send":"true","sender_id":null},
      "que":{"flags":true,"maxmsg":"64","msgsize":[],"curmsgs":{}}})"));
}

TEST(QvProcessApi, ATextMayNestAsDeepAsAMessageHasRoomFor) {
  const std::size_t depth = 262144 / 2 - 100;
  const std::string nested = std::string(depth, '[') + std::string(depth, ']');
  for (const std::string section : {"arg", "que"}) {
    QvProcessApi request;
    request.setJsonString(R"({"function":"get",")" + section + R"(":{"x":)" + nested + "}}");
    EXPECT_TRUE(request.parseJSON());
    EXPECT_EQ(request.getfunction(), "get");
  }
}

TEST(QvProcessApi, NumbersThatDoNotFitReadAsThoseOfANewRecord) {
  expect_new(parsed(R"({"function":"save","arg":{"comp_id":2147483648,"dst_comp_id":-2147483649},
      "que":{"flags":18446744073709551615,"maxmsg":9223372036854775808}})"));
}

TEST(QvProcessApi, TheEdgesOfANumbersRangeFit) {
  const QvProcessApi request =
      parsed(R"({"function":"save","arg":{"comp_id":2147483647,"dst_comp_id":-2147483648}})");
  EXPECT_EQ(static_cast<std::int32_t>(request.getcomp_id()),
            std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(static_cast<std::int32_t>(request.getdstcomp_id()),
            std::numeric_limits<std::int32_t>::min());
}

TEST(QvProcessApi, TextThatIsNoRequestChangesNothing) {
  for (const char* text : {"", "x", "[]", "7", "{}", R"({"function":1})", R"({"arg":{}})"}) {
    QvProcessApi request = full_request();
    request.setJsonString(text);
    EXPECT_FALSE(request.parseJSON()) << text;
    expect_full(request);
  }
}

// Whatever allocation fails: a whole text or none, and nothing leaks.
TEST(QvProcessApi, WhenMemoryRunsOutThereIsNoText) {
  QvProcessApi request = full_request();
  ASSERT_TRUE(request.toJSON());
  const std::string whole = request.getJsonString();
  bool whole_or_none = true;
  const int needed = test_support::allocations_needed([&] {
    const bool written = request.toJSON();
    const std::string& text = request.getJsonString();
    whole_or_none = whole_or_none && (written ? text == whole : text.empty());
    return written;
  });
  EXPECT_TRUE(whole_or_none);
  EXPECT_GT(needed, 10);
}

}  // namespace
