// Cases in which the rules of the system themselves cost more than one would like: a file that is
// not marked, that is marked wrongly, or that waits for hours. docs/hazards.md says what an
// integrator can do about each; these tests show that it really happens.
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/lab/requests.h"
#include "tests/log_consumer/fault_world.h"
#include "tests/support/files.h"

namespace {

using namespace test_support;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kOk = reply("200 OK");
const std::string kError = reply("500 Internal Server Error");

std::vector<PeerPlan> peers(std::vector<Script> scripts) {
  std::vector<PeerPlan> plans;
  for (Script& script : scripts) {
    plans.emplace_back();
    plans.back().script = std::move(script);
  }
  return plans;
}

// Each attempt arrives whole, is answered 200, and counts as failed.
TEST(Hazard, ServerThatClosesBehindEveryAnswerNeverGetsAFileMarked) {
  FaultWorld world(kDataUploadSrv, false);
  const Script closing = {request(), answer(200, kOk), close_connection()};
  world.next_peers(peers(std::vector<Script>(20, closing)));
  world.start();
  world.start();
  EXPECT_FALSE(world.sent(world.first()));
  EXPECT_FALSE(world.sent(world.second()));
  EXPECT_EQ(world.copies(world.first()), 4U);
  EXPECT_THAT(world.complaints(), IsEmpty());
}

// The answer finds no request open and leaves its result behind: the connection is not idle, and
// the next send waits for that without limit. In the service, the end of the inactivity period and
// the service manager's watchdog end it.
TEST(Hazard, AnswerAfterBothTimeOutsHoldsTheNextSendForHours) {
  constexpr int kBothTimeOuts = 2 * 181;
  constexpr std::int64_t kHours = std::int64_t{6} * 3600;
  FaultWorld world(kDataUploadSrv, false);
  world.next_peers(peers({{request(), wait_seconds(kBothTimeOuts + 5), answer(200, kOk)}}));
  std::vector<std::string> seen;
  world.at(kHours, [&] {
    seen = world.turn_of(world.second());
    LogConsumerMongooseClass& connection = world.connection();
    const std::lock_guard<std::mutex> lock(connection.stateMutex);
    EXPECT_NE(connection.state, kNone);
    connection.state = kNone;  // so that the test has an end
  });
  world.start();
  EXPECT_FALSE(world.sent(world.first())) << "though the server had accepted it";
  EXPECT_THAT(seen, ElementsAre("6 Filename " + world.second() + " is not read only",
                                "7 Sleeping 5 seconds before next file send"));
  EXPECT_GE(world.seconds(), kHours);
}

// The answer to the second attempt then answers nothing, and the connection is closed over it.
TEST(Hazard, LateAnswerToTheFirstAttemptCountsForTheSecond) {
  FaultWorld world(kDataUploadSrv, false);
  world.next_peers(peers({{request(), wait_seconds(200), answer(200, kOk), request(),
                           until_the_pause(), answer(200, kOk), until_client_closes()}}));
  world.start();
  EXPECT_TRUE(world.sent(world.first()));
  EXPECT_EQ(world.copies(world.first()), 2U);
  EXPECT_TRUE(world.sent(world.second()));
  EXPECT_THAT(world.complaints(), IsEmpty());
}

// A server that wakes up after minutes works off what has come meanwhile, in order.
TEST(Hazard, LateAnswerToAnEarlierFileMarksTheNextOneUnanswered) {
  FaultWorld world(kDataUploadSrv, false);
  world.next_peers(peers({{request_in_silence(), request_in_silence(), request_in_silence(),
                           answer(200, kOk), silence()}}));
  world.start();
  EXPECT_FALSE(world.sent(world.first()));
  EXPECT_TRUE(world.sent(world.second())) << "the server has answered the first file only";
  EXPECT_THAT(world.complaints(), Contains(world.second() + " is marked and was not accepted"));
}

// No bytes are written, so nothing can be answered, in this start or any other.
TEST(Hazard, EmptyRelayFileCostsTwoTimeOutsAndIsNeverSent) {
  FaultWorld world(kRelaySrv, false);
  world.rewrite(world.first(), "");
  world.next_peers(peers({{request_in_silence(), answer(200, kOk)}}));
  world.start();
  EXPECT_FALSE(world.sent(world.first()));
  EXPECT_EQ(count("syslog 6 Timeout for send. serverType = 1"), 2U);
  EXPECT_TRUE(world.sent(world.second())) << "other kinds go on";
  EXPECT_THAT(world.complaints(), IsEmpty());
}

TEST(Hazard, FileThatAlwaysFailsKeepsTheOthersOfItsKindWaiting) {
  FaultWorld world(kDataUploadSrv, false);
  const std::string directory = world.first().substr(0, world.first().rfind('/'));
  write_file(directory + "/other.gz", gzip("another of the kind"));
  const Script refusing = {request(), answer(500, kError), request(), answer(500, kError)};
  world.next_peers(peers({refusing, refusing, refusing}));
  for (int i = 0; i < 3; ++i)
    world.start();
  // Which of the two comes first is the directory's business; it is always the same.
  const std::size_t firstCopies = world.copies(world.first());
  EXPECT_TRUE(firstCopies == 0 || firstCopies == 6) << firstCopies;
  EXPECT_EQ(file_mode(world.first()), 0644);
  EXPECT_EQ(file_mode(directory + "/other.gz"), 0644);
  EXPECT_TRUE(world.sent(world.second())) << "other kinds go on";
}

TEST(Hazard, FileWhoseModeIsSetBackIsSentAgain) {
  FaultWorld world(kDataUploadSrv, false);
  world.start();
  ASSERT_TRUE(world.sent(world.first()));
  ASSERT_EQ(chmod(world.first().c_str(), 0644), 0);
  world.start();
  EXPECT_EQ(world.copies(world.first()), 2U);
}

TEST(Hazard, FileThatGetsAnotherModeIsNeverSent) {
  FaultWorld world(kDataUploadSrv, false);
  ASSERT_EQ(chmod(world.first().c_str(), 0664), 0);
  world.start();
  EXPECT_EQ(world.copies(world.first()), 0U);
  EXPECT_EQ(file_mode(world.first()), 0664);
}

TEST(Hazard, FileThatTakesTheNameWhileTheOldOneIsSentIsMarkedUnsent) {
  FaultWorld world(kDataUploadSrv, false);
  world.next_peers(
      peers({{request(), run([&] {
                write_file(world.first() + ".new", gzip("newer contents"));
                ASSERT_EQ(rename((world.first() + ".new").c_str(), world.first().c_str()), 0);
              }),
              answer(200, kOk)}}));
  world.start();
  EXPECT_TRUE(world.sent(world.first()));
  EXPECT_EQ(read_file(world.first()), gzip("newer contents"));
  EXPECT_THAT(world.complaints(), Contains(world.first() + " is another file"));
}

// Two attempts of 181 s each, 5 s before and 10 s behind them: no other server's kinds are served
// meanwhile, for all of them take their turns on one thread.
TEST(Hazard, SilentServerTakesSixMinutesOfEveryKindsTurn) {
  FaultWorld world(kDataUploadSrv, false);
  world.next_peers(peers({{silence()}}));
  world.start();
  EXPECT_GE(world.seconds(), 2 * (5 + 2 * 181 + 10));
  EXPECT_EQ(count("syslog 6 Timeout for send. serverType = 0"), 4U);
}

}  // namespace
