// How the driver judges, counts and starts again.
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "lab/driver/display.h"
#include "lab/driver/scoreboard.h"
#include "lab/driver/seed.h"
#include "lab/driver/service_manager.h"
#include "tests/support/files.h"

namespace lab {
namespace {

using test_support::write_file;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kSysId[] = "AB12345678";

class ScoreboardTest : public testing::Test {
 protected:
  ScoreboardTest() {
    add("log.gz", all_kinds().at(4), "");
    add("relay.gz", all_kinds().at(0), "");
    add("other.gz", all_kinds().at(4), "sent before");
    board = std::make_unique<Scoreboard>(files, kSysId);
  }

  void add(const std::string& name, const Kind& kind, const std::string& why_not) {
    files.push_back({kind, directory / name, "bytes of " + name, 0644, why_not});
    write_file(files.back().path, files.back().bytes);
  }

  /// What the server would report of a sound upload of that file.
  UploadReport report(std::size_t file) const {
    UploadReport result;
    result.status = 200;
    result.outcome = "answered";
    result.upload.complete = true;
    result.upload.file = files[file].bytes;
    result.upload.kind = files[file].kind.relayed ? UploadKind::kRaw : UploadKind::kMultipart;
    if (!files[file].kind.relayed) {
      result.upload.fields = {{"SenderId", kSysId}, {"LogType", files[file].kind.name}};
      result.upload.file_name = std::filesystem::path(files[file].path).filename();
    }
    return result;
  }

  void send(std::size_t file) {
    board->note(report(file));
    chmod(files[file].path.c_str(), 0400);
    board->look_inside();
  }

  FileState state(std::size_t file) const { return board->files().at(file); }

