// Discovery and marking with the real find, fuser, shell, files and processes.
#include "log_consumer/qv_log_finder.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <list>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"
#include "tests/support/files.h"
#include "tests/support/journal.h"
#include "tests/support/processes.h"

namespace {

using test_support::clear_journal;
using test_support::file_exists;
using test_support::file_mode;
using test_support::FileHolder;
using test_support::Journal;
using test_support::journal;
using test_support::open_descriptors;
using test_support::read_file;
using test_support::ScopedEnvironment;
using test_support::ScopedWorkingDirectory;
using test_support::TempDir;
using test_support::write_file;
using testing::ElementsAre;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

using Files = std::vector<std::string>;

const std::string kFinderOutput = "/var/tmp/logfinder.tmp";
const std::string kPath = getenv("PATH");

TEST(LogFinderCommand, OfTheReportsKind) {
  EXPECT_EQ(logFinderCommand("/tarv/data/logs/reports", false, 20),
            "find /tarv/data/logs/reports -type f -perm +200 -name *.gz| sort| head -n 20 >> "
            "/var/tmp/logfinder.tmp");
}

TEST(LogFinderCommand, OfAllFilesLeavesOutThePermission) {
  EXPECT_EQ(logFinderCommand("/d", true, 4294967295U),
            "find /d -type f -name *.gz| sort| head -n 4294967295 >> /var/tmp/logfinder.tmp");
}

TEST(WaitingMode, IsARegularFileOf0644AndNothingElse) {
  EXPECT_TRUE(isWaitingMode(S_IFREG | 0644));
  for (const mode_t permissions : {0400U, 0444U, 0600U, 0640U, 0645U, 0646U, 0654U, 0664U, 0744U,
                                   0755U, 01644U, 02644U, 04644U}) {
    EXPECT_FALSE(isWaitingMode(S_IFREG | permissions)) << std::oct << permissions;
  }
  for (const int type : {S_IFDIR, S_IFLNK, S_IFIFO, S_IFSOCK, S_IFCHR, S_IFBLK}) {
    EXPECT_FALSE(isWaitingMode(static_cast<mode_t>(type) | 0644U)) << std::oct << type;
  }
}

/// A folder of links that goes before everything else on PATH.
class PrivateBin {
 public:
  explicit PrivateBin(bool alone = false)
      : path_("PATH", alone ? dir_.path() : dir_.path() + ":" + kPath) {}

  /// `name` shall be this program.
  void link(const std::string& name, const std::string& program) const {
    std::filesystem::create_symlink(program, dir_ / name);
  }
  /// `name` shall be this shell script.
  void script(const std::string& name, const std::string& text) const {
    write_file(dir_ / name, "#!/bin/sh\n" + text + "\n", 0755);
  }

 private:
  TempDir dir_;
  ScopedEnvironment path_;
};

/// An engine and a log directory.
class Discovery : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::remove_all(kFinderOutput);
    std::filesystem::create_directories("/tarv/data/logs/logconsumer");
    clear_journal();
  }
  void TearDown() override { std::filesystem::remove_all(kFinderOutput); }

  std::string add(const std::string& name, mode_t mode = 0644) const {
    write_file(logs_ / name, "log", mode);
    return logs_ / name;
  }

  Files find(unsigned max_files = 20, bool all_files = false) const {
    QvLogFinder finder;
    finder.directory = logs_.path();
    Files files;
    EXPECT_TRUE(finder.findFiles(all_files, max_files, files));
    return files;
  }

  TempDir logs_;
  LogConsumer engine_;
};

// Listing a directory.

using DirectoryListing = Discovery;

TEST_F(DirectoryListing, HoldsEveryNameButTheDots) {
  add("a.gz");
  add("b.gz", 0400);
  add("c.txt");
  EXPECT_THAT(engine_.getFileList(logs_.path()), UnorderedElementsAre("a.gz", "b.gz", "c.txt"));
}

