// A store that misbehaves, on real queues, around the program itself with its pauses made shorter
// (system_faults.cpp): the service lives, feeds the watchdog, keeps what it knows, and hears of the
// next good document wherever a queue is left to hear it from. Two files wait meanwhile; they are
// sent and marked once, when the store's word of Wi-Fi comes, and never before it.
#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
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
  StoreFault() {
    setenv("NOTIFY_SOCKET", "/tmp/notify", 1);
    deliveries_.add("/tarv/data/logs/reports/r.gz");  // found by find, goes to the relay server
    deliveries_.add("/tarv/data/logs/clp/c.gz");      // found by reading the directory
  }

  // Without Wi-Fi no pass comes to its end: the service runs until it is told to end.
  void start() {
    fed_before_ = fed();
    const std::vector<std::string> command = {fault_test::program(), "-d1", "-s127.0.0.1",
                                              "-p" + std::to_string(deliveries_.server().port())};
    service_ = std::make_unique<Service>(command, fault_test::haste());
  }

  void expect_ready() {
    ASSERT_TRUE(eventually([&] { return fed() > fed_before_; }, kPatience)) << "gets ready";
  }

  // A document goes in, and its line comes out: all that was sent before has been handled.
  void expect_hears(MessageQueue& queue, const std::string& id) {
    queue.send_text(system_id(id));
    ASSERT_TRUE(eventually([&] { return log_.has("Setting system id " + id); }, kPatience)) << id;
  }

  // Wi-Fi was never heard of.
  void expect_life_and_end() {
    expect_life();
    // SIGTERM may find the thread inside syslog(), which it then waits for.
    service_->signal(SIGKILL);
    service_->wait();
    expect_no_crash();
    EXPECT_EQ(deliveries_.marked(), 0);
    EXPECT_EQ(deliveries_.server().connections_accepted(), 0U);
    deliveries_.check();
  }

  // Wi-Fi is heard of now: both files go out, in one pass or, where that begins while a connection
  // is still being made, in the next start's.
  void expect_life_and_delivery(MessageQueue& queue) {
    expect_life();
    EXPECT_EQ(deliveries_.server().connections_accepted(), 0U);
    constexpr int kStarts = 20;
    for (int starts = 1; starts <= kStarts && !HasFailure(); ++starts) {
      queue.send_text(fault_test::kWifiUp);
      wake_at_the_end(queue);
      expect_pass();
      if (deliveries_.all_marked()) return;
      start_anew();
    }
    EXPECT_TRUE(deliveries_.all_marked());
  }

  void start_anew() {
    take_requests();
    start();
    expect_ready();
  }

  // As a store does: left where they are, those of two starts fill the queue.
  static void take_requests() {
    const mqd_t requests = mq_open("/pushpull", O_RDONLY | O_NONBLOCK);
    if (requests == -1) return;
    std::array<char, 8192> request = {};
    while (mq_receive(requests, request.data(), request.size(), nullptr) != -1) {
    }
    mq_close(requests);
  }

  bool pass_is_over() const {
    return !service_->running() || count_lines("Exiting socket thread") > passes_;
  }

  // The configuration thread, which waits for a message, then finds out that the pass is over.
  void wake_at_the_end(MessageQueue& queue) {
    EXPECT_TRUE(eventually([&] { return pass_is_over(); }, kPatience));
    if (queue.count() == 0) queue.send_text("{}");
  }

  // The pass under way comes to its end, and with it the service.
  void expect_pass() {
    ++passes_;
    ASSERT_TRUE(eventually([&] { return !service_->running(); }, kPatience)) << "hangs";
    EXPECT_EQ(service_->wait(), 0);
    expect_no_crash();
    deliveries_.check();
  }

  void expect_life() {
    const std::ptrdiff_t before = fed();
    EXPECT_TRUE(eventually([&] { return fed() >= before + 2; }, kPatience)) << "is fed";
    ASSERT_TRUE(service_->running());
  }

  void expect_no_crash() const {
    EXPECT_FALSE(log_.has("stack trace"));
    EXPECT_FALSE(log_.has("[ST]: signal received"));
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
  fault_test::Deliveries deliveries_;
  std::unique_ptr<Service> service_;
  std::ptrdiff_t fed_before_ = 0;  // by earlier starts
  std::size_t passes_ = 0;         // that came to their end
};

TEST_F(StoreFault, WithoutAStoreItAsksForItAndLivesOn) {
  MessageQueue documents("/log_consumer", 10, 8192);
  start();
  expect_ready();
  // Five tries for each of the seven requests.
  EXPECT_EQ(count_lines("Invalid Descriptor: ffffffff, Retry Attempt"), 35U);
  EXPECT_EQ(count_lines("Can not open msg que to push pull after 5 retries.  Aborting!"), 7U);
  expect_hears(documents, "LATER");
  expect_life_and_delivery(documents);
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
  expect_life_and_delivery(documents);
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
  expect_life_and_delivery(documents);
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
  expect_ready();
  expect_hears(store->documents(), "AFTER");
  expect_life_and_delivery(store->documents());
}