  const test_support::TempDir directory;
  std::vector<SeededFile> files;
  std::unique_ptr<Scoreboard> board;
};

TEST_F(ScoreboardTest, AFileIsSentWhenItArrivedAndIsMarked) {
  EXPECT_EQ(board->to_be_sent(), 2U);
  EXPECT_EQ(board->note(report(0)), files[0].path);
  board->look();
  EXPECT_FALSE(state(0).sent()) << "not marked yet";
  send(1);
  EXPECT_TRUE(state(1).sent());
  EXPECT_EQ(board->sent(), 1U);
}

TEST_F(ScoreboardTest, AMarkAloneIsNotEnough) {
  chmod(files[0].path.c_str(), 0400);
  board->look();
  EXPECT_FALSE(state(0).right());
}

TEST_F(ScoreboardTest, AnAnswerOtherThan200DoesNotCount) {
  UploadReport refused = report(0);
  refused.status = 500;
  board->note(refused);
  chmod(files[0].path.c_str(), 0400);
  board->look();
  EXPECT_FALSE(state(0).right());
}

TEST_F(ScoreboardTest, AnUploadThatIsWrongSpoilsTheFile) {
  const auto spoilt = [this](std::size_t file, const std::function<void(Upload&)>& change) {
    board = std::make_unique<Scoreboard>(files, kSysId);
    UploadReport wrong = report(file);
    change(wrong.upload);
    board->note(wrong);
    chmod(files[file].path.c_str(), 0400);
    board->look();
    return state(file).problem;
  };
  EXPECT_EQ(spoilt(0, [](Upload& upload) { upload.kind = UploadKind::kRaw; }),
            "did not arrive as a form; ");
  EXPECT_EQ(spoilt(0, [](Upload& upload) { upload.fields[0].second = "someone"; }),
            "wrong SenderId; ");
  EXPECT_EQ(spoilt(0, [](Upload& upload) { upload.fields[1].second = "UI"; }), "wrong LogType; ");
  EXPECT_EQ(spoilt(0, [](Upload& upload) { upload.file_name = "x.gz"; }), "wrong file name; ");
  EXPECT_EQ(spoilt(1, [](Upload& upload) { upload.kind = UploadKind::kMultipart; }),
            "did not arrive raw; ");
  EXPECT_FALSE(state(1).right());
}

TEST_F(ScoreboardTest, UnknownBytesAreCounted) {
  UploadReport unknown = report(0);
  unknown.upload.file += "!";
  EXPECT_EQ(board->note(unknown), "");
  EXPECT_EQ(board->unknown_uploads(), 1U);
}

TEST_F(ScoreboardTest, AFileThatIsToStayMustStayAsItWas) {
  EXPECT_TRUE(state(2).right());
  chmod(files[2].path.c_str(), 0400);
  board->look();
  EXPECT_FALSE(state(2).right()) << "its mode";
  chmod(files[2].path.c_str(), 0644);
  write_file(files[2].path, "BYTES of other.gz");
  board->look_inside();
  EXPECT_FALSE(state(2).right()) << "its content";
  write_file(files[2].path, files[2].bytes);
  board->look_inside();
  EXPECT_TRUE(state(2).right());
  board->note(report(2));
  EXPECT_FALSE(state(2).right()) << "it arrived";
}

TEST_F(ScoreboardTest, AFileThatIsGoneIsNotSent) {
  send(0);
  std::filesystem::remove(files[0].path);
  board->look_inside();
  EXPECT_FALSE(state(0).right());
}

TEST_F(ScoreboardTest, KindsAreCountedWithTheirLastAnswer) {
  send(0);
  const std::vector<KindState> kinds = board->kinds();
  const auto debug = std::find_if(kinds.begin(), kinds.end(),
                                  [](const KindState& kind) { return kind.name == "Debug"; });
  EXPECT_EQ(debug->sent, 1U);
  EXPECT_EQ(debug->waiting, 0U) << "what is to stay does not wait";
  EXPECT_EQ(debug->last_answer, "200, answered");
}

class SummaryTest : public ScoreboardTest {
 protected:
  bool summary(unsigned failed_starts = 0) {
    testing::internal::CaptureStdout();
    const bool good = Display(false).summary(*board, 1, failed_starts);
    text = testing::internal::GetCapturedStdout();
    return good;
  }
  std::string text;
};

TEST_F(SummaryTest, IsGoodWhenEveryFileStandsAsItShould) {
  send(0);
  EXPECT_FALSE(summary());
  EXPECT_THAT(text, AllOf(HasSubstr("0644  DID NOT ARRIVE"),
                          HasSubstr("NOT everything is as it should be")));
  send(1);
  EXPECT_TRUE(summary());
  EXPECT_THAT(text, HasSubstr("Seeded 3 files, 2 of them to be sent. Uploaded 2, marked 2, "
                              "duplicates 0, uploads of unknown bytes 0."));
}

TEST_F(SummaryTest, CountsDuplicates) {
  send(0);
  send(0);
  send(1);
  EXPECT_TRUE(summary());
  EXPECT_THAT(text, AllOf(HasSubstr("arrived 2 times, 0400"), HasSubstr("duplicates 1")));
}

TEST_F(SummaryTest, AFailedServiceIsNotGood) {
  send(0);
  send(1);
  EXPECT_FALSE(summary(1));
  EXPECT_THAT(text, HasSubstr("AND FAILED"));
}

TEST_F(SummaryTest, UnknownBytesAreNotGood) {
  send(0);
  send(1);
  board->note(UploadReport());
  EXPECT_FALSE(summary());
}

TEST_F(SummaryTest, TheTableHasEveryKind) {
  const std::vector<std::string> lines = table(*board);
  EXPECT_EQ(lines.size(), all_kinds().size() + 2);
  EXPECT_THAT(lines.back(), AllOf(HasSubstr("Test"), HasSubstr("cannot exist")));
}

TEST(ProgressBar, FillsUp) {
  EXPECT_EQ(progress_bar(0, 4, 4), "[....]");
  EXPECT_EQ(progress_bar(1, 4, 4), "[#...]");
  EXPECT_EQ(progress_bar(4, 4, 4), "[####]");
  EXPECT_EQ(progress_bar(0, 0, 4), "[####]");
}

TEST(Kinds, AllHaveADirectoryAndTwoAreRelayed) {
  EXPECT_EQ(all_kinds().size(), 14U);
  std::vector<std::string> relayed;
  for (const Kind& kind : all_kinds()) {
    if (kind.relayed) relayed.push_back(kind.name);
  }
  EXPECT_THAT(relayed, ElementsAre("perf", "ireport"));
}

class ServiceManagerTest : public testing::Test {
 protected:
  ServiceManager manager(const std::string& script) {
    ChildSettings settings;
    settings.command = {"sh", "-c", script};
    return ServiceManager(settings, [this](const std::string& line) { lines.push_back(line); });
  }
  static void let_it_run(ServiceManager& manager, const std::function<bool()>& enough) {
    while (!enough()) {
      manager.step();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  std::vector<std::string> lines;
};

TEST_F(ServiceManagerTest, StartsAgainWhateverTheServiceEndedWith) {
  ServiceManager manager = this->manager("exit 3");
  let_it_run(manager, [&] { return manager.failures() == 2; });
  EXPECT_EQ(manager.starts(), 2U);
  EXPECT_THAT(lines, ElementsAre("service started, pass 1", "service ended with status 3",
                                 "service started, pass 2", "service ended with status 3"));
}

TEST_F(ServiceManagerTest, AsksTheServiceToEnd) {
  ServiceManager manager = this->manager("trap 'exit 0' TERM; echo ready; while :; do :; done");
  let_it_run(manager, [&] { return manager.starts() == 1; });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // until the trap is set
  manager.stop();
  while (!manager.step_to_end())
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(lines.size(), 2U);
}

}  // namespace
}  // namespace lab
