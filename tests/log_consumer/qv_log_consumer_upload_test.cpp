// One file, read, framed and sent. The connections are doubles: they take the bytes and answer as
// the test says. Files, directories and the activity log are real.
#include "log_consumer/qv_log_consumer_upload.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <ios>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <utility>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "log_consumer/qv_log_consumer_mg.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"
#include "tests/support/fake_time.h"
#include "tests/support/journal.h"
#include "tests/support/scarce_memory.h"

namespace {

using Shared = logConsumerSharedStruct;
using test_support::FakeTime;
using test_support::Journal;
using test_support::journal;
using test_support::NoLargeMemory;
using test_support::note;
using testing::IsEmpty;
using testing::SizeIs;

// What a connection was handed.
struct Handed {
  servers server;
  std::string bytes;   ///< those to be sent
  std::string behind;  ///< what else the vector holds
};

struct Servers {
  std::vector<Handed> handed;
  std::function<bool()> answer;            // called for each send; success when empty
  std::function<void()> meanwhileConnect;  // called in each connect
};
Servers fakes;

bool sharedRecordIsUnlocked() {
  const std::unique_lock<std::mutex> lock(logConsumerShared.logsMutex, std::try_to_lock);
  return lock.owns_lock();
}

bool openThrows = false;

// Called once, before the next bytes are read.
std::function<void()> beforeRead;

// Called each time that the time is asked for.
std::function<void()> atTime;

}  // namespace

// The doubles. All of the unit's functions that others call are here, so the real ones stay out.
bool LogConsumerMongooseClass::send_file(std::vector<char> data, int length) {
  EXPECT_TRUE(sharedRecordIsUnlocked());
  const auto split = data.begin() + length;
  fakes.handed.push_back({info.serverType, {data.begin(), split}, {split, data.end()}});
  note(info.serverType == kRelaySrv ? "send relay" : "send data upload");
  return !fakes.answer || fakes.answer();
}

void LogConsumerMongooseClass::connect_proxy_client(std::string host, int portNumber) {
  EXPECT_TRUE(sharedRecordIsUnlocked());
  note(std::string(info.serverType == kRelaySrv ? "connect relay " : "connect data upload ") +
       host + ":" + std::to_string(portNumber));
  if (fakes.meanwhileConnect) fakes.meanwhileConnect();
}

void init_lc_mg_client(std::shared_ptr<LogConsumerMongooseClass>& /*server*/) {}
void exec_lc_mg_client(std::shared_ptr<LogConsumerMongooseClass>& /*server*/) {}
void terminate_lc_mg_client(std::shared_ptr<LogConsumerMongooseClass>& /*server*/) {}

// What a file stream opens files with.
extern "C" FILE* fopen64(const char* path, const char* mode) {
  if (openThrows) throw std::runtime_error("injected");
  static const auto real =
      reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen64"));
  return real(path, mode);
}

// What a file stream reads files with.
extern "C" ssize_t read(int descriptor, void* bytes, size_t size) {
  if (beforeRead) std::exchange(beforeRead, nullptr)();
  static const auto real =
      reinterpret_cast<ssize_t (*)(int, void*, size_t)>(dlsym(RTLD_NEXT, "read"));
  return real(descriptor, bytes, size);
}

// The linker turns calls of time() into calls of this.
extern "C" {
time_t __real_time(time_t* now);
time_t __wrap_time(time_t* now);
time_t __wrap_time(time_t* now) {
  if (atTime) atTime();
  return __real_time(now);
}
}

namespace {

std::string contentsOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << path;
  std::ostringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

std::string golden(const std::string& name) {
  return std::string(GOLDEN_DIR) + "/" + name;
}

void writeFile(const std::string& path, const std::string& contents) {
  std::ofstream(path, std::ios::binary) << contents;
}

// Under which a file is open here.
std::optional<int> descriptorOf(const std::string& path) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code none;
    if (std::filesystem::read_symlink(entry.path(), none) == path) {
      return std::stoi(entry.path().filename());
    }
  }
  return std::nullopt;
}

