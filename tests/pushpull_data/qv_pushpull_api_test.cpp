#include "pushpull_data/qv_pushpull_api.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "gtest/gtest.h"
#include "libjson.h"
#include "tests/support/fake_time.h"
#include "tests/support/files.h"
#include "tests/support/journal.h"
#include "tests/support/message_queue.h"
#include "tests/support/wide_names.h"

namespace {

using test_support::FakeTime;
using test_support::journal;
using test_support::Journal;
using test_support::MessageQueue;
using test_support::UnlinkAtEnd;
using test_support::with_nul;

bool json_library_fails = false;

}  // namespace

// The linker turns calls of these functions into calls of their __wrap_ forms.
extern "C" {

int __real_mq_timedsend(mqd_t queue, const char* message, size_t size, unsigned priority,
                        const struct timespec* deadline);
int __wrap_mq_timedsend(mqd_t queue, const char* message, size_t size, unsigned priority,
                        const struct timespec* deadline);
int __real_setrlimit(__rlimit_resource_t resource, const struct rlimit* limit);
int __wrap_setrlimit(__rlimit_resource_t resource, const struct rlimit* limit);
char* __real_json_write_formatted(const JSONNODE* node);
char* __wrap_json_write_formatted(const JSONNODE* node);

int __wrap_mq_timedsend(mqd_t queue, const char* message, size_t size, unsigned priority,
                        const struct timespec* deadline) {
  test_support::note("mq_timedsend priority " + std::to_string(priority) + " until " +
                     std::to_string(deadline->tv_sec));
  return __real_mq_timedsend(queue, message, size, priority, deadline);
}

int __wrap_setrlimit(__rlimit_resource_t resource, const struct rlimit* limit) {
  test_support::note("setrlimit " + std::to_string(resource) + " " +
                     std::to_string(limit->rlim_cur));
  return __real_setrlimit(resource, limit);
}

char* __wrap_json_write_formatted(const JSONNODE* node) {
  return json_library_fails ? nullptr : __real_json_write_formatted(node);
}

}  // extern "C"

namespace {

constexpr time_t kNow = 1'000'000'000;  // long past, so that a queue's time-outs are over at once
constexpr mqd_t kNoQueue = 9999;        // no descriptor of any kind

class PushpullApi : public testing::Test {
 protected:
  void SetUp() override {
    test_support::clear_journal();
    json_library_fails = false;
    mq_unlink("/pushpull");
    umask(022);
  }