TEST_F(StoreFault, QueuesRemovedDuringAPassCostNoFile) {
  constexpr int kStarts = 20;
  for (int starts = 1; starts <= kStarts && !deliveries_.all_marked() && !HasFailure(); ++starts) {
    auto store = std::make_unique<StoreQueues>();
    start();
    expect_ready();
    store->documents().send_text(fault_test::kWifiUp);
    ASSERT_TRUE(eventually([&] { return store->documents().count() == 0; }, kPatience));
    store.reset();
    expect_pass();
  }
  EXPECT_TRUE(deliveries_.all_marked());
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
  expect_life_and_delivery(store.documents());
}

// The configuration thread goes on as long as there is something to hear; the files go out
// meanwhile.
TEST_F(StoreFault, AFloodHoldsUpNoFile) {
  StoreQueues store;
  long messages = 0, left = 0;
  int starts = 0;
  for (constexpr int kStarts = 20; starts < kStarts && !deliveries_.all_marked(); ++starts) {
    start_anew();
    ASSERT_FALSE(HasFailure());
    store.documents().send_text(fault_test::kWifiUp);
    EXPECT_TRUE(eventually(
        [&] {
          for (; store.documents().count() < store.documents().attributes().mq_maxmsg; ++messages)
            store.documents().send_text(system_id("FLOOD" + std::to_string(messages)));
          return pass_is_over();
        },
        kPatience));
    expect_pass();
    while (const auto message = store.documents().take())
      left += message->bytes.find("FLOOD") != std::string::npos ? 1 : 0;
  }
  EXPECT_TRUE(deliveries_.all_marked());
  const auto heard = static_cast<long>(count_lines("Setting system id FLOOD"));
  EXPECT_LE(heard + left, messages);
  EXPECT_GE(heard + left, messages - starts) << "each end may find one taken, and nobody asking";
  std::cout << "figure flood during a pass: " << messages << " messages, all files sent in "
            << starts << " starts\n";
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

// The service makes a pass with every document that tells it of Wi-Fi, ends, and is started again;
// the texts come all the while.
class FuzzedDocuments : public StoreFault {
 protected:
  // Waits for room, through another start if need be.
  void send(const std::string& text) {
    while (!HasFatalFailure()) {
      if (!service_->running()) {
        end_of_pass();
      } else if (store_.documents().count() < store_.documents().attributes().mq_maxmsg) {
        return store_.documents().send_text(text);
      } else {
        usleep(200);
      }
    }
  }

  // A document on the way while a pass ends is flushed by the next start: it is sent again then.
  void expect_handled(const std::string& id) {
    while (!HasFatalFailure()) {
      send(system_id(id));
      const bool heard = eventually(
          [&] { return !service_->running() || log_.has("Setting system id " + id); }, kPatience);
      ASSERT_TRUE(heard) << id;
      if (log_.has("Setting system id " + id)) return;
    }
  }

  void end_of_pass() {
    wake_at_the_end(store_.documents());
    expect_pass();
    sent_ += deliveries_.marked();
    if (deliveries_.all_marked()) deliveries_.renew();
    start_anew();
  }

  StoreQueues store_;
  int sent_ = 0;
};

TEST_F(FuzzedDocuments, EveryNodeOfEveryDocumentMayHoldAnything) {
  start_anew();
  std::size_t texts = 0;
  for (const std::string& document : kDocuments) {
    send(fault_test::kWifiUp);
    for (const std::string& text : fuzzed(document)) {
      send(text);
      ++texts;
    }
    expect_handled("AFTER" + std::to_string(texts));
    end_of_pass();
    ASSERT_FALSE(HasFailure());
  }
  // No state came in but those of the list; of the Wi-Fi texts none was one of the list's either.
  EXPECT_EQ(count_lines("Setting aapStateStr = "), count_lines("Setting aapStateStr = bound"));
  EXPECT_EQ(count_lines("wifi is not associated"), 0U);
  EXPECT_GE(texts, 600U);
  EXPECT_GE(sent_, 1);
  std::cout << "figure store documents: " << texts << " with one node replaced, " << passes_
            << " passes among them, " << sent_ << " files sent\n";
  expect_life();
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

  // Waits until it can be found.
  lab::Child start_found_store() {
    lab::Child store = start_store();
    EXPECT_TRUE(
        eventually([] { return exists("/pushpull") && exists("/log_consumer"); }, kPatience));
    return store;
  }

  ~RestartingStore() override {
    mq_unlink("/pushpull");
    mq_unlink("/log_consumer");
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
    lab::Child store = start_found_store();
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
}

TEST_F(RestartingStore, AStoreKilledDuringAPassCostsNoFile) {
  std::ofstream("/tmp/tree.json") << fault_test::kWifiUp;
  std::size_t starts = 0;
  for (int restart = 0; restart < 3 || !deliveries_.all_marked(); ++restart) {
    if (deliveries_.all_marked()) deliveries_.renew();
    lab::Child store = start_found_store();
    start();
    ++starts;
    ASSERT_TRUE(
        eventually([&] { return count_lines("wifi now associated") >= starts; }, kPatience));
    store.signal(SIGKILL);
    store.wait();
    lab::Child next = start_store();
    expect_pass();
    ASSERT_FALSE(HasFailure());
    next.signal(SIGTERM);
    next.wait();
    ASSERT_LT(restart, 20);
  }
}

}  // namespace
