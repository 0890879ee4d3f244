#include "log_consumer/qv_log_consumer_pushpull_thread.h"

#include <sys/resource.h>

#include <atomic>
#include <functional>
#include <nlohmann/json.hpp>
#include <random>
#include <system_error>
#include <thread>

#include "gtest/gtest.h"
#include "log_consumer/qv_log_consumer_shared.h"
#include "tests/support/fake_time.h"
#include "tests/support/files.h"
#include "tests/support/journal.h"
#include "tests/support/message_queue.h"
#include "tests/support/notify_socket.h"
#include "tests/support/scarce_memory.h"

namespace {

bool no_queue_of_its_own = false;

}  // namespace

// The linker turns calls of qv_open_own_mqueue() into calls of its __wrap_ form.
extern "C" mqd_t __real__Z18qv_open_own_mqueuePKcii(const char* name, int messages, int bytes);
extern "C" mqd_t __wrap__Z18qv_open_own_mqueuePKcii(const char* name, int messages, int bytes);

extern "C" mqd_t __wrap__Z18qv_open_own_mqueuePKcii(const char* name, int messages, int bytes) {
  if (!no_queue_of_its_own) return __real__Z18qv_open_own_mqueuePKcii(name, messages, bytes);
  errno = EMFILE;
  return -1;
}

namespace {

using test_support::count;
using test_support::eventually;
using test_support::FakeTime;
using test_support::journal;
using test_support::Journal;
using test_support::MessageQueue;
using test_support::NotifySocket;
using test_support::with_nul;

using Shared = logConsumerSharedStruct;
using Strings = std::vector<std::string>;

constexpr int kLong = 60;                // seconds that no passing test waits
constexpr time_t kPast = 1'000'000'000;  // wall clock with which a full queue times out at once

const std::string kThread = "PushpullLC thread: ";
const std::string kExiting = "syslog 6 PushpullLC thread: Exiting thread";
const std::string kReady = "READY=1";
const std::string kWatchdog = "WATCHDOG=1";

std::string more(int messages) {
  return "syslog 6 PushpullLC thread: " + std::to_string(messages) +
         " more messages still in queue, looping";
}

std::string id_document(const std::string& id) {
  return R"({"serverAssigned":{"identities":{"sysId":")" + id + R"("}}})";
}

std::string wifi_document(const std::string& status) {
  return R"({"interfaces":[{"id":1,"wifiStatus":{"status":")" + status + R"("}}]})";
}

class PushpullThread : public testing::Test {
 protected:
  PushpullThread() {
    storeSharedDefaults();
    test_support::clear_journal();
    no_queue_of_its_own = false;
    mq_unlink("/pushpull");
    mq_unlink("/log_consumer");
  }
  ~PushpullThread() override { mq_unlink("/log_consumer"); }

  // The thread's own lines, and no others of the libraries below it.
  static Journal own_lines() {
    Journal lines;
    for (const std::string& line : journal("syslog ")) {
      if (line.compare(9, kThread.size(), kThread) == 0) lines.push_back(line);
    }
    return lines;
  }

  // A whole pass of each: the loop ends when it finds nothing more to do.
  static void end_when_idle() { shared_set(&Shared::resetLogConsumer, true); }

  // Requests that the store has been sent, without white space.
  static Strings requests(MessageQueue& store) {
    Strings texts;
    while (auto message = store.take()) {
      texts.push_back(nlohmann::ordered_json::parse(message->bytes.c_str()).dump());
    }
    return texts;
  }

  static std::string request(const std::string& function, const std::string& buffer) {
    return R"({"function":")" + function + R"(","arg":{"comp_id":1073741840,"buffer":")" + buffer +
           R"("}})";
  }
  static std::string get_request(const std::string& path) { return request("get", path); }

  NotifySocket systemd;
  LogConsumerPushpullClass pushpull;
};

// Connecting

