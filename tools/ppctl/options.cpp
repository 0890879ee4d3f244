#include "tools/ppctl/options.h"

#include <getopt.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "tools/ppctl/failure.h"

namespace ppctl {

namespace {

constexpr char kCommonOptions[] = "hVqjtsim";
constexpr double kLongestSeconds = 31536000;  // a year
constexpr double kHighestSpeed = 1e6;

[[noreturn]] void wrong(const std::string& text) {
  throw Failure(Status::kUsage, text);
}

double parse_number(const std::string& text, const std::string& option, double greatest) {
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  const bool is_whole =
      !text.empty() && *end == '\0' && std::isspace(static_cast<unsigned char>(text[0])) == 0;
  if (!is_whole || !(number >= 0 && number <= greatest)) {
    wrong("option --" + option + ": \"" + text + "\" is no number from 0 to " +
          std::to_string(static_cast<long>(greatest)));
  }
  return number;
}

std::chrono::milliseconds parse_seconds(const std::string& text, const std::string& option) {
  const std::chrono::duration<double> seconds(parse_number(text, option, kLongestSeconds));
  return std::chrono::ceil<std::chrono::milliseconds>(seconds);
}

long parse_count(const std::string& text, const std::string& option) {
  const bool is_digits =
      !text.empty() && text.size() <= 9 &&
      std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
  const long count = is_digits ? std::stol(text) : 0;
  if (count < 1) wrong("option --" + option + ": \"" + text + "\" is no number from 1 on");
  return count;
}

std::string parse_suffix(const std::string& text) {
  constexpr std::size_t kLongest = 200;  // a queue's name has at most 255 bytes
  if (text.find('/') != std::string::npos || text.size() > kLongest) {
    wrong("option --suffix: \"" + text + "\" cannot end a queue's name");
  }
  return text;
}

// An option: how it is written, described and stored. The letter is its name inside the program.
struct Option {
  char letter;
  const char* name;
  const char* value;  // null: it takes none
  const char* help;
  void (*store)(Options& options, const std::string& value);
};

using Text = const std::string&;

// `help` and `version` are looked for before everything else.
const std::vector<Option>& all_options() {
  static const std::vector<Option> options = {
      {'j', "json", nullptr, "one compact line a document; queues and doctor report in JSON",
       [](Options& o, Text) { o.json = true; }},
      {'q', "quiet", nullptr, "no messages but errors; doctor shows only what is not right",
       [](Options& o, Text) { o.quiet = true; }},
      {'t', "timeout", "SECONDS", "how long to wait for the store (5)",
       [](Options& o, Text text) { o.timeout = parse_seconds(text, "timeout"); }},
      {'s', "suffix", "TEXT", "the store's queue is /pushpull followed by TEXT",
       [](Options& o, Text text) { o.suffix = parse_suffix(text); }},
      {'i', "id", "ID", "component id, decimal or 0x hexadecimal (0x50000000 + process id)",
       [](Options& o, Text text) { o.id = parse_id(text); }},
      {'m', "message-size", "BYTES", "longest message to take (8192, or 262144 where it is cheap)",
       [](Options& o, Text text) { o.message_size = parse_count(text, "message-size"); }},
      {'h', "help", nullptr, "this help; after a verb, that verb's", [](Options&, Text) {}},
      {'V', "version", nullptr, "the version", [](Options&, Text) {}},
      {'n', "no-wait", nullptr, "send it, and do not wait until the store has served it",
       [](Options& o, Text) { o.no_wait = true; }},
      {'r', "raw", nullptr, "the node's value alone; a text without quotes",
       [](Options& o, Text) { o.raw = true; }},
      {'S', "string", nullptr, "take VALUE as a string, whatever it looks like",
       [](Options& o, Text) { o.string = true; }},
      {'d', "debug", nullptr, "save the complete tree for inspection",
       [](Options& o, Text) { o.debug = true; }},
      {'c', "changes-only", nullptr, "only when a value differs from the one before",
       [](Options& o, Text) { o.changes_only = true; }},
      {'C', "count", "COUNT", "end after so many messages",
       [](Options& o, Text text) { o.count = parse_count(text, "count"); }},
      {'W', "window", "SECONDS", "end after this time (status 4 if --count asked for more)",
       [](Options& o, Text text) { o.window = parse_seconds(text, "window"); }},
      {'x', "speed", "FACTOR", "so many times as fast as recorded; 0: without pauses",
       [](Options& o, Text text) { o.speed = parse_number(text, "speed", kHighestSpeed); }},
      {'o', "to", "ID", "destination component",
       [](Options& o, Text text) { o.to = parse_id(text); }},
      {'f', "sender", "TEXT", "the request's sender_id",
       [](Options& o, Text text) { o.sender = text; }},
      {'p', "pack", nullptr, "set the request's pack_and_send",
       [](Options& o, Text) { o.pack = true; }},
  };
  return options;
}

// For getopt_long(): arguments in their order ("-"), a missing value told apart (":").
std::string short_options() {
  std::string letters = "-:";
  for (const Option& option : all_options()) {
    letters += option.letter;
    if (option.value != nullptr) letters += ':';
  }
  return letters;
}

std::vector<struct option> long_options() {
  std::vector<struct option> options;
  for (const Option& option : all_options()) {
    options.push_back({option.name, option.value != nullptr ? required_argument : no_argument,
                       nullptr, option.letter});
  }
  options.push_back({nullptr, 0, nullptr, 0});
  return options;
}

// Null for a letter that is no option's.
const Option* find_option(int letter) {
  const auto& all = all_options();
  const auto found = std::find_if(
      all.begin(), all.end(), [letter](const Option& option) { return option.letter == letter; });
  return found == all.end() ? nullptr : &*found;
}

// For a letter that getopt_long() has given out.
const Option& option_of(int letter) {
  return *find_option(letter);
}

bool looks_like_negative_number(const char* text) {
  return text[0] == '-' && (std::isdigit(static_cast<unsigned char>(text[1])) != 0 ||
                            (text[1] == '.' && text[2] != '\0'));
}

struct Words {
  std::vector<std::string> arguments;
  std::vector<std::pair<char, std::string>> options;  // letter, value

