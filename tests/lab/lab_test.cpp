// The whole system on a desk: the real service, its real pauses, real queues and sockets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "lab/support/options.h"
#include "tests/lab/program.h"
#include "tests/lab/requests.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"

namespace {

using Json = nlohmann::ordered_json;
using test_support::Program;
using test_support::TempDir;
using testing::AllOf;
using testing::Contains;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kInstrumented = true;
#else
constexpr bool kInstrumented = false;
#endif

/// One run of the lab, from the command line to the end.
class LabRun {
 public:
  explicit LabRun(std::vector<std::string> options) {
    options.insert(options.end(), {"--record", directory_.path()});
    Program program("lab", options);
    output = program.rest();
    status = program.wait();
    uploads = record("uploads.jsonl");
    syslog = record("syslog.jsonl");
  }

  /// A file of the record, line by line.
  std::vector<Json> record(const std::string& name) const {
    std::vector<Json> lines;
    std::istringstream text(file(name));
    for (std::string line; std::getline(text, line);)
      lines.push_back(Json::parse(line));
    return lines;
  }

  std::string file(const std::string& name) const {
    return test_support::read_file(directory_ / name);
  }

  /// One member of each upload, in the order of arrival.
  std::vector<Json> of_uploads(const std::string& member) const {
    std::vector<Json> values;
    for (const Json& upload : uploads)
      values.push_back(upload.at(member));
    return values;
  }

  /// "PRIORITY TEXT" of everything that the service logged.
  std::vector<std::string> logged() const {
    std::vector<std::string> lines;
    for (const Json& line : syslog) {
      lines.push_back(line.at("priority").dump() + " " + line.at("text").get<std::string>());
    }
    return lines;
  }

  std::string output;
  int status = -1;
  std::vector<Json> uploads;
  std::vector<Json> syslog;

