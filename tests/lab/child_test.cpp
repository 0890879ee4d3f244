#include "lab/support/child.h"

#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "gtest/gtest.h"
#include "tests/support/files.h"

namespace lab {
namespace {

ChildSettings shell(const std::string& script) {
  ChildSettings settings;
  settings.command = {"sh", "-c", script};
  settings.standard_output = Output::pipe();
  return settings;
}

TEST(Child, GivesItsLines) {
  Child child(shell("echo one; echo two; printf unfinished"));
  EXPECT_EQ(child.read_line(), "one");
  EXPECT_EQ(child.read_line(), "two");
  EXPECT_EQ(child.read_line(), std::nullopt);
  EXPECT_EQ(child.wait(), 0);
  EXPECT_FALSE(child.running());
}

TEST(Child, GivesWholeLinesAsTheyCome) {
  Child child(shell("printf 'a\nb\nc'"));
  std::vector<std::string> lines;
  while (child.read_lines(lines)) {
  }
  EXPECT_EQ(lines, (std::vector<std::string>{"a", "b"}));
}

TEST(Child, StatusIsAsAShellGivesIt) {
  EXPECT_EQ(Child(shell("exit 7")).wait(), 7);
  Child killed(shell("exec sleep 1000"));
  EXPECT_EQ(killed.status(), -1);
  killed.signal(SIGTERM);
  EXPECT_EQ(killed.wait(), 128 + SIGTERM);
}

TEST(Child, EndsWithItsOwner) {
  pid_t pid = -1;
  {
    Child first(shell("exec sleep 1000"));
    const Child second(std::move(first));
    pid = second.pid();
    EXPECT_EQ(kill(pid, 0), 0);
  }
  EXPECT_EQ(kill(pid, 0), -1);
}

TEST(Child, GetsItsSurroundings) {
  const test_support::TempDir directory;
  ChildSettings settings = shell("pwd; echo $HOME $GREETING; echo wrong >&2");
  settings.environment = {"HOME=/nowhere", "GREETING=hello"};
  settings.directory = directory.path();
  settings.standard_error = Output::file_at(directory / "errors");
  Child child(settings);
  EXPECT_EQ(child.read_line(), directory.path());
  EXPECT_EQ(child.read_line(), "/nowhere hello");
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(test_support::read_file(directory / "errors"), "wrong\n");
}

TEST(Child, StartsWithoutBlockedSignals) {
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  Child child(shell("exec sleep 1000"));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  child.signal(SIGTERM);
  EXPECT_EQ(child.wait(), 128 + SIGTERM);
}

TEST(Child, SaysWhatItCannotStart) {
  if (std::getenv("LOG_CONSUMER_EMULATED") != nullptr) {
    GTEST_SKIP()
        << "the emulator's new processes cannot tell their maker that they could not start";
  }
  ChildSettings settings;
  settings.command = {"/nowhere/program"};
  EXPECT_THROW(Child{settings}, std::runtime_error);
}

}  // namespace
}  // namespace lab
