#include "pushpull_data/qv_pushpull_receive_queue.h"

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "pushpull_data/qv_pushpull_api.h"
#include "tests/support/files.h"
#include "tests/support/journal.h"
#include "tests/support/message_queue.h"
#include "tests/support/wide_names.h"

namespace {
std::atomic<int> timed_sends = 0;
std::atomic<int> sends_to_refuse = 0;  // with ENOMEM
std::atomic<pid_t> receiver = 0;       // the thread that is in mq_receive(), 0 while none is
}  // namespace

// The linker turns calls of these functions into calls of their __wrap_ form.
extern "C" {
int __real_mq_send(mqd_t queue, const char* message, size_t size, unsigned priority);
int __wrap_mq_send(mqd_t queue, const char* message, size_t size, unsigned priority);
int __wrap_mq_send(mqd_t queue, const char* message, size_t size, unsigned priority) {
  if (sends_to_refuse > 0) {
    --sends_to_refuse;
    errno = ENOMEM;
    return -1;
  }
  return __real_mq_send(queue, message, size, priority);
}
int __real_mq_timedsend(mqd_t queue, const char* message, size_t size, unsigned priority,
                        const struct timespec* deadline);
int __wrap_mq_timedsend(mqd_t queue, const char* message, size_t size, unsigned priority,
                        const struct timespec* deadline);
int __wrap_mq_timedsend(mqd_t queue, const char* message, size_t size, unsigned priority,
                        const struct timespec* deadline) {
  ++timed_sends;
  return __real_mq_timedsend(queue, message, size, priority, deadline);
}
ssize_t __real_mq_receive(mqd_t queue, char* message, size_t size, unsigned* priority);
ssize_t __wrap_mq_receive(mqd_t queue, char* message, size_t size, unsigned* priority);
ssize_t __wrap_mq_receive(mqd_t queue, char* message, size_t size, unsigned* priority) {
  receiver = gettid();
  const ssize_t bytes = __real_mq_receive(queue, message, size, priority);
  receiver = 0;
  return bytes;
}
}  // extern "C"

