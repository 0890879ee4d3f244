// The queue functions of the pushpull utilities, reached as a component reaches them.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>

#include "gtest/gtest.h"
#include "pushpull_data/qv_pushpull_api.h"
#include "tests/support/files.h"
#include "tests/support/journal.h"
#include "tests/support/message_queue.h"
#include "tests/support/wide_names.h"

// The linker turns calls of setrlimit() into calls of this.
extern "C" int __real_setrlimit(__rlimit_resource_t resource, const struct rlimit* limit);
extern "C" int __wrap_setrlimit(__rlimit_resource_t resource, const struct rlimit* limit);

extern "C" int __wrap_setrlimit(__rlimit_resource_t resource, const struct rlimit* limit) {
  test_support::note("setrlimit " + std::to_string(resource) + " " +
                     std::to_string(limit->rlim_cur) + " " + std::to_string(limit->rlim_max));
  return __real_setrlimit(resource, limit);
}

namespace {

using test_support::journal;
using test_support::Journal;
using test_support::MessageQueue;
using test_support::UnlinkAtEnd;

constexpr char kName[] = "/mqueue_test";

class Mqueue : public testing::Test {
 protected:
  void SetUp() override {
    test_support::clear_journal();
    umask(022);
  }

  static mode_t current_umask() {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
  }

  const std::string kRoomAskedFor =
      "setrlimit " + std::to_string(RLIMIT_MSGQUEUE) + " 851968000 851968000";

  static struct mq_attr small() {
    struct mq_attr attributes = {};
    attributes.mq_maxmsg = 4;
    attributes.mq_msgsize = 64;
    return attributes;
  }
};

TEST_F(Mqueue, UmaskIsOpenedAndSetBack) {
  umask(027);
  EXPECT_EQ(set_umask_to_all(), 027U);
  EXPECT_EQ(current_umask(), 0U);
  set_umask_value(077);
  EXPECT_EQ(current_umask(), 077U);
}

TEST_F(Mqueue, SystemxRunsAShellCommand) {
  EXPECT_EQ(WEXITSTATUS(systemx("exit 7")), 7);
  EXPECT_EQ(systemx("true"), 0);
}

TEST_F(Mqueue, LimitsAreAskedForInBytes) {
  qv_set_mqueue_limits();
  EXPECT_EQ(journal(),
            Journal{"setrlimit " + std::to_string(RLIMIT_MSGQUEUE) + " 851968000 851968000"});
}

TEST_F(Mqueue, LimitsStandOrTheRefusalIsIgnored) {
  struct rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_MSGQUEUE, &before), 0);
  qv_set_mqueue_limits();
  struct rlimit after = {};
  ASSERT_EQ(getrlimit(RLIMIT_MSGQUEUE, &after), 0);
  const bool granted = after.rlim_cur == 851968000U && after.rlim_max == 851968000U;
  EXPECT_TRUE(granted || after.rlim_cur == before.rlim_cur);
}

TEST_F(Mqueue, OpenCreatesWhatIsMissing) {
  const UnlinkAtEnd unlink(kName);
  struct mq_attr attributes = small();
  const mqd_t queue = qv_mq_open(kName, 0, 0660, &attributes);
  ASSERT_NE(queue, -1);
  struct mq_attr found = {};
  ASSERT_EQ(mq_getattr(queue, &found), 0);
  EXPECT_EQ(found.mq_maxmsg, 4);
  EXPECT_EQ(found.mq_msgsize, 64);
  EXPECT_EQ(found.mq_flags, 0) << "blocking";
  mq_close(queue);
}

TEST_F(Mqueue, OpenGivesTheModeUnchangedByTheUmask) {
  umask(077);
  const UnlinkAtEnd unlink(kName);
  struct mq_attr attributes = small();
  const mqd_t queue = qv_mq_open(kName, 0, 0660, &attributes);
  ASSERT_NE(queue, -1);
  EXPECT_EQ(test_support::file_mode(std::string("/dev/mqueue") + kName), 0660);
  EXPECT_EQ(current_umask(), 077U);
  mq_close(queue);
}

TEST_F(Mqueue, OpenTakesAnExistingQueueAsItIs) {
  MessageQueue existing(kName, 3, 32);
  existing.send("old");
  struct mq_attr attributes = small();
  const mqd_t queue = qv_mq_open(kName, 0, 0600, &attributes);
  ASSERT_NE(queue, -1);
  struct mq_attr found = {};
  ASSERT_EQ(mq_getattr(queue, &found), 0);
  EXPECT_EQ(found.mq_maxmsg, 3);
  EXPECT_EQ(found.mq_msgsize, 32);
  EXPECT_EQ(found.mq_curmsgs, 1);
  mq_close(queue);
}