std::string textOf(const std::vector<char>& bytes) {
  return {bytes.begin(), bytes.end()};
}

class Upload : public testing::Test {
 protected:
  void SetUp() override {
    test_support::clear_journal();
    fakes = {};
    storeSharedDefaults();
    shared_set(&Shared::sysId, "AB12345678");
    shared_set(&Shared::dataUploadServerAddr, "upload.example.com");
    shared_set(&Shared::dataUploadServerPort, 8080);
    shared_set(&Shared::relayServerAddr, "relay.example.com");
    shared_set(&Shared::relayServerPort, 9090);
    shared_set(&Shared::dataUploadConnectDone, true);
    shared_set(&Shared::relayServerConnectDone, true);
    engine.dataUploadProxy = std::make_shared<LogConsumerMongooseClass>();
    engine.relayServerProxy = std::make_shared<LogConsumerMongooseClass>();
    engine.relayServerProxy->info.serverType = kRelaySrv;
  }

  // The activity log makes its own folder only.
  const bool folders = std::filesystem::create_directories("/tarv/data/logs");
  FakeTime time_double{1'770'109'500};  // 2026-02-03 09:05:00 UTC
  LogConsumer engine;
};

// --- the request's bytes ---

class GoldenRequest : public Upload, public testing::WithParamInterface<const char*> {};

TEST_P(GoldenRequest, IsWhatTheDataUploadServerGets) {
  const std::string name = std::string(GetParam()) + ".gz";
  EXPECT_EQ(engine.sendFile(golden(name), "measmin", kDataUploadSrv, name), 0);
  ASSERT_THAT(fakes.handed, SizeIs(1));
  EXPECT_EQ(fakes.handed[0].server, kDataUploadSrv);
  EXPECT_TRUE(fakes.handed[0].bytes == contentsOf(golden(std::string(GetParam()) + ".request")));
  EXPECT_EQ(fakes.handed[0].behind, "");
}

TEST_P(GoldenRequest, IsTheBareFileForTheRelayServer) {
  const std::string name = std::string(GetParam()) + ".gz";
  EXPECT_EQ(engine.sendFile(golden(name), "perf", kRelaySrv, name), 0);
  ASSERT_THAT(fakes.handed, SizeIs(1));
  EXPECT_EQ(fakes.handed[0].server, kRelaySrv);
  EXPECT_TRUE(fakes.handed[0].bytes == contentsOf(golden(name)));
  EXPECT_EQ(fakes.handed[0].behind, kClosingDelimiter) << "held, but not sent";
}

INSTANTIATE_TEST_SUITE_P(Sizes, GoldenRequest, testing::Values("empty", "small", "odd", "large"));

TEST(Framing, BodyHas408BytesOfItsOwn) {
  EXPECT_EQ(uploadBody({"", "", "", ""}).size(), 408U);
  EXPECT_EQ(uploadBody({"1", "22", "333", "4444"}).size(), 408U + 10U);
}

TEST(Framing, HeaderHasFiveLinesAndABlankOne) {
  EXPECT_EQ(uploadHeader("10.0.0.5", 4'000'000'000U),
            "POST /v1/Upload HTTP/1.1\r\n"
            "Host: 10.0.0.5\r\n"
            "Content-Length: 4000000000\r\n"
            "Accept: */*\r\n"
            "Content-Type: multipart/form-data;boundary=acebdf13572468\r\n\r\n");
}

TEST(Framing, ContentLengthOfAHundredByteFileIs548) {
  const RequestHead head = frameUpload({"abc", "d", "1770109500", "e.gz"}, "host", 100);
  EXPECT_NE(head.header.find("\r\nContent-Length: 548\r\n"), std::string::npos) << head.header;
  EXPECT_EQ(requestSize(head.size(), 100), head.header.size() + 548);
}

TEST(Framing, ContentLengthOfAnEmptyFileIs430AndTheTexts) {
  const RequestHead head = frameUpload({"abc", "d", "1770109500", "e.gz"}, "host", 0);
  EXPECT_NE(head.header.find("\r\nContent-Length: 448\r\n"), std::string::npos) << head.header;
}

TEST(Framing, RequestIsHeaderBodyRoomForTheFileAndDelimiter) {
  std::vector<char> request = layOutRequest(8, 3);
  EXPECT_EQ(textOf(request), std::string(11, '\0') + kClosingDelimiter);
  putHead({"head", "body"}, request);
  EXPECT_EQ(textOf(request), "headbody" + std::string(3, '\0') + kClosingDelimiter);
}

TEST(Framing, RequestOfAShorterFileHasItsFirstBytes) {
  const std::string longer = "headbodyf\0ile";
  const std::vector<char> request(longer.begin(), longer.end());
  EXPECT_EQ(textOf(refitRequest(request, 8, 2, 1)), std::string(2, '\0') + "f" + kClosingDelimiter);
}

TEST_F(Upload, FileTypeIsAlwaysGz) {
  writeFile("/tmp/report.txt", "x");
  EXPECT_EQ(engine.sendFile("/tmp/report.txt", "Debug", kDataUploadSrv, "report.txt"), 0);
  ASSERT_THAT(fakes.handed, SizeIs(1));
  EXPECT_NE(fakes.handed[0].bytes.find("name=\"FileType\"\r\n\r\n.gz\r\n--"), std::string::npos);
}

TEST_F(Upload, NameOfAnyBytesGoesOutAsItIs) {
  const std::string name = "a \"b\";$(c)\xff.gz";
  writeFile("/tmp/" + name, "x");
  EXPECT_EQ(engine.sendFile("/tmp/" + name, "Debug", kDataUploadSrv, name), 0);
  ASSERT_THAT(fakes.handed, SizeIs(1));
  EXPECT_NE(fakes.handed[0].bytes.find("filename=\"" + name + "\"\r\n"), std::string::npos);
}

// --- success, retry, reconnect ---

TEST_F(Upload, AcceptedFileIsLoggedAndLeavesNoTraceInSyslog) {
  engine.logger.enableLog();
  test_support::clear_journal();
  EXPECT_EQ(engine.sendFile(golden("small.gz"), "measmin", kDataUploadSrv, "small.gz"), 0);
  EXPECT_EQ(journal(), (Journal{"syslog 7 Logging header", "syslog 7 Logging filesize",
                                "send data upload", "syslog 7 Logging response"}));
  const std::string request = contentsOf(golden("small.request"));
  const std::string header = request.substr(0, request.find("\r\n\r\n") + 4);
  EXPECT_EQ(contentsOf("/tarv/data/logs/logconsumer/logconsumer.log"),
            "Log Consumer log file time 2026_2_3_9_5" + header +
                "\nLogged filesize: 100\nLogged response: Send passed\n");
}

TEST_F(Upload, RelayedFileIsLoggedWithAnEmptyHeader) {
  engine.logger.enableLog();
  EXPECT_EQ(engine.sendFile(golden("small.gz"), "perf", kRelaySrv, "small.gz"), 0);
  EXPECT_EQ(contentsOf("/tarv/data/logs/logconsumer/logconsumer.log"),
            "Log Consumer log file time 2026_2_3_9_5\n"
            "Logged filesize: 100\nLogged response: Send passed\n");
}

TEST_F(Upload, FailedSendIsTriedOnceMoreWithTheSameBytes) {
  fakes.answer = [&] {
    time_double.advance(200);
    return fakes.handed.size() == 2;
  };
  EXPECT_EQ(engine.sendFile(golden("odd.gz"), "measmin", kDataUploadSrv, "odd.gz"), 0);
  ASSERT_THAT(fakes.handed, SizeIs(2));
  EXPECT_TRUE(fakes.handed[1].bytes == fakes.handed[0].bytes) << "CreateTime keeps its value";
  EXPECT_TRUE(fakes.handed[1].bytes == contentsOf(golden("odd.request")));
  EXPECT_EQ(journal(), (Journal{"send data upload", "syslog 6 Send error", "send data upload"}));
}

TEST_F(Upload, TwoFailuresEndTheSend) {
  engine.logger.enableLog();
  test_support::clear_journal();
  fakes.answer = [] { return false; };
  EXPECT_EQ(engine.sendFile(golden("empty.gz"), "perf", kRelaySrv, "empty.gz"), 1);
  EXPECT_EQ(journal(),
            (Journal{"syslog 7 Logging header", "syslog 7 Logging filesize",            //
                     "send relay", "syslog 6 Send error", "syslog 7 Logging response",  //
                     "send relay", "syslog 6 Send error", "syslog 7 Logging response"}));
  EXPECT_EQ(contentsOf("/tarv/data/logs/logconsumer/logconsumer.log"),
            "Log Consumer log file time 2026_2_3_9_5\nLogged filesize: 0\n"
            "Logged response: Send error\nLogged response: Send error\n");
}

TEST_F(Upload, EstablishedConnectionIsNotReconnected) {
  fakes.answer = [] { return false; };
  shared_set(&Shared::relayServerConnectDone, false);
  EXPECT_EQ(engine.sendFile(golden("empty.gz"), "Debug", kDataUploadSrv, "empty.gz"), 1);
  EXPECT_THAT(journal("connect"), IsEmpty()) << "the other server's flag does not count";
}

TEST_F(Upload, LostConnectionIsReconnectedAfterEachFailure) {
  shared_set(&Shared::dataUploadConnectDone, false);
  fakes.answer = [] { return false; };
  EXPECT_EQ(engine.sendFile(golden("empty.gz"), "Debug", kDataUploadSrv, "empty.gz"), 1);
  EXPECT_EQ(journal(), (Journal{"send data upload", "syslog 6 Send error",
                                "connect data upload upload.example.com:8080",  //
                                "send data upload", "syslog 6 Send error",
                                "connect data upload upload.example.com:8080"}));
}

TEST_F(Upload, RelayIsReconnectedWithItsOwnAddress) {
  shared_set(&Shared::relayServerConnectDone, false);
  fakes.answer = [] { return fakes.handed.size() == 2; };
  fakes.meanwhileConnect = [] { shared_set(&Shared::relayServerConnectDone, true); };
  EXPECT_EQ(engine.sendFile(golden("empty.gz"), "perf", kRelaySrv, "empty.gz"), 0);
  EXPECT_EQ(journal(), (Journal{"send relay", "syslog 6 Send error",
                                "connect relay relay.example.com:9090", "send relay"}));
}

TEST_F(Upload, FlagIsReadAgainAfterTheSecondFailure) {
  shared_set(&Shared::dataUploadConnectDone, false);
  fakes.answer = [] { return false; };
  fakes.meanwhileConnect = [] { shared_set(&Shared::dataUploadConnectDone, true); };
  EXPECT_EQ(engine.sendFile(golden("empty.gz"), "Debug", kDataUploadSrv, "empty.gz"), 1);
  EXPECT_THAT(journal("connect"), SizeIs(1));
}

TEST_F(Upload, UnknownServerGetsNothing) {
  engine.logger.enableLog();
  test_support::clear_journal();
  shared_set(&Shared::dataUploadConnectDone, false);
  shared_set(&Shared::relayServerConnectDone, false);
  EXPECT_EQ(engine.sendFile(golden("small.gz"), "Debug", static_cast<servers>(2), "small.gz"), 1);
  EXPECT_THAT(fakes.handed, IsEmpty());
  EXPECT_EQ(journal(), (Journal{"syslog 7 Logging header", "syslog 7 Logging filesize",
                                "syslog 6 Send error", "syslog 7 Logging response",
                                "syslog 6 Send error", "syslog 7 Logging response"}));
}

TEST_F(Upload, EngineWithoutConnectionsFailsTheSend) {
  engine.dataUploadProxy.reset();
  shared_set(&Shared::dataUploadConnectDone, false);
  EXPECT_EQ(engine.sendFile(golden("small.gz"), "Debug", kDataUploadSrv, "small.gz"), 1);
  EXPECT_EQ(journal(), (Journal{"syslog 6 Send error", "syslog 6 Send error"}));
}

TEST_F(Upload, FileOnDiskIsNotTouched) {
  writeFile("/tmp/kept.gz", "kept");
  ASSERT_EQ(chmod("/tmp/kept.gz", 0644), 0);
  EXPECT_EQ(engine.sendFile("/tmp/kept.gz", "Debug", kDataUploadSrv, "kept.gz"), 0);
  struct stat status = {};
  ASSERT_EQ(stat("/tmp/kept.gz", &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0644U);
  EXPECT_EQ(contentsOf("/tmp/kept.gz"), "kept");
}

// --- files that cannot be sent: nothing is sent, and nothing is logged ---

class Unsendable : public Upload {
 protected:
  void expectNothingSent(const std::string& path) {
    engine.logger.enableLog();
    test_support::clear_journal();
    EXPECT_EQ(engine.sendFile(path, "Debug", kDataUploadSrv, "x.gz"), 1);
    EXPECT_EQ(engine.sendFile(path, "perf", kRelaySrv, "x.gz"), 1);
    EXPECT_THAT(fakes.handed, IsEmpty());
    EXPECT_THAT(journal(), IsEmpty());
    EXPECT_EQ(contentsOf("/tarv/data/logs/logconsumer/logconsumer.log"),
              "Log Consumer log file time 2026_2_3_9_5");
  }
};

TEST_F(Unsendable, PathThatCannotBeOpened) {
  expectNothingSent("/tmp/vanished.gz");
}

// File systems give directories no size, none that could be, or that of an empty file.
TEST_F(Unsendable, Directory) {
  ASSERT_EQ(mkdir("/tmp/dir.gz", 0755), 0);
  for (const char* const path : {"/usr", "/proc", "/tmp/dir.gz"})
    expectNothingSent(path);
}

TEST_F(Unsendable, UnreadableFile) {
  constexpr uid_t kNobody = 65534;
  writeFile("/tmp/secret.gz", "x");
  ASSERT_EQ(chmod("/tmp/secret.gz", 0), 0);
  if (geteuid() == 0 && seteuid(kNobody) != 0) GTEST_SKIP() << "root, and nobody else here";
  EXPECT_EQ(engine.sendFile("/tmp/secret.gz", "Debug", kDataUploadSrv, "x.gz"), 1);
  EXPECT_THAT(fakes.handed, IsEmpty());
  EXPECT_EQ(seteuid(getuid()), 0);
}

TEST_F(Unsendable, FileOfTwoGibibytesOrMore) {
  for (const off_t size : {off_t{1} << 31, (off_t{1} << 32) + 5}) {
    writeFile("/tmp/huge.gz", "");
    ASSERT_EQ(truncate("/tmp/huge.gz", size), 0);
    expectNothingSent("/tmp/huge.gz");
  }
}

// A file of 1000 bytes and one of 7 have contents' lengths of different widths in the header.
TEST_F(Upload, FileCutSinceItWasOpenedIsFramedByWhatIsLeft) {
  engine.logger.enableLog();
  for (const servers server : {kDataUploadSrv, kRelaySrv}) {
    writeFile("/tmp/cut.gz", "1234567" + std::string(993, 'x'));
    beforeRead = [] { EXPECT_EQ(truncate("/tmp/cut.gz", 7), 0); };
    EXPECT_EQ(engine.sendFile("/tmp/cut.gz", "Debug", server, "cut.gz"), 0);
    EXPECT_FALSE(beforeRead);
  }
  writeFile("/tmp/cut.gz", "1234567");
  EXPECT_EQ(engine.sendFile("/tmp/cut.gz", "Debug", kDataUploadSrv, "cut.gz"), 0);
  ASSERT_THAT(fakes.handed, SizeIs(3));
  EXPECT_EQ(fakes.handed[0].bytes, fakes.handed[2].bytes);
  EXPECT_EQ(fakes.handed[0].behind, "");
  EXPECT_EQ(fakes.handed[1].bytes, "1234567");
  EXPECT_EQ(fakes.handed[1].behind, kClosingDelimiter);
  EXPECT_THAT(contentsOf("/tarv/data/logs/logconsumer/logconsumer.log"),
              testing::HasSubstr("\nLogged filesize: 7\nLogged response: Send passed\n"));
}

TEST_F(Upload, TimeIsTakenWhenTheFileHasBeenReadAndClosed) {
  const std::string path = "/tmp/timed.gz";
  writeFile(path, "0123456789");
  std::vector<bool> open;
  atTime = [&] { open.push_back(descriptorOf(path).has_value()); };
  EXPECT_EQ(engine.sendFile(path, "Debug", kDataUploadSrv, "timed.gz"), 0);
  atTime = nullptr;
  EXPECT_EQ(open, std::vector<bool>{false});
}

// The head was laid out for the old one.
TEST_F(Upload, SystemIdThatChangesWhileTheFileIsReadIsSent) {
  writeFile("/tmp/renamed.gz", "0123456789");
  beforeRead = [] { shared_set(&Shared::sysId, "a longer one than before"); };
  EXPECT_EQ(engine.sendFile("/tmp/renamed.gz", "Debug", kDataUploadSrv, "renamed.gz"), 0);
  ASSERT_THAT(fakes.handed, SizeIs(1));
  const RequestHead head = frameUpload(
      {"a longer one than before", "Debug", std::to_string(time(nullptr)), "renamed.gz"},
      "upload.example.com", 10);
  EXPECT_EQ(fakes.handed[0].bytes, head.header + head.body + "0123456789" + kClosingDelimiter);
}

TEST_F(Upload, FileThatDoesNotFitIntoMemoryIsNotSent) {
  constexpr std::size_t kMebibyte = 1U << 20U;
  writeFile("/tmp/big.gz", std::string(3 * kMebibyte, 'x'));
  const NoLargeMemory scarce(2 * kMebibyte);
  EXPECT_EQ(engine.sendFile("/tmp/big.gz", "Debug", kDataUploadSrv, "x.gz"), 1);
  EXPECT_THAT(fakes.handed, IsEmpty());
  EXPECT_EQ(journal(), Journal{"syslog 6 Not enough memory to send /tmp/big.gz"});
}

TEST_F(Upload, RequestThatDoesNotFitIntoMemoryIsNotSent) {
  constexpr std::size_t kMebibyte = 1U << 20U;
  writeFile("/tmp/big.gz", std::string(3 * kMebibyte, 'x'));
  const NoLargeMemory scarce(3 * kMebibyte + 100);  // the file fits, the request does not
  EXPECT_EQ(engine.sendFile("/tmp/big.gz", "Debug", kDataUploadSrv, "x.gz"), 1);
  EXPECT_THAT(fakes.handed, IsEmpty());
}

// --- reading, with a stream that fails or changes on the way ---

// Stands before a file's buffer and calls the test back: when the size is taken (1), at the seek to
// the start (2), before the read (3) and after it (4).
class Trouble : public std::streambuf {
 public:
  explicit Trouble(std::streambuf& buffer) : buffer_(buffer) {}
  std::function<void(int step)> at = [](int /*step*/) {};

 protected:
  pos_type seekoff(off_type offset, std::ios::seekdir from, std::ios::openmode which) override {
    at(from == std::ios::cur ? 1 : 2);
    return buffer_.pubseekoff(offset, from, which);
  }
  std::streamsize xsgetn(char* to, std::streamsize size) override {
    at(3);
    const std::streamsize got = buffer_.sgetn(to, size);
    at(4);
    return got;
  }

 private:
  std::streambuf& buffer_;
};

class Reading : public testing::Test {
 protected:
  void SetUp() override {
    test_support::clear_journal();
    writeFile(path, "0123456789");
    static_cast<std::ios&>(file).rdbuf(&trouble);
  }

  bool read() {
    std::size_t size = 0;
    if (!openLogFile(file, path, size)) return false;
    contents.resize(size);
    const auto got = readLogFile(file, contents.data(), size);
    contents.resize(got.value_or(0));
    return got.has_value();
  }

  void failAt(int failing) {
    trouble.at = [failing](int step) {
      if (step == failing) throw std::ios_base::failure("injected");
    };
  }

  void doAtRead(std::function<void()> action) {
    trouble.at = [action = std::move(action)](int step) {
      if (step == 3) action();
    };
  }

  const std::string path = "/tmp/reading.gz";
  std::ifstream file;
  Trouble trouble{*file.rdbuf()};
  std::vector<char> contents;
};

TEST_F(Reading, GivesTheWholeFileAndClosesIt) {
  EXPECT_TRUE(read());
  EXPECT_EQ(textOf(contents), "0123456789");
  EXPECT_FALSE(file.is_open());
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(Reading, FileThatGrowsIsSentUpToItsSizeWhenOpened) {
  doAtRead([&] { writeFile(path, "0123456789abc"); });
  EXPECT_TRUE(read());
  EXPECT_EQ(textOf(contents), "0123456789");
}

TEST_F(Reading, FileThatShrinksIsSentAsFarAsItGoes) {
  doAtRead([&] { EXPECT_EQ(truncate(path.c_str(), 4), 0); });
  EXPECT_TRUE(read());
  EXPECT_EQ(textOf(contents), "0123");
}

TEST_F(Reading, FileThatIsReplacedIsSentAsItWasOpened) {
  doAtRead([&] {
    writeFile("/tmp/new.gz", "new contents");
    std::filesystem::rename("/tmp/new.gz", path);
  });
  EXPECT_TRUE(read());
  EXPECT_EQ(textOf(contents), "0123456789");
}

TEST_F(Reading, ReadErrorIsNoEmptyFile) {
  failAt(3);
  EXPECT_FALSE(read());
  EXPECT_FALSE(file.is_open());
}

TEST_F(Reading, OpenThatThrowsAStreamFailureIsLogged) {
  std::filesystem::remove(path);
  file.exceptions(std::ios::failbit);
  EXPECT_FALSE(read());
  EXPECT_EQ(journal(), Journal{"syslog 6 Could not open file"});
}

TEST_F(Reading, OpenThatThrowsAnotherErrorIsLogged) {
  openThrows = true;
  EXPECT_FALSE(read());
  openThrows = false;
  EXPECT_EQ(journal(), Journal{"syslog 6 Open file runtime error"});
}

TEST_F(Reading, SizeThatCannotBeTakenCountsAsZero) {
  failAt(1);
  file.exceptions(std::ios::badbit);
  EXPECT_TRUE(read());
  EXPECT_THAT(contents, IsEmpty());
  EXPECT_EQ(journal().at(0), "syslog 6 Could not read filesize");
}

TEST_F(Reading, SeekThatFailsMakesTheSizeZero) {
  failAt(2);
  file.exceptions(std::ios::badbit);
  EXPECT_TRUE(read());
  EXPECT_THAT(contents, IsEmpty());
  EXPECT_EQ(journal(), Journal{"syslog 6 Seekg exception"});
}

TEST_F(Reading, SizeOrSeekThatFailsSilentlySendsNothing) {
  failAt(1);
  EXPECT_FALSE(read());
  failAt(2);
  EXPECT_FALSE(read());
}

// Closes the descriptor under which a file is open, behind its stream's back.
void closeUnderneath(const std::string& path) {
  const auto descriptor = descriptorOf(path);
  if (descriptor) close(*descriptor);
}

TEST_F(Reading, CloseThatThrowsIsLoggedAndTheFileIsSent) {
  file.exceptions(std::ios::failbit);
  trouble.at = [&](int step) {
    if (step == 4) closeUnderneath(path);
  };
  EXPECT_TRUE(read());
  EXPECT_EQ(textOf(contents), "0123456789");
  EXPECT_EQ(journal(), Journal{"syslog 6 File close exception"});
}

}  // namespace
