// A store that misbehaves, on real queues, around the program itself with its pauses made shorter
// (system_faults.cpp): the service lives, feeds the watchdog, keeps what it knows, and hears of the
// next good document wherever a queue is left to hear it from.
#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lab/support/child.h"
#include "tests/faults/fault_trial.h"
#include "tests/support/message_queue.h"
#include "tests/support/service_process.h"

namespace {

using Json = nlohmann::ordered_json;
using test_support::DatagramSink;
using test_support::eventually;
using test_support::MessageQueue;
using test_support::Service;
using test_support::StoreQueues;

constexpr int kPatience = 240;  // seconds, on a busy machine

std::string system_id(const std::string& id) {
  return R"({"serverAssigned":{"identities":{"sysId":")" + id + R"("}}})";
}

class StoreFault : public testing::Test {
 protected:
  StoreFault() { setenv("NOTIFY_SOCKET", "/tmp/notify", 1); }

  // Without a server no pass comes to its end: the service runs until it is told to end.
  void start() {
    service_ = std::make_unique<Service>(std::vector<std::string>{fault_test::program(), "-d1"},
                                         fault_test::haste());
  }

  void expect_ready() {
    ASSERT_TRUE(eventually([&] { return fed() >= 1; }, kPatience)) << "gets ready";
  }

  // A document goes in, and its line comes out: all that was sent before has been handled.
  void expect_hears(MessageQueue& queue, const std::string& id) {
    queue.send_text(system_id(id));
    ASSERT_TRUE(eventually([&] { return log_.has("Setting system id " + id); }, kPatience)) << id;
  }

  void expect_life_and_end() {
    const std::ptrdiff_t before = fed();
    EXPECT_TRUE(eventually([&] { return fed() >= before + 2; }, kPatience)) << "is fed";
    ASSERT_TRUE(service_->running());
    service_->signal(
        SIGKILL);  // SIGTERM may find the thread inside syslog(), which it then waits for
    service_->wait();
    EXPECT_FALSE(log_.has("stack trace"));
    EXPECT_FALSE(log_.has("[ST]: signal received 6"));
  }

  std::ptrdiff_t fed() const {
    const std::vector<std::string> lines = notify_.lines();
    return std::count(lines.begin(), lines.end(), "WATCHDOG=1");
  }

  std::size_t count_lines(const std::string& text) const {
    const std::vector<std::string> lines = log_.lines();
    return static_cast<std::size_t>(
        std::count_if(lines.begin(), lines.end(),
                      [&](const auto& line) { return line.find(text) != std::string::npos; }));
  }

