#include "tools/ppctl/options.h"

#include <gtest/gtest.h>

#include <set>

#include "tools/ppctl/failure.h"

using ppctl::Options;

namespace {

Options parse(std::vector<std::string> words) {
  words.insert(words.begin(), "ppctl");
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  return ppctl::parse_options(static_cast<int>(words.size()), argv.data());
}

// What is wrong with a command line; "" when nothing is.
std::string wrong(const std::vector<std::string>& words) {
  try {
    parse(words);
  } catch (const ppctl::Failure& failure) {
    return (failure.status() == ppctl::Status::kUsage ? "" : "not usage: ") +
           std::string(failure.what());
  }
  return "";
}

using Words = std::vector<std::string>;

}  // namespace

TEST(CommandLine, HasDefaults) {
  const Options options = parse({"get", "/rgw"});
  EXPECT_STREQ(options.verb->name, "get");
  EXPECT_EQ(options.arguments, Words{"/rgw"});
  EXPECT_EQ(options.timeout, std::chrono::seconds(5));
  EXPECT_EQ(options.suffix, "");
  EXPECT_FALSE(options.id || options.message_size || options.count || options.window);
  EXPECT_FALSE(options.quiet || options.json || options.raw || options.no_wait);
  EXPECT_EQ(options.speed, 1);
}

TEST(CommandLine, OptionsStandAnywhereLongOrShort) {
  for (const Words& words :
       {Words{"-j", "-t", "0.3", "get", "/rgw", "-r"},
        Words{"get", "/rgw", "--raw", "--json", "--timeout=0.3"},
        Words{"--timeout", "0.3", "get", "-jr", "/rgw"}, Words{"get", "-jrt0.3", "/rgw"}}) {
    const Options options = parse(words);
    EXPECT_STREQ(options.verb->name, "get");
    EXPECT_EQ(options.arguments, Words{"/rgw"});
    EXPECT_TRUE(options.json && options.raw);
    EXPECT_EQ(options.timeout, std::chrono::milliseconds(300));
  }
}

TEST(CommandLine, EveryOptionIsStored) {
  Options options = parse({"-q", "-s", "-lab", "-i", "0x40000003", "-m", "65536", "watch", "/a",
                           "/b", "-c", "-C", "3", "-W", "1.5"});
  EXPECT_TRUE(options.quiet && options.changes_only);
  EXPECT_EQ(options.suffix, "-lab");
  EXPECT_EQ(options.id, 0x40000003);
  EXPECT_EQ(options.message_size, 65536);
  EXPECT_EQ(options.count, 3);
  EXPECT_EQ(options.window, std::chrono::milliseconds(1500));
  EXPECT_EQ(options.arguments, (Words{"/a", "/b"}));

  options = parse({"send", "get", "/a", "-n", "-o", "1100", "-f", "me", "-p"});
  EXPECT_TRUE(options.no_wait && options.pack);
  EXPECT_EQ(options.to, 1100);
  EXPECT_EQ(options.sender, "me");

  EXPECT_TRUE(parse({"save", "--debug"}).debug);
  EXPECT_TRUE(parse({"set", "-S", "/a", "5"}).string);
  EXPECT_EQ(parse({"replay", "f", "--speed", "0.5"}).speed, 0.5);
}

TEST(CommandLine, NegativeNumbersAreArguments) {
  EXPECT_EQ(parse({"set", "/system/clock/offset", "-18000"}).arguments,
            (Words{"/system/clock/offset", "-18000"}));
  EXPECT_EQ(parse({"set", "/a", "-.5", "-q"}).arguments, (Words{"/a", "-.5"}));
}

TEST(CommandLine, TwoDashesEndTheOptions) {
  EXPECT_EQ(parse({"set", "-q", "--", "/a", "-q"}).arguments, (Words{"/a", "-q"}));
  EXPECT_EQ(parse({"publish", "-"}).arguments, Words{"-"});
}

TEST(CommandLine, AWrongOptionIsNamed) {
  EXPECT_EQ(wrong({"get", "/a", "--bogus"}), "no such option: --bogus (see ppctl --help)");
  EXPECT_EQ(wrong({"get", "/a", "-jZ"}), "no such option: -Z (see ppctl --help)");
  // Characters that mean something else to getopt_long().
  EXPECT_EQ(wrong({"get", "/a", "-:"}), "no such option: -: (see ppctl --help)");
  EXPECT_EQ(wrong({"get", "/a", "-j-"}), "no such option: -- (see ppctl --help)");
  EXPECT_EQ(wrong({"get", "/a", "--json=1"}), "option --json takes no value");
  EXPECT_EQ(wrong({"get", "/a", "--timeout"}), "option --timeout needs a value");
  EXPECT_EQ(wrong({"get", "/a", "-t"}), "option --timeout needs a value");
}

TEST(CommandLine, AnOptionOfAnotherVerbIsRefused) {
  EXPECT_EQ(wrong({"get", "/a", "--speed", "2"}), "get takes no option --speed");
  EXPECT_EQ(wrong({"queues", "-n"}), "queues takes no option --no-wait");
}

