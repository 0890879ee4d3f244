// Every call of the system on the main paths fails once, with each error that it may have: the
// service neither crashes nor hangs, marks no file that did not arrive and changes none, and its
// next start sends what was left.
//
// The program itself runs, with a preloaded library (system_faults.cpp) that also makes its pauses
// fifty times shorter.
#include <netdb.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/faults/fault_trial.h"
#include "tests/support/files.h"

namespace {

namespace fs = std::filesystem;
using fault_test::Outcome;
using fault_test::World;
using test_support::file_mode;
using test_support::read_file;
using test_support::write_file;

struct Faulty {
  const char* function;
  std::vector<int> errors;
  bool may_abort = false;
  bool quiet_store = false;
};

std::ostream& operator<<(std::ostream& out, const Faulty& faulty) {
  return out << faulty.function;
}

// The functions that a pass calls, and the errors that are realistic.
const std::vector<Faulty> kFaults = {
    {"fopen", {EMFILE, ENOENT, EACCES, ENFILE, ENOMEM, EIO}},
    {"read", {EIO, EINTR, EAGAIN}},
    {"write", {ENOSPC, EIO, EDQUOT, EINTR}},
    {"fgets", {EIO}},
    {"fwrite", {EIO, ENOSPC, EPIPE}},
    {"fflush", {EIO, ENOSPC, EPIPE}},
    {"fclose", {EIO, ENOSPC, EDQUOT}},
    {"close", {EIO, EINTR}},
    {"lseek", {EINVAL, ESPIPE}},
    {"stat", {EACCES, ENOENT, EIO, ENOMEM}},
    {"chmod", {EROFS, EPERM, EIO, ENOENT}},
    {"remove", {EACCES, EROFS, ENOENT}},
    {"opendir", {EMFILE, EACCES, ENFILE, ENOMEM}},
    {"readdir", {EIO, ENOENT}},
    {"closedir", {EINTR, EIO}},
    {"popen", {EMFILE, ENOMEM, EAGAIN}},
    {"pclose", {ECHILD, EINTR}},
    {"system", {EAGAIN, ENOMEM}},
    {"pthread_create", {EAGAIN}, true},
    {"sigaction", {EINVAL}},
    {"setrlimit", {EPERM, EINVAL}},
    {"mq_open", {EMFILE, ENFILE, EACCES, ENOMEM, ENOENT}},
    {"mq_getattr", {EBADF}},
    {"mq_setattr", {EBADF}, false, true},
    {"mq_close", {EBADF}},
    {"mq_receive", {EINTR, EBADF, EMSGSIZE}},
    {"mq_timedsend", {ETIMEDOUT, EINTR, EMSGSIZE}},
    {"mq_send", {ENOMEM, EINTR}, false, true},  // ends a receiver that no message would wake
    {"socket", {EMFILE, ENFILE, ENOBUFS, EACCES}},
    {"connect", {ECONNREFUSED, ETIMEDOUT, ENETUNREACH, EADDRNOTAVAIL, EINTR}},
    {"getaddrinfo", {EAI_AGAIN, EAI_FAIL, EAI_NONAME, EAI_MEMORY, EAI_SYSTEM}},
    {"send", {EPIPE, ECONNRESET, ENOBUFS, EINTR, ETIMEDOUT}},
    {"sendmsg", {ENOBUFS, ECONNREFUSED, EAGAIN}},
    {"recv", {ECONNRESET, ETIMEDOUT, EINTR, ENOMEM}},
    {"getsockopt", {ENOBUFS}},
    {"setsockopt", {ENOBUFS, ENOMEM, EPERM}},
    {"getpeername", {ENOTCONN, ENOBUFS}},
    {"getsockname", {ENOBUFS}},
    {"epoll_create1", {EMFILE, ENFILE, ENOMEM}},
    {"epoll_ctl", {ENOMEM, ENOSPC}},
    {"epoll_wait", {EINTR}},
    {"poll", {EINTR, ENOMEM}},
    {"eventfd", {EMFILE, ENFILE, ENOMEM}},
    {"timerfd_create", {EMFILE, ENFILE, ENOMEM}},
#ifdef FAULTS_WHOLE
    // Hardly fail, and cost time-outs: a timer that nobody watches ends no poll.
    {"timerfd_settime", {EINVAL}},
    {"ioctl", {ENOTTY, ENOMEM}},
#endif
    {"clock_gettime", {EINVAL}},
    {"gmtime", {EOVERFLOW}},
    {"malloc", {ENOMEM}, true},
};

// Which of a pass's calls fail. Briefly: five, from the first to the last. Else the first ones
// each, later ones further apart.
std::vector<long> chosen(long calls) {
  std::vector<long> numbers;
#ifdef FAULTS_WHOLE
  constexpr long kEach = 12;
  for (long number = 1; number <= calls; number += std::max(1L, number / kEach))
    numbers.push_back(number);
#else
  constexpr long kPieces = 4;
  for (long piece = 0; piece <= kPieces; ++piece) {
    const long number = 1 + (calls - 1) * piece / kPieces;
    if (numbers.empty() || number > numbers.back()) numbers.push_back(number);
  }
#endif
  return numbers;
}

class SystemFault : public testing::TestWithParam<Faulty> {
 protected:
  void SetUp() override {
    world_.add("/tarv/data/logs/reports/r.gz");  // found by find, goes to the relay server
    world_.add("/tarv/data/logs/clp/c.gz");      // found by reading the directory
  }

