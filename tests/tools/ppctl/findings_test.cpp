#include "tools/ppctl/findings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>

#include "log_consumer/qv_log_consumer_shared.h"
#include "tests/support/files.h"
#include "tests/support/message_queue.h"
#include "tests/support/processes.h"
#include "tests/support/test_certificates.h"
#include "tools/ppctl/queue_facts.h"

using ppctl::Finding;
using ppctl::Level;
using test_support::MessageQueue;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr std::time_t kFirstPlausible = 1704067200;

// A PATH of nothing but programs of the test's own, for the scope.
class Path {
 public:
  void link(const std::string& name, const std::string& program) const {
    std::filesystem::create_symlink(program, folder_ / name);
  }
  void script(const std::string& name, const std::string& text) const {
    test_support::write_file(folder_ / name, "#!/bin/sh\n" + text, 0755);
  }

 private:
  const test_support::TempDir folder_;
  const test_support::ScopedEnvironment path_{"PATH", folder_.path()};
};

}  // namespace

TEST(LogFolders, AreThoseOfTheServiceButTheOneThatCannotExist) {
  std::map<std::string, bool> expected;
  for (const logConsumerType& kind : buildLogTypeTable()) {
    if (kind.filepath.front() == '/') expected[kind.filepath] = kind.useLogFinder;
  }
  std::map<std::string, bool> folders;
  for (const ppctl::LogFolder& folder : ppctl::log_folders())
    folders[folder.path] = folder.is_searched;
  EXPECT_EQ(folders, expected);
}

TEST(LogFolder, CountsWhatWaitsAndWhatWasSent) {
  const test_support::TempDir folder;
  test_support::write_file(folder / "a.gz", "a");
  test_support::write_file(folder / "b.gz", "b", 0400);
  test_support::write_file(folder / "c.gz", "c", 0400);
  test_support::write_file(folder / "d.txt", "d", 0777);
  std::filesystem::create_directory(folder / "e.gz");
  const Finding finding = ppctl::check_log_folder({folder.path(), false});
  EXPECT_EQ(finding.level, Level::kOk);
  EXPECT_EQ(finding.text, folder.path() + ": 1 waiting, 2 sent");
}

TEST(LogFolder, NamesAFileThatIsNeither) {
  const test_support::TempDir folder;
  for (const mode_t mode : {0600U, 0664U, 0444U, 0000U}) {
    test_support::write_file(folder / "a.gz", "a", 0644);
    chmod((folder / "a.gz").c_str(), mode);
    const Finding finding = ppctl::check_log_folder({folder.path(), false});
    EXPECT_EQ(finding.level, Level::kWarning);
    EXPECT_EQ(finding.text, folder.path() + ": 0 waiting, 0 sent, 1 neither: a.gz (" +
                                ppctl::mode_text(mode) + ")");
    EXPECT_THAT(finding.advice, HasSubstr("chmod 0644"));
    std::filesystem::remove(folder / "a.gz");
  }
}

TEST(LogFolder, IsCountedToAnyDepthWhereTheServiceSearchesIt) {
  const test_support::TempDir folder;
  std::filesystem::create_directories(folder / "2026/02");
  test_support::write_file(folder / "a.gz", "a");
  test_support::write_file(folder / "2026/b.gz", "b");
  test_support::write_file(folder / "2026/02/c.gz", "c", 0400);
  test_support::write_file(folder / "2026/02/d.gz", "d", 0600);
  test_support::write_file(folder / "2026/02/d.gz.part", "d");
  std::filesystem::create_symlink(folder / "a.gz", folder / "link.gz");
  EXPECT_EQ(ppctl::check_log_folder({folder.path(), true}).text,
            folder.path() + ": 2 waiting, 1 sent, 1 neither: 2026/02/d.gz (0600)");
  EXPECT_EQ(ppctl::check_log_folder({folder.path(), false}).text,
            folder.path() + ": 2 waiting, 0 sent");
}

TEST(LogFolder, ThatDoesNotExistIsANote) {
  const Finding finding = ppctl::check_log_folder({"/missing", false});
  EXPECT_EQ(finding.level, Level::kNote);
  EXPECT_EQ(finding.text, "/missing: no such folder");
}

TEST(LogFolder, ThatIsNoFolderIsWrong) {
  EXPECT_EQ(ppctl::check_log_folder({"/etc/passwd", false}).level, Level::kWrong);
}

