#include "lab/pushpull_store/store.h"

#include <cstdio>
#include <stdexcept>
#include <utility>

#include "lab/support/record.h"

namespace lab {
namespace {

// Components that may delete nodes.
constexpr std::int64_t kFirstDeleter = 0x40000003;
constexpr std::int64_t kLastDeleter = 0x40000007;
constexpr std::int64_t kGreatestId = 0xFFFFFFFF;

// A request that is understood but not carried out.
class Refused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

const Json& member(const Json& object, const char* name, Json::value_t type) {
  const auto found = object.find(name);
  if (found == object.end() || found->type() != type) {
    throw std::invalid_argument(std::string("no ") + name);
  }
  return *found;
}

std::int64_t id_member(const Json& object, const char* name) {
  const Json& id = member(object, name, Json::value_t::number_unsigned);
  if (id.get<std::uint64_t>() > kGreatestId) throw std::invalid_argument(std::string("no ") + name);
  return id.get<std::int64_t>();
}

Message message(const std::string& queue, const Json& document) {
  return {queue, json_line(document)};
}

}  // namespace

struct Store::Request {
  const Handled& head;
  const Json& arg;
};

Store::Store(std::string save_file) : save_file_(std::move(save_file)) {}

void Store::load(const std::string& document) {
  const Json parsed = parse_json(document);
  if (!parsed.is_object()) throw std::invalid_argument("no JSON object");
  merge(tree_, parsed);
}

Handled Store::handle(const std::string& request) {
  Handled handled;
  try {
    const Json parsed = parse_json(request);
    if (!parsed.is_object()) throw std::invalid_argument("no JSON object");
    handled.function = member(parsed, "function", Json::value_t::string).get<std::string>();
    Json arg = member(parsed, "arg", Json::value_t::object);
    handled.comp_id = id_member(arg, "comp_id");
    handled.buffer = member(arg, "buffer", Json::value_t::string).get<std::string>();
    arg.erase("comp_id");
    arg.erase("buffer");
    Json options = arg;
    if (parsed.contains("que")) options["que"] = parsed["que"];
    handled.options = json_line(options);
    handled.outcome = carry_out({handled, arg}, handled.messages);
    handled.ok = true;
  } catch (const std::invalid_argument& error) {
    handled.outcome = std::string("bad request: ") + error.what();
  } catch (const Refused& error) {
    handled.outcome = std::string("refused: ") + error.what();
  } catch (const std::exception& error) {
    handled.outcome = std::string("failed: ") + error.what();
  }
  return handled;
}

std::string Store::carry_out(const Request& request, std::vector<Message>& messages) {
  const std::string& function = request.head.function;
  if (function == "register") return enrol(request);
  if (function == "unregister") return unregister(request);
  if (function == "subscribe") return subscribe(request);
  if (function == "unsubscribe") return unsubscribe(request);
  if (function == "get") return get(request, messages);
  if (function == "publish") return publish(request, messages);
  if (function == "clear") return clear(request, messages);
  if (function == "delete") return remove(request, messages);
  if (function == "sync") return synchronise(request, messages);
  if (function == "save") return save(false);
  if (function == "save_debug") return save(true);
  if (function == "init" || function == "exit") return "noted";
  throw std::invalid_argument("no such function");
}

Store::Component& Store::registered(std::int64_t comp_id) {
  const auto found = components_.find(comp_id);
  if (found == components_.end()) throw Refused("the component is not registered");
  return found->second;
}

// A component that registers starts anew, without the subscriptions of an earlier life.
std::string Store::enrol(const Request& request) {
  const std::string& queue = request.head.buffer;
  if (queue.size() < 2 || queue.front() != '/') throw std::invalid_argument("no queue name");
  components_[request.head.comp_id] = Component{queue, {}};
  return "registered";
}

std::string Store::unregister(const Request& request) {
  registered(request.head.comp_id);
  components_.erase(request.head.comp_id);
  return "unregistered";
}

std::string Store::subscribe(const Request& request) {
  Component& component = registered(request.head.comp_id);
  const auto flag = request.arg.find("notifyOnChangeOnly");
  const bool on_change_only = flag != request.arg.end() && *flag == true;
  for (const Path& path : parse_paths(request.head.buffer)) {
    component.subscriptions[path] = on_change_only;
  }
  return "subscribed";
}

std::string Store::unsubscribe(const Request& request) {
  Component& component = registered(request.head.comp_id);
  for (const Path& path : parse_paths(request.head.buffer))
    component.subscriptions.erase(path);
  return "unsubscribed";
}

// The whole tree is answered node by node: a document has one member at its top.
std::string Store::get(const Request& request, std::vector<Message>& messages) {
  const Component& component = registered(request.head.comp_id);
  const Path path = parse_path(request.head.buffer);
  const Json* const node = find_node(tree_, path);
  if (node == nullptr) throw Refused("no such node");
  if (path.empty()) {
    for (const auto& [name, value] : tree_.items()) {
      messages.push_back(message(component.queue, {{name, value}}));
    }
  } else {
    messages.push_back(message(component.queue, nested_document(tree_, path, *node)));
  }
  return "answered";
}

std::string Store::publish(const Request& request, std::vector<Message>& messages) {
  const Json document = parse_json(request.head.buffer);
  if (!document.is_object()) throw std::invalid_argument("no JSON object to publish");
  const Json before = tree_;
  merge(tree_, document);
  notify(before, document, messages);
  return "stored";
}

std::string Store::clear(const Request& request, std::vector<Message>& messages) {
  const Path path = parse_path(request.head.buffer);
  Json* const node = find_node(tree_, path);
  if (node == nullptr) throw Refused("no such node");
  const Json before = tree_;
  if (node->is_structured()) {
    node->clear();
  } else {
    *node = nullptr;
  }
  notify(before, nested_document(tree_, path, nullptr), messages);
  return "cleared";
}

std::string Store::remove(const Request& request, std::vector<Message>& messages) {
  if (request.head.comp_id < kFirstDeleter || request.head.comp_id > kLastDeleter) {
    throw Refused("the component may not delete");
  }
  const Path path = parse_path(request.head.buffer);
  if (path.empty()) throw Refused("the whole tree cannot be deleted");
  if (find_node(tree_, path) == nullptr) throw Refused("no such node");
  const Json before = tree_;
  Json& parent = *find_node(tree_, Path(path.begin(), path.end() - 1));
  if (parent.is_array()) {
    parent.erase(std::stoul(path.back()));
  } else {
    parent.erase(path.back());
  }
  notify(before, nested_document(before, path, nullptr), messages);
  return "deleted";
}

std::string Store::synchronise(const Request& request, std::vector<Message>& messages) {
  if (request.arg.find("dst_comp_id") == request.arg.end()) return "noted";
  const Component& destination = registered(id_member(request.arg, "dst_comp_id"));
  messages.push_back({destination.queue, request.head.buffer});
  return "passed on";
}

std::string Store::save(bool everything) const {
  if (save_file_.empty()) throw Refused("started without a file to save to");
  const std::string file = save_file_ + (everything ? ".debug" : "");
  Json content = tree_;
  if (everything) {
    Json components = Json::array();
    for (const auto& [id, component] : components_) {
      Json subscriptions = Json::array();
      for (const auto& [path, on_change_only] : component.subscriptions) {
        subscriptions.push_back({{"path", to_text(path)}, {"notifyOnChangeOnly", on_change_only}});
      }
      components.push_back({{"comp_id", id},
                            {"queue", component.queue},
                            {"subscriptions", std::move(subscriptions)}});
    }
    content = {{"tree", tree_}, {"components", std::move(components)}};
  }
  write_file(file + ".new", content.dump(2) + "\n");
  if (std::rename((file + ".new").c_str(), file.c_str()) != 0) {
    throw std::runtime_error("cannot rename to " + file);
  }
  return "saved to " + file;
}

void Store::notify(const Json& before, const Json& written, std::vector<Message>& messages) const {
  for (const auto& [id, component] : components_) {
    for (const auto& [path, on_change_only] : component.subscriptions) {
      if (!touches(written, path)) continue;
      const Json* const now = find_node(tree_, path);
      const Json* const old = find_node(before, path);
      if (now == nullptr) continue;  // a node that is gone has no value to tell
      if (on_change_only && old != nullptr && *old == *now) continue;
      messages.push_back(message(component.queue, nested_document(tree_, path, *now)));
    }
  }
}

}  // namespace lab
