// The quoting, judged by the shells that a device or a desk may have.
#include "log_consumer/qv_shell_quote.h"

#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"

namespace {

using test_support::noise;
using test_support::read_file;
using test_support::ScopedWorkingDirectory;
using test_support::TempDir;
using test_support::write_file;

TEST(ShellQuote, PlainPathStaysAsItIs) {
  const std::string plain = "/tarv/data/logs/debug/AZaz_09-b@c,d=e%f_2026-02-03T09:05:00+00.txt.gz";
  EXPECT_EQ(shellQuotePath(plain), plain);
}

TEST(ShellQuote, AnyOtherByteBringsSingleQuotes) {
  EXPECT_EQ(shellQuotePath("/tarv/data/logs/debug/a b.gz"), "'/tarv/data/logs/debug/a b.gz'");
  const std::string plain =
      "%+,-./0123456789:=@ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz";
  for (int byte = 1; byte <= 255; ++byte) {
    const std::string path = std::string("a") + static_cast<char>(byte);
    const bool stays = plain.find(static_cast<char>(byte)) != std::string::npos;
    EXPECT_EQ(shellQuotePath(path) == path, stays) << byte;
  }
}

TEST(ShellQuote, SingleQuoteEndsAndReopensTheQuotes) {
  EXPECT_EQ(shellQuotePath("/it's"), R"('/it'\''s')");
  EXPECT_EQ(shellQuotePath("'"), R"(''\''')");
}

TEST(ShellQuote, LeadingDashIsNoOption) {
  EXPECT_EQ(shellQuotePath("-k.gz"), "'./-k.gz'");
  EXPECT_EQ(shellQuotePath("a-k.gz"), "a-k.gz");
  EXPECT_EQ(shellQuotePath("'-k"), R"(''\''-k')");
}

TEST(ShellQuote, EmptyPathIsAnEmptyWord) {
  EXPECT_EQ(shellQuotePath(""), "''");
}

TEST(ShellQuote, PathEndsAtANulWithItsQuotesClosed) {
  EXPECT_EQ(shellQuotePath(std::string("a\0'; reboot", 11)), "'a'");
}

class ShellQuoteIn : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    const std::string program =
        std::string(GetParam()).substr(0, std::string(GetParam()).find(' '));
    if (access(program.c_str(), X_OK) != 0) GTEST_SKIP() << program << " is not installed";
  }

  /// What the shell makes of the words, each followed by a NUL.
  std::string words_seen(const std::vector<std::string>& paths) const {
    const TempDir dir;
    std::string script = "printf '%s\\0'";
    for (const std::string& path : paths)
      script += " " + shellQuotePath(path);
    write_file(dir / "script", script + "\n");
    const std::string command =
        std::string(GetParam()) + " " + (dir / "script") + " > " + (dir / "output");
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    return read_file(dir / "output");
  }

  void expect_unchanged(const std::vector<std::string>& paths) const {
    std::string expected;
    for (const std::string& path : paths)
      expected += path + '\0';
    EXPECT_TRUE(words_seen(paths) == expected);
  }
};

TEST_P(ShellQuoteIn, EveryByteComesThrough) {
  std::vector<std::string> paths;
  std::string all = "/";
  for (int byte = 1; byte <= 255; ++byte) {
    all += static_cast<char>(byte);
    paths.push_back(std::string("/") + static_cast<char>(byte));
  }
  paths.push_back(all);
  expect_unchanged(paths);
}

TEST_P(ShellQuoteIn, EveryPairOfBytesComesThrough) {
  for (int first = 1; first <= 255; ++first) {
    std::vector<std::string> paths;
    for (int second = 1; second <= 255; ++second) {
      paths.push_back(std::string("/") + static_cast<char>(first) + static_cast<char>(second));
    }
    expect_unchanged(paths);
  }
}

TEST_P(ShellQuoteIn, RandomNamesComeThrough) {
  const std::string alphabet = "'\"\\$`;&|<>(){}[]*?!#~=%^ \t\n\r-/a\x01\x7f\x80\xc3\xff";
  std::vector<std::string> paths;
  for (std::uint32_t seed = 0; seed < 2000; ++seed) {
    std::string path = "/";
    for (const char byte : noise(seed % 40, seed)) {
      path += alphabet[static_cast<unsigned char>(byte) % alphabet.size()];
    }
    paths.push_back(path);
  }
  expect_unchanged(paths);
}

TEST_P(ShellQuoteIn, NoCommandIsRun) {
  const TempDir dir;
  const ScopedWorkingDirectory here(dir.path());
  const std::vector<std::string> paths = {";touch hit;",
                                          "$(touch hit)",
                                          "`touch hit`",
                                          "\ntouch hit\n",
                                          "&touch hit&",
                                          "|touch hit",
                                          ">hit",
                                          "';touch hit;'",
                                          "'$(touch hit)'",
                                          "\"$(touch hit)\"",
                                          "\\';touch hit;'",
                                          "''>hit''",
                                          "'\n'touch hit\n",
                                          "#\ntouch hit",
                                          "\r\ntouch hit\r\n",
                                          "${x:=>hit}",
                                          "{touch,hit}",
                                          "*",
                                          "~",
                                          "!touch",
                                          "-touch",
                                          "'-'>hit",
                                          "-';touch hit;'",
                                          "\\\ntouch hit",
                                          "$'\\n'touch hit"};
  std::string expected;
  for (const std::string& path : paths) {
    expected += (path[0] == '-' ? "./" + path : path) + '\0';
  }
  EXPECT_TRUE(words_seen(paths) == expected);
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

INSTANTIATE_TEST_SUITE_P(Shells, ShellQuoteIn,
                         testing::Values("/bin/sh", "/bin/bash", "/bin/bash --posix",
                                         "/bin/busybox sh"),
                         [](const auto& shell) {
                           std::string name = shell.param;
                           for (char& letter : name) {
                             if (isalnum(static_cast<unsigned char>(letter)) == 0) letter = '_';
                           }
                           return name;
                         });

}  // namespace
