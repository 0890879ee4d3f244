#include "tests/tools/ppctl/fake_store.h"

#include <fcntl.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include "pushpull_data/qv_pushpull_signal.h"

namespace ppctl_test {

namespace {

constexpr char kQuit[] = "quit";

// A path of this protocol is a JSON pointer.
Json nested(const Json& tree, const std::string& path) {
  Json document;
  const Json::json_pointer pointer(path == "/" ? "" : path);
  document[pointer] = tree.at(pointer);
  return document;
}

bool has(const Json& tree, const std::string& path) {
  return tree.contains(Json::json_pointer(path == "/" ? "" : path));
}

}  // namespace

FakeStore::FakeStore() : FakeStore(Setup{}) {}

FakeStore::FakeStore(const Setup& setup)
    : setup_(setup),
      queue_("/pushpull" + setup.suffix, setup.messages, setup.bytes),
      tree_(setup.tree) {
  if (setup_.serves) thread_ = std::thread([this] { serve(); });
}

FakeStore::~FakeStore() {
  if (thread_.joinable()) {
    // A queue that stays full is one that is not read any more.
    const struct timespec deadline = qv_deadline_after(CLOCK_REALTIME, 2);
    mq_timedsend(queue_.descriptor(), kQuit, sizeof kQuit, 1, &deadline);
    thread_.join();
  }
}

void FakeStore::remove_queue() const {
  mq_unlink(queue_.name());
}

std::vector<std::string> FakeStore::requests() const {
  std::vector<std::string> texts;
  for (const QvProcessApi& request : full_requests()) {
    texts.push_back(request.getfunction() + " " + request.getBuff());
  }
  return texts;
}

std::vector<QvProcessApi> FakeStore::full_requests() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

Json FakeStore::tree() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return tree_;
}

std::size_t FakeStore::registered() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return queues_.size();
}

void FakeStore::send_to_all(const std::string& text) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [component, queue] : queues_)
    send(component, text);
}

void FakeStore::serve() {
  std::vector<char> buffer(static_cast<std::size_t>(setup_.bytes) + 1);
  while (mq_receive(queue_.descriptor(), buffer.data(), buffer.size(), nullptr) >= 0) {
    if (std::string(buffer.data()) == kQuit) return;
    QvProcessApi request;
    request.setJsonString(buffer.data());
    if (!request.parseJSON()) continue;
    const std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(request);
    if (!handle(request)) return;
  }
}

// False: nothing is served any more.
bool FakeStore::handle(const QvProcessApi& request) {
  const std::string& function = request.getfunction();
  const std::string& buffer = request.getBuff();
  const int component = request.getcomp_id();
  if (function == "register") queues_[component] = buffer;
  if (function == "unregister") queues_.erase(component);
  if (function == "subscribe") subscriptions_[component] = buffer;
  if (function == "get") get(request);
  if (function == "publish") publish(Json::parse(buffer, nullptr, false));
  if (function == "sync" && setup_.passes_on) send(request.getdstcomp_id(), buffer);
  if (function == "clear") tree_[Json::json_pointer(buffer)] = nullptr;
  if (function == "delete") tree_ = tree_.patch({{{"op", "remove"}, {"path", buffer}}});
  return function != setup_.last;
}

void FakeStore::get(const QvProcessApi& request) const {
  // The component id that a ppctl has when it is given none.
  const pid_t asker = request.getcomp_id() - 0x50000000;
  if (setup_.stops_asker) kill(asker, SIGSTOP);
  answer(request);
  if (setup_.stops_asker) kill(asker, SIGCONT);
}

void FakeStore::answer(const QvProcessApi& request) const {
  const std::string& path = request.getBuff();
  if (!has(tree_, path)) return;
  if (path != "/") {
    send(request.getcomp_id(), nested(tree_, path).dump());
    return;
  }
  for (const auto& [name, value] : tree_.items()) {
    send(request.getcomp_id(), Json({{name, value}}).dump());
  }
}

void FakeStore::publish(const Json& document) {
  if (!document.is_object()) return;  // without a word
  tree_.merge_patch(document);
  notify();
}

void FakeStore::notify() const {
  for (const auto& [component, path] : subscriptions_) {
    if (has(tree_, path)) send(component, nested(tree_, path).dump());
  }
}

void FakeStore::send(int component, const std::string& text) const {
  const auto found = queues_.find(component);
  if (found == queues_.end()) return;
  const mqd_t queue = mq_open(found->second.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (queue == -1) return;
  mq_send(queue, text.c_str(), text.size() + 1, 0);
  mq_close(queue);
}

}  // namespace ppctl_test