class Init : public PushpullThread {
 protected:
  const std::string kStart =
      "syslog 7 PushpullLC thread: Initializing pushpull and message queue connections in 2nd "
      "thread";
  const std::string kNoClient = "syslog 3 PushpullLC thread: Unable to allocate push-pull API";
  const std::string kNotRegistered = "syslog 3 PushpullLC thread: Unable to register with pushpull";
  const std::string kNotSubscribed =
      "syslog 3 PushpullLC thread: Unable to subscribe for pushpull info";
  const std::string kNotRead = "syslog 3 PushpullLC thread: Unable to get initial pushpull info";

  static std::string no_queue(int error) {
    return "syslog 3 PushpullLC thread: Unable to open message queue (" + std::to_string(error) +
           ")";
  }
};

TEST_F(Init, StartsWithNothing) {
  EXPECT_EQ(pushpull.logPpApi, nullptr);
  EXPECT_EQ(pushpull.logMqueue, nullptr);
}

TEST_F(Init, RegistersSubscribesAndAsksForTheFirstValuesInOrder) {
  MessageQueue store("/pushpull", 10, 1024);
  MessageQueue own("/log_consumer", 10, 1024);
  pushpull.init();
  EXPECT_EQ(own_lines(), Journal{kStart});
  EXPECT_EQ(requests(store),
            (Strings{request("register", "/log_consumer"),
                     request("subscribe", "/serverAssigned;/rgw;/interfaces;/system/clock"),
                     get_request("/serverAssigned"), get_request("/rgw/aapState"),
                     get_request("/rgw/configSec"), get_request("/system/clock"),
                     get_request("/interfaces")}));
  ASSERT_NE(pushpull.logMqueue, nullptr);
  EXPECT_EQ(pushpull.logMqueue->_queue_size, 64);
  EXPECT_EQ(pushpull.logMqueue->_queue_buffer_size, 262144U);
}

TEST_F(Init, FlushesWhatAnEarlierRunLeft) {
  MessageQueue store("/pushpull", 10, 1024);
  MessageQueue own("/log_consumer", 10, 1024);
  own.send_text("DESTRUCTOR CALLED");
  pushpull.init();
  EXPECT_EQ(own.count(), 0);
  EXPECT_EQ(count("syslog 7 Flushed 1 stale messages from queue " +
                  std::to_string(pushpull.logMqueue->_mqueue)),
            1U);
}

TEST_F(Init, CreatesTheQueueForTheStoreToWriteInto) {
  MessageQueue store("/pushpull", 10, 1024);
  pushpull.init();
  if (pushpull.logMqueue == nullptr) {
    struct rlimit limit = {};
    getrlimit(RLIMIT_MSGQUEUE, &limit);
    ASSERT_LT(limit.rlim_cur, 64U * 0x40000U) << "there is room";
    GTEST_SKIP() << "RLIMIT_MSGQUEUE is " << limit.rlim_cur << " and may not be raised";
  }
  EXPECT_EQ(test_support::file_mode("/dev/mqueue/log_consumer"), 0660);
}

TEST_F(Init, WithoutAStoreEachStepIsReportedOnce) {
  const FakeTime clock(kPast);
  MessageQueue own("/log_consumer", 10, 1024);
  pushpull.init();
  EXPECT_EQ(own_lines(), (Journal{kStart, kNotRegistered, kNotSubscribed, kNotRead, kNotRead,
                                  kNotRead, kNotRead, kNotRead}));
  EXPECT_NE(pushpull.logMqueue, nullptr);
  EXPECT_NE(pushpull.logPpApi, nullptr);
  EXPECT_FALSE(test_support::file_exists("/dev/mqueue/pushpull"));
}

TEST_F(Init, GoesOnAfterARequestThatTheStoreDoesNotTake) {
  const FakeTime clock(kPast);
  MessageQueue store("/pushpull", 3, 1024);
  MessageQueue own("/log_consumer", 10, 1024);
  pushpull.init();
  EXPECT_EQ(own_lines(), (Journal{kStart, kNotRead, kNotRead, kNotRead, kNotRead}));
  EXPECT_EQ(requests(store).size(), 3U);
}