  QvPushpullApi api;
};

std::string hex(mqd_t value) {
  std::ostringstream text;
  text << std::hex << value;
  return text.str();
}

std::string opened(mqd_t value) {
  return "syslog 7 QvPushpullApi MessageQueue: mq_open: MQ: " + hex(value);
}

std::string not_opened(int error) {
  return "syslog 3 QvPushpullApi MessageQueue:mq_open: \"/pushpull\" -failed:, ERR_CODE : " +
         std::to_string(error);
}

// Opening and closing

TEST_F(PushpullApi, ANewClientHasNoQueueAndNoSuffix) {
  EXPECT_EQ(api.queue_descriptor, -1);
  EXPECT_EQ(api.subq_name, "");
}

TEST_F(PushpullApi, InitOpensTheStoresQueue) {
  MessageQueue store("/pushpull");
  EXPECT_EQ(api.init(""), 0);
  EXPECT_EQ(journal(), Journal{opened(api.queue_descriptor)});
  EXPECT_EQ(mq_send(api.queue_descriptor, "x", 1, 0), 0);
  EXPECT_EQ(store.count(), 1);
  EXPECT_EQ(api.terminate(), 0);
}

TEST_F(PushpullApi, InitAppendsItsSuffix) {
  MessageQueue store("/pushpull_sub");
  EXPECT_EQ(api.init("_sub"), 0);
  EXPECT_EQ(api.subq_name, "") << "the suffix of a later re-open is the owner's to set";
  EXPECT_EQ(api.terminate(), 0);
}

TEST_F(PushpullApi, InitWithoutAStoreFailsAndCreatesNothing) {
  EXPECT_EQ(api.init(""), -1);
  EXPECT_EQ(api.queue_descriptor, -1);
  EXPECT_EQ(journal(), (Journal{opened(-1), not_opened(ENOENT)}));
  EXPECT_FALSE(test_support::file_exists("/dev/mqueue/pushpull"));
}

TEST_F(PushpullApi, AFailedInitNamesTheQueueWithoutItsSuffix) {
  EXPECT_EQ(api.init("_sub"), -1);
  EXPECT_EQ(journal(), (Journal{opened(-1), not_opened(ENOENT)}));
}

TEST_F(PushpullApi, TerminateClosesTheQueue) {
  MessageQueue store("/pushpull");
  ASSERT_EQ(api.init(""), 0);
  const mqd_t descriptor = api.queue_descriptor;
  EXPECT_EQ(api.terminate(), 0);
  struct mq_attr attributes = {};
  EXPECT_EQ(mq_getattr(descriptor, &attributes), -1);
  EXPECT_EQ(api.queue_descriptor, -1);
}

TEST_F(PushpullApi, TerminateWithDescriptor0ClosesNothing) {
  api.queue_descriptor = 0;
  EXPECT_EQ(api.terminate(), 0);
  EXPECT_NE(fcntl(0, F_GETFD), -1) << "standard input is still open";
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(PushpullApi, TerminateWithoutAQueueFailsInMqClose) {
  EXPECT_EQ(api.terminate(), -1);
  EXPECT_EQ(journal(), Journal{"syslog 3 QvPushpullApi : terminate: mq_close: failed:"});
}

TEST_F(PushpullApi, ASharedClientIsTerminatedBeforeItIsFreed) {
  MessageQueue store("/pushpull");
  auto shared = QvPushpullApi::create();
  ASSERT_EQ(shared->init(""), 0);
  const mqd_t descriptor = shared->queue_descriptor;
  auto other = shared;
  shared.reset();
  struct mq_attr attributes = {};
  EXPECT_EQ(mq_getattr(descriptor, &attributes), 0) << "still held";
  other.reset();
  EXPECT_EQ(mq_getattr(descriptor, &attributes), -1);
}

TEST_F(PushpullApi, ASharedClientWithoutAQueueIsTerminatedToo) {
  QvPushpullApi::create().reset();
  EXPECT_EQ(journal(), Journal{"syslog 3 QvPushpullApi : terminate: mq_close: failed:"});
}

// Opening with the caller's flags

const std::string kRoomAskedFor = "setrlimit " + std::to_string(RLIMIT_MSGQUEUE) + " 851968000";

TEST_F(PushpullApi, CreateAndErrorHandlingUsesTheCallersFlagsAndMode) {
  const UnlinkAtEnd unlink("/create_test");
  umask(077);
  struct mq_attr attributes = {};
  attributes.mq_maxmsg = 2;
  attributes.mq_msgsize = 32;
  const mqd_t queue = api.message_queue_create_and_error_handling(
      "/create_test", O_RDONLY | O_CREAT | O_NONBLOCK, 0620, &attributes);
  ASSERT_NE(queue, -1);
  EXPECT_EQ(journal(),
            (Journal{kRoomAskedFor, "syslog 3  message_queue_create_and_error_handling: open ::" +
                                        std::to_string(queue)}));
  struct mq_attr found = {};
  ASSERT_EQ(mq_getattr(queue, &found), 0);
  EXPECT_EQ(found.mq_flags, O_NONBLOCK);
  EXPECT_EQ(test_support::file_mode("/dev/mqueue/create_test"), 0620);
  EXPECT_EQ(umask(0), 077U) << "the umask is set back";
  mq_close(queue);
}

TEST_F(PushpullApi, CreateAndErrorHandlingFlushesAnExistingQueue) {
  MessageQueue existing("/create_test");
  existing.send("old");
  const mqd_t queue =
      api.message_queue_create_and_error_handling("/create_test", O_RDWR, 0660, nullptr);
  EXPECT_EQ(existing.count(), 0);
  const std::string number = std::to_string(queue);
  EXPECT_EQ(
      journal(),
      (Journal{kRoomAskedFor, "syslog 3  message_queue_create_and_error_handling: open ::" + number,
               "syslog 7 Flushed 1 stale messages from queue " + number}));
  mq_close(queue);
}

TEST_F(PushpullApi, CreateAndErrorHandlingReportsAFailureWithErrno) {
  umask(027);
  EXPECT_EQ(api.message_queue_create_and_error_handling("/missing", O_RDWR, 0660, nullptr), -1);
  EXPECT_EQ(journal(),
            (Journal{kRoomAskedFor, "syslog 3  message_queue_create_and_error_handling: open ::-1",
                     "syslog 3 Error in creating the queue. Error: 2"}));
  EXPECT_EQ(umask(0), 027U);
}

// The retrying send

std::string invalid_descriptor(int attempt) {
  return "syslog 3 QvPushpullApi : MsgQueue: Invalid Descriptor: ffffffff, Retry Attempt " +
         std::to_string(attempt);
}

const std::string kGaveUpOpening =
    "syslog 2 QvPushpullApi : Fatal Error: Can not open msg que to push pull after 5 retries.  "
    "Aborting!";

std::string timed_send(time_t second) {
  return "mq_timedsend priority 1 until " + std::to_string(second);
}

std::string failed_send(int error, int messages, int attempt) {
  return "syslog 3 QvPushPullApi: mq_timedsend failed with errnum " + std::to_string(error) +
         ", Msgs in que = " + std::to_string(messages) + ", Retry Attempt " +
         std::to_string(attempt);
}

std::string gave_up_sending(mqd_t queue, int length) {
  return "syslog 2 QvPushpullApi: mq_send FAILED all tries: Descriptor: " + hex(queue) +
         ", ERR_CODE: 50003, Message Length = " + std::to_string(length);
}

const std::string kPause = "usleep 1000000";

TEST_F(PushpullApi, PostSendsTheTextWithItsNulAtPriority1) {
  MessageQueue store("/pushpull");
  ASSERT_EQ(api.init(""), 0);
  EXPECT_EQ(api.post_msg_to_pushpull_data("hello"), 0);
  const auto message = store.take();
  EXPECT_EQ(message->bytes, with_nul("hello"));
  EXPECT_EQ(message->priority, 1U);
  EXPECT_EQ(api.terminate(), 0);
}

TEST_F(PushpullApi, PostSendsAMessageOfOneByteLessThanTheQueuesSize) {
  MessageQueue store("/pushpull", 2, 64);
  ASSERT_EQ(api.init(""), 0);
  EXPECT_EQ(api.post_msg_to_pushpull_data(std::string(63, 'x')), 0);
  EXPECT_EQ(store.take()->bytes.size(), 64U);
  EXPECT_EQ(api.terminate(), 0);
}

TEST_F(PushpullApi, PostFailsWithAMessageOfTheQueuesSize) {
  MessageQueue store("/pushpull", 2, 64);
  const FakeTime clock(kNow);
  ASSERT_EQ(api.init(""), 0);
  EXPECT_EQ(api.post_msg_to_pushpull_data(std::string(64, 'x')), -1);
  EXPECT_EQ(test_support::count(failed_send(EMSGSIZE, 0, 4)), 1U);
  EXPECT_EQ(store.count(), 0);
  EXPECT_EQ(api.terminate(), 0);
}

TEST_F(PushpullApi, PostReopensFiveTimesOneSecondApartThenGivesUp) {
  const FakeTime clock(kNow);
  EXPECT_EQ(api.post_msg_to_pushpull_data("hello"), -1);
  Journal expected;
  for (int attempt = 1; attempt <= 5; ++attempt) {
    expected.insert(expected.end(),
                    {invalid_descriptor(attempt), kPause, opened(-1), not_opened(ENOENT)});
  }
  expected.push_back(kGaveUpOpening);
  EXPECT_EQ(journal(), expected);
  EXPECT_FALSE(test_support::file_exists("/dev/mqueue/pushpull"));
}

TEST_F(PushpullApi, PostStopsReopeningAsSoonAsTheStoreIsThere) {
  FakeTime clock(kNow);
  std::unique_ptr<MessageQueue> store;
  int pauses = 0;
  clock.on_sleep([&](std::int64_t) {
    if (++pauses == 2) store = std::make_unique<MessageQueue>("/pushpull");
  });
  EXPECT_EQ(api.post_msg_to_pushpull_data("hello"), 0);
  EXPECT_EQ(journal(), (Journal{invalid_descriptor(1), kPause, opened(-1), not_opened(ENOENT),
                                invalid_descriptor(2), kPause, opened(api.queue_descriptor),
                                timed_send(kNow + 3)}));
  EXPECT_EQ(store->take()->bytes, with_nul("hello"));
  EXPECT_EQ(api.terminate(), 0);
}

TEST_F(PushpullApi, PostReopensWithTheSuffix) {
  const FakeTime clock(kNow);
  MessageQueue store("/pushpull_sub");
  api.subq_name = "_sub";
  EXPECT_EQ(api.post_msg_to_pushpull_data("hello"), 0);
  EXPECT_EQ(store.count(), 1);
  EXPECT_EQ(api.terminate(), 0);
}

TEST_F(PushpullApi, PostTriesAFullQueueFiveTimesAndPausesAfterEach) {
  const FakeTime clock(kNow);
  MessageQueue store("/pushpull", 3, 64);
  store.fill();
  ASSERT_EQ(api.init(""), 0);
  test_support::clear_journal();
  EXPECT_EQ(api.post_msg_to_pushpull_data("hello"), -1);
  Journal expected;
  for (int attempt = 0; attempt < 5; ++attempt) {
    // Each try ends one second after it began; the pause before it has moved the clock on.
    expected.insert(expected.end(),
                    {timed_send(kNow + attempt + 1), failed_send(ETIMEDOUT, 3, attempt), kPause});
  }
  expected.push_back(gave_up_sending(api.queue_descriptor, 6));
  EXPECT_EQ(journal(), expected);
  EXPECT_EQ(store.count(), 3);
  EXPECT_EQ(api.terminate(), 0);
}

TEST_F(PushpullApi, PostSucceedsAsSoonAsThereIsRoom) {
  FakeTime clock(kNow);
  MessageQueue store("/pushpull", 3, 64);
  store.fill();
  clock.on_sleep([&](std::int64_t) { store.take(); });
  ASSERT_EQ(api.init(""), 0);
  test_support::clear_journal();
  EXPECT_EQ(api.post_msg_to_pushpull_data("hello"), 0);
  EXPECT_EQ(journal(), (Journal{timed_send(kNow + 1), failed_send(ETIMEDOUT, 3, 0), kPause,
                                timed_send(kNow + 2)}));
  EXPECT_EQ(api.terminate(), 0);
}

TEST_F(PushpullApi, PostWaitsARealSecondForRoom) {
  MessageQueue store("/pushpull", 3, 64);
  store.fill();
  ASSERT_EQ(api.init(""), 0);
  struct timespec before = {};
  clock_gettime(CLOCK_MONOTONIC, &before);
  struct timespec failed = {};
  std::thread reader([&] {
    test_support::eventually([&] { return !journal("syslog 3").empty(); });
    clock_gettime(CLOCK_MONOTONIC, &failed);
    store.take();
  });
  EXPECT_EQ(api.post_msg_to_pushpull_data("hello"), 0);
  reader.join();
  EXPECT_EQ(test_support::count(failed_send(ETIMEDOUT, 3, 0)), 1U);
  EXPECT_GE((failed.tv_sec - before.tv_sec) * 1000 + (failed.tv_nsec - before.tv_nsec) / 1000000,
            900);
  EXPECT_EQ(api.terminate(), 0);
}

TEST_F(PushpullApi, PostWithADescriptorThatIsNoQueueFailsWithoutMessages) {
  const FakeTime clock(kNow);
  api.queue_descriptor = kNoQueue;
  EXPECT_EQ(api.post_msg_to_pushpull_data("hello"), -1);
  EXPECT_EQ(test_support::count(failed_send(EBADF, 0, 0)), 1U);
  EXPECT_EQ(test_support::count(gave_up_sending(kNoQueue, 6)), 1U);
}

// Requests

struct Operation {
  const char* name;
  std::function<int(QvPushpullApi&)> call;
  const char* request;  // without white space
  const char* not_sent;
  const char* empty_message;
};

std::ostream& operator<<(std::ostream& stream, const Operation& operation) {
  return stream << operation.name;
}

struct mq_attr* given_queue() {
  static struct mq_attr attributes = {};
  attributes.mq_flags = 2048;
  attributes.mq_maxmsg = 64;
  attributes.mq_msgsize = 262144;
  attributes.mq_curmsgs = 3;
  return &attributes;
}

constexpr eQV_CMP_IDs_ kId = QV_CMPID_LOG_CONSUMER;
constexpr auto kMayDelete = static_cast<eQV_CMP_IDs_>(0x40000005);

const Operation kOperations[] = {
    {"comp_register",
     [](QvPushpullApi& api) { return api.comp_register(kId, "/log_consumer", given_queue()); },
     R"({"function":"register","arg":{"comp_id":1073741840,"buffer":"/log_consumer"},)"
     R"("que":{"flags":2048,"maxmsg":64,"msgsize":262144,"curmsgs":3}})",
     "QvPushpullApi: register : mq_send: failed:",
     "QvPushpullApi:comp_register : post_msg.size() = 0"},
    {"comp_unregister", [](QvPushpullApi& api) { return api.comp_unregister(kId); },
     R"({"function":"unregister","arg":{"comp_id":1073741840,"buffer":""}})",
     "QvPushpullApi: unregister : mq_send: failed:",
     "QvPushpullApi:comp_unregister:post_msg.size() = 0"},
    {"subscribe",
     [](QvPushpullApi& api) {
       return api.subscribe(kId, "/serverAssigned;/rgw;/interfaces;/system/clock", true);
     },
     R"({"function":"subscribe","arg":{"comp_id":1073741840,)"
     R"("buffer":"/serverAssigned;/rgw;/interfaces;/system/clock","notifyOnChangeOnly":true}})",
     "QvPushpullApi: subscribe : mq_send: failed:",
     "QvPushpullApi :subscribe : post_msg.size() = 0"},
    {"un_subscribe", [](QvPushpullApi& api) { return api.un_subscribe(kId, "/rgw"); },
     R"({"function":"unsubscribe","arg":{"comp_id":1073741840,"buffer":"/rgw"}})",
     "QvPushpullApi: un_subscribe : mq_send: failed:",
     "QvPushpullApi :un_subscribe : post_msg.size() = 0"},
    {"publish",
     [](QvPushpullApi& api) { return api.publish(kId, R"({"rgw":{"aapState":"bound"}})"); },
     R"({"function":"publish","arg":{"comp_id":1073741840,)"
     R"("buffer":"{\"rgw\":{\"aapState\":\"bound\"}}"}})",
     "QvPushpullApi: publish : mq_send: failed:", "QvPushpullApi :publish : post_msg.size() = 0"},
    {"get", [](QvPushpullApi& api) { return api.get(kId, "/rgw", "me", true); },
     R"({"function":"get","arg":{"comp_id":1073741840,"buffer":"/rgw","pack_and_send":true,)"
     R"("sender_id":"me"}})",
     "QvPushpullApi: get : mq_send: failed:", "QvPushpullApi :get : post_msg.size() = 0"},
    {"flush", [](QvPushpullApi& api) { return api.flush(kId); },
     R"({"function":"save","arg":{"comp_id":1073741840,"buffer":""}})",
     "QvPushpullApi: flush : mq_send: failed:", "QvPushpullApi :flush : post_msg.size() = 0"},
    {"save_complete_tree", [](QvPushpullApi& api) { return api.save_complete_tree(kId); },
     R"({"function":"save_debug","arg":{"comp_id":1073741840,"buffer":""}})",
     "QvPushpullApi: save_complete_tree : mq_send: failed:",
     "QvPushpullApi :save_complete_tree : post_msg.size() = 0"},
    {"clear", [](QvPushpullApi& api) { return api.clear(kId, "/rgw"); },
     R"({"function":"clear","arg":{"comp_id":1073741840,"buffer":"/rgw"}})",
     "QvPushpullApi: clear : mq_send: failed:", "QvPushpullApi :clear : post_msg.size() = 0"},
    {"delete_node", [](QvPushpullApi& api) { return api.delete_node(kMayDelete, "/rgw"); },
     R"({"function":"delete","arg":{"comp_id":1073741829,"buffer":"/rgw"}})",
     "QvPushpullApi: delete_node : mq_send: failed:",
     "QvPushpullApi :delete_node : post_msg.size() = 0"},
    {"init_request", [](QvPushpullApi& api) { return api.init_request(kId, "50%s done"); },
     R"({"function":"init","arg":{"comp_id":1073741840,"buffer":"50%s done"}})",
     "QvPushpullApi: 50%s done init_request:mq_send: failed:",
     "QvPushpullApi :50%s done init_request:post_msg.size() = 0"},
    {"exit_request", [](QvPushpullApi& api) { return api.exit_request(kId, "bye"); },
     R"({"function":"exit","arg":{"comp_id":1073741840,"buffer":"bye"}})",
     "QvPushpullApi: bye exit_request:mq_send: failed:",
     "QvPushpullApi :bye exit_request:post_msg.size() = 0"},
    {"comp_sync", [](QvPushpullApi& api) { return api.comp_sync(kId, QV_CMPID_PUSHPULL, "now"); },
     R"({"function":"sync","arg":{"comp_id":1073741840,"dst_comp_id":1100,"buffer":"now"}})",
     "QvPushpullApi: register : mq_send: failed:",
     "QvPushpullApi:comp_register : post_msg.size() = 0"},
};

