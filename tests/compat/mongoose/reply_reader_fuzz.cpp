// Any bytes, cut anywhere: the outcome is the same as for the bytes as a whole, and what the bytes
// say by an oracle of its own.
#include "tests/compat/mongoose/reply_oracle.h"
#include "tests/compat/mongoose/reply_transcript.h"
#include "tests/support/fuzz.h"

namespace {

// Pieces of 1 to 16 bytes, as the first byte of the input starts them.
class Cuts {
 public:
  explicit Cuts(std::uint32_t seed) : state_(seed) {}
  std::size_t operator()() {
    state_ = state_ * 1664525u + 1013904223u;
    return (state_ >> 28) + 1;
  }

 private:
  std::uint32_t state_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input = test_support::fuzz_text(data, size);
  if (input.empty()) return 0;
  const std::string_view bytes = std::string_view(input).substr(1);
  reply_test::ReplyOracle oracle(bytes);
  const auto uncut = [&] { return bytes.size(); };
  reply_test::read_replies(bytes, uncut, [&](const auto& reply) { oracle.judge(reply); });
  const std::string whole = reply_test::transcript(bytes, uncut);
  const std::string single = reply_test::transcript(bytes, [] { return 1; });
  const std::string cut = reply_test::transcript(bytes, Cuts(data[0]));
  test_support::must_hold(single == whole, "same outcome byte by byte");
  test_support::must_hold(cut == whole, "same outcome in pieces");
  return 0;
}