TEST_F(Init, WithoutAQueueReportsErrnoAndGoesOn) {
  const FakeTime clock(kPast);
  no_queue_of_its_own = true;
  pushpull.init();
  EXPECT_EQ(own_lines(), (Journal{kStart, no_queue(EMFILE), kNotRegistered, kNotSubscribed,
                                  kNotRead, kNotRead, kNotRead, kNotRead, kNotRead}));
  EXPECT_EQ(pushpull.logMqueue, nullptr);
}

TEST_F(Init, WithoutAClientReportsEverything) {
  const test_support::NoMemoryFor client(sizeof(QvPushpullApi));
  errno = ENOMEM;
  pushpull.init();
  EXPECT_EQ(own_lines(),
            (Journal{kStart, kNoClient, no_queue(ENOMEM), kNotRegistered, kNotSubscribed, kNotRead,
                     kNotRead, kNotRead, kNotRead, kNotRead}));
}

// The loop

class Loop : public PushpullThread {
 protected:
  MessageQueue store{"/pushpull", 10, 1024};
  MessageQueue own{"/log_consumer", 10, 1024};

  void SetUp() override { shared_set(&Shared::sleepSeconds, kLong); }

  void connect() {
    pushpull.init();
    requests(store);
    test_support::clear_journal();
  }
};

TEST_F(Loop, TellsSystemdOnceThatItIsReadyAndFeedsTheWatchdogEachPass) {
  connect();
  own.send_text("x");
  own.send_text("y");
  own.send_text("z");
  end_when_idle();
  pushpull.execute();
  EXPECT_EQ(systemd.datagrams(), (Strings{kReady, kWatchdog, kWatchdog, kWatchdog}));
}

TEST_F(Loop, HandlesQueuedMessagesBackToBackAndSaysHowManyAreLeft) {
  connect();
  for (const char* id : {"one", "two", "three"})
    own.send_text(id_document(id));
  end_when_idle();
  pushpull.execute();
  EXPECT_EQ(shared_get(&Shared::sysId), "three");
  const auto handled = [](const std::string& id) {
    return Journal{"syslog 7 PushpullLC thread: Setting system id " + id,
                   "syslog 6 PushpullLC thread: sysId = " + id + ", aap_state_str = unregistered"};
  };
  Journal expected;
  for (const auto& lines : {handled("one"), Journal{more(2)}, handled("two"), Journal{more(1)},
                            handled("three"), Journal{kExiting}}) {
    expected.insert(expected.end(), lines.begin(), lines.end());
  }
  EXPECT_EQ(journal(), expected);
}

TEST_F(Loop, ReadsAMessageOnlyUpToItsNul) {
  connect();
  own.send(id_document("AB") + std::string(1, '\0') + "rest");
  end_when_idle();
  pushpull.execute();
  EXPECT_EQ(shared_get(&Shared::sysId), "AB");
}

TEST_F(Loop, ReadsAMessageThatFillsItsPlaceWithoutANul) {
  connect();
  std::string text = id_document("AB");
  text.append(1024 - text.size(), ' ');
  own.send(text);
  end_when_idle();
  pushpull.execute();
  EXPECT_EQ(shared_get(&Shared::sysId), "AB");
}

TEST_F(Loop, DropsWhatIsNoDocumentWithoutAWord) {
  connect();
  own.send_text("no document");
  end_when_idle();
  pushpull.execute();
  EXPECT_EQ(journal(), Journal{kExiting});
}