std::string text_of(const MessageQueue::Message& message) {
  return message.bytes.substr(0, message.bytes.find('\0'));
}

// Members in the order of the text, white space removed.
std::string compact(const std::string& text) {
  return nlohmann::ordered_json::parse(text).dump();
}

class Request : public PushpullApi, public testing::WithParamInterface<Operation> {};

TEST_P(Request, IsSentAsOneJsonTextWithItsMembersInOrder) {
  MessageQueue store("/pushpull");
  ASSERT_EQ(api.init(""), 0);
  test_support::clear_journal();
  EXPECT_EQ(GetParam().call(api), 0);
  const auto message = store.take();
  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->priority, 1U);
  ASSERT_EQ(message->bytes.back(), '\0');
  EXPECT_EQ(compact(text_of(*message)), GetParam().request);
  EXPECT_EQ(store.count(), 0);
  EXPECT_EQ(journal("syslog "), Journal{});
  EXPECT_EQ(api.terminate(), 0);
}

TEST_P(Request, ThatCannotBeSentIsReported) {
  const FakeTime clock(kNow);
  api.queue_descriptor = kNoQueue;
  EXPECT_EQ(GetParam().call(api), -1);
  EXPECT_EQ(journal().back(), std::string("syslog 3 ") + GetParam().not_sent);
  EXPECT_EQ(journal("syslog 2").size(), 1U);
}

