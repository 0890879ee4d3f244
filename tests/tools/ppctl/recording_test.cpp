#include "tools/ppctl/recording.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "tests/support/files.h"
#include "tools/ppctl/failure.h"
#include "tools/ppctl/output.h"
#include "tools/ppctl/unique_fd.h"

using ppctl::Json;
using std::chrono::milliseconds;

namespace {

constexpr char kHeader[] = "{\"recording\":1}\n";

std::string wrong(const std::string& text) {
  try {
    ppctl::parse_recording(text, "file");
  } catch (const ppctl::Failure& failure) {
    return (failure.status() == ppctl::Status::kUsage ? "" : "not usage: ") +
           std::string(failure.what());
  }
  return "";
}

bool begins_with(const std::string& text, const std::string& begin) {
  return text.rfind(begin, 0) == 0;
}

}  // namespace

TEST(Recording, BeginsWithWhatItIs) {
  const std::chrono::system_clock::time_point start(milliseconds(1770109500123));
  EXPECT_EQ(ppctl::recording_header(start, {"/rgw", "/system"}),
            "{\"recording\":1,\"started\":\"2026-02-03T09:05:00.123Z\","
            "\"paths\":[\"/rgw\",\"/system\"]}\n");
}

TEST(Recording, AnEntryHasTimeAndMessage) {
  EXPECT_EQ(ppctl::recording_entry(milliseconds(1204), {{"rgw", 1}}),
            "{\"t\":1.204,\"message\":{\"rgw\":1}}\n");
  EXPECT_EQ(ppctl::recording_entry(milliseconds(0), "text"), "{\"t\":0.0,\"message\":\"text\"}\n");
}

TEST(Recording, IsReadAsItWasWritten) {
  std::string text = ppctl::recording_header(std::chrono::system_clock::now(), {"/a"});
  text += ppctl::recording_entry(milliseconds(7), {{"a", 1}});
  text += ppctl::recording_entry(milliseconds(8), "a text of another component");
  text += ppctl::recording_entry(milliseconds(86400001), {{"a", {{"b", "\u00e4"}}}});
  const ppctl::Recording recording = ppctl::parse_recording(text, "file");
  ASSERT_EQ(recording.documents.size(), 2U);
  EXPECT_EQ(recording.documents[0].since, milliseconds(7));
  EXPECT_EQ(recording.documents[0].document, Json({{"a", 1}}));
  EXPECT_EQ(recording.documents[1].since, milliseconds(86400001));
  EXPECT_EQ(recording.documents[1].document, Json({{"a", {{"b", "\u00e4"}}}}));
  EXPECT_EQ(recording.left_out, 1U);
}

TEST(Recording, MayBeCutOffBetweenLinesOrHaveEmptyOnes) {
  EXPECT_EQ(ppctl::parse_recording("{\"recording\":1}", "file").documents.size(), 0U);
  EXPECT_EQ(
      ppctl::parse_recording(std::string(kHeader) + "\n{\"t\":1,\"message\":{\"a\":1}}", "file")
          .documents.size(),
      1U);
}

TEST(Recording, ThatIsNoneIsRefused) {
  EXPECT_EQ(wrong(""), "file: line 1, column 1: this is no recording, it is empty");
  const std::string text =
      "file: line 1, column 1: this is no recording: the first line has no \"recording\": 1";
  EXPECT_EQ(wrong("{\"rgw\":{}}\n"), text);
  EXPECT_EQ(wrong("{\"recording\":2}\n"), text);
  EXPECT_EQ(wrong("[]\n"), text);
}

TEST(Recording, AFaultNamesLineAndColumn) {
  EXPECT_TRUE(
      begins_with(wrong(std::string(kHeader) + "{\"t\":1,\"message\":{\"a\":1}}\n{\"t\":,}"),
                  "file: line 3, column 6: "));
}

TEST(Recording, AnEntryWithoutTimeOrMessageIsRefused) {
  const std::string text = "file: line 2, column 1: an entry has a number \"t\" and a \"message\"";
  EXPECT_EQ(wrong(std::string(kHeader) + "{\"t\":1}"), text);
  EXPECT_EQ(wrong(std::string(kHeader) + "{\"message\":{}}"), text);
  EXPECT_EQ(wrong(std::string(kHeader) + "{\"t\":\"1\",\"message\":{}}"), text);
  EXPECT_EQ(wrong(std::string(kHeader) + "5"), text);
}

TEST(Recording, TimeDoesNotGoBack) {
  const std::string entry = "{\"t\":2,\"message\":{\"a\":1}}\n";
  EXPECT_EQ(wrong(kHeader + entry + entry), "");
  EXPECT_EQ(wrong(kHeader + entry + "{\"t\":1.999,\"message\":{\"a\":1}}"),
            "file: line 3, column 1: its \"t\" goes back or too far");
  EXPECT_EQ(wrong(std::string(kHeader) + "{\"t\":-1,\"message\":{\"a\":1}}"),
            "file: line 2, column 1: its \"t\" goes back or too far");
  EXPECT_EQ(wrong(std::string(kHeader) + "{\"t\":1e300,\"message\":{\"a\":1}}"),
            "file: line 2, column 1: its \"t\" goes back or too far");
}

TEST(Recording, ASignalLeavesNoHalfLineInAFile) {
  const test_support::TempDir folder;
  const std::string path = folder / "session";
  const std::string line(std::size_t{8} << 20U, 'x');
  const ppctl::UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const ppctl::Events events;
  std::thread sender([&path] {
    while (std::filesystem::file_size(path) == 0)
      std::this_thread::yield();
    kill(getpid(), SIGTERM);
  });
  const auto write_and_wait = [&] {
    ppctl::write_all(events, file.get(), line, "the file");
    events.wait(-1, 0, ppctl::TimePoint::max());
  };
  EXPECT_THROW(write_and_wait(), ppctl::Interrupted);
  sender.join();
  EXPECT_EQ(std::filesystem::file_size(path), line.size());
}