 private:
  const TempDir directory_;
};

/// Cases that need not run in every kind of build, for the sake of the real pauses.
class LabAtLength : public testing::Test {
 protected:
  void SetUp() override {
    if (kInstrumented) GTEST_SKIP() << "one short run is enough in an instrumented build";
  }
};

constexpr char kTLink[] = "/tarv/data/logs/tlink/tlink_bus.gz";

TEST(Lab, SendsToBothServersMarksAndTells) {
  const LabRun run({"--kind", "perf", "--kind", "TLink"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_THAT(run.output,
              AllOf(HasSubstr("Seeded 2 files, 2 of them to be sent. Uploaded 2, marked "
                              "2, duplicates 0, uploads of unknown bytes 0."),
                    HasSubstr("Every byte matched, every file stands as it should."),
                    HasSubstr(R"(\nuv\logs\test\)")));
  EXPECT_THAT(run.of_uploads("kind"), testing::UnorderedElementsAre("raw", "multipart"));
  EXPECT_THAT(run.logged(), Contains(std::string("6 Sending ") + kTLink + " went okay"));

  const std::vector<Json> notified = run.record("notify.jsonl");
  ASSERT_FALSE(notified.empty());
  EXPECT_EQ(notified.front().at("state"), "READY=1");
  const auto is_feeding = [](const Json& line) { return line.at("state") == "WATCHDOG=1"; };
  EXPECT_GE(std::count_if(notified.begin(), notified.end(), is_feeding), 5);

  EXPECT_THAT(run.output, HasSubstr("A picture of the passes is in "));
  EXPECT_THAT(run.file("timeline.html"), HasSubstr("tlink_bus.gz sent"));
}

TEST_F(LabAtLength, RetriesAfterAnAnswerOf500) {
  const LabRun run(
      {"--kind", "TLink", "--server", R"({"do":"reply","status":500,"reason":"Oops"})"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_THAT(run.of_uploads("status"), ElementsAre(500, 200));
  EXPECT_EQ(run.uploads.at(0).at("sha256"), run.uploads.at(1).at("sha256"));
  EXPECT_THAT(run.logged(), AllOf(Contains("6 Got bad code from server: 500 Oops"),
                                  Contains("6 Bad response for send"), Contains("6 Send error"),
                                  Contains("6 Got 200 good resp from server")));
}

TEST_F(LabAtLength, ReconnectsWhenTheServerClosesInsteadOfAnswering) {
  const LabRun run({"--kind", "TLink", "--server", R"({"do":"reply","close":"before_reply"})"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_THAT(run.of_uploads("outcome"), ElementsAre("closed without an answer", "answered"));
  EXPECT_NE(run.uploads.at(0).at("connection"), run.uploads.at(1).at("connection"));
  EXPECT_THAT(run.logged(), Contains("7 Data upload connection closed"));
}

TEST_F(LabAtLength, AClosedServerCostsNothingButTime) {
  const LabRun run({"--kind", "TLink", "--seconds", "12", "--server", R"({"do":"pause"})"});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, ContainsRegex(std::string(kTLink) + " +0644  DID NOT ARRIVE"));
  EXPECT_THAT(run.uploads, IsEmpty());
  EXPECT_THAT(run.logged(), AllOf(Contains("7 data upload connection not done con = 0"),
                                  Contains("7 relay server connection not done con = 0")));
}

TEST_F(LabAtLength, LeavesAloneWhatIsNotToBeSentAndWaitsForWhatIsHeldOpen) {
  const LabRun run({"--kind", "Debug"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_THAT(run.of_uploads("file_name"),
              ElementsAre("debug_20260203_0905.txt.gz", "held_open.gz"));
  EXPECT_THAT(run.logged(),
              Contains("7 Attempt to upload /tarv/data/logs/debug/held_open.gz still in Access\n"));
  for (const char* line : {"sent_before[.]gz +0400  left alone, mode 0400: sent before",
                           "unfinished[.]gz +0600  left alone, mode 0600 is not 0644",
                           "group_writable[.]gz +0664  left alone, mode 0664 is not 0644",
                           "notes[.]txt +0644  left alone, no [.]gz in its name"}) {
    EXPECT_THAT(run.output, ContainsRegex(line));
  }
}

TEST_F(LabAtLength, WithGnuFindTheFinderKindsStandEmptyAndNothingElseSuffers) {
  const LabRun run(
      {"--kind", "perf", "--kind", "measmin", "--kind", "TLink", "--gnu-find", "--seconds", "40"});
  EXPECT_EQ(run.status, 1) << "two of the files cannot be found";
  EXPECT_THAT(run.of_uploads("file_name"), ElementsAre("tlink_bus.gz"));
  EXPECT_THAT(run.output, HasSubstr("service ended with status 0"));
  EXPECT_THAT(run.logged(),
              AllOf(Contains("7 0 not read only files found for filetype 9 at directory "
                             "/tarv/data/logs/reports"),
                    Contains("7 0 not read only files found for filetype 8 at directory "
                             "/tarv/data/logs/measurements"),
                    Contains(std::string("6 Sending ") + kTLink + " went okay")));
}

TEST_F(LabAtLength, AFileNameIsNeverACommand) {
  const TempDir directory;
  const std::string name = "it's; touch >owned $(touch owned) \"quoted\" \xff.gz";
  test_support::write_file(directory / name, test_support::gzip("own log"));
  const test_support::ScopedWorkingDirectory there(directory.path());
  const LabRun run({"--no-examples", "--file", name});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_THAT(run.output, HasSubstr("Uploaded 1, marked 1"));
}

TEST(LabCommandLine, WrongOptionGivesOneLineThatNamesItAndStatus2) {
  for (const char* wrong : {"--wrong", "-w", "word"}) {
    Program program("lab", {wrong});
    EXPECT_THAT(program.line(), AllOf(StartsWith("lab: "), HasSubstr(wrong)));
    EXPECT_EQ(program.rest(), "");
    EXPECT_EQ(program.wait(), lab::kWrongOption);
  }
}

TEST(LabCommandLine, AFileThatIsNotThereIsAWrongCommandLine) {
  for (const std::string option : {"--file", "--service"}) {
    Program program("lab", {option, "/nowhere"});
    EXPECT_EQ(program.rest(),
              "lab: option " + option + ": '/nowhere' is no file; --help lists the options\n");
    EXPECT_EQ(program.wait(), lab::kWrongOption);
  }
}

TEST(LabCommandLine, AFileThatTheServiceNeverTakesIsAWrongCommandLine) {
  const TempDir directory;
  const std::string path = directory / "plain.log";
  test_support::write_file(path, "not compressed");
  Program program("lab", {"--no-examples", "--file", path});
  EXPECT_EQ(program.rest(), "lab: option --file: '" + path +
                                "' has no .gz in its name, the service would never take it; "
                                "--help lists the options\n");
  EXPECT_EQ(program.wait(), lab::kWrongOption);
}

TEST(LabCommandLine, NothingToSendIsAWrongCommandLine) {
  Program program("lab", {"--no-examples"});
  EXPECT_EQ(program.rest(), "lab: option --no-examples without --file leaves nothing to send\n");
  EXPECT_EQ(program.wait(), lab::kWrongOption);
}

TEST(LabCommandLine, AKindThatThereIsNotIsAWrongCommandLine) {
  for (const std::string option : {"--kind", "--file-kind"}) {
    Program program("lab", {option, "No"});
    const std::string line = program.rest();
    EXPECT_THAT(line,
                StartsWith("lab: option " + option + ": 'No' is no kind, there are perf measmin "));
    EXPECT_THAT(line, EndsWith(" logconsumer; --help lists the options\n"));
    EXPECT_EQ(program.wait(), lab::kWrongOption);
  }
}

TEST(LabCommandLine, WhatIsNoCommandToTheServerIsAWrongCommandLine) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"x", "no JSON"},
      {"[]", "no such command"},
      {"{}", "no such command"},
      {R"({"do":"reply","statuss":1})", "no such member: statuss"},
      {R"({"do":"refuse","times":-1})", "member times has an unusable value"}};
  for (const auto& [command, why] : cases) {
    Program program("lab", {"--server", command});
    EXPECT_THAT(program.rest(),
                AllOf(StartsWith("lab: option --server: '" + command + "' cannot be used: "),
                      EndsWith(why + "; --help lists the options\n")));
    EXPECT_EQ(program.wait(), lab::kWrongOption);
  }
}

TEST(LabCommandLine, WhatCannotBeDoneIsOneLineAndStatus1) {
  Program program("lab", {"--record", "/proc/nowhere"});
  EXPECT_THAT(program.rest(),
              AllOf(StartsWith("lab: "), HasSubstr("/proc/nowhere"), EndsWith("]\n")));
  EXPECT_EQ(program.wait(), 1);
}

TEST(LabCommandLine, ASandboxThatDoesNotStartLeavesNoFolderBehind) {
  const TempDir programs;
  test_support::write_file(programs / "bwrap", "#!/bin/sh\necho 'bwrap: no' >&2\nexit 1\n");
  ASSERT_EQ(chmod((programs / "bwrap").c_str(), 0755), 0);
  const TempDir folder;
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{}, {"--record", folder / "record"}}) {
    Program program("lab", options,
                    {"PATH=" + programs.path() + ":/usr/bin:/bin", "TMPDIR=" + folder.path()});
    EXPECT_EQ(program.rest(), "bwrap: no\nlab: the sandbox does not start\n");
    EXPECT_EQ(program.wait(), 1);
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  }
}

}  // namespace
