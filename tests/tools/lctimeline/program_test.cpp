// The program itself: files, standard input, exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

struct Ended {
  int status = -1;
  std::string output;  ///< both streams
};

// @param words  for the shell, behind the program's name
Ended run(const std::string& words) {
  FILE* const pipe = popen((LCTIMELINE_PROGRAM " " + words + " 2>&1").c_str(), "r");
  Ended ended;
  for (int c = 0; (c = std::fgetc(pipe)) != EOF;)
    ended.output.push_back(static_cast<char>(c));
  const int status = pclose(pipe);
  if (WIFEXITED(status)) ended.status = WEXITSTATUS(status);
  return ended;
}

std::string contents(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

constexpr char kLog[] = GOLDEN_DIR "/failures.jsonl";

}  // namespace

class Program : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = testing::TempDir() + "lctimeline.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name.data()));
    folder_ = name + "/";
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string folder_;
};

TEST_F(Program, WritesAPageAPictureAndASummary) {
  const Ended ended = run("-o " + folder_ + "p.html -s " + folder_ + "p.svg " + kLog);
  EXPECT_EQ(0, ended.status);
  EXPECT_EQ(contents(GOLDEN_DIR "/failures.txt"), ended.output);
  EXPECT_THAT(contents(folder_ + "p.html"), StartsWith("<!DOCTYPE html>"));
  EXPECT_EQ(contents(GOLDEN_DIR "/failures.svg"), contents(folder_ + "p.svg"));
}

TEST_F(Program, ReadsStandardInputAndSeveralFiles) {
  EXPECT_EQ(contents(GOLDEN_DIR "/failures.txt"), run(std::string("< ") + kLog).output);
  std::ofstream(folder_ + "second") << "2026-11-21T09:00:00+0000 box LogConsumer[1]: x\n";
  EXPECT_THAT(run(std::string(kLog) + " - < " + folder_ + "second").output,
              HasSubstr("253 lines of the service"));
}

TEST_F(Program, ReadsTheLabsRecordFolder) {
  std::filesystem::copy(kLog, folder_ + "syslog.jsonl");
  EXPECT_EQ(contents(GOLDEN_DIR "/failures.txt"), run(folder_).output);
}

TEST_F(Program, QuietSaysNothing) {
  const Ended ended = run(std::string("--quiet ") + kLog);
  EXPECT_EQ(0, ended.status);
  EXPECT_EQ("", ended.output);
}

TEST_F(Program, NothingOfTheServiceIsStatusOne) {
  const Ended ended = run("< /dev/null");
  EXPECT_EQ(1, ended.status);
  EXPECT_EQ("Nothing of the service in 0 lines, 0 of them not readable.\n", ended.output);
}

TEST_F(Program, WhatCannotBeReadOrWrittenIsOneLineAndStatusOne) {
  Ended ended = run("/no/such/file");
  EXPECT_EQ(1, ended.status);
  EXPECT_EQ("lctimeline: cannot read /no/such/file: No such file or directory\n", ended.output);
  ended = run(folder_);
  EXPECT_EQ(1, ended.status);
  EXPECT_THAT(ended.output, HasSubstr("syslog.jsonl: No such file or directory\n"));
  ended = run("-o /no/such/page " + std::string(kLog));
  EXPECT_EQ(1, ended.status);
  EXPECT_THAT(ended.output, StartsWith("lctimeline: cannot write /no/such/page"));
}

TEST_F(Program, AWrongOptionIsNamedWithStatusTwo) {
  const Ended ended = run("--colour");
  EXPECT_EQ(2, ended.status);
  EXPECT_THAT(ended.output, HasSubstr("--colour"));
}

TEST_F(Program, TellsItsVersionAndHelp) {
  EXPECT_EQ("lctimeline " PROJECT_VERSION_TEXT "\n", run("--version").output);
  const Ended help = run("--help");
  EXPECT_EQ(0, help.status);
  EXPECT_THAT(help.output, StartsWith("usage: lctimeline "));
}
