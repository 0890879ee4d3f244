// A client on the interface under test: polls on the test's own thread and notes the events.
#ifndef TESTS_COMPAT_MONGOOSE_CLIENT_H
#define TESTS_COMPAT_MONGOOSE_CLIENT_H

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "compat/mongoose/mongoose.h"

namespace mongoose_test {

using Events = std::vector<std::string>;

class Client {
 public:
  Client() : server_(mg_create_server(this, &Client::handle)) {}
  ~Client() { destroy(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Connects with `tag` as connection_param: its events are noted with the tag in front.
  mg_connection* connect(const std::string& host, int port, bool tls = false,
                         const char* tag = "") {
    mg_connection* const connection = mg_connect(server_, host.c_str(), port, tls ? 1 : 0);
    if (connection != nullptr) connection->connection_param = const_cast<char*>(tag);
    return connection;
  }

  int poll(int milliseconds) { return mg_poll_server(server_, milliseconds); }

  /// Polls until `done()`. @return false when it is not within a minute
  template <typename Done>
  bool poll_until(Done done) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!done()) {
      if (std::chrono::steady_clock::now() > end) return false;
      poll(20);
    }
    return true;
  }

  bool poll_until_events(std::size_t count) {
    return poll_until([&] { return events.size() >= count; });
  }

  void destroy() { mg_destroy_server(&server_); }
  mg_server* server() const { return server_; }

  Events events;  ///< "CONNECT", "REPLY 200 OK [body]", "REPLY unusable", "CLOSE"
  int polls = 0;  ///< MG_POLLs
  /// What the handler answers, if not the usual one. Called after the event was noted.
  std::function<int(mg_connection*, mg_event)> on_event;

 private:
  static int handle(mg_connection* connection, mg_event event) {
    auto* const self = static_cast<Client*>(connection->server_param);
    if (event == MG_POLL) {
      ++self->polls;
    } else {
      const char* const tag = static_cast<const char*>(connection->connection_param);
      self->events.push_back((tag == nullptr ? "untagged " : tag) + describe(*connection, event));
    }
    if (self->on_event) return self->on_event(connection, event);
    return event == MG_CONNECT || event == MG_REPLY ? MG_TRUE : MG_FALSE;
  }

  static std::string describe(const mg_connection& connection, mg_event event) {
    switch (event) {
      case MG_CONNECT:
        return "CONNECT";
      case MG_CLOSE:
        return "CLOSE";
      case MG_REPLY:
        if (connection.uri == nullptr) return "REPLY unusable";
        return std::string("REPLY ") + connection.uri + " " + connection.http_version + " [" +
               std::string(connection.content, connection.content_len) + "]";
      default:
        return "event " + std::to_string(event);
    }
  }

  mg_server* server_;
};

}  // namespace mongoose_test

#endif