TEST(Find, OfBusyBoxIsFine) {
  const Path path;
  path.link("find", "/bin/busybox");
  EXPECT_EQ(ppctl::check_find().level, Level::kOk);
}

TEST(Find, ThatRefusesTheOptionIsWrongAndSaysWhy) {
  const Path path;
  path.script("find", "echo \"find: invalid mode\" >&2; exit 1");
  const Finding finding = ppctl::check_find();
  EXPECT_EQ(finding.level, Level::kWrong);
  EXPECT_THAT(finding.text, HasSubstr("find: invalid mode"));
  EXPECT_THAT(finding.advice, HasSubstr("BusyBox"));
}

TEST(Find, ThatIsMissingIsWrong) {
  const Path path;
  EXPECT_EQ(ppctl::check_find().level, Level::kWrong);
}

TEST(FindAndFuser, AreTriedWhereTmpdirSays) {
  const test_support::TempDir folder;
  std::filesystem::create_directory(folder / "it's here");
  const test_support::ScopedEnvironment place("TMPDIR", folder / "it's here");
  EXPECT_EQ(ppctl::check_fuser().text, "sees open files");
  const Path path;
  path.link("find", "/bin/busybox");
  EXPECT_EQ(ppctl::check_find().text, "understands -perm +200");
  EXPECT_TRUE(std::filesystem::is_empty(folder / "it's here"));
}

TEST(FindAndFuser, AreNotJudgedWithoutAFolderToTryThemIn) {
  const test_support::ScopedEnvironment place("TMPDIR", "/missing");
  for (const Finding& finding : {ppctl::check_find(), ppctl::check_fuser()}) {
    EXPECT_EQ(finding.level, Level::kWarning);
    EXPECT_EQ(finding.text, "cannot be tried: /missing: No such file or directory");
  }
}

TEST(Fuser, ThatSeesOpenFilesIsFine) {
  EXPECT_EQ(ppctl::check_fuser().level, Level::kOk);
}

TEST(Fuser, ThatIsMissingOrSeesNothingIsWrong) {
  const Path path;
  EXPECT_EQ(ppctl::check_fuser().level, Level::kWrong);
  path.script("fuser", "exit 1");
  EXPECT_EQ(ppctl::check_fuser().level, Level::kWrong);
}

TEST(ServiceQueue, IsTriedWhenItDoesNotExist) {
  const Finding finding = ppctl::check_service_queue();
  const int error = ppctl::try_queue(64, 262144);
  EXPECT_EQ(finding.level, error == 0 ? Level::kOk : Level::kWrong);
  EXPECT_THAT(finding.text, StartsWith(error == 0 ? "64 x 262144 fits" : "64 x 262144 does not"));
}

TEST(ServiceQueue, ThatIsSmallIsAWarning) {
  MessageQueue queue("/log_consumer", 10, 8192);
  queue.send("x");
  const Finding finding = ppctl::check_service_queue();
  EXPECT_EQ(finding.level, Level::kWarning);
  EXPECT_EQ(finding.text, "/log_consumer: 1 of 10 messages of 8192 bytes wait");
}

TEST(ServiceQueue, ThatIsFullIsWrong) {
  MessageQueue queue("/log_consumer", 1, 100);
  queue.fill();
  const Finding finding = ppctl::check_service_queue();
  EXPECT_EQ(finding.level, Level::kWrong);
  EXPECT_THAT(finding.advice, HasSubstr("does it run?"));
}

TEST(LeftQueues, AreThoseOfProcessesThatAreGone) {
  const pid_t gone = fork();
  if (gone == 0) _exit(0);
  ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
  const std::string left = "/ppctl." + std::to_string(gone);
  const auto findings =
      ppctl::check_left_queues({"/pushpull", "/ppctl." + std::to_string(getpid()), left, "/ppctl"});
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].text, left + " was left by a ppctl that was killed");
  EXPECT_EQ(findings[0].advice, "rm /dev/mqueue" + left);
}

TEST(QueueAttempt, TellsWhyAQueueCannotBeMade) {
  EXPECT_EQ(ppctl::try_queue(1, 100), 0);
  EXPECT_EQ(ppctl::try_queue(0, 100), EINVAL);
  EXPECT_EQ(ppctl::look_at_queue("/ppctl." + std::to_string(getpid()) + ".probe").error, ENOENT);
}

