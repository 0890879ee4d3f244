// Client side of the Mongoose 5.x interface, on Boost.Asio, Boost.Beast and OpenSSL.
//
// The part of the interface that this service calls: an event loop with HTTP client connections.
// README.md in this folder lists the subset and every deviation with its reason.
//
// Life of a connection: mg_connect() gives it; each mg_poll_server() delivers MG_POLL; MG_CONNECT
// when it stands; then MG_REPLY for each answer to what mg_write() sent; MG_CLOSE is always the
// last event and comes exactly once. After MG_CLOSE the pointer is dead.
//
// Threads: one thread at a time polls a server, and all its events come on that thread.
// mg_connect() and mg_write() may be called from any thread, also while another one polls.
// mg_create_server() and mg_start_thread() may be called from any thread. mg_destroy_server() is
// called when nobody polls, connects or writes any more, and never from an event handler.
//
// No function throws. An exception that leaves an event handler ends the process.
#ifndef COMPAT_MONGOOSE_MONGOOSE_H
#define COMPAT_MONGOOSE_MONGOOSE_H

#include <atomic>
#include <cstddef>

/// What an event handler answers. Any value but 0 counts as MG_TRUE.
enum mg_result { MG_FALSE = 0, MG_TRUE = 1 };

/// Why an event handler is called, and what its answer does.
enum mg_event {
  MG_POLL = 100,     ///< once per poll, also while still connecting; MG_TRUE closes
  MG_CONNECT = 101,  ///< the connection stands, TLS included; MG_FALSE closes
  MG_AUTH = 102,     ///< servers only: never delivered here
  MG_REQUEST = 103,  ///< servers only: never delivered here
  MG_REPLY = 104,    ///< a whole reply, or an unusable one; MG_FALSE closes
  MG_CLOSE = 105     ///< the last event of every connection; the answer is ignored
};

/// A plain `void*` to its users: the thread that called mg_connect() stores it while another
/// thread polls and reads it, so it is atomic (storing releases, reading acquires).
class mg_atomic_pointer {
 public:
  mg_atomic_pointer() = default;
  mg_atomic_pointer(void* value) : value_(value) {}
  mg_atomic_pointer(const mg_atomic_pointer& other) : value_(static_cast<void*>(other)) {}
  mg_atomic_pointer& operator=(const mg_atomic_pointer& other) {
    if (this != &other) *this = static_cast<void*>(other);
    return *this;
  }
  mg_atomic_pointer& operator=(void* value) {
    value_.store(value, std::memory_order_release);
    return *this;
  }
  operator void*() const { return value_.load(std::memory_order_acquire); }
  template <typename T>
  explicit operator T*() const {
    return static_cast<T*>(static_cast<void*>(*this));
  }

 private:
  std::atomic<void*> value_{nullptr};
};

struct mg_header {
  const char* name = nullptr;
  const char* value = nullptr;
};

/// One client connection. Owned by its server; the texts, the headers and the content live through
/// MG_REPLY only and are null in every other event.
struct mg_connection {
  const char* request_method = nullptr;  ///< always null on a client connection
  const char* uri = nullptr;             ///< reply: the status code's text; null: unusable reply
  const char* http_version = nullptr;    ///< reply: the reason behind the code, may be ""
  const char* query_string = nullptr;    ///< always null on a client connection

  char remote_ip[48] = {};  ///< numeric addresses and ports, from MG_CONNECT on
  char local_ip[48] = {};
  unsigned short remote_port = 0;
  unsigned short local_port = 0;

  int num_headers = 0;  ///< reply: how many of http_headers count; further ones are dropped
  struct mg_header http_headers[30] = {};

  char* content = nullptr;      ///< reply: the body, decoded, with a NUL behind it
  std::size_t content_len = 0;  ///< bytes of the body

  int is_websocket = 0;      ///< always 0
  int status_code = 0;       ///< reply: the status code; 0 for an unusable one
  unsigned char wsbits = 0;  ///< always 0

  void* server_param = nullptr;        ///< what mg_create_server() was given
  mg_atomic_pointer connection_param;  ///< the user's own; null until stored
};

struct mg_server;

typedef int (*mg_handler_t)(struct mg_connection*, enum mg_event);

extern "C" {

/// A server without connections, whose events go to `handler`.
/// @return null on failure (no handler, no memory, no descriptor)
struct mg_server* mg_create_server(void* server_param, mg_handler_t handler);

/// Starts a client connection; does not wait for it, but resolves `host` before it returns.
/// A connection made on the thread that polls starts with its next poll. One made on another
/// thread starts, and gets events, once its connection_param is stored, at the latest after about
/// a second: no event can come before the caller had the time to store it.
/// @param host     a name or a numeric IPv4 or IPv6 address; every address of a name is tried
/// @param use_ssl  not 0: TLS, see README.md for what is verified
/// @return null when there is no server or host, the port is none, or the name cannot be resolved.
///         Any later failure gives MG_CLOSE.
struct mg_connection* mg_connect(struct mg_server* server, const char* host, int port, int use_ssl);

/// Delivers one MG_POLL to every connection, then waits up to `milliseconds` for something that
/// gives an event, and delivers what there is.
/// @return the number of connections, held-back ones included; 0 at once when there are none
int mg_poll_server(struct mg_server* server, int milliseconds);

/// Delivers MG_CLOSE to every connection, frees everything and sets the handle to null.
void mg_destroy_server(struct mg_server** server);

/// Queues a copy of the bytes; never blocks, and may be called before the connection stands.
/// @return the number of bytes queued: `length`, or 0 for null, nothing or no memory
int mg_write(struct mg_connection* connection, const void* bytes, int length);

/// Runs `function(param)` on a detached thread of its own.
/// @return null when there is no function or no thread
void* mg_start_thread(void* (*function)(void*), void* param);

}  // extern "C"

#endif
