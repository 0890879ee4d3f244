// The store's client when memory runs out: a failure that is told, nothing thrown, nothing leaked.
#include <dirent.h>

#include <cerrno>
#include <memory>
#include <string>

#include "gtest/gtest.h"
#include "pushpull_data/qv_json_ptr.h"
#include "pushpull_data/qv_pushpull_api.h"
#include "pushpull_data/qv_pushpull_utilities.h"
#include "tests/support/message_queue.h"
#include "tests/support/scarce_memory.h"

namespace {

using test_support::allocations_needed;
using test_support::MessageQueue;
using test_support::ScarceMemory;

int open_descriptors() {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/proc/self/fd"), closedir);
  int count = 0;
  while (readdir(directory.get()) != nullptr)
    ++count;
  return count;
}

TEST(MemoryRunsOut, ThereIsNoClient) {
  EXPECT_GT(allocations_needed([] { return QvPushpullApi::create() != nullptr; }), 1);
}

TEST(MemoryRunsOut, ThereIsNoQueueAndNoDescriptorIsLost) {
  MessageQueue existing("/memory_test", 2, 64);
  QvPushpullApi api;
  const int before = open_descriptors();
  bool reported = true;
  const auto create = [&](auto make) {
    errno = 0;
    const auto queue = make();
    reported = reported && (queue != nullptr || errno == ENOMEM);
    return queue != nullptr;
  };
  EXPECT_GT(allocations_needed([&] {
              return create([&] {
                return std::unique_ptr<QvPushpullTransmitQueue>(
                    api.create_transmit_queue("/memory_test", 2, 64));
              });
            }),
            0);
  EXPECT_GT(allocations_needed([&] {
              return create([&] {
                return std::unique_ptr<QvPushpullReceiveQueue>(
                    api.create_receive_queue("/memory_test", 2, 64));
              });
            }),
            1);
  EXPECT_TRUE(reported);
  EXPECT_EQ(open_descriptors(), before);
}

TEST(MemoryRunsOut, AQueueStaysUnflushed) {
  MessageQueue queue("/memory_test", 2, 64);
  queue.send("old");
  {
    const ScarceMemory none(0);
    qv_handle_error_and_flush(queue.descriptor());
  }
  EXPECT_EQ(queue.count(), 1);
  qv_handle_error_and_flush(queue.descriptor());
  EXPECT_EQ(queue.count(), 0);
}

TEST(MemoryRunsOut, ThereIsAWholeRequestOrNone) {
  QvPushpullApi api;
  struct mq_attr attributes = {};
  attributes.mq_maxmsg = 64;
  attributes.mq_msgsize = 262144;
  const std::string function = "register";
  const std::string buffer = "/a queue with a name that is not short";
  const std::string sender = "a sender with a name that is not short";
  const auto build = [&] {
    return api.build_json_post_msg(QV_CMPID_LOG_CONSUMER, function, buffer, &attributes, true,
                                   sender, QV_CMPID_PUSHPULL, true);
  };
  const std::string whole = build();
  ASSERT_NE(whole, "");
  bool whole_or_none = true;
  EXPECT_GT(allocations_needed([&] {
              const std::string text = build();
              whole_or_none = whole_or_none && (text.empty() || text == whole);
              return !text.empty();
            }),
            10);
  EXPECT_TRUE(whole_or_none);
}

TEST(MemoryRunsOut, ARequestFailsAndNothingIsThrown) {
  MessageQueue store("/memory_test", 2, 512);
  QvPushpullApi api;
  api.queue_descriptor = store.descriptor();
  const std::string text = "a text that is not short";
  const std::string sender = "a sender with a name that is not short";
  EXPECT_GT(allocations_needed([&] { return api.init_request(QV_CMPID_LOG_CONSUMER, text) == 0; }),
            10);
  EXPECT_GT(allocations_needed([&] { return api.get(QV_CMPID_LOG_CONSUMER, text, sender) == 0; }),
            10);
  EXPECT_EQ(store.count(), 2);
}

TEST(MemoryRunsOut, NothingIsContainedInADocument) {
  const QvJsonNodePtr part(json_parse(R"({"rgw":{"aapState":"bound"}})"));
  const QvJsonNodePtr other(json_parse(R"({"system":1})"));
  bool contained = false;
  for (std::size_t granted = 0; granted < 20; ++granted) {
    const ScarceMemory scarce(granted);
    contained = contained || qv_json_subset_equal(part.get(), other.get());
  }
  EXPECT_FALSE(contained);
}

TEST(MemoryRunsOut, TheStoreCannotBeFoundAndNothingIsThrown) {
  QvPushpullApi api;
  const std::string suffix = "_with_a_name_that_is_not_short";
  const ScarceMemory none(0);
  const int result = api.init(suffix);
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(none.ran_out());
}

TEST(MemoryRunsOut, NoCommandIsRunAndNothingIsThrown) {
  const ScarceMemory none(0);
  const int result = systemx("true # with words enough to need memory");
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(none.ran_out());
}

}  // namespace