TEST(QueueAdvice, FitsTheError) {
  EXPECT_THAT(ppctl::advice_for_queue_error(EINVAL), HasSubstr("fs.mqueue.msgsize_max"));
  EXPECT_THAT(ppctl::advice_for_queue_error(EMFILE), HasSubstr("RLIMIT_MSGQUEUE"));
  EXPECT_EQ(ppctl::advice_for_queue_error(EACCES), "Permission denied");
}

TEST(QueueList, IsOnlyWhatTheKernelListsThere) {
  EXPECT_FALSE(ppctl::list_queues("/tmp"));
  EXPECT_FALSE(ppctl::list_queues("/missing"));
  const MessageQueue queue("/one", 1, 100);
  EXPECT_EQ(ppctl::list_queues(ppctl::kQueueFolder), std::vector<std::string>{"/one"});
}

TEST(UserName, IsANumberForAnUnknownUser) {
  EXPECT_EQ(ppctl::user_name(0), "root");
  EXPECT_EQ(ppctl::user_name(3999999999), "3999999999");
}

TEST(Trust, WithoutAnythingSetIsAWarning) {
  const auto findings = ppctl::check_trust(nullptr, nullptr);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].level, Level::kWarning);
}

TEST(Trust, ABundleOfValidCertificatesIsFine) {
  const test_support::TempDir folder;
  const auto one = test_support::make_self_signed({"one", ""}, true);
  const auto old = test_support::make_self_signed({"old", "", -3, -1}, true);
  test_support::write_file(folder / "bundle.pem", one.certificate + old.certificate);
  const auto findings = ppctl::check_trust((folder / "bundle.pem").c_str(), nullptr);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].level, Level::kOk);
  EXPECT_EQ(findings[0].text,
            "SSL_CERT_FILE " + folder / "bundle.pem" + ": 2 certificates, 1 valid now");
}

TEST(Trust, ABundleWithoutAValidCertificateIsWrong) {
  const test_support::TempDir folder;
  const auto old = test_support::make_self_signed({"old", "", -3, -1}, true);
  test_support::write_file(folder / "old.pem", old.certificate);
  test_support::write_file(folder / "empty.pem", "");
  test_support::write_file(folder / "broken.pem",
                           "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
  for (const char* const name : {"old.pem", "empty.pem", "broken.pem", "missing.pem"}) {
    EXPECT_EQ(ppctl::check_trust((folder / name).c_str(), nullptr).at(0).level, Level::kWrong)
        << name;
  }
}

TEST(Trust, AFolderNeedsHashedCertificates) {
  const test_support::TempDir folder;
  EXPECT_EQ(ppctl::check_trust(nullptr, folder.path().c_str()).at(0).level, Level::kWrong);
  test_support::write_file(folder / "0123456.0", "");
  test_support::write_file(folder / "01234567.x", "");
  test_support::write_file(folder / "0123456x.0", "");
  EXPECT_EQ(ppctl::check_trust(nullptr, folder.path().c_str()).at(0).level, Level::kWrong);
  test_support::write_file(folder / "01234567.0", "");
  EXPECT_EQ(ppctl::check_trust(nullptr, folder.path().c_str()).at(0).text,
            "SSL_CERT_DIR " + folder.path() + ": 1 hashed certificates");
  const auto findings = ppctl::check_trust(nullptr, ("/missing:" + folder.path()).c_str());
  ASSERT_EQ(findings.size(), 2U);
  EXPECT_EQ(findings[0].level, Level::kWarning);  // the service does with the other one
  EXPECT_EQ(findings[1].level, Level::kOk);
  EXPECT_EQ(ppctl::check_trust(nullptr, "/missing:/missing2").at(1).level, Level::kWrong);
}

TEST(ClockFinding, BeforeThisProgramExistedIsWrong) {
  EXPECT_EQ(ppctl::check_clock(kFirstPlausible - 1, true).level, Level::kWrong);
  EXPECT_EQ(ppctl::check_clock(kFirstPlausible, true).level, Level::kOk);
  EXPECT_EQ(ppctl::check_clock(kFirstPlausible, true).text, "it is 2024-01-01 00:00:00 UTC");
}

TEST(ClockFinding, ThatIsNotSynchronisedIsAWarning) {
  EXPECT_EQ(ppctl::check_clock(kFirstPlausible, false).level, Level::kWarning);
  EXPECT_EQ(ppctl::check_clock(kFirstPlausible, std::nullopt).level, Level::kOk);
}
