#include <string>

#include "gtest/gtest.h"
#include "libjson.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"
#include "tests/support/journal.h"

namespace {
bool out_of_memory = false;
bool noting_deletion = false;
}  // namespace

// The linker puts this in place of the library's for the code under test.
extern "C" {
JSONNODE* __real_json_parse(const char* text);
JSONNODE* __wrap_json_parse(const char* text) {
  return out_of_memory ? nullptr : __real_json_parse(text);
}
void __real_json_delete(JSONNODE* node);
void __wrap_json_delete(JSONNODE* node) {
  if (noting_deletion) test_support::note("json_delete");
  __real_json_delete(node);
}
}

namespace {

using test_support::Journal;
using test_support::journal;

const std::string kHeaders = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n";

class Answer : public testing::Test {
 protected:
  void SetUp() override { test_support::clear_journal(); }

  int result_of(const std::string& answer) { return engine_.parseResponse(answer.c_str()); }

  void expect_refused(const std::string& answer, const std::string& reason) {
    test_support::clear_journal();
    EXPECT_EQ(result_of(answer), 1) << answer;
    EXPECT_EQ(journal(), Journal{"syslog 6 " + reason}) << answer;
  }
  void expect_accepted(const std::string& answer) {
    test_support::clear_journal();
    EXPECT_EQ(result_of(answer), 0) << answer;
    EXPECT_EQ(journal(), Journal{}) << answer;
  }

  LogConsumer engine_;
};

TEST_F(Answer, WithCode1IsAcceptedSilently) {
  expect_accepted(kHeaders + R"({"code":1})");
  expect_accepted(kHeaders + "{\n\t\"message\": \"ok\",\n\t\"code\": 1\n}\r\n");
}

TEST_F(Answer, WithoutABodyIsRefused) {
  expect_refused("", "Msg body not found in response");
  expect_refused(R"({"code":1})", "Msg body not found in response");
  expect_refused("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n", "Msg body not found in response");
  expect_refused("HTTP/1.1 200 OK\n\n{\"code\":1}", "Msg body not found in response");
  expect_refused("HTTP/1.1 200 OK\r\n\r", "Msg body not found in response");
}

TEST_F(Answer, ThatBeginsWithTheBlankLineHasNoBody) {
  expect_refused("\r\n\r\n{\"code\":1}", "Msg body not found in response");
  expect_refused("\r\n\r\nHTTP/1.1 200 OK\r\n\r\n{\"code\":1}", "Msg body not found in response");
}

TEST_F(Answer, MayHaveItsBlankLineAnywhereElse) {
  expect_accepted("x\r\n\r\n{\"code\":1}");
}

TEST_F(Answer, WithAnEmptyBodyIsNoValidJson) {
  expect_refused(kHeaders, "Json not valid");
}

TEST_F(Answer, OnlyTheFirstBlankLineEndsTheHeaders) {
  expect_accepted(kHeaders + "\r\n\r\n{\"code\":1}");
  expect_refused(kHeaders + "text\r\n\r\n{\"code\":1}", "Json not valid");
  expect_refused(kHeaders + "{\"code\":1}\r\n\r\n{\"code\":1}", "Json not valid");
}

TEST_F(Answer, WithABodyThatIsNoJsonDocumentIsRefused) {
  for (const char* body : {"OK", "1", "\"code\"", "{", "{\"code\":1", "{\"code\":1}}", "{'code':1}",
                           "{\"code\":1,}", "{\"code\":01}", "{\"code\":\xff}", "null", "<html>"}) {
    expect_refused(kHeaders + body, "Json not valid");
  }
}

TEST_F(Answer, EndsAtItsFirstNul) {
  expect_accepted(kHeaders + "{\"code\":1}" + std::string("\0}}", 3));
  expect_refused(kHeaders + std::string("\0{\"code\":1}", 11), "Json not valid");
}

TEST_F(Answer, ThatCannotBeParsedIsRefused) {
  out_of_memory = true;
  expect_refused(kHeaders + "{\"code\":1}", "Couldn't parse JSON");
  out_of_memory = false;
}

TEST_F(Answer, WithoutACodeIsRefused) {
  for (const char* body : {"{}", "[]", "[1]", "{\"Code\":1}", "{\"code \":1}", "{\"result\":1}",
                           "{\"body\":{\"code\":1}}", "[{\"code\":1}]"}) {
    expect_refused(kHeaders + body, "Couldn't get return code");
  }
}

TEST_F(Answer, WithAnotherCodeIsRefused) {
  for (const char* code : {"0", "2", "-1", "200", "10", "11", "0.99", "4294967297", "null", "false",
                           "\"\"", "\"ok\"", "\"2\"", "[]", "[1]", "{\"code\":1}", "1e3"}) {
    expect_refused(kHeaders + "{\"code\":" + code + "}", "Bad code in response");
  }
}

// What counts is the value as an integer.
TEST_F(Answer, WithACodeThatIsOneAsAnIntegerIsAccepted) {
  for (const char* code : {"1", "1.0", "1.9", "1e0", "true", "\"1\""}) {
    expect_accepted(kHeaders + "{\"code\":" + code + "}");
  }
}

TEST_F(Answer, FirstCodeOfSeveralCounts) {
  expect_accepted(kHeaders + R"({"code":1,"code":2})");
  expect_refused(kHeaders + R"({"code":2,"code":1})", "Bad code in response");
}

TEST_F(Answer, StatusLineIsNotLookedAt) {
  expect_accepted("HTTP/1.1 500 Internal Server Error\r\n\r\n{\"code\":1}");
  expect_refused("HTTP/1.1 200 OK\r\n\r\n{\"code\":0}", "Bad code in response");
}

TEST_F(Answer, ItsDocumentIsFreedOnceItHasBeenJudged) {
  noting_deletion = true;
  EXPECT_EQ(result_of(kHeaders + R"({"code":1})"), 0);
  EXPECT_EQ(journal(), Journal{"json_delete"});
  test_support::clear_journal();
  EXPECT_EQ(result_of(kHeaders + R"({"code":2})"), 1);
  EXPECT_EQ(journal(), (Journal{"syslog 6 Bad code in response", "json_delete"}));
  test_support::clear_journal();
  EXPECT_EQ(result_of(kHeaders + R"({})"), 1);
  EXPECT_EQ(journal(), (Journal{"syslog 6 Couldn't get return code", "json_delete"}));
  test_support::clear_journal();
  EXPECT_EQ(result_of(kHeaders), 1);
  EXPECT_EQ(journal(), Journal{"syslog 6 Json not valid"});
  noting_deletion = false;
}

TEST_F(Answer, NothingIsKeptBetweenCalls) {
  expect_accepted(kHeaders + "{\"code\":1}");
  expect_refused(kHeaders + "{}", "Couldn't get return code");
  expect_accepted(kHeaders + "{\"code\":1}");
}

}  // namespace