  // Of the service's memory that is in use, in KiB.
  long resident() const {
    std::ifstream status("/proc/" + std::to_string(service_->pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return 0;
  }

  DatagramSink log_{"/dev/log"};
  DatagramSink notify_{"/tmp/notify"};
  std::unique_ptr<Service> service_;
};

TEST_F(StoreFault, WithoutAStoreItAsksForItAndLivesOn) {
  MessageQueue documents("/log_consumer", 10, 8192);
  start();
  expect_ready();
  // Five tries for each of the seven requests.
  EXPECT_EQ(count_lines("Invalid Descriptor: ffffffff, Retry Attempt"), 35U);
  EXPECT_EQ(count_lines("Can not open msg que to push pull after 5 retries.  Aborting!"), 7U);
  expect_hears(documents, "LATER");
  expect_life_and_end();
}

TEST_F(StoreFault, AStoreThatStartsLateIsFound) {
  MessageQueue documents("/log_consumer", 10, 8192);
  start();
  ASSERT_TRUE(eventually([&] { return log_.has("Retry Attempt 2"); }, kPatience));
  MessageQueue requests("/pushpull", 10, 8192);
  expect_ready();
  std::string all;
  while (const auto request = requests.take())
    all += request->bytes;
  EXPECT_NE(all.find("\"/interfaces\""), std::string::npos) << "the last request arrives";
  expect_hears(documents, "FOUND");
  expect_life_and_end();
}

TEST_F(StoreFault, AFullStoreIsTriedAgain) {
  MessageQueue documents("/log_consumer", 10, 8192);
  MessageQueue requests("/pushpull", 4, 8192);
  requests.fill();
  start();
  ASSERT_TRUE(
      eventually([&] { return log_.has("mq_timedsend failed with errnum 110"); }, kPatience));
  EXPECT_TRUE(log_.has("Msgs in que = 4, Retry Attempt 0"));
  std::string all;
  ASSERT_TRUE(eventually(
      [&] {
        while (const auto request = requests.take())
          all += request->bytes;
        return all.find("\"/interfaces\"") != std::string::npos;
      },
      kPatience));
  EXPECT_NE(all.find("\"register\""), std::string::npos) << "what had to wait was not lost";
  EXPECT_NE(all.find("\"subscribe\""), std::string::npos);
  expect_hears(documents, "ROOM");
  expect_life_and_end();
}

// The service keeps the queue that it opened: what a new one of the same name gets, it hears of
// after its next start, which is after the pass in its usual configuration.
TEST_F(StoreFault, QueuesRemovedAndMadeAnewAreFoundByTheNextStart) {
  auto store = std::make_unique<StoreQueues>();
  start();
  expect_ready();
  expect_hears(store->documents(), "BEFORE");
  store.reset();
  store = std::make_unique<StoreQueues>();
  store->documents().send_text(system_id("UNHEARD"));
  const std::ptrdiff_t before = fed();
  ASSERT_TRUE(eventually([&] { return fed() >= before + 2; }, kPatience));
  EXPECT_EQ(store->documents().count(), 1);
  EXPECT_FALSE(log_.has("UNHEARD"));
  expect_life_and_end();
  start();
  ASSERT_TRUE(eventually([&] { return fed() >= before + 5; }, kPatience));
  expect_hears(store->documents(), "AFTER");
  expect_life_and_end();
}

TEST_F(StoreFault, QueuesForTinyMessagesAreLivedWith) {
  MessageQueue documents("/log_consumer", 10, 16);
  MessageQueue requests("/pushpull", 10, 16);
  start();
  expect_ready();
  EXPECT_EQ(count_lines("mq_timedsend failed with errnum 90"), 35U);
  EXPECT_EQ(count_lines("mq_send FAILED all tries"), 7U);
  for (const char* text : {"{}", "{\"rgw\":{}}", "0123456789abcdef", ""})
    documents.send(text);
  ASSERT_TRUE(eventually([&] { return documents.count() == 0; }, kPatience));
  EXPECT_TRUE(log_.has("PushpullLC thread: sysId = NUVSerialNumber, aapStateStr = "));
  expect_life_and_end();
}

TEST_F(StoreFault, AFloodIsHandledToItsLastMessageInTheSameMemory) {
#ifdef FAULTS_WHOLE
  constexpr int kMessages = 100'000;
#else
  constexpr int kMessages = 2'000;
#endif
  constexpr int kWarm = kMessages / 4;
  StoreQueues store;
  start();
  expect_ready();
  long warm = 0;
  for (int number = 0; number < kMessages; ++number) {
    if (number == kWarm) warm = resident();
    const std::string text = number % 3 == 0 ? system_id("FLOOD" + std::to_string(number))
                             : number % 3 == 1
                                 ? R"({"rgw":{"aapState":"bound"}})"
                                 : std::string(static_cast<std::size_t>(number % 8000), '[');
    store.documents().send_text(text);  // waits while the queue is full
  }
  expect_hears(store.documents(), "LAST");
  const long grown = resident() - warm;
  EXPECT_EQ(count_lines("Setting system id FLOOD"), static_cast<std::size_t>((kMessages + 2) / 3));
  EXPECT_EQ(count_lines("Setting aapStateStr = bound"),
            static_cast<std::size_t>((kMessages + 1) / 3));
  EXPECT_LE(grown, 256) << "KiB";
  std::cout << "figure store flood: " << kMessages << " messages, resident memory grew by " << grown
            << " KiB after the first " << kWarm << '\n';
  expect_life_and_end();
}

// The store's documents, and what each of their nodes is replaced by.
const std::vector<std::string> kDocuments = {
    R"({"serverAssigned":{"identities":{"sysId":"OK"},"security":{"nuvToken":{"encoded":"dG9rZW4="}},"urlsSec":{"dataUploadUrl":"h","dataUploadPort":443}}})",
    R"({"rgw":{"aapState":"bound","configSec":{"relayServerUrl":"h","relayServerPort":8443}}})",
    R"({"interfaces":[{"id":1,"wifiStatus":{"status":"associated"}},{"id":2}]})",
    R"({"system":{"clock":{"offset":-18000,"dstOffset":3600,"enableDst":true}}})",
};

std::string nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

std::vector<std::string> replacements() {
  return {"null",
          "true",
          "false",
          "0",
          "-1",
          "1",
          "2147483648",
          "-2147483649",
          "1e308",
          "0.5",
          "99999999999999999999999999",
          "\"\"",
          "\"text\"",
          "\"\\u0000\"",
          "\"\\ud83d\\ude00\"",
          "\"%s%n%d\"",
          "\"" + std::string(7000, 'x') + "\"",
          "[]",
          "{}",
          "[1,[2,{\"id\":1}]]",
          "{\"status\":\"associated\"}",
          nested(120),
          nested(140),
          nested(3500),
          "",
          "nonsense",
          "\"\xff\xfe\""};
}

// Calls `use` with each node of the tree in turn.
void for_each_node(Json& tree, const std::function<void(Json&)>& use) {
  use(tree);
  for (Json& child : tree) {
    if (child.is_structured()) {
      for_each_node(child, use);
    } else {
      use(child);
    }
  }
}

// Every text that a document becomes when one of its nodes is replaced.
std::vector<std::string> fuzzed(const std::string& document) {
  constexpr char kMark[] = "\"the node to replace\"";
  std::vector<std::string> texts;
  Json tree = Json::parse(document);
  for_each_node(tree, [&](Json& node) {
    const Json kept = std::exchange(node, Json("the node to replace"));
    const std::string text = tree.dump();
    node = kept;
    for (const std::string& replacement : replacements()) {
      std::string changed = text;
      texts.push_back(changed.replace(text.find(kMark), sizeof kMark - 1, replacement));
    }
  });
  return texts;
}

TEST_F(StoreFault, EveryNodeOfEveryDocumentMayHoldAnything) {
  StoreQueues store;
  start();
  expect_ready();
  std::size_t sent = 0;
  for (const std::string& document : kDocuments) {
    for (const std::string& text : fuzzed(document)) {
      store.documents().send_text(text);
      ++sent;
    }
    expect_hears(store.documents(), "AFTER" + std::to_string(sent));
  }
  // No state came in but those of the list; of the Wi-Fi texts none was one of the list's either.
  EXPECT_EQ(count_lines("Setting aapStateStr = "), count_lines("Setting aapStateStr = bound"));
  EXPECT_EQ(count_lines("wifi is not associated"), 0U);
  EXPECT_GE(sent, 600U);
  std::cout << "figure store documents: " << sent << " with one node replaced\n";
  expect_life_and_end();
}

// The lab's store as a program of its own, killed and started again around a running service.
class RestartingStore : public StoreFault {
 protected:
  lab::Child start_store() {
    lab::ChildSettings settings;
    settings.command = {PUSHPULL_STORE, "--component-queue", "/log_consumer:10:8192", "--document",
                        "/tmp/tree.json"};
    settings.standard_output = lab::Output::file_at("/tmp/store.log");
    return lab::Child(settings);
  }

  static bool exists(const char* name) {
    const mqd_t queue = mq_open(name, O_RDONLY);
    if (queue != -1) mq_close(queue);
    return queue != -1;
  }
};

TEST_F(RestartingStore, EachStartOfTheServiceFindsTheStoreThatRunsThen) {
  std::ofstream("/tmp/tree.json") << system_id("STORED");
  std::size_t heard = 0;
  for (int restart = 0; restart < 3; ++restart) {
    lab::Child store = start_store();
    ASSERT_TRUE(
        eventually([] { return exists("/pushpull") && exists("/log_consumer"); }, kPatience));
    start();
    ++heard;
    ASSERT_TRUE(
        eventually([&] { return count_lines("Setting system id STORED") >= heard; }, kPatience))
        << "registered, and answered";
    store.signal(SIGKILL);  // its queues stay behind, with what is in them
    store.wait();
    lab::Child next = start_store();
    expect_life_and_end();
    next.signal(SIGTERM);
    next.wait();
  }
  mq_unlink("/pushpull");
  mq_unlink("/log_consumer");
}

}  // namespace