TEST_P(Request, WithoutAStoreIsReported) {
  const FakeTime clock(kNow);
  EXPECT_EQ(GetParam().call(api), -1);
  const Journal lines = journal();
  ASSERT_GE(lines.size(), 2U);
  EXPECT_EQ(lines[lines.size() - 2], kGaveUpOpening);
  EXPECT_EQ(lines.back(), std::string("syslog 3 ") + GetParam().not_sent);
}

TEST_P(Request, ThatCannotBeWrittenIsReportedAndNotSent) {
  MessageQueue store("/pushpull");
  ASSERT_EQ(api.init(""), 0);
  test_support::clear_journal();
  json_library_fails = true;
  EXPECT_EQ(GetParam().call(api), -1);
  EXPECT_EQ(journal(), Journal{std::string("syslog 3 ") + GetParam().empty_message});
  EXPECT_EQ(store.count(), 0);
  EXPECT_EQ(api.terminate(), 0);
}

INSTANTIATE_TEST_SUITE_P(Of, Request, testing::ValuesIn(kOperations),
                         [](const auto& tested) { return std::string(tested.param.name); });

class RequestText : public PushpullApi {
 protected:
  std::string build(const std::string& function, const std::string& buffer,
                    struct mq_attr* attr = nullptr) {
    return api.build_json_post_msg(kId, function, buffer, attr, false, "", QV_CMPID_RESERVED,
                                   false);
  }