TEST(CommandLine, AWrongValueIsNamed) {
  for (const char* const text : {"", "x", "-1", "nan", "1s", " 1", "1e99"}) {
    EXPECT_EQ(wrong({"get", "/a", std::string("--timeout=") + text}),
              std::string("option --timeout: \"") + text + "\" is no number from 0 to 31536000");
  }
  for (const char* const text : {"", "0", "x", "-1", "1.5", "1234567890"}) {
    EXPECT_EQ(wrong({"watch", "/a", std::string("--count=") + text}),
              std::string("option --count: \"") + text + "\" is no number from 1 on");
  }
  EXPECT_EQ(wrong({"get", "/a", "-s", "/x"}), "option --suffix: \"/x\" cannot end a queue's name");
  EXPECT_NE(wrong({"get", "/a", "-s", std::string(201, 'x')}), "");
}

TEST(CommandLine, AMissingOrUnknownVerbIsNamed) {
  EXPECT_EQ(wrong({}), "which verb? (see ppctl --help)");
  EXPECT_EQ(wrong({"-q"}), "which verb? (see ppctl --help)");
  EXPECT_EQ(wrong({"fetch", "/a"}), "no such verb: fetch (see ppctl --help)");
}

TEST(CommandLine, EveryVerbCountsItsArguments) {
  for (const ppctl::Syntax& verb : ppctl::all_syntax()) {
    Words words = {verb.name};
    if (verb.least > 0) {
      words.resize(verb.least, "/a");
      EXPECT_EQ(wrong(words).rfind("too few arguments; usage: ppctl ", 0), 0U) << verb.name;
    }
    words.resize(verb.least + 1, "/a");
    EXPECT_EQ(wrong(words), "") << verb.name;
    if (verb.most != ppctl::kAnyNumber) {
      words.resize(verb.most + 2, "/a");
      EXPECT_EQ(wrong(words).rfind("too many arguments; usage: ppctl ", 0), 0U) << verb.name;
    }
  }
}

TEST(ComponentId, IsDecimalOrHexadecimal) {
  EXPECT_EQ(ppctl::parse_id("1073741840"), 0x40000010);
  EXPECT_EQ(ppctl::parse_id("0x40000010"), 0x40000010);
  EXPECT_EQ(ppctl::parse_id("0X7FFFFFFF"), 0x7fffffff);
  EXPECT_EQ(ppctl::parse_id("010"), 10);
}

TEST(ComponentId, MustBeOne) {
  for (const char* const text :
       {"", "0", "0x", "0x80000000", "2147483648", "-1", "1x", "0xg", " 1", "99999999999"}) {
    EXPECT_EQ(wrong({"get", "/a", std::string("--id=") + text}),
              std::string("\"") + text + "\" is no component id: 1 to 0x7fffffff");
  }
}

TEST(Help, OfTheWholeNamesEveryVerbAndCommonOption) {
  const std::string text = ppctl::help_text(nullptr);
  for (const ppctl::Syntax& verb : ppctl::all_syntax()) {
    EXPECT_NE(text.find("\n  " + std::string(verb.name)), std::string::npos) << verb.name;
  }
  for (const char* const option :
       {"--json", "--quiet", "--timeout", "--suffix", "--id", "--help", "--version"}) {
    EXPECT_NE(text.find(option), std::string::npos) << option;
  }
  EXPECT_EQ(text.find("--speed"), std::string::npos);
}

TEST(Help, OfAVerbNamesItsOwnOptions) {
  const Options options = parse({"replay", "--help"});
  ASSERT_TRUE(options.help);
  const std::string text = ppctl::help_text(options.verb);
  EXPECT_NE(text.find("Usage: ppctl replay FILE\n"), std::string::npos);
  EXPECT_NE(text.find("--speed FACTOR"), std::string::npos);
  EXPECT_EQ(text.find("--count"), std::string::npos);
}

TEST(Help, NeedsNoArguments) {
  EXPECT_TRUE(parse({"--help"}).help);
  EXPECT_EQ(parse({"--help"}).verb, nullptr);
  EXPECT_TRUE(parse({"get", "-h", "--speed", "x"}).help);
  EXPECT_TRUE(parse({"--version"}).version);
}

TEST(Help, FitsATerminal) {
  std::vector<const ppctl::Syntax*> verbs = {nullptr};
  for (const ppctl::Syntax& verb : ppctl::all_syntax())
    verbs.push_back(&verb);
  for (const ppctl::Syntax* const verb : verbs) {
    std::istringstream lines(ppctl::help_text(verb));
    for (std::string line; std::getline(lines, line);)
      EXPECT_LE(line.size(), 100U) << line;
  }
}

TEST(Version, IsTheProjects) {
  EXPECT_EQ(ppctl::version_text(), "ppctl " PROJECT_VERSION_TEXT);
}
