#include "pushpull_data/qv_pushpull_transmit_queue.h"

#include <memory>
#include <thread>

#include "gtest/gtest.h"
#include "pushpull_data/qv_pushpull_api.h"
#include "tests/support/files.h"
#include "tests/support/journal.h"
#include "tests/support/message_queue.h"

namespace {

using test_support::journal;
using test_support::Journal;
using test_support::MessageQueue;
using test_support::UnlinkAtEnd;
using test_support::with_nul;

constexpr char kName[] = "/transmit_test";

std::unique_ptr<QvPushpullTransmitQueue> create(int queue_size, int message_size) {
  QvPushpullApi api;
  return std::unique_ptr<QvPushpullTransmitQueue>(
      api.create_transmit_queue(kName, queue_size, message_size));
}

class TransmitQueue : public testing::Test {
 protected:
  void SetUp() override { test_support::clear_journal(); }
};

TEST_F(TransmitQueue, IsCreatedWithItsSizesAndMode) {
  const UnlinkAtEnd unlink(kName);
  umask(077);
  const auto queue = create(3, 128);
  ASSERT_NE(queue, nullptr);
  EXPECT_TRUE(queue->initialized());
  EXPECT_EQ(queue->_queue_size, 3);
  EXPECT_EQ(queue->_message_size, 128);
  struct mq_attr attributes = {};
  ASSERT_EQ(mq_getattr(queue->_mqueue, &attributes), 0);
  EXPECT_EQ(attributes.mq_maxmsg, 3);
  EXPECT_EQ(attributes.mq_msgsize, 128);
  EXPECT_EQ(test_support::file_mode("/dev/mqueue/transmit_test"), 0660);
  EXPECT_EQ(journal("syslog "), Journal{});
}

TEST_F(TransmitQueue, KeepsTheMessagesOfAnExistingQueue) {
  MessageQueue existing(kName);
  existing.send("old");
  ASSERT_NE(create(3, 128), nullptr);
  EXPECT_EQ(existing.count(), 1);
}

TEST_F(TransmitQueue, OfNoMessagesOrNoBytesIsRefused) {
  mq_unlink(kName);
  EXPECT_EQ(create(0, 128), nullptr);
  EXPECT_EQ(create(-3, 128), nullptr);
  EXPECT_EQ(create(3, 0), nullptr);
  EXPECT_EQ(create(3, -1), nullptr);
  const std::string start = "syslog 3 Unsupported queue or mesage size (queue = /transmit_test, ";
  EXPECT_EQ(journal(), (Journal{start + "queue_size = 0, message_size = 128)",
                                start + "queue_size = -3, message_size = 128)",
                                start + "queue_size = 3, message_size = 0)",
                                start + "queue_size = 3, message_size = -1)"}));
  EXPECT_FALSE(test_support::file_exists("/dev/mqueue/transmit_test"));
}

TEST_F(TransmitQueue, ThatCannotBeOpenedIsReportedWithErrno) {
  QvPushpullApi api;
  EXPECT_EQ(api.create_transmit_queue("no slash", 3, 128), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(journal(), Journal{"syslog 3 Unable to open message queue no slash (error 22)"});
}

TEST_F(TransmitQueue, SendsATextWithItsNul) {
  MessageQueue reader(kName);
  const auto queue = create(3, 128);
  EXPECT_EQ(queue->send("hello"), 0);
  EXPECT_EQ(reader.take()->bytes, with_nul("hello"));
  EXPECT_EQ(queue->timedsend(60, "world"), 0);
  EXPECT_EQ(reader.take()->bytes, with_nul("world"));
}

TEST_F(TransmitQueue, HigherPrioritiesAreReadFirst) {
  MessageQueue reader(kName);
  const auto queue = create(3, 128);
  EXPECT_EQ(queue->send("none"), 0);
  EXPECT_EQ(queue->send("low", 1), 0);
  EXPECT_EQ(queue->timedsend(60, "high", 7), 0);
  for (const unsigned priority : {7U, 1U, 0U})
    EXPECT_EQ(reader.take()->priority, priority);
}

TEST_F(TransmitQueue, RefusesWhatIsTooLong) {
  MessageQueue reader(kName, 3, 16);
  const auto queue = create(3, 16);
  EXPECT_EQ(queue->send(std::string(15, 'x')), 0) << "with its NUL it fills a message";
  EXPECT_EQ(queue->send(std::string(16, 'x')), -1);
  EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(TransmitQueue, CountsItsMessages) {
  MessageQueue reader(kName, 2, 16);
  const auto queue = create(2, 16);
  EXPECT_EQ(queue->current_messages(), 0);
  EXPECT_FALSE(queue->is_full());
  queue->send("a");
  EXPECT_EQ(queue->current_messages(), 1);
  EXPECT_FALSE(queue->is_full());
  queue->send("b");
  EXPECT_EQ(queue->current_messages(), 2);
  EXPECT_TRUE(queue->is_full());
}

TEST_F(TransmitQueue, TimedSendGivesUpOnAFullQueue) {
  MessageQueue reader(kName, 2, 16);
  const auto queue = create(2, 16);
  reader.fill();
  EXPECT_EQ(queue->timedsend(0, "late"), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(queue->current_messages(), 2);
}

TEST_F(TransmitQueue, TimedSendGivesUpBehindAnotherSender) {
  MessageQueue reader(kName, 2, 16);
  const auto queue = create(2, 16);
  reader.fill();
  std::thread other([&] { EXPECT_EQ(queue->send("first"), 0); });
  EXPECT_TRUE(test_support::eventually([&] {
    const bool taken = pthread_mutex_trylock(queue->_access_mutex.get_reference()) == EBUSY;
    if (!taken) queue->_access_mutex.unlock();
    return taken;
  }));
  EXPECT_EQ(queue->timedsend(0, "second"), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  reader.take();
  other.join();
}

TEST_F(TransmitQueue, SendWaitsForRoom) {
  MessageQueue reader(kName, 2, 16);
  const auto queue = create(2, 16);
  reader.fill();
  std::thread sender([&] { EXPECT_EQ(queue->send("patient"), 0); });
  test_support::wait_a_little();
  EXPECT_EQ(reader.take()->bytes, "x");
  sender.join();
  EXPECT_EQ(reader.take()->bytes, "x");
  EXPECT_EQ(reader.take()->bytes, with_nul("patient"));
}

TEST_F(TransmitQueue, WithoutItsQueueEverythingFails) {
  QvPushpullTransmitQueue queue("no slash", 3, 128);
  EXPECT_FALSE(queue.initialized());
  EXPECT_EQ(queue.send("x"), -1);
  EXPECT_EQ(queue.timedsend(0, "x"), -1);
  EXPECT_EQ(queue.current_messages(), -1);
  EXPECT_FALSE(queue.is_full());
}

TEST_F(TransmitQueue, ItsEndClosesTheQueueAndKeepsTheName) {
  MessageQueue reader(kName);
  auto queue = create(3, 128);
  const mqd_t descriptor = queue->_mqueue;
  queue.reset();
  struct mq_attr attributes = {};
  EXPECT_EQ(mq_getattr(descriptor, &attributes), -1);
  EXPECT_TRUE(test_support::file_exists("/dev/mqueue/transmit_test"));
}

}  // namespace