  // What the last request put into the store's queue.
  std::string sent(const std::function<int(QvPushpullApi&)>& call) {
    MessageQueue store("/pushpull");
    EXPECT_EQ(api.init(""), 0);
    EXPECT_EQ(call(api), 0);
    EXPECT_EQ(api.terminate(), 0);
    return compact(text_of(*store.take()));
  }
};

TEST_F(RequestText, IsIndentedWithTabs) {
  EXPECT_EQ(api.build_json_post_msg(kId, "get", "/rgw", given_queue(), true, "me",
                                    QV_CMPID_PUSHPULL, true),
            "{\n"
            "\t\"function\" : \"get\",\n"
            "\t\"arg\" : {\n"
            "\t\t\"comp_id\" : 1073741840,\n"
            "\t\t\"dst_comp_id\" : 1100,\n"
            "\t\t\"buffer\" : \"/rgw\",\n"
            "\t\t\"notifyOnChangeOnly\" : true,\n"
            "\t\t\"pack_and_send\" : true,\n"
            "\t\t\"sender_id\" : \"me\"\n"
            "\t},\n"
            "\t\"que\" : {\n"
            "\t\t\"flags\" : 2048,\n"
            "\t\t\"maxmsg\" : 64,\n"
            "\t\t\"msgsize\" : 262144,\n"
            "\t\t\"curmsgs\" : 3\n"
            "\t}\n"
            "}");
}

