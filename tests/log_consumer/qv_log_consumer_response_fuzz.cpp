// Any bytes from a server through the judgement of its answer, which is checked against the rules
// written out a second time.
#include <cstring>

#include "log_consumer/qv_log_consumer_response.h"
#include "tests/compat/libjson/json_tree.h"
#include "tests/support/fuzz.h"

namespace {

const char* judge(const std::string& answer) {
  const auto blank_line = answer.find("\r\n\r\n");
  if (blank_line == 0 || blank_line == std::string::npos) return "Msg body not found in response";
  const test_support::Tree document = test_support::parsed(answer.substr(blank_line + 4));
  if (!document) return "Json not valid";
  if (json_type(document.get()) == JSON_ARRAY) return "Couldn't get return code";
  for (json_index_t i = 0; i < json_size(document.get()); ++i) {
    const JSONNODE* const member = json_at(document.get(), i);
    if (test_support::name_of(member) != "code") continue;
    return json_as_int(member) == 1 ? nullptr : "Bad code in response";
  }
  return "Couldn't get return code";
}

bool same(const char* one, const char* other) {
  if (one == nullptr || other == nullptr) return one == other;
  return std::strcmp(one, other) == 0;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string answer = test_support::fuzz_text(data, size);
  answer.resize(std::strlen(answer.c_str()));
  QvJsonNodePtr document;
  const char* const refusal = answerRefusal(answer, document);
  // A name with an escaped NUL is shown only up to there, which judge() could not tell apart.
  if (answer.find("\\u0000") != std::string::npos) return 0;
  test_support::must_hold(same(refusal, judge(answer)), "the judgement follows the rules");
  return 0;
}