namespace {

using test_support::eventually;
using test_support::journal;
using test_support::Journal;
using test_support::MessageQueue;
using test_support::UnlinkAtEnd;
using test_support::with_nul;

constexpr char kName[] = "/receive_test";
constexpr char kWakeUp[] = "DESTRUCTOR CALLED";
constexpr int kLong = 60;  // seconds that no passing test waits

using Queue = std::unique_ptr<QvPushpullReceiveQueue>;

Queue create(int queue_size = 8, int message_size = 512, const char* name = kName) {
  QvPushpullApi api;
  return Queue(api.create_receive_queue(name, queue_size, message_size));
}

// Nothing else in mq_receive() lets a thread sleep but an empty queue.
bool receiver_is_blocked() {
  const std::string thread = "/proc/self/task/" + std::to_string(receiver);
  const std::string fields = test_support::read_file(thread + "/stat");
  const std::size_t name_end = fields.rfind(") ");
  return name_end != std::string::npos && fields[name_end + 2] == 'S';
}

// Asks for a message that is not there, so that the receiver blocks in mq_receive(). One that is
// only about to would find the queue without waiting as soon as the end has begun.
void let_receiver_block(QvPushpullReceiveQueue& queue) {
  ASSERT_EQ(queue.timed_receive(0), 0);
  ASSERT_TRUE(eventually(receiver_is_blocked));
}

class ReceiveQueue : public testing::Test {
 protected:
  void SetUp() override {
    test_support::clear_journal();
    umask(022);
  }
};

// Creation

TEST_F(ReceiveQueue, IsCreatedWithItsSizesAndMode) {
  const UnlinkAtEnd unlink(kName);
  umask(077);
  const Queue queue = create(4, 128);
  ASSERT_NE(queue, nullptr);
  EXPECT_TRUE(queue->initialized());
  EXPECT_EQ(queue->_queue_size, 4);
  EXPECT_EQ(queue->_queue_buffer_size, 128U);
  EXPECT_TRUE(queue->_run_receiver_thread);
  struct mq_attr attributes = {};
  ASSERT_EQ(mq_getattr(queue->_mqueue, &attributes), 0);
  EXPECT_EQ(attributes.mq_maxmsg, 4);
  EXPECT_EQ(attributes.mq_msgsize, 128);
  EXPECT_EQ(test_support::file_mode("/dev/mqueue/receive_test"), 0660);
  EXPECT_EQ(journal("syslog "), Journal{});
}

TEST_F(ReceiveQueue, OfThe64MessagesOf262144BytesThatTheServiceAsksFor) {
  const UnlinkAtEnd unlink("/log_consumer");
  const Queue queue = create(64, 0x40000, "/log_consumer");
  if (queue == nullptr) {
    struct rlimit limit = {};
    getrlimit(RLIMIT_MSGQUEUE, &limit);
    ASSERT_LT(limit.rlim_cur, 64U * 0x40000U) << "there is room";
    GTEST_SKIP() << "RLIMIT_MSGQUEUE is " << limit.rlim_cur << " and may not be raised";
  }
  struct mq_attr attributes = {};
  ASSERT_EQ(mq_getattr(queue->_mqueue, &attributes), 0);
  EXPECT_EQ(attributes.mq_maxmsg, 64);
  EXPECT_EQ(attributes.mq_msgsize, 262144);
}

TEST_F(ReceiveQueue, OfNoMessagesOrNoBytesIsRefusedWithoutAThread) {
  mq_unlink(kName);
  EXPECT_EQ(create(0, 128), nullptr);
  EXPECT_EQ(create(-1, 128), nullptr);
  EXPECT_EQ(create(4, 0), nullptr);
  EXPECT_EQ(create(4, -7), nullptr);
  const std::string start = "syslog 3 Unsupported queue or mesage size (queue = /receive_test, ";
  EXPECT_EQ(journal(), (Journal{start + "queue_size = 0, message_size = 128)",
                                start + "queue_size = -1, message_size = 128)",
                                start + "queue_size = 4, message_size = 0)",
                                start + "queue_size = 4, message_size = -7)"}));
  EXPECT_FALSE(test_support::file_exists("/dev/mqueue/receive_test"));

  const QvPushpullReceiveQueue refused(kName, 0, 128);
  EXPECT_FALSE(refused.initialized());
  EXPECT_FALSE(refused._run_receiver_thread);
}

TEST_F(ReceiveQueue, ThatCannotBeOpenedIsReportedWithErrno) {
  EXPECT_EQ(create(4, 128, "no slash"), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(journal(), Journal{"syslog 3 Unable to open message queue no slash (error 22)"});
}

TEST_F(ReceiveQueue, TakesOverAnExistingQueueAndFlushesIt) {
  MessageQueue existing(kName, 3, 64);
  existing.send_text("stale");
  existing.send_text(kWakeUp);
  const Queue queue = create(8, 512);
  ASSERT_NE(queue, nullptr);
  EXPECT_EQ(existing.count(), 0);
  EXPECT_EQ(existing.attributes().mq_maxmsg, 3) << "attributes stay";
  EXPECT_EQ(journal(), Journal{"syslog 7 Flushed 2 stale messages from queue " +
                               std::to_string(queue->_mqueue)});
  EXPECT_EQ(queue->timed_receive(0), 0);
}

TEST_F(ReceiveQueue, ReceivesTheLongerMessagesOfAnExistingQueue) {
  MessageQueue existing(kName, 3, 512);
  const Queue queue = create(3, 16);
  ASSERT_NE(queue, nullptr);
  const std::string text(400, 'x');
  existing.send_text(text);
  EXPECT_EQ(queue->timed_receive(kLong), 401);
  EXPECT_EQ(queue->get_queue_buffer(), text);
}

TEST_F(ReceiveQueue, WithoutItsThreadIsReportedAndClosed) {
  MessageQueue existing(kName);
  existing.send("stale");
  pthread_attr_t original;
  ASSERT_EQ(pthread_getattr_default_np(&original), 0);
  pthread_attr_t impossible;
  ASSERT_EQ(pthread_getattr_default_np(&impossible), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&impossible, std::size_t{3} << (sizeof(void*) * 8 - 2)), 0);
  ASSERT_EQ(pthread_setattr_default_np(&impossible), 0);
  const Queue queue = create();
  const int error = errno;
  ASSERT_EQ(pthread_setattr_default_np(&original), 0);
  EXPECT_EQ(queue, nullptr);
  EXPECT_EQ(error, EAGAIN);
  EXPECT_EQ(journal("syslog 3"),
            Journal{"syslog 3 Unable to create receiver thread for message queue /receive_test "
                    "(error 11)"});
  EXPECT_EQ(existing.count(), 0) << "flushed, and no wake-up text for a thread that is not there";
}

// Receiving

TEST_F(ReceiveQueue, GivesAMessageWithItsNul) {
  MessageQueue store(kName);
  const Queue queue = create();
  store.send_text("hello");
  EXPECT_EQ(queue->timed_receive(kLong), 6);
  EXPECT_STREQ(queue->get_queue_buffer(), "hello");
  EXPECT_EQ(queue->timed_receive(0), 0) << "given once";
}

TEST_F(ReceiveQueue, ReturnsZeroWhenNothingCameInTime) {
  MessageQueue store(kName);
  const Queue queue = create();
  struct timespec before = {};
  clock_gettime(CLOCK_MONOTONIC, &before);
  EXPECT_EQ(queue->timed_receive(1), 0);
  struct timespec after = {};
  clock_gettime(CLOCK_MONOTONIC, &after);
  EXPECT_GE((after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000,
            999);
}

TEST_F(ReceiveQueue, KeepsAMessageThatComesAfterTheTimeOutForTheNextCall) {
  MessageQueue store(kName);
  const Queue queue = create();
  let_receiver_block(*queue);
  store.send_text("late");
  ASSERT_TRUE(eventually([&] { return queue->_message_received_signal.get_value() == 5; }));
  EXPECT_EQ(queue->timed_receive(0), 5);
  EXPECT_STREQ(queue->get_queue_buffer(), "late");
}

TEST_F(ReceiveQueue, TakesAValueThatWasSetWhileTheThreadIsBlocked) {
  MessageQueue store(kName);
  const Queue queue = create();
  let_receiver_block(*queue);
  queue->_message_received_signal.set_value(7);
  EXPECT_EQ(queue->timed_receive(0), 7);
  EXPECT_EQ(queue->_message_received_signal.get_value(), 0);
  store.send_text("next");
  EXPECT_EQ(queue->timed_receive(kLong), 5);
  EXPECT_STREQ(queue->get_queue_buffer(), "next");
}

// A broadcast that a pending message leaves behind must not end the wait for the next one.
TEST_F(ReceiveQueue, WaitsAgainAfterAMessageThatWasPending) {
  MessageQueue store(kName);
  const Queue queue = create();
  let_receiver_block(*queue);
  store.send_text("pending");
  ASSERT_TRUE(eventually([&] { return queue->_message_received_signal.get_value() == 8; }));
  ASSERT_EQ(queue->timed_receive(0), 8);
  std::thread sender([&] {
    test_support::wait_a_little();
    store.send_text("next");
  });
  EXPECT_EQ(queue->timed_receive(kLong), 5);
  EXPECT_STREQ(queue->get_queue_buffer(), "next");
  sender.join();
}

// A call that finds the receiver still busy for an earlier one must not ask twice: the second
// reception would write over the message that the user is reading.
TEST_F(ReceiveQueue, LeavesTheBufferAloneUntilTheNextCall) {
  MessageQueue store(kName);
  const Queue queue = create();
  let_receiver_block(*queue);
  ASSERT_EQ(queue->timed_receive(0), 0);
  ASSERT_EQ(queue->timed_receive(0), 0);
  // Keeps the receiver from looking for a further request until the message is the user's.
  std::atomic<bool> held = false;
  std::atomic<bool> taken = false;
  std::thread holder([&] {
    const std::lock_guard<QvPushpullMutex> hold(queue->_start_reception_signal._condition_mutex);
    held = true;
    eventually([&] { return taken.load(); });
  });
  EXPECT_TRUE(eventually([&] { return held.load(); }));
  store.send_text("first");
  store.send_text("second");
  EXPECT_TRUE(eventually([&] { return queue->_message_received_signal.get_value() == 6; }));
  EXPECT_EQ(queue->timed_receive(kLong), 6);
  taken = true;
  holder.join();
  for (int i = 0; i < 25; ++i) {
    test_support::wait_a_little();
    ASSERT_STREQ(queue->get_queue_buffer(), "first");
    ASSERT_EQ(store.count(), 1);
  }
  EXPECT_EQ(queue->timed_receive(kLong), 7);
  EXPECT_STREQ(queue->get_queue_buffer(), "second");
}

TEST_F(ReceiveQueue, OfTwoMessagesEachCallReturnsOneInOrder) {
  MessageQueue store(kName);
  const Queue queue = create();
  store.send_text("one");
  store.send_text("number two");
  EXPECT_EQ(queue->timed_receive(kLong), 4);
  EXPECT_STREQ(queue->get_queue_buffer(), "one");
  EXPECT_EQ(queue->timed_receive(kLong), 11);
  EXPECT_STREQ(queue->get_queue_buffer(), "number two");
  EXPECT_EQ(queue->timed_receive(0), 0);
}

TEST_F(ReceiveQueue, GivesHigherPrioritiesFirst) {
  MessageQueue store(kName);
  const Queue queue = create();
  store.send("low", 0);
  store.send("high", 3);
  ASSERT_EQ(queue->timed_receive(kLong), 4);
  EXPECT_STREQ(queue->get_queue_buffer(), "high");
}

TEST_F(ReceiveQueue, ReceiveWaitsWithoutLimit) {
  MessageQueue store(kName);
  const Queue queue = create();
  int result = 0;
  std::thread user([&] { result = queue->receive(); });
  test_support::wait_a_little();
  store.send_text("at last");
  user.join();
  EXPECT_EQ(result, 8);
  EXPECT_STREQ(queue->get_queue_buffer(), "at last");
}

TEST_F(ReceiveQueue, ReceiveReturnsAPendingMessageAtOnce) {
  MessageQueue store(kName);
  const Queue queue = create();
  let_receiver_block(*queue);
  store.send_text("pending");
  ASSERT_TRUE(eventually([&] { return queue->_message_received_signal.get_value() != 0; }));
  EXPECT_EQ(queue->receive(), 8);
}

TEST_F(ReceiveQueue, AMessageThatFillsTheBufferWithoutANulIsStillAText) {
  MessageQueue store(kName, 2, 64);
  const Queue queue = create(2, 64);
  store.send(std::string(64, 'x'));
  EXPECT_EQ(queue->timed_receive(kLong), 64);
  EXPECT_EQ(queue->get_queue_buffer(), std::string(64, 'x'));
}

TEST_F(ReceiveQueue, NothingOfALongerMessageFollowsAShortOneWithoutANul) {
  MessageQueue store(kName);
  const Queue queue = create();
  store.send_text("a long message");
  store.send("short");
  ASSERT_EQ(queue->timed_receive(kLong), 15);
  ASSERT_EQ(queue->timed_receive(kLong), 5);
  EXPECT_STREQ(queue->get_queue_buffer(), "short");
}

TEST_F(ReceiveQueue, AnEmptyMessageIsNone) {
  MessageQueue store(kName);
  const Queue queue = create();
  store.send_text("before");
  ASSERT_EQ(queue->timed_receive(kLong), 7);
  store.send("");
  store.send_text("after");
  EXPECT_EQ(queue->timed_receive(kLong), 0);
  EXPECT_STREQ(queue->get_queue_buffer(), "");
  EXPECT_EQ(queue->timed_receive(kLong), 6);
  EXPECT_STREQ(queue->get_queue_buffer(), "after");
}

TEST_F(ReceiveQueue, AnEmptyMessageAfterTheTimeOutEndsNoLaterWait) {
  MessageQueue store(kName);
  const Queue queue = create();
  let_receiver_block(*queue);
  store.send("");
  ASSERT_TRUE(eventually([&] {
    const std::lock_guard<QvPushpullMutex> lock(queue->_message_received_signal._condition_mutex);
    return !queue->_receiver_owns_buffer;
  }));
  std::thread sender([&] {
    test_support::wait_a_little();
    store.send_text("after");
  });
  EXPECT_EQ(queue->timed_receive(kLong), 6);
  sender.join();
}

TEST_F(ReceiveQueue, ReturnsMinusOneWhenReceivingFails) {
  MessageQueue store(kName);
  const Queue queue = create();
  store.send_text("kept");
  queue->_queue_buffer_size = 1;  // mq_receive() refuses a buffer that is too small
  EXPECT_EQ(queue->timed_receive(kLong), -1);
  queue->_queue_buffer_size = 512;
  EXPECT_EQ(queue->timed_receive(kLong), 5);
  EXPECT_STREQ(queue->get_queue_buffer(), "kept");
}

TEST_F(ReceiveQueue, CountsWhatStandsInTheQueue) {
  MessageQueue store(kName, 2, 64);
  const Queue queue = create(2, 64);
  EXPECT_EQ(queue->current_messages(), 0);
  EXPECT_FALSE(queue->is_full());
  store.send("a");
  EXPECT_EQ(queue->current_messages(), 1);
  store.send("b");
  EXPECT_EQ(queue->current_messages(), 2);
  EXPECT_TRUE(queue->is_full());
  ASSERT_EQ(queue->timed_receive(kLong), 1);
  EXPECT_EQ(queue->current_messages(), 1) << "the one taken does not count";
  EXPECT_FALSE(queue->is_full());
}

TEST_F(ReceiveQueue, CountsNothingWithoutAQueue) {
  const QvPushpullReceiveQueue queue("no slash", 2, 64);
  EXPECT_EQ(queue.current_messages(), -1);
  EXPECT_FALSE(queue.is_full());
}

TEST_F(ReceiveQueue, SeveralUsersAreServedOneAfterTheOther) {
  MessageQueue store(kName, 4, 64);
  const Queue queue = create(4, 64);
  constexpr int kMessages = 400;
  std::atomic<int> taken = 0;
  const auto use = [&] {
    while (taken < kMessages)
      taken += queue->timed_receive(0) == 1 ? 1 : 0;
  };
  std::thread first(use);
  std::thread second(use);
  for (int i = 0; i < kMessages; ++i)
    store.send("m");
  first.join();
  second.join();
  EXPECT_EQ(taken, kMessages);
  EXPECT_EQ(queue->timed_receive(0), 0);
}

// The end

void expect_only_the_wake_up_in(MessageQueue& store) {
  const auto message = store.take();
  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->bytes, with_nul("DESTRUCTOR CALLED"));
  EXPECT_EQ(message->bytes.size(), 18U);
  EXPECT_EQ(message->priority, 0U);
  EXPECT_EQ(store.count(), 0);
}

TEST_F(ReceiveQueue, DestructorCalledStaysWhenTheThreadWasBlockedReceiving) {
  MessageQueue store(kName);
  Queue queue = create();
  let_receiver_block(*queue);
  queue.reset();
  expect_only_the_wake_up_in(store);
}

// Requests to the store go through mq_timedsend(): whoever replaces that to catch them must neither
// catch the wake-up nor keep it from the receiver.
TEST_F(ReceiveQueue, DestructorCalledDoesNotGoTheWayOfARequest) {
  MessageQueue store(kName);
  Queue queue = create();
  let_receiver_block(*queue);
  timed_sends = 0;
  queue.reset();
  EXPECT_EQ(timed_sends, 0);
}

// Without the wake-up the end would wait for its thread for ever.
TEST_F(ReceiveQueue, DestructorCalledIsSentAgainWhenTheKernelLacksMemoryForIt) {
  MessageQueue store(kName);
  Queue queue = create();
  let_receiver_block(*queue);
  sends_to_refuse = 3;
  queue.reset();
  EXPECT_EQ(sends_to_refuse, 0);
}

TEST_F(ReceiveQueue, DestructorCalledStaysWhenTheThreadWaitedForAStart) {
  MessageQueue store(kName);
  create().reset();
  expect_only_the_wake_up_in(store);
}

TEST_F(ReceiveQueue, ALaterRunFlushesDestructorCalled) {
  MessageQueue store(kName);
  create().reset();
  ASSERT_EQ(store.count(), 1);
  const Queue queue = create();
  EXPECT_EQ(journal("syslog 7"), Journal{"syslog 7 Flushed 1 stale messages from queue " +
                                         std::to_string(queue->_mqueue)});
  EXPECT_EQ(queue->timed_receive(0), 0);
}

TEST_F(ReceiveQueue, EndsWithAMessagePending) {
  MessageQueue store(kName);
  Queue queue = create();
  let_receiver_block(*queue);
  store.send_text("pending");
  ASSERT_TRUE(eventually([&] { return queue->_message_received_signal.get_value() != 0; }));
  queue.reset();
  EXPECT_EQ(store.take()->bytes, with_nul(kWakeUp));
}

TEST_F(ReceiveQueue, EndsWithItsQueueFull) {
  MessageQueue store(kName);
  Queue queue = create();
  store.fill();
  queue.reset();
  EXPECT_EQ(store.count(), 8);
  EXPECT_EQ(store.take()->bytes, "x");
}

TEST_F(ReceiveQueue, EndsBlockedOnAQueueOfShortMessages) {
  MessageQueue store(kName, 4, 8);
  Queue queue = create(4, 8);
  let_receiver_block(*queue);
  queue.reset();
  EXPECT_EQ(store.take()->bytes, "") << "too short for the text";
  EXPECT_EQ(store.count(), 0);
}

TEST_F(ReceiveQueue, ItsEndClosesTheQueueAndKeepsTheName) {
  MessageQueue store(kName);
  Queue queue = create();
  const mqd_t descriptor = queue->_mqueue;
  queue.reset();
  struct mq_attr attributes = {};
  EXPECT_EQ(mq_getattr(descriptor, &attributes), -1);
  EXPECT_TRUE(test_support::file_exists("/dev/mqueue/receive_test"));
}

TEST_F(ReceiveQueue, EndsAtOnceInEveryMomentOfItsThread) {
  MessageQueue store(kName);
  for (int i = 0; i < 300; ++i) {
    Queue queue = create();
    if (i % 3 != 0) queue->timed_receive(0);
    if (i % 3 == 2) store.send_text("now");
    queue.reset();
  }
}

// Several producers that never rest, and a user who takes what comes: with a time-out of no length
// at all, so that time-outs and messages meet all the time.
class Flood : public ReceiveQueue {
 protected:
  static constexpr int kProducers = 4;
  static constexpr int kMessages = 1500;