TEST_F(Loop, WakesEverySleepSecondsWithoutMessages) {
  connect();
  shared_set(&Shared::sleepSeconds, 1);
  struct timespec before = {};
  clock_gettime(CLOCK_MONOTONIC, &before);
  std::thread thread([&] { pushpull.execute(); });
  ASSERT_TRUE(eventually([&] { return systemd.count(kWatchdog) >= 3; }));
  struct timespec after = {};
  clock_gettime(CLOCK_MONOTONIC, &after);
  end_when_idle();
  thread.join();
  EXPECT_GE((after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000,
            1999);
  EXPECT_EQ(journal("usleep"), Journal{});
}

TEST_F(Loop, SpinsWithSleepSeconds0) {
  connect();
  shared_set(&Shared::sleepSeconds, 0);
  std::thread thread([&] { pushpull.execute(); });
  EXPECT_TRUE(eventually([&] { return systemd.count(kWatchdog) >= 100; }));
  end_when_idle();
  thread.join();
}

TEST_F(Loop, TakesSleepSecondsOnceAtItsStart) {
  connect();
  shared_set(&Shared::sleepSeconds, 0);
  std::thread thread([&] { pushpull.execute(); });
  ASSERT_TRUE(eventually([&] { return systemd.count(kWatchdog) >= 1; }));
  shared_set(&Shared::sleepSeconds, 100000);
  const std::size_t so_far = systemd.count(kWatchdog);
  EXPECT_TRUE(eventually([&] { return systemd.count(kWatchdog) >= so_far + 100; }));
  end_when_idle();
  thread.join();
}

TEST_F(Loop, AMessageEndsTheWait) {
  connect();
  shared_set(&Shared::sleepSeconds, 100000);
  std::thread thread([&] { pushpull.execute(); });
  ASSERT_TRUE(eventually([&] { return systemd.count(kWatchdog) == 1; }));
  own.send_text(id_document("woken"));
  EXPECT_TRUE(eventually([&] { return shared_get(&Shared::sysId) == "woken"; }));
  end_when_idle();
  own.send_text("last");
  thread.join();
}

// The end of the loop

TEST_F(Loop, EndsOnResetOnlyWhenTheQueueIsEmpty) {
  connect();
  end_when_idle();
  for (int i = 0; i < 10; ++i)
    own.send_text(id_document("id" + std::to_string(i)));
  pushpull.execute();
  EXPECT_EQ(shared_get(&Shared::sysId), "id9");
  EXPECT_EQ(systemd.count(kWatchdog), 10U);
  EXPECT_EQ(journal().back(), kExiting);
  EXPECT_FALSE(shared_get(&Shared::inactivityExit));
}

time_t monotonic_now() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

TEST_F(Loop, NeverEndsForInactivityWhileMessagesArrive) {
  connect();
  logConsumerShared.lastActivityTime.tv_sec = monotonic_now() - 20000;
  for (int i = 0; i < 6; ++i)
    own.send_text(id_document("id" + std::to_string(i)));
  pushpull.execute();
  EXPECT_EQ(shared_get(&Shared::sysId), "id5");
  EXPECT_EQ(systemd.count(kWatchdog), 6U);
  EXPECT_TRUE(shared_get(&Shared::inactivityExit));
  const Journal lines = journal();
  EXPECT_EQ(lines[lines.size() - 2], "syslog 4 PushpullLC thread: reset due to no activity");
  EXPECT_EQ(lines.back(), kExiting);
}

// Asking again

TEST_F(Loop, AsksAgainOnManualUpdateAndClearsIt) {
  connect();
  shared_set(&Shared::manualUpdate, true);
  own.send_text("wakes the loop");
  end_when_idle();
  pushpull.execute();
  EXPECT_EQ(requests(store), (Strings{get_request("/serverAssigned"), get_request("/rgw")}));
  EXPECT_FALSE(shared_get(&Shared::manualUpdate));
  EXPECT_EQ(journal("syslog 3"), Journal{});
}

TEST_F(Loop, HandlesTheAnswersOfAManualUpdateAsMessages) {
  connect();
  shared_set(&Shared::manualUpdate, true);
  shared_set(&Shared::sleepSeconds, 0);
  std::thread thread([&] { pushpull.execute(); });
  ASSERT_TRUE(eventually([&] { return store.count() == 2; }));
  own.send_text(id_document("answered"));
  EXPECT_TRUE(eventually([&] { return shared_get(&Shared::sysId) == "answered"; }));
  end_when_idle();
  thread.join();
}

TEST_F(PushpullThread, AFailedManualUpdateReportsEachRequestAndClearsItsRequest) {
  const FakeTime clock(kPast);
  pushpull.logPpApi = QvPushpullApi::create();
  shared_set(&Shared::manualUpdate, true);
  pushpull.manuallyUpdateStateID();
  const std::string not_read = "syslog 3 PushpullLC thread: Unable to get initial pushpull info";
  EXPECT_EQ(own_lines(), (Journal{not_read, not_read}));
  EXPECT_FALSE(shared_get(&Shared::manualUpdate));
}

TEST_F(PushpullThread, SleepTakesMilliseconds) {
  const FakeTime clock(kPast);
  pushpull.sleep();
  shared_set(&Shared::sleepSeconds, 0);
  pushpull.sleep();
  shared_set(&Shared::sleepSeconds, -5);
  pushpull.sleep();
  EXPECT_EQ(journal(), (Journal{"usleep 5000", "usleep 0", "usleep 0"}));
}

// Without a receive queue

class WithoutQueue : public PushpullThread {
 protected:
  FakeTime clock{kPast, 100000};

  // Ends the loop after so many passes.
  void end_after(int passes) {
    clock.on_sleep([this, passes](std::int64_t) {
      if (++slept_ == passes) end_when_idle();
    });
  }

 private:
  int slept_ = 0;
};

TEST_F(WithoutQueue, FeedsTheWatchdogOncePerSleepSeconds) {
  end_after(3);
  pushpull.execute();
  EXPECT_EQ(journal(), (Journal{"sleep 5", "sleep 5", "sleep 5", kExiting}));
  EXPECT_EQ(systemd.datagrams(), (Strings{kReady, kWatchdog, kWatchdog, kWatchdog}));
}

TEST_F(WithoutQueue, SleepsNotAtAllWithNegativeSeconds) {
  shared_set(&Shared::sleepSeconds, -5);
  end_after(2);
  pushpull.execute();
  EXPECT_EQ(journal("sleep"), (Journal{"sleep 0", "sleep 0"}));
}

TEST_F(WithoutQueue, AsksAgainOnManualUpdate) {
  MessageQueue store("/pushpull", 10, 1024);
  pushpull.logPpApi = QvPushpullApi::create();
  ASSERT_EQ(pushpull.logPpApi->init(""), 0);
  shared_set(&Shared::manualUpdate, true);
  end_when_idle();
  pushpull.execute();
  EXPECT_EQ(requests(store), (Strings{get_request("/serverAssigned"), get_request("/rgw")}));
  EXPECT_FALSE(shared_get(&Shared::manualUpdate));
}

TEST_F(WithoutQueue, EndsForInactivityOneSecondAfterTheLimit) {
  shared_set(&Shared::sleepSeconds, 1);
  // The first pass ends at 100001, exactly at the limit; the second one a second later.
  logConsumerShared.lastActivityTime.tv_sec = 100001 - 14400;
  pushpull.execute();
  EXPECT_EQ(journal(), (Journal{"sleep 1", "sleep 1",
                                "syslog 4 PushpullLC thread: reset due to no activity", kExiting}));
  EXPECT_TRUE(shared_get(&Shared::inactivityExit));
  EXPECT_FALSE(shared_get(&Shared::resetLogConsumer));
}

TEST_F(WithoutQueue, NeverEndsForInactivityWhileTheClockIsNotArmed) {
  shared_set(&Shared::sleepSeconds, 20000);
  end_after(4);
  pushpull.execute();
  EXPECT_EQ(journal().back(), kExiting);
  EXPECT_EQ(systemd.count(kWatchdog), 4U);
  EXPECT_FALSE(shared_get(&Shared::inactivityExit));
}

TEST_F(WithoutQueue, ActivityOfTheUploadsPutsTheEndOff) {
  shared_set(&Shared::sleepSeconds, 14000);
  logConsumerShared.lastActivityTime.tv_sec = 100000;
  int passes = 0;
  clock.on_sleep([&](std::int64_t) {
    if (++passes > 3) return;
    const std::lock_guard<std::mutex> lock(logConsumerShared.logsMutex);
    logConsumerShared.lastActivityTime.tv_sec += 14000;
  });
  pushpull.execute();
  // Three passes with activity, one without, one beyond the limit.
  EXPECT_EQ(passes, 5);
  EXPECT_TRUE(shared_get(&Shared::inactivityExit));
}

TEST_F(WithoutQueue, AFailingClockIsReportedAndEndsNothing) {
  logConsumerShared.lastActivityTime.tv_sec = 1;
  clock.fail_monotonic(EINVAL);
  end_after(3);
  pushpull.execute();
  const std::string failed = "syslog 3 PushpullLC thread: clock_gettime() failed 22";
  EXPECT_EQ(journal(), (Journal{"sleep 5", failed, "sleep 5", failed, "sleep 5", kExiting}));
}

TEST(InactivityLimit, IsFourHours) {
  EXPECT_FALSE(inactiveTooLong(20000, 20000 + 14399));
  EXPECT_FALSE(inactiveTooLong(20000, 20000 + 14400));
  EXPECT_TRUE(inactiveTooLong(20000, 20000 + 14401));
}

TEST(InactivityLimit, NeverPassesWhileNoPeriodRuns) {
  EXPECT_FALSE(inactiveTooLong(0, 1'000'000));
}

// Wi-Fi, by way of the store

TEST_F(Loop, ALossOfTheWifiEndsTheInactivityPeriod) {
  connect();
  logConsumerShared.lastActivityTime.tv_sec = monotonic_now() - 20000;
  own.send_text(wifi_document("disassociated"));
  std::thread thread([&] { pushpull.execute(); });
  ASSERT_TRUE(eventually([&] { return systemd.count(kWatchdog) == 2; })) << "the loop goes on";
  EXPECT_EQ(shared_get(&Shared::lastActivityTime).tv_sec, 0);
  end_when_idle();
  own.send_text("last");
  thread.join();
  EXPECT_FALSE(shared_get(&Shared::inactivityExit));
}

TEST_F(Loop, AReportOfAssociationStartsTheInactivityPeriodAnew) {
  connect();
  logConsumerShared.lastActivityTime.tv_sec = monotonic_now() - 20000;
  own.send_text(wifi_document("disassociated"));
  own.send_text(wifi_document("associated"));
  const time_t before = monotonic_now();
  end_when_idle();
  pushpull.execute();
  EXPECT_GE(shared_get(&Shared::lastActivityTime).tv_sec, before);
  EXPECT_TRUE(shared_get(&Shared::wifiAssociated));
  EXPECT_FALSE(shared_get(&Shared::inactivityExit));
}

// Threads and ends

// Makes a second lock of the record by its holder fail instead of wait.
class FailingRecordLock {
 public:
  FailingRecordLock() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(mutex_, &attributes);
    pthread_mutexattr_destroy(&attributes);
    pthread_mutex_lock(mutex_);
  }
  ~FailingRecordLock() {
    pthread_mutex_unlock(mutex_);
    pthread_mutex_init(mutex_, nullptr);
  }
  FailingRecordLock(const FailingRecordLock&) = delete;
  FailingRecordLock& operator=(const FailingRecordLock&) = delete;

 private:
  pthread_mutex_t* const mutex_ = logConsumerShared.logsMutex.native_handle();
};

