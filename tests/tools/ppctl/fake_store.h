// The store's side of the protocol, small and obedient, on real queues: for what a lab's store
// would never do (keep silent, stop half-way), and to see the requests themselves.
#ifndef TESTS_TOOLS_PPCTL_FAKE_STORE_H
#define TESTS_TOOLS_PPCTL_FAKE_STORE_H

#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "pushpull_data/qv_process_api.h"
#include "tests/support/message_queue.h"

namespace ppctl_test {

using Json = nlohmann::ordered_json;

class FakeStore {
 public:
  struct Setup {
    std::string suffix = {};
    Json tree = Json::object();
    bool serves = true;        ///< false: the queue is there, and nobody reads it
    bool passes_on = true;     ///< sync reaches its destination
    std::string last = {};     ///< the function after which nothing is served any more
    bool stops_asker = false;  ///< while it answers a get: a process that reads too slowly
    long messages = 10;
    long bytes = 8192;
  };

  /// Makes its queue "/pushpull" + suffix. @throws std::system_error
  FakeStore();
  explicit FakeStore(const Setup& setup);
  ~FakeStore();  ///< removes the queue
  FakeStore(const FakeStore&) = delete;
  FakeStore& operator=(const FakeStore&) = delete;

  void remove_queue() const;
  void fill_queue() { queue_.fill(); }  ///< for a store that does not serve

  /// "function buffer", in the order they were served.
  std::vector<std::string> requests() const;
  std::vector<QvProcessApi> full_requests() const;
  Json tree() const;
  std::size_t registered() const;  ///< components

  /// Sends any text to every registered component.
  void send_to_all(const std::string& text) const;

 private:
  void serve();
  bool handle(const QvProcessApi& request);
  void get(const QvProcessApi& request) const;
  void answer(const QvProcessApi& request) const;
  void publish(const Json& document);
  void notify() const;
  void send(int component, const std::string& text) const;

  const Setup setup_;
  test_support::MessageQueue queue_;
  mutable std::mutex mutex_;
  Json tree_;
  std::vector<QvProcessApi> requests_;
  std::map<int, std::string> queues_;         // of the components
  std::map<int, std::string> subscriptions_;  // one path each is enough here
  std::thread thread_;
};

}  // namespace ppctl_test

#endif