  bool has(char letter) const {
    return std::any_of(options.begin(), options.end(),
                       [letter](const auto& option) { return option.first == letter; });
  }
};

// getopt_long() has refused the word; optopt says which option it was, 0 when the name is unknown.
[[noreturn]] void refuse(int letter, const char* word) {
  constexpr char kHint[] = " (see ppctl --help)";
  if (optopt == 0) wrong("no such option: " + std::string(word) + kHint);
  const Option* const option = find_option(optopt);
  if (option == nullptr) {
    wrong(std::string("no such option: -") + static_cast<char>(optopt) + kHint);
  }
  wrong(std::string("option --") + option->name +
        (letter == ':' ? " needs a value" : " takes no value"));
}

Words read_words(int argc, char* const* argv) {
  const std::string letters = short_options();
  const auto names = long_options();
  Words words;
  opterr = 0;
  optind = 0;  // glibc: begin anew
  for (;;) {
    if (optind > 0 && optind < argc && looks_like_negative_number(argv[optind])) {
      words.arguments.emplace_back(argv[optind++]);
      continue;
    }
    const int letter = getopt_long(argc, argv, letters.c_str(), names.data(), nullptr);
    if (letter == -1) break;
    if (letter == ':' || letter == '?') refuse(letter, argv[optind - 1]);
    if (letter == 1) {
      words.arguments.emplace_back(optarg);
    } else {
      words.options.emplace_back(static_cast<char>(letter), optarg == nullptr ? "" : optarg);
    }
  }
  words.arguments.insert(words.arguments.end(), argv + optind, argv + argc);
  return words;
}

const Syntax& find_verb(const std::string& name) {
  for (const Syntax& syntax : all_syntax()) {
    if (name == syntax.name) return syntax;
  }
  wrong("no such verb: " + name + " (see ppctl --help)");
}

bool takes(const Syntax& verb, char letter) {
  return std::strchr(kCommonOptions, letter) != nullptr ||
         std::strchr(verb.options, letter) != nullptr;
}

void check_options(const Syntax& verb, const Words& words) {
  for (const auto& [letter, value] : words.options) {
    if (!takes(verb, letter)) {
      wrong(std::string(verb.name) + " takes no option --" + option_of(letter).name);
    }
  }
}

std::string usage_of(const Syntax& verb) {
  return std::string(verb.name) + (*verb.arguments == '\0' ? "" : " ") + verb.arguments;
}

void check_arguments(const Syntax& verb, std::size_t count) {
  if (count < verb.least) wrong("too few arguments; usage: ppctl " + usage_of(verb));
  if (count > verb.most) wrong("too many arguments; usage: ppctl " + usage_of(verb));
}

std::string column(std::string text, std::size_t width) {
  text.resize(std::max(text.size() + 2, width), ' ');
  return text;
}

std::string option_lines(const std::string& letters) {
  std::string lines;
  for (const Option& option : all_options()) {
    if (letters.find(option.letter) == std::string::npos) continue;
    std::string left = std::string("  -") + option.letter + ", --" + option.name;
    if (option.value != nullptr) left += std::string(" ") + option.value;
    lines += column(left, 28) + option.help + "\n";
  }
  return lines;
}

std::string help_for_all() {
  std::string text =
      "Talks to the device's pushpull store.\n\n"
      "Usage: ppctl [OPTION...] VERB [ARGUMENT...]\n\n"
      "Verbs:\n";
  for (const Syntax& verb : all_syntax())
    text += column("  " + usage_of(verb), 28) + verb.summary + "\n";
  return text + "\nOptions, for every verb:\n" + option_lines(kCommonOptions) +
         "\nppctl VERB --help tells more about a verb.\n\n"
         "JSON documents go to stdout: indented on a terminal, otherwise one line each.\n"
         "Exit status: 0 done, 1 no such node, 2 usage or bad input (nothing was sent),\n"
         "3 store not reachable, 4 timed out, 5 trouble of its own (output, memory, a full\n"
         "reply queue, so that nodes of \"get /\" may be missing).\n";
}

std::string help_for(const Syntax& verb) {
  std::string text = std::string(verb.summary) + "\n\nUsage: ppctl " + usage_of(verb) + "\n";
  if (*verb.text != '\0') text += std::string("\n") + verb.text;
  if (*verb.options != '\0') text += "\nOptions of this verb:\n" + option_lines(verb.options);
  return text + "\nOptions, for every verb:\n" + option_lines(kCommonOptions);
}

}  // namespace

Options parse_options(int argc, char* const* argv) {
  const Words words = read_words(argc, argv);
  Options options;
  options.help = words.has('h');
  options.version = words.has('V');
  if (!words.arguments.empty()) {
    options.verb = &find_verb(words.arguments.front());
    options.arguments.assign(words.arguments.begin() + 1, words.arguments.end());
  }
  if (options.help || options.version) return options;
  if (options.verb == nullptr) wrong("which verb? (see ppctl --help)");
  check_options(*options.verb, words);
  check_arguments(*options.verb, options.arguments.size());
  for (const auto& [letter, value] : words.options)
    option_of(letter).store(options, value);
  return options;
}

std::string help_text(const Syntax* verb) {
  return verb == nullptr ? help_for_all() : help_for(*verb);
}

std::string version_text() {
  return "ppctl " PPCTL_VERSION;
}

std::int32_t parse_id(const std::string& text) {
  const bool is_hexadecimal = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0;
  const std::string digits = is_hexadecimal ? text.substr(2) : text;
  const auto is_digit = [is_hexadecimal](unsigned char c) {
    return is_hexadecimal ? std::isxdigit(c) != 0 : std::isdigit(c) != 0;
  };
  const bool is_number =
      !digits.empty() && digits.size() <= 10 && std::all_of(digits.begin(), digits.end(), is_digit);
  const long long id = is_number ? std::stoll(digits, nullptr, is_hexadecimal ? 16 : 10) : 0;
  if (id < 1 || id > std::numeric_limits<std::int32_t>::max()) {
    wrong("\"" + text + "\" is no component id: 1 to 0x7fffffff");
  }
  return static_cast<std::int32_t>(id);
}

}  // namespace ppctl