TEST_F(RequestText, EscapesThePayload) {
  const std::string payload = "{\"a\":\"\\\\ \t\n\x01\u00e4\"}";
  const auto request = nlohmann::json::parse(build("publish", payload));
  EXPECT_EQ(request["arg"]["buffer"], payload);
}

TEST_F(RequestText, OfAPayloadThatIsNoUtf8IsStillJson) {
  EXPECT_TRUE(nlohmann::json::accept(build("publish", "\xff\xc3")));
}

TEST_F(RequestText, WithoutQueueAttributesHasNoQue) {
  EXPECT_EQ(compact(build("register", "/q")),
            R"({"function":"register","arg":{"comp_id":1073741840,"buffer":"/q"}})");
}

TEST_F(RequestText, WithQueueSizesBelow1HasNoQue) {
  struct mq_attr attributes = *given_queue();
  attributes.mq_maxmsg = 0;
  EXPECT_EQ(build("register", "/q", &attributes), build("register", "/q"));
  attributes.mq_maxmsg = 1;
  attributes.mq_msgsize = 0;
  EXPECT_EQ(build("register", "/q", &attributes), build("register", "/q"));
  attributes.mq_msgsize = -1;
  EXPECT_EQ(build("register", "/q", &attributes), build("register", "/q"));
}

