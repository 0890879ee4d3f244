// The pushpull store: what it holds, and what it does on a request. No queues here.
//
// A component registers with the name of its own queue, asks for nodes, publishes documents and
// subscribes to nodes. Each answer and each notification is a document with the node's present
// value in its nesting from the top; on a lost one the next is complete again. Nothing is ever
// acknowledged.
#ifndef LAB_PUSHPULL_STORE_STORE_H
#define LAB_PUSHPULL_STORE_STORE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lab/pushpull_store/tree.h"

namespace lab {

/// One message to a component.
struct Message {
  std::string queue;
  std::string text;  ///< JSON, without the terminating NUL
};

/// What became of one request.
struct Handled {
  std::string function;  ///< as far as the request could be read, as the next three
  std::int64_t comp_id = -1;
  std::string buffer;
  std::string options;  ///< JSON text: members of "arg" beyond those two, and "que"
  bool ok = false;
  std::string outcome;  ///< for people, e.g. "stored" or "bad request: no JSON"
  std::vector<Message> messages;
};

class Store {
 public:
  /// @param save_file  where "save" writes the tree; "save_debug" adds components and subscriptions
  /// and writes to the same name with ".debug". Empty: both are refused.
  explicit Store(std::string save_file = "");

  /// Stores a start document without telling anybody. @throws std::invalid_argument
  void load(const std::string& document);

  const Json& tree() const { return tree_; }

  /// Carries out one request, any bytes. Never throws on account of its content.
  Handled handle(const std::string& request);

 private:
  struct Component {
    std::string queue;
    std::map<Path, bool> subscriptions;  ///< whether on changes alone
  };
  struct Request;

  std::string carry_out(const Request& request, std::vector<Message>& messages);
  std::string enrol(const Request& request);
  std::string unregister(const Request& request);
  std::string subscribe(const Request& request);
  std::string unsubscribe(const Request& request);
  std::string get(const Request& request, std::vector<Message>& messages);
  std::string publish(const Request& request, std::vector<Message>& messages);
  std::string clear(const Request& request, std::vector<Message>& messages);
  std::string remove(const Request& request, std::vector<Message>& messages);
  std::string synchronise(const Request& request, std::vector<Message>& messages);
  std::string save(bool everything) const;

  Component& registered(std::int64_t comp_id);
  void notify(const Json& before, const Json& written, std::vector<Message>& messages) const;

  std::string save_file_;
  Json tree_ = Json::object();
  std::map<std::int64_t, Component> components_;
};

}  // namespace lab

#endif