TEST_F(DirectoryListing, HoldsFoldersHiddenFilesAndDanglingLinks) {
  std::filesystem::create_directory(logs_ / "folder.gz");
  std::filesystem::create_symlink("nowhere", logs_ / "link");
  add(".hidden.gz");
  add("...");
  EXPECT_THAT(engine_.getFileList(logs_.path()),
              UnorderedElementsAre("folder.gz", "link", ".hidden.gz", "..."));
}

TEST_F(DirectoryListing, IsInTheDirectorysOrder) {
  for (int i = 0; i < 50; ++i)
    add(std::to_string(i * 37 % 50) + ".gz");
  Files expected;
  for (const auto& entry : std::filesystem::directory_iterator(logs_.path())) {
    expected.push_back(entry.path().filename());
  }
  EXPECT_EQ(engine_.getFileList(logs_.path()), expected);
}

TEST_F(DirectoryListing, OfAnEmptyDirectoryIsEmpty) {
  EXPECT_EQ(engine_.getFileList(logs_.path()), Files{});
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(DirectoryListing, OfAMissingDirectoryIsEmptyAndLogged) {
  EXPECT_EQ(engine_.getFileList(logs_ / "missing"), Files{});
  EXPECT_EQ(journal(),
            Journal{"syslog 7 opendir failed, errno: 2, err: No such file or directory"});
}

TEST_F(DirectoryListing, OfTheTestKindsDirectoryIsEmptyAndLogged) {
  EXPECT_EQ(engine_.getFileList("\\nuv\\logs\\test\\"), Files{});
  EXPECT_EQ(journal(),
            Journal{"syslog 7 opendir failed, errno: 2, err: No such file or directory"});
}

TEST_F(DirectoryListing, OfAFileIsEmptyAndLogged) {
  EXPECT_EQ(engine_.getFileList(add("a.gz")), Files{});
  EXPECT_EQ(journal(), Journal{"syslog 7 opendir failed, errno: 20, err: Not a directory"});
}

TEST_F(DirectoryListing, OfAnUnreadableDirectoryIsEmptyAndLogged) {
  if (std::getenv("LOG_CONSUMER_EMULATED") != nullptr) {
    GTEST_SKIP() << "the emulator's namespace knows of no other user";
  }
  const std::string folder = logs_ / "folder";
  std::filesystem::create_directory(folder);
  ASSERT_EQ(chmod(folder.c_str(), 0300), 0);
  {
    const test_support::OrdinaryFilePermissions permissions;
    EXPECT_EQ(engine_.getFileList(folder), Files{});
  }
  EXPECT_EQ(journal(), Journal{"syslog 7 opendir failed, errno: 13, err: Permission denied"});
}

// Listing with BusyBox's find, which is the device's.

class Finder : public Discovery {
 protected:
  void SetUp() override {
    Discovery::SetUp();
    if (access("/bin/busybox", X_OK) != 0) GTEST_SKIP() << "busybox is not installed";
    bin_.link("find", "/bin/busybox");
  }
  PrivateBin bin_;
};

TEST_F(Finder, ListsFullPathsSortedAndLeavesOutWhatIsReadOnly) {
  const std::string second = add("b.gz");
  const std::string first = add("a.gz");
  add("c.gz", 0400);
  add("d.txt");
  std::filesystem::create_directory(logs_ / "folder.gz");
  const std::string below = add("folder.gz/e.gz");
  EXPECT_THAT(find(), ElementsAre(first, second, below));
}

TEST_F(Finder, ListsReadOnlyFilesWhenAllAreAskedFor) {
  const std::string first = add("a.gz", 0400);
  const std::string second = add("b.gz");
  EXPECT_THAT(find(20, true), ElementsAre(first, second));
}

TEST_F(Finder, ListsWhateverItsOwnerMayWrite) {
  const std::string group = add("group.gz", 0664);
  const std::string owner = add("owner.gz", 0600);
  add("others.gz", 0466);
  EXPECT_THAT(find(), ElementsAre(group, owner));
}

TEST_F(Finder, ListsTheFirstTwentyOfTwentyFive) {
  Files expected;
  for (int i = 124; i >= 100; --i) {
    const std::string path = add(std::to_string(i) + ".gz");
    if (i < 120) expected.insert(expected.begin(), path);
  }
  EXPECT_EQ(find(20), expected);
  EXPECT_EQ(find(1), Files{expected.front()});
  EXPECT_EQ(find(0), Files{});
  EXPECT_EQ(find(100).size(), 25U);
}

TEST_F(Finder, DeletesItsTemporaryFile) {
  add("a.gz");
  find();
  EXPECT_FALSE(file_exists(kFinderOutput));
}

TEST_F(Finder, ReadsWhatAnEarlierRunLeftBehindTogetherWithTheNew) {
  write_file(kFinderOutput, "/left/behind.gz\n\n/left/too.gz\n");
  const std::string path = add("a.gz");
  EXPECT_THAT(find(1), ElementsAre("/left/behind.gz", "", "/left/too.gz", path));
  EXPECT_FALSE(file_exists(kFinderOutput));
  EXPECT_THAT(find(), ElementsAre(path));
}

TEST_F(Finder, LeftoverThatBreaksOffRunsIntoTheFirstPath) {
  write_file(kFinderOutput, "/left/beh");
  const std::string path = add("a.gz");
  EXPECT_THAT(find(), ElementsAre("/left/beh" + path));
}

TEST_F(Finder, LeftoverThatBreaksOffIsAnEntryWhenNothingFollows) {
  write_file(kFinderOutput, "/left/behind.gz");
  EXPECT_THAT(find(), ElementsAre("/left/behind.gz"));
}

TEST_F(Finder, AddsToTheGivenVector) {
  const std::string path = add("a.gz");
  QvLogFinder finder;
  finder.directory = logs_.path();
  Files files = {"before"};
  EXPECT_TRUE(finder.findFiles(false, 20, files));
  EXPECT_THAT(files, ElementsAre("before", path));
}

TEST_F(Finder, ResultThatCannotBeReadIsAFailureAndLeftAlone) {
  add("a.gz");
  std::filesystem::create_symlink("/no/such/folder/file", kFinderOutput);
  QvLogFinder finder;
  finder.directory = logs_.path();
  Files files = {"before"};
  testing::internal::CaptureStderr();
  EXPECT_FALSE(finder.findFiles(false, 20, files));
  testing::internal::GetCapturedStderr();
  EXPECT_THAT(files, ElementsAre("before"));
  EXPECT_TRUE(file_exists(kFinderOutput));
}

TEST_F(Finder, MissingDirectoryGivesAnEmptyList) {
  QvLogFinder finder;
  finder.directory = logs_ / "missing";
  Files files;
  testing::internal::CaptureStderr();
  EXPECT_TRUE(finder.findFiles(false, 20, files));
  EXPECT_NE(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(files, Files{});
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(Finder, UnreadableDirectoryGivesAnEmptyList) {
  add("a.gz");
  ASSERT_EQ(chmod(logs_.path().c_str(), 0300), 0);
  const bool readable = access(logs_.path().c_str(), R_OK) == 0;
  testing::internal::CaptureStderr();
  const Files files = find();
  testing::internal::GetCapturedStderr();
  ASSERT_EQ(chmod(logs_.path().c_str(), 0700), 0);
  if (readable) GTEST_SKIP() << "this user reads every directory";
  EXPECT_EQ(files, Files{});
}

TEST_F(Finder, SetsItsDirectoryBeforeEachUse) {
  const std::string path = add("a.gz");
  const TempDir other;
  write_file(other / "b.gz", "");
  QvLogFinder finder;
  Files files;
  finder = logs_.path();
  EXPECT_TRUE(finder.findFiles(false, 20, files));
  finder = other.path();
  EXPECT_TRUE(finder.findFiles(false, 20, files));
  EXPECT_THAT(files, ElementsAre(path, other / "b.gz"));
}

// The pattern is not quoted, so the shell sees it first.

TEST_F(Finder, PatternIsExpandedInTheWorkingDirectory) {
  const std::string path = add("match.gz");
  add("other.gz");
  const TempDir here;
  write_file(here / "match.gz", "");
  const ScopedWorkingDirectory change(here.path());
  EXPECT_THAT(find(), ElementsAre(path));
}

TEST_F(Finder, PatternThatExpandsToTwoNamesGivesAnEmptyList) {
  add("a.gz");
  const TempDir here;
  write_file(here / "a.gz", "");
  write_file(here / "b.gz", "");
  const ScopedWorkingDirectory change(here.path());
  testing::internal::CaptureStderr();
  EXPECT_EQ(find(), Files{});
  testing::internal::GetCapturedStderr();
}

// Other finds than the device's.

TEST_F(Discovery, GnuFindRefusesThePermissionAndListsNothing) {
  PrivateBin bin;
  bin.link("find", "/usr/bin/find");
  add("a.gz");
  testing::internal::CaptureStderr();
  EXPECT_EQ(find(), Files{});
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("invalid mode"));
  EXPECT_FALSE(file_exists(kFinderOutput));
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(Discovery, GnuFindListsAllFilesWhenAllAreAskedFor) {
  PrivateBin bin;
  bin.link("find", "/usr/bin/find");
  const std::string path = add("a.gz", 0400);
  EXPECT_THAT(find(20, true), ElementsAre(path));
}

TEST_F(Discovery, WithoutFindTheListIsEmpty) {
  const PrivateBin bin(true);
  bin.link("sort", "/usr/bin/sort");
  bin.link("head", "/usr/bin/head");
  add("a.gz");
  testing::internal::CaptureStderr();
  EXPECT_EQ(find(), Files{});
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("not found"));
}

TEST_F(Discovery, WithoutAnyProgramTheListIsEmpty) {
  const PrivateBin bin(true);
  testing::internal::CaptureStderr();
  EXPECT_EQ(find(), Files{});
  testing::internal::GetCapturedStderr();
}

// Whether a file may be sent now.

using FileState = Discovery;

TEST_F(FileState, FreeFileOf0644MayBeSent) {
  EXPECT_FALSE(engine_.checkReadOnly(add("a.gz")));
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(FileState, NoOtherModeMayBeSent) {
  PrivateBin bin;
  bin.script("fuser", "touch " + (logs_ / "asked"));
  const std::string path = add("a.gz");
  for (const mode_t mode : {0400U, 0444U, 0600U, 0664U, 0755U, 0666U, 04644U}) {
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    EXPECT_TRUE(engine_.checkReadOnly(path)) << std::oct << mode;
  }
  EXPECT_FALSE(file_exists(logs_ / "asked"));
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(FileState, MissingFileMayNotBeSent) {
  EXPECT_TRUE(engine_.checkReadOnly(logs_ / "missing.gz"));
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(FileState, FolderOf0644MayNotBeSent) {
  std::filesystem::create_directory(logs_ / "a.gz");
  ASSERT_EQ(chmod((logs_ / "a.gz").c_str(), 0644), 0);
  EXPECT_TRUE(engine_.checkReadOnly(logs_ / "a.gz"));
}

TEST_F(FileState, LinkIsJudgedByItsTarget) {
  const std::string target = add("a.gz");
  std::filesystem::create_symlink(target, logs_ / "link.gz");
  EXPECT_FALSE(engine_.checkReadOnly(logs_ / "link.gz"));
  ASSERT_EQ(chmod(target.c_str(), 0400), 0);
  EXPECT_TRUE(engine_.checkReadOnly(logs_ / "link.gz"));
}

TEST_F(FileState, FileThatAnotherProcessHoldsMayNotBeSent) {
  const std::string path = add("a.gz");
  {
    const FileHolder holder(path);
    EXPECT_TRUE(engine_.checkReadOnly(path));
    EXPECT_THAT(journal(),
                ElementsAre("syslog 7 Attempt to upload " + path + " still in Access\n",
                            MatchesRegex("syslog 7 fuser: +" + holder.pid() + "\n? \n")));
  }
  EXPECT_FALSE(engine_.checkReadOnly(path));
}

TEST_F(FileState, FuserSaysTheNameOnItsErrorOutputOnly) {
  const std::string path = add("a.gz");
  const FileHolder holder(path);
  testing::internal::CaptureStderr();
  engine_.checkReadOnly(path);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr(path));
  EXPECT_THAT(journal().at(1), testing::Not(testing::HasSubstr(path)));
}

TEST_F(FileState, AnswerLongerThanOnePieceIsLoggedWhole) {
  const std::string path = add("a.gz");
  std::list<FileHolder> holders;
  for (int i = 0; i < 40; ++i)
    holders.emplace_back(path);
  EXPECT_TRUE(engine_.checkReadOnly(path));
  const std::string line = journal().at(1);
  EXPECT_GT(line.size(), 128U);
  for (const FileHolder& holder : holders) {
    EXPECT_THAT(line + " ", testing::HasSubstr(" " + holder.pid() + " "));
  }
}

TEST_F(FileState, AnswerOfAnyShapeIsAppendedAsItComes) {
  PrivateBin bin;
  std::string answer;
  for (int i = 0; i < 300; ++i)
    answer += std::to_string(i) + (i % 50 == 49 ? "\n" : " ");
  write_file(logs_ / "answer", answer);
  bin.script("fuser", "cat " + (logs_ / "answer"));
  EXPECT_TRUE(engine_.checkReadOnly(add("a.gz")));
  EXPECT_EQ(journal().at(1), "syslog 7 fuser: " + answer + " \n");
}

TEST_F(FileState, SilentFailureOfFuserLooksFree) {
  PrivateBin bin;
  bin.script("fuser", "echo trouble >&2; exit 3");
  testing::internal::CaptureStderr();
  EXPECT_FALSE(engine_.checkReadOnly(add("a.gz")));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "trouble\n");
}

TEST_F(FileState, WithoutFuserEveryWaitingFileLooksFree) {
  const std::string path = add("a.gz");
  const FileHolder holder(path);
  const PrivateBin bin(true);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(engine_.checkReadOnly(path));
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("not found"));
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(FileState, FuserIsAskedOncePerCall) {
  PrivateBin bin;
  bin.script("fuser", "echo \"$#:$1\" >> " + (logs_ / "asked"));
  const std::string path = add("a.gz");
  EXPECT_FALSE(engine_.checkReadOnly(path));
  EXPECT_FALSE(engine_.checkReadOnly(path));
  EXPECT_EQ(read_file(logs_ / "asked"), "1:" + path + "\n1:" + path + "\n");
}

TEST_F(FileState, FailureToAskIsLoggedAndTheFileMayNotBeSent) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "this build's own checks of an exception need descriptors";
#endif
  const std::string path = add("a.gz");
  struct rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const int next = open("/dev/null", O_RDONLY);
  ASSERT_GE(next, 0);
  close(next);
  const struct rlimit none = {static_cast<rlim_t>(next), before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const bool result = engine_.checkReadOnly(path);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_TRUE(result);
  EXPECT_EQ(journal(), Journal{"syslog 3 checkReadOnly:exception popen: Too many open files"});
}

TEST_F(FileState, EmptyFilesAndLargeFilesAreLikeAnyOther) {
  EXPECT_FALSE(engine_.checkReadOnly(add("a.gz")));
  std::filesystem::resize_file(logs_ / "a.gz", 0);
  EXPECT_FALSE(engine_.checkReadOnly(logs_ / "a.gz"));
  std::filesystem::resize_file(logs_ / "a.gz", 5'000'000'000);  // sparse, beyond 32 bits
  EXPECT_FALSE(engine_.checkReadOnly(logs_ / "a.gz"));
}

TEST_F(FileState, NoPathLeavesADescriptorOpen) {
  PrivateBin bin;
  const std::string free_file = add("a.gz");
  const std::string held = add("b.gz");
  const std::string sent = add("c.gz", 0400);
  const FileHolder holder(held);
  testing::internal::CaptureStderr();
  const long before = open_descriptors();
  for (int i = 0; i < 10; ++i) {
    engine_.checkReadOnly(free_file);
    engine_.checkReadOnly(held);
    engine_.checkReadOnly(sent);
    engine_.checkReadOnly(logs_ / "missing");
    engine_.getFileList(logs_.path());
    engine_.getFileList(logs_ / "missing");
    find();
  }
  EXPECT_EQ(open_descriptors(), before);
  testing::internal::GetCapturedStderr();
}

// Counting.

using Counting = Discovery;

TEST_F(Counting, CountsWaitingGzipFilesOfADirectory) {
  add("a.gz");
  add("b.gz", 0400);
  add("c.txt");
  EXPECT_EQ(engine_.getNotReadOnlySize(engine_.getFileList(logs_.path()), logs_.path(), false), 1);
}

TEST_F(Counting, TakesTheFindersEntriesAsFullPaths) {
  const Files files = {add("a.gz"), add("b.gz", 0400), add("c.txt"), add("d.gz")};
  EXPECT_EQ(engine_.getNotReadOnlySize(files, "/nowhere", true), 2);
  EXPECT_EQ(engine_.getNotReadOnlySize(files, logs_.path(), false), 0);
}

TEST_F(Counting, OfAnEmptyListIsZero) {
  EXPECT_EQ(engine_.getNotReadOnlySize({}, logs_.path(), false), 0);
  EXPECT_EQ(engine_.getNotReadOnlySize({}, logs_.path(), true), 0);
}

TEST_F(Counting, TakesTheEndingAnywhereInTheName) {
  add("a.gz.part");
  add(".gz");
  add("agz");
  EXPECT_EQ(engine_.getNotReadOnlySize({"a.gz.part", ".gz", "agz"}, logs_.path(), false), 2);
}

TEST_F(Counting, LeavesOut0664And0600) {
  add("a.gz", 0664);
  add("b.gz", 0600);
  EXPECT_EQ(engine_.getNotReadOnlySize({"a.gz", "b.gz"}, logs_.path(), false), 0);
}

TEST_F(Counting, LeavesOutWhatIsHeld) {
  const std::string held = add("a.gz");
  add("b.gz");
  const FileHolder holder(held);
  EXPECT_EQ(engine_.getNotReadOnlySize({"a.gz", "b.gz"}, logs_.path(), false), 1);
  EXPECT_EQ(journal().at(0), "syslog 7 Attempt to upload " + held + " still in Access\n");
}

// Marking.

TEST_F(Discovery, MarkMakesTheFileReadOnlyForItsOwner) {
  const std::string path = add("a.gz");
  EXPECT_EQ(engine_.setReadOnly(path), 0);
  EXPECT_EQ(file_mode(path), 0400);
  EXPECT_TRUE(engine_.checkReadOnly(path));
  EXPECT_EQ(engine_.setReadOnly(path), 0);
}

TEST_F(Discovery, MarkOfAMissingFileFails) {
  EXPECT_EQ(engine_.setReadOnly(logs_ / "missing.gz"), -1);
}

// Names that whoever writes into a log directory may choose.

const Files& hostile_names() {
  static const Files names = {" a b .gz",
                              "a'b.gz",
                              "a\"b.gz",
                              "';touch hit;'.gz",
                              ";touch hit;.gz",
                              "$(touch hit).gz",
                              "`touch hit`.gz",
                              "\"$(touch hit)\".gz",
                              "&touch hit&.gz",
                              "|touch hit|.gz",
                              ">hit.gz",
                              "\ntouch hit\n.gz",
                              "'\ntouch hit\n'.gz",
                              "-rf.gz",
                              "--help.gz",
                              "-k.gz",
                              "*.gz",
                              "?[a-z]{a,b}~.gz",
                              "back\\slash.gz",
                              "\\.gz",
                              "#.gz",
                              "%s%n.gz",
                              "tab\t.gz",
                              "\r.gz",
                              "\x01\x1b[31m.gz",
                              "\xff\xfe\x80.gz",
                              "\xc3\xa9\xe2\x82\xac.gz",
                              std::string(252, 'x') + ".gz"};
  return names;
}

class HostileNames : public Discovery {
 protected:
  void SetUp() override {
    Discovery::SetUp();
    for (const std::string& name : hostile_names())
      add(name);
  }
  void TearDown() override {
    EXPECT_TRUE(std::filesystem::is_empty(here_.path())) << "a command was run";
    Discovery::TearDown();
  }
  TempDir here_;
  ScopedWorkingDirectory change_{here_.path()};
};

TEST_F(HostileNames, FilesAreListedAndCountedLikeAnyOther) {
  const Files files = engine_.getFileList(logs_.path());
  EXPECT_THAT(files, testing::UnorderedElementsAreArray(hostile_names()));
  EXPECT_EQ(engine_.getNotReadOnlySize(files, logs_.path(), false),
            static_cast<int>(hostile_names().size()));
}

TEST_F(HostileNames, ReachFuserAsOneArgumentUnchanged) {
  PrivateBin bin;
  bin.script("fuser", "printf '%s:%s' $# \"$1\" > " + (logs_ / "asked"));
  for (const std::string& name : hostile_names()) {
    EXPECT_FALSE(engine_.checkReadOnly(logs_ / name));
    EXPECT_EQ(read_file(logs_ / "asked"), "1:" + (logs_ / name));
  }
}

TEST_F(HostileNames, HeldFilesAreSeenToBeHeld) {
  for (const std::string& name : hostile_names()) {
    const FileHolder holder(logs_ / name);
    clear_journal();
    EXPECT_TRUE(engine_.checkReadOnly(logs_ / name)) << name;
    EXPECT_THAT(journal().at(1), MatchesRegex("syslog 7 fuser: +" + holder.pid() + "\n? \n"));
  }
}

TEST_F(HostileNames, RelativePathWithADashIsNoOption) {
  const ScopedWorkingDirectory change(logs_.path());
  const FileHolder holder("-k.gz");
  testing::internal::CaptureStderr();
  EXPECT_TRUE(engine_.checkReadOnly("-k.gz"));
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(kill(std::stoi(holder.pid()), 0), 0) << "-k kills the holder";
  EXPECT_EQ(journal().size(), 2U);
}

TEST_F(HostileNames, AreMarkedLikeAnyOther) {
  for (const std::string& name : hostile_names()) {
    EXPECT_EQ(engine_.setReadOnly(logs_ / name), 0);
    EXPECT_EQ(file_mode(logs_ / name), 0400);
  }
}

TEST_F(HostileNames, FinderListsThemSplitAtNewlinesOnly) {
  if (access("/bin/busybox", X_OK) != 0) GTEST_SKIP() << "busybox is not installed";
  PrivateBin bin;
  bin.link("find", "/bin/busybox");
  const Files files = find(1000);
  int with_newlines = 0;
  for (const std::string& name : hostile_names()) {
    const bool split = name.find('\n') != std::string::npos;
    if (split) ++with_newlines;
    EXPECT_EQ(std::count(files.begin(), files.end(), logs_ / name), split ? 0 : 1) << name;
  }
  EXPECT_EQ(engine_.getNotReadOnlySize(files, logs_.path(), true),
            static_cast<int>(hostile_names().size()) - with_newlines);
}

TEST_F(Finder, NewlineInAFolderNameCanListAnyPathAndItsModeStillDecides) {
  std::filesystem::create_directories(logs_ / "x\n/etc");
  add("x\n/etc/shadow.gz");
  const Files files = find();
  EXPECT_THAT(files, UnorderedElementsAre(logs_ / "x", "/etc/shadow.gz"));
  EXPECT_EQ(engine_.getNotReadOnlySize(files, logs_.path(), true), 0);
}

}  // namespace