TEST_F(RequestText, WithQueueSizesOf1HasAQue) {
  struct mq_attr attributes = {};
  attributes.mq_maxmsg = 1;
  attributes.mq_msgsize = 1;
  const auto request = nlohmann::ordered_json::parse(build("register", "/q", &attributes));
  EXPECT_EQ(request["que"].dump(), R"({"flags":0,"maxmsg":1,"msgsize":1,"curmsgs":0})");
}

TEST_F(RequestText, OfSubscribeToAllHasNoNotifyOnChangeOnly) {
  EXPECT_EQ(sent([](QvPushpullApi& client) { return client.subscribe(kId, "/rgw", false); }),
            R"({"function":"subscribe","arg":{"comp_id":1073741840,"buffer":"/rgw"}})");
}

TEST_F(RequestText, OfGetWithoutASenderHasNoSenderIdAndNoPackAndSend) {
  EXPECT_EQ(sent([](QvPushpullApi& client) { return client.get(kId, "/rgw", ""); }),
            R"({"function":"get","arg":{"comp_id":1073741840,"buffer":"/rgw"}})");
}

TEST_F(RequestText, OfSyncToDestination0HasNoDstCompId) {
  EXPECT_EQ(
      sent([](QvPushpullApi& client) { return client.comp_sync(kId, QV_CMPID_RESERVED, "x"); }),
      R"({"function":"sync","arg":{"comp_id":1073741840,"buffer":"x"}})");
}

