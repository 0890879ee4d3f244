// Any words as a command line, a word a line of the input: it is understood, within what its verb
// takes, or refused as wrong usage in one line. Arguments go on as paths and values.
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "tests/support/fuzz.h"
#include "tools/ppctl/documents.h"
#include "tools/ppctl/failure.h"
#include "tools/ppctl/options.h"

namespace {

using ppctl::Options;
using test_support::must_hold;

class CommandLine {
 public:
  explicit CommandLine(const std::string& input) {
    std::istringstream lines(input);
    for (std::string word; words_.size() < 16 && std::getline(lines, word);) {
      words_.emplace_back(word.c_str());  // a word ends at a NUL
    }
    for (std::string& word : words_)
      argv_.push_back(word.data());
    argv_.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(words_.size()) + 1; }
  char* const* argv() const { return argv_.data(); }

 private:
  std::vector<std::string> words_;
  std::string program_ = "ppctl";
  std::vector<char*> argv_{program_.data()};
};

void check(const ppctl::Failure& failure) {
  const std::string text = failure.what();
  must_hold(failure.status() == ppctl::Status::kUsage, "wrong usage");
  must_hold(!text.empty() && text.find('\n') == std::string::npos, "said in one line");
}

void check(const Options& options) {
  if (options.help || options.version) return;
  must_hold(options.verb != nullptr, "a verb");
  const std::size_t count = options.arguments.size();
  must_hold(count >= options.verb->least && count <= options.verb->most, "as many as it takes");
  must_hold(options.timeout.count() >= 0, "a time-out");
  must_hold(!options.id || *options.id >= 1, "an id");
  must_hold(options.to >= 0, "a destination");
  must_hold(!options.count || *options.count >= 1, "a count");
  must_hold(!options.message_size || *options.message_size >= 1, "a size");
  must_hold(options.speed >= 0, "a speed");
  must_hold(options.suffix.find('/') == std::string::npos, "the end of a queue's name");
}

void use_as_value(const Options& options, const std::string& text) try {
  const ppctl::Json value = ppctl::parse_value(text, options.string);
  must_hold(!options.string || value == ppctl::Json(text), "a string as it stands");
  for (const auto layout : {ppctl::Layout::kCompact, ppctl::Layout::kPretty}) {
    const std::string written = ppctl::write_json(value, layout);
    must_hold(!ppctl::find_fault(written), "written text reads back");
  }
} catch (const ppctl::Failure& failure) {
  check(failure);
}

void use_as_path(const std::string& text) try {
  const ppctl::Path path = ppctl::parse_path(text);
  const ppctl::Json document = ppctl::nest(path, "a value");
  const ppctl::Json* const node = ppctl::find_node(document, path);
  must_hold(node != nullptr && *node == "a value", "a value stands at its path");
} catch (const ppctl::Failure& failure) {
  check(failure);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const CommandLine line(test_support::fuzz_text(data, size));
  try {
    const Options options = ppctl::parse_options(line.argc(), line.argv());
    check(options);
    if (options.help) must_hold(!ppctl::help_text(options.verb).empty(), "a help");
    for (const std::string& argument : options.arguments) {
      use_as_path(argument);
      use_as_value(options, argument);
    }
  } catch (const ppctl::Failure& failure) {
    check(failure);
  }
  return 0;
}