  MessageQueue store{kName, 8, 256};

  // "producer number xxxx...", of a length of its own.
  static std::string message(int producer, int number) {
    const int padding = (producer * 31 + number * 7) % 200;
    return std::to_string(producer) + " " + std::to_string(number) + " " +
           std::string(static_cast<std::size_t>(padding), static_cast<char>('a' + number % 26));
  }

  std::vector<std::thread> start_producers() {
    std::vector<std::thread> producers;
    producers.reserve(kProducers);
    for (int producer = 0; producer < kProducers; ++producer) {
      producers.emplace_back([this, producer] {
        for (int number = 0; number < kMessages; ++number) {
          store.send_text(message(producer, number));
        }
      });
    }
    return producers;
  }
};

TEST_F(Flood, NothingIsLostDuplicatedReorderedOrOverwritten) {
  const Queue queue = create(8, 256);
  std::vector<std::thread> producers = start_producers();
  std::map<int, int> next;
  int taken = 0;
  for (int call = 0; taken < kProducers * kMessages; ++call) {
    const int size = call % 16 == 0 ? queue->receive() : queue->timed_receive(0);
    if (size == 0) continue;
    const std::string text = queue->get_queue_buffer();
    const int producer = std::stoi(text);
    ASSERT_EQ(text, message(producer, next[producer]++));
    ASSERT_EQ(size, static_cast<int>(text.size()) + 1);
    if (call % 4 == 0) std::this_thread::yield();
    ASSERT_EQ(text, queue->get_queue_buffer()) << "written over while it was read";
    ++taken;
  }
  for (std::thread& producer : producers)
    producer.join();
  EXPECT_EQ(queue->timed_receive(0), 0);
  EXPECT_EQ(store.count(), 0);
}

TEST_F(Flood, EndsUnderLoad) {
  std::atomic<bool> flooding = true;
  std::thread producer([&] {
    const struct timespec at_once = {0, 0};
    while (flooding)
      mq_timedsend(store.descriptor(), "load", 5, 0, &at_once);
  });
  for (int i = 0; i < 100; ++i) {
    Queue queue = create(8, 256);
    for (int call = 0; call < i % 10; ++call) {
      if (queue->timed_receive(0) == 0) continue;
      ASSERT_STREQ(queue->get_queue_buffer(), "load");
    }
    queue.reset();
  }
  flooding = false;
  producer.join();
}

}  // namespace