  // A pass that begins while a connection is still being made serves the other server alone, and
  // may not come to the call at all. Then another one is started.
  Outcome run_until(const fault_test::Fault& fault, bool (*enough)(const Outcome&)) {
    const int starts = fault.call > 1 ? 3 : 20;
    Outcome outcome;
    for (int start = 0; start < starts && !HasFailure(); ++start) {
      world_.renew();
      outcome = world_.run(fault);
      if (enough(outcome)) break;
    }
    return outcome;
  }

  World world_;
};

TEST_P(SystemFault, StopsNothingAndMarksNothingWrongly) {
  const Faulty& faulty = GetParam();
  world_.may_abort = faulty.may_abort;
  world_.quiet_store = faulty.quiet_store;
  // Whoever waits for a message waits for so many seconds.
  if (faulty.quiet_store) world_.further_arguments.emplace_back("-d1");
  const long calls = run_until({faulty.function, 0, 0}, [](const Outcome& outcome) {
                       return outcome.sent == 2;
                     }).calls;
  ASSERT_GE(calls, 1) << "a pass calls it";
  int runs = 0, failed = 0, lived_on = 0, aborted = 0, sent = 0;
  for (const int error : faulty.errors) {
    for (const long call : chosen(calls)) {
      SCOPED_TRACE(std::string(faulty.function) + " call " + std::to_string(call) + " error " +
                   std::to_string(error));
      const Outcome outcome = run_until({faulty.function, call, error},
                                        [](const Outcome& pass) { return pass.failed; });
      ASSERT_FALSE(HasFailure());
      EXPECT_TRUE(call > 1 || outcome.failed) << "the first call is reached";
      ++runs;
      failed += outcome.failed ? 1 : 0;
      lived_on += outcome.ended ? 0 : 1;
      aborted += outcome.aborted ? 1 : 0;
      sent += outcome.sent;
    }
#ifndef FAULTS_WHOLE
    break;
#endif
  }
  EXPECT_TRUE(world_.send_all()) << "what was left";
  std::cout << "figure system fault, " << faulty.function << ": " << calls << " calls a pass, "
            << runs << " runs, " << failed << " with the fault, " << sent << " of " << 2 * runs
            << " files sent in that pass, " << lived_on << " without queue, " << aborted
            << " ended by an exception\n";
}

INSTANTIATE_TEST_SUITE_P(EachCall, SystemFault, testing::ValuesIn(kFaults),
                         [](const auto& fault) { return std::string(fault.param.function); });

// The clock's hour changes as the first pass begins: the activity log is archived and begun anew.
// Whatever fails in that, files go out as ever and older archives stay as they are; what becomes of
// the hour's log is counted.
constexpr char kFolder[] = "/tarv/data/logs/logconsumer";
constexpr char kFirstWords[] = "Log Consumer log file time ";

const std::vector<Faulty> kArchiveFaults = {
    {"stat", {EACCES, EIO, ENOMEM}},
    {"fopen", {EMFILE, ENOENT, EACCES, ENFILE, ENOMEM, ENOSPC}},
    {"open", {EMFILE, EACCES, ENFILE, ENOSPC, EROFS}},
    {"fread", {EIO}},
    {"write", {ENOSPC, EIO, EDQUOT, EINTR}},
    {"close", {EIO, ENOSPC, EDQUOT}},
    {"fclose", {EIO, ENOSPC, EDQUOT}},
    {"remove", {EACCES, EROFS, ENOENT}},
    {"glob", {EIO}},
    {"gmtime", {EOVERFLOW}},
    {"malloc", {ENOMEM}, true},
};

bool begins(const std::string& text, const char* with) {
  return text.rfind(with, 0) == 0;
}

// What a gzip file holds, up to where it is cut.
std::string unpacked(const std::string& path) {
  std::string text;
  gzFile_s* const file = gzopen(path.c_str(), "rb");
  if (file == nullptr) return text;
  std::array<char, 4096> piece = {};
  for (int size = 0; (size = gzread(file, piece.data(), piece.size())) > 0;)
    text.append(piece.data(), static_cast<std::size_t>(size));
  return gzclose(file) == Z_OK ? text : "";
}

class ArchiveFault : public SystemFault {
 protected:
  void SetUp() override {
    SystemFault::SetUp();
    world_.hour_changes = true;
  }