TEST_F(RequestText, OfRegisterWithoutAttributesHasNoQue) {
  EXPECT_EQ(sent([](QvPushpullApi& client) {
              return client.comp_register(kId, "/log_consumer", nullptr);
            }),
            R"({"function":"register","arg":{"comp_id":1073741840,"buffer":"/log_consumer"}})");
}

// Who may delete

class DeleteAuthority : public PushpullApi {
 protected:
  // Whether the request went out.
  bool sends(std::int64_t id) {
    MessageQueue store("/pushpull");
    EXPECT_EQ(api.init(""), 0);
    test_support::clear_journal();
    const auto component = static_cast<eQV_CMP_IDs_>(id);
    const int result = api.delete_node(component, "/rgw");
    EXPECT_EQ(result, api.check_delete_authority(component));
    EXPECT_EQ(api.terminate(), 0);
    EXPECT_EQ(store.count(), result == 0 ? 1 : 0);
    return result == 0;
  }

  static Journal refused(const std::string& id) {
    return {"syslog 3 QvPushpullApi: delete_node : Component " + id +
            " does not have permission to delete this node."};
  }
};

TEST_F(DeleteAuthority, IsRefusedBelowTheBlock) {
  EXPECT_FALSE(sends(0x40000002));
  EXPECT_EQ(journal(), refused("1073741826"));
}

TEST_F(DeleteAuthority, IsGrantedAtBothEndsOfTheBlock) {
  EXPECT_TRUE(sends(0x40000003));
  EXPECT_TRUE(sends(0x40000007));
  EXPECT_EQ(journal("syslog "), Journal{});
}

TEST_F(DeleteAuthority, IsRefusedAboveTheBlock) {
  EXPECT_FALSE(sends(0x40000008));
  EXPECT_EQ(journal(), refused("1073741832"));
}

TEST_F(DeleteAuthority, IsRefusedToTheLogConsumer) {
  EXPECT_FALSE(sends(QV_CMPID_LOG_CONSUMER));
  EXPECT_EQ(journal(), refused("1073741840"));
}

TEST_F(DeleteAuthority, IsRefusedToNobodyAndToNegativeIds) {
  EXPECT_FALSE(sends(0));
  EXPECT_FALSE(sends(-1));
  EXPECT_EQ(journal(), refused("-1"));
}

}  // namespace