TEST_F(Mqueue, OpenIgnoresItsFlags) {
  MessageQueue existing(kName);
  struct mq_attr attributes = small();
  const mqd_t queue = qv_mq_open(kName, O_RDONLY | O_CREAT | O_EXCL, 0600, &attributes);
  ASSERT_NE(queue, -1);
  EXPECT_EQ(mq_send(queue, "x", 1, 0), 0) << "open for writing too";
  mq_close(queue);
}

TEST_F(Mqueue, OpenCreatesNothingAfterAnotherFailure) {
  struct mq_attr attributes = small();
  umask(077);
  EXPECT_EQ(qv_mq_open("no slash", 0, 0660, &attributes), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(current_umask(), 077U);
}

TEST_F(Mqueue, AQueueOfOnesOwnIsCreatedAfterRoomWasAskedFor) {
  const UnlinkAtEnd unlink(kName);
  const mqd_t queue = qv_open_own_mqueue(kName, 3, 64);
  ASSERT_NE(queue, -1);
  EXPECT_EQ(journal(), Journal{kRoomAskedFor});
  EXPECT_EQ(test_support::file_mode(std::string("/dev/mqueue") + kName), 0660);
  mq_close(queue);
}

TEST_F(Mqueue, AQueueOfOnesOwnWithoutSizeIsRefusedAtOnce) {
  EXPECT_EQ(qv_open_own_mqueue(kName, 0, 64), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(journal(),
            Journal{"syslog 3 Unsupported queue or mesage size (queue = /mqueue_test, queue_size = "
                    "0, message_size = 64)"});
}

TEST_F(Mqueue, FlushReportsAMissingDescriptorWithErrno) {
  errno = ENOENT;
  qv_handle_error_and_flush(-1);
  EXPECT_EQ(journal(), Journal{"syslog 3 Error in creating the queue. Error: 2"});
}

TEST_F(Mqueue, FlushReportsADescriptorThatIsNoQueue) {
  qv_handle_error_and_flush(STDERR_FILENO);
  EXPECT_EQ(journal(), Journal{"syslog 3 Unable to get queue attributes for descriptor: 2"});
}

TEST_F(Mqueue, FlushRemovesWhatIsInTheQueueAndCountsIt) {
  MessageQueue queue(kName);
  queue.send("a");
  queue.send("");
  queue.send(std::string(512, 'x'), 9);
  qv_handle_error_and_flush(queue.descriptor());
  EXPECT_EQ(queue.count(), 0);
  EXPECT_EQ(journal(), Journal{"syslog 7 Flushed 3 stale messages from queue " +
                               std::to_string(queue.descriptor())});
}

TEST_F(Mqueue, FlushLeavesTheQueueBlocking) {
  MessageQueue queue(kName);
  queue.send("a");
  qv_handle_error_and_flush(queue.descriptor());
  EXPECT_EQ(queue.attributes().mq_flags, 0);
}

TEST_F(Mqueue, FlushOfAnEmptyQueueSaysNothing) {
  MessageQueue queue(kName);
  qv_handle_error_and_flush(queue.descriptor());
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(Mqueue, FlushStopsWhereItMayNotRead) {
  MessageQueue queue(kName);
  queue.send("a");
  const mqd_t write_only = mq_open(kName, O_WRONLY);
  ASSERT_NE(write_only, -1);
  qv_handle_error_and_flush(write_only);
  EXPECT_EQ(queue.count(), 1);
  EXPECT_EQ(journal(), Journal{});
  mq_close(write_only);
}

class LimitCheck : public Mqueue {
 protected:
  MessageQueue queue{kName, 2, 100};

  Journal lines(const std::string& packed, const std::string& added, const std::string& result) {
    return {"syslog 7 qv_check_mqueue_limit : packed_buff_length = " + packed +
                ", new_buff_length = " + added + ", attr.mq_msgsize = 100",
            "syslog 7 qv_check_mqueue_limit : return " + result};
  }
};

TEST_F(LimitCheck, OneByteLessThanTheMessageSizeFits) {
  EXPECT_TRUE(qv_check_mqueue_limit(queue.descriptor(), 60, 39));
  EXPECT_EQ(journal(), lines("60", "39", "true"));
}

TEST_F(LimitCheck, ExactlyTheMessageSizeDoesNotFit) {
  EXPECT_FALSE(qv_check_mqueue_limit(queue.descriptor(), 60, 40));
  EXPECT_EQ(journal(), lines("60", "40", "false"));
}

TEST_F(LimitCheck, MoreDoesNotFit) {
  EXPECT_FALSE(qv_check_mqueue_limit(queue.descriptor(), 61, 40));
  EXPECT_FALSE(qv_check_mqueue_limit(queue.descriptor(), std::numeric_limits<long>::max(),
                                     std::numeric_limits<long>::max()));
}

TEST_F(LimitCheck, NothingFitsADescriptorThatIsNoQueue) {
  EXPECT_FALSE(qv_check_mqueue_limit(-1, 0, 0));
  EXPECT_EQ(journal(), Journal{});
}

}  // namespace