TEST_F(PushpullThread, AFailedLockOfTheRecordEndsTheThreadWithSystemError) {
  const FailingRecordLock failing;
  EXPECT_THROW(pushpull.execute(), std::system_error);
  EXPECT_EQ(systemd.datagrams(), Strings{});
}

TEST_F(PushpullThread, LetsTheReceiveQueueGoBeforeTheClient) {
  {
    LogConsumerPushpullClass ending;
    const auto noting = [](const char* text) {
      return [text](auto* object) {
        test_support::note(text);
        std::default_delete<std::remove_pointer_t<decltype(object)>>()(object);
      };
    };
    ending.logPpApi = std::unique_ptr<QvPushpullApi, std::function<void(QvPushpullApi*)>>(
        std::make_unique<QvPushpullApi>().release(), noting("client"));
    ending.logMqueue =
        std::unique_ptr<QvPushpullReceiveQueue, std::function<void(QvPushpullReceiveQueue*)>>(
            std::make_unique<QvPushpullReceiveQueue>("no slash", 1, 1).release(), noting("queue"));
    test_support::clear_journal();
  }
  EXPECT_EQ(journal(), (Journal{"queue", "client"}));
}

TEST_F(Loop, TheWholeThreadConnectsServesAndEndsWithoutUnregistering) {
  shared_set(&Shared::sleepSeconds, 1);
  std::thread thread(LogConsumerPushpullThreadExecute);
  ASSERT_TRUE(eventually([&] { return systemd.count(kReady) == 1; }));
  EXPECT_EQ(requests(store).size(), 7U);
  own.send_text(wifi_document("associated"));
  own.send_text(R"({"rgw":{"aapState":"bound"}})");
  own.send_text(id_document("AB12345678"));
  EXPECT_TRUE(eventually([&] { return shared_get(&Shared::sysId) == "AB12345678"; }));
  EXPECT_EQ(shared_get(&Shared::aapStateStr), "bound");
  EXPECT_TRUE(shared_get(&Shared::wifiAssociated));
  EXPECT_TRUE(shared_get(&Shared::setDelayMinutes));
  end_when_idle();
  thread.join();
  EXPECT_EQ(requests(store), Strings{});
  EXPECT_EQ(journal("syslog 3"), Journal{});
  EXPECT_TRUE(test_support::file_exists("/dev/mqueue/log_consumer"));
}

