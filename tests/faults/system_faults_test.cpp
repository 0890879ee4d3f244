// Every call of the system on the main paths fails once, with each error that it may have: the
// service neither crashes nor hangs, marks no file that did not arrive and changes none, and its
// next start sends what was left.
//
// The program itself runs, with a preloaded library (system_faults.cpp) that also makes its pauses
// fifty times shorter.
#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/faults/fault_trial.h"

namespace {

using fault_test::Outcome;
using fault_test::World;

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
    {"stat", {EACCES, ENOENT, EIO, ENOMEM}},
    {"chmod", {EROFS, EPERM, EIO, ENOENT}},
    {"remove", {EACCES, EROFS, ENOENT}},
    {"opendir", {EMFILE, EACCES, ENFILE, ENOMEM}},
    {"readdir", {EIO, ENOENT}},
    {"popen", {EMFILE, ENOMEM, EAGAIN}},
    {"system", {EAGAIN, ENOMEM}},
    {"pthread_create", {EAGAIN}, true},
    {"mq_open", {EMFILE, ENFILE, EACCES, ENOMEM, ENOENT}},
    {"mq_getattr", {EBADF}},
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
    {"epoll_create1", {EMFILE, ENFILE, ENOMEM}},
    {"epoll_ctl", {ENOMEM, ENOSPC}},
    {"epoll_wait", {EINTR}},
    {"eventfd", {EMFILE, ENFILE, ENOMEM}},
    {"timerfd_create", {EMFILE, ENFILE, ENOMEM}},
    {"clock_gettime", {EINVAL}},
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

}  // namespace
