// The store's client when memory runs out: a failure that is told, nothing thrown, nothing leaked.
#include <dirent.h>

#include <cerrno>
#include <memory>
#include <string>

#include "gtest/gtest.h"
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

}  // namespace