  Outcome archive_under(const fault_test::Fault& fault) {
    fs::remove_all(kFolder);
    fs::create_directories(kFolder);
    write_file(kExpired, "expired", 0400);
    fs::last_write_time(kExpired, fs::file_time_type::clock::now() - std::chrono::hours(24 * 8));
    write_file(kKept, "kept", 0400);
    world_.renew();
    const Outcome outcome = world_.run(fault);
    EXPECT_EQ(read_file(kKept), "kept");
    EXPECT_EQ(file_mode(kKept), 0400);
    for (const std::string& archive : archives()) {
      EXPECT_TRUE(file_mode(archive) == 0644 || world_.accepted(read_file(archive))) << archive;
    }
    return outcome;
  }

  // Of the hour's log: none, or one.
  static std::vector<std::string> archives() {
    std::vector<std::string> paths;
    for (const auto& entry : fs::directory_iterator(kFolder)) {
      if (begins(entry.path().filename(), "logconsumer_log__")) paths.push_back(entry.path());
    }
    EXPECT_LE(paths.size(), 1U);
    return paths;
  }

  bool send_archives() {
    world_.hour_changes = false;
    const auto all_sent = [] {
      const std::vector<std::string> paths = archives();
      return std::all_of(paths.begin(), paths.end(),
                         [](const auto& path) { return file_mode(path) == 0400; });
    };
    constexpr int kStarts = 20;
    for (int start = 0; start < kStarts && !all_sent(); ++start)
      world_.run({});
    world_.hour_changes = true;
    for (const std::string& archive : archives())
      EXPECT_TRUE(world_.accepted(read_file(archive))) << archive;
    return all_sent();
  }

  static constexpr char kExpired[] = "/tarv/data/logs/logconsumer/expired.gz";
  static constexpr char kKept[] = "/tarv/data/logs/logconsumer/kept.gz";
  static constexpr char kLog[] = "/tarv/data/logs/logconsumer/logconsumer.log";
};

TEST_P(ArchiveFault, CostsAtMostTheHoursLog) {
  const Faulty& faulty = GetParam();
  world_.may_abort = faulty.may_abort;
  const long calls = archive_under({faulty.function, 0, 0}).calls;
  ASSERT_GE(calls, 1) << "the archiving calls it";
  ASSERT_EQ(archives().size(), 1U);
  EXPECT_TRUE(begins(unpacked(archives()[0]), kFirstWords));
  EXPECT_FALSE(fs::exists(kExpired));
  EXPECT_TRUE(begins(read_file(kLog), kFirstWords));
  int runs = 0, failed = 0, aborted = 0, sent = 0;
  int whole = 0, spoilt = 0, none = 0, expired = 0, no_log = 0;
  for (const int error : faulty.errors) {
    for (const long call : chosen(calls)) {
      SCOPED_TRACE(std::string(faulty.function) + " call " + std::to_string(call) + " error " +
                   std::to_string(error));
      const Outcome outcome = archive_under({faulty.function, call, error});
      EXPECT_TRUE(call > 1 || outcome.failed) << "the first call is reached";
      EXPECT_TRUE(outcome.ended);
      ASSERT_FALSE(HasFailure());
      ++runs;
      failed += outcome.failed ? 1 : 0;
      aborted += outcome.aborted ? 1 : 0;
      sent += outcome.sent;
      const std::vector<std::string> made = archives();
      const bool holds_log = !made.empty() && begins(unpacked(made[0]), kFirstWords);
      ++(holds_log ? whole : made.empty() ? none : spoilt);
      expired += fs::exists(kExpired) ? 1 : 0;
      no_log += begins(read_file(kLog), kFirstWords) ? 0 : 1;
      EXPECT_TRUE(holds_log || send_archives()) << "what there is of it";
    }
#ifndef FAULTS_WHOLE
    break;
#endif
  }
  EXPECT_TRUE(world_.send_all()) << "what was left";
  std::cout << "figure archive fault, " << faulty.function << ": " << calls << " calls, " << runs
            << " passes, " << failed << " with the fault, archive whole in " << whole
            << ", without the log in " << spoilt << ", none in " << none << "; expired one left in "
            << expired << ", no new log in " << no_log << ", " << sent << " of " << 2 * runs
            << " files sent, " << aborted << " ended by an exception\n";
}

INSTANTIATE_TEST_SUITE_P(EachCall, ArchiveFault, testing::ValuesIn(kArchiveFaults),
                         [](const auto& fault) { return std::string(fault.param.function); });

}  // namespace