TEST_F(Loop, TheWholeThreadEndsWhileTheStoreFloodsIt) {
  shared_set(&Shared::sleepSeconds, 1);
  std::atomic<bool> flooding = true;
  std::thread flood([&] {
    const std::string text = with_nul(id_document("flood"));
    const struct timespec at_once = {0, 0};
    for (int sent = 0; flooding && sent < 2000;) {
      if (mq_timedsend(own.descriptor(), text.data(), text.size(), 0, &at_once) == 0) ++sent;
    }
  });
  std::thread thread(LogConsumerPushpullThreadExecute);
  ASSERT_TRUE(eventually([&] { return shared_get(&Shared::sysId) == "flood"; }));
  end_when_idle();
  thread.join();
  flooding = false;
  flood.join();
  EXPECT_EQ(count(kExiting), 1U);
}

// Any bytes, any length that the queue takes.
TEST_F(PushpullThread, SurvivesWhateverIsWrittenIntoItsQueue) {
  MessageQueue store("/pushpull", 10, 1024);
  MessageQueue own("/log_consumer", 10, 8192);
  pushpull.init();
  shared_set(&Shared::sleepSeconds, kLong);
  shared_set(&Shared::sysId, "AB12345678");
  shared_set(&Shared::nuvToken, "dG9rZW4=");
  shared_set(&Shared::aapStateStr, "bound");
  test_support::clear_journal();
  end_when_idle();
  std::mt19937 random(1);
  for (int round = 0; round < 100; ++round) {
    for (int i = 0; i < 9; ++i) {
      const std::size_t sizes[] = {0, 1, 8191, 8192, random() % 8193};
      std::string bytes =
          test_support::noise(sizes[random() % 5], static_cast<std::uint32_t>(random()));
      if (i % 3 == 0) bytes.assign(bytes.size(), "[{\"\0"[random() % 4]);
      own.send(bytes);
    }
    own.send_text(id_document("AB12345678"));
    pushpull.execute();
    ASSERT_EQ(own.count(), 0);
  }
  EXPECT_EQ(shared_get(&Shared::sysId), "AB12345678");
  EXPECT_EQ(shared_get(&Shared::nuvToken), "dG9rZW4=");
  EXPECT_EQ(shared_get(&Shared::aapStateStr), "bound");
  EXPECT_EQ(count("syslog 7 PushpullLC thread: Setting system id AB12345678"), 100U);
}

}  // namespace
