#include "compat/mongoose/mongoose.h"

#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "compat/mongoose/reply_reader.h"
#include "compat/mongoose/transport.h"

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

// How long a connection made by another thread waits for its connection_param.
constexpr int kTickMilliseconds = 1;
constexpr std::uint64_t kGraceTicks = 1000;

// Ready handlers that one poll still runs after the event that ended its wait.
constexpr int kMostHandlersPerDrain = 64;

struct Destination {
  std::string host;
  bool use_tls;
  std::vector<tcp::endpoint> addresses;
};

// A timer of the kernel's. Asio's own ones compare with the process's reading of the clock; this
// one needs none, and goes on counting between two polls.
class Timer {
 public:
  Timer(asio::io_context& loop, std::function<void(std::uint64_t)> on_expiry)
      : descriptor_(loop), on_expiry_(std::move(on_expiry)) {
    const int number = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (number < 0) throw std::system_error(errno, std::generic_category(), "timerfd_create");
    error_code error;
    descriptor_.assign(number, error);
    if (error) {
      ::close(number);
      throw boost::system::system_error(error, "timer");
    }
    watch();
  }

  void arm_once(int milliseconds) { set(milliseconds, 0); }
  void arm_ticking(int milliseconds) { set(milliseconds, milliseconds); }
  void disarm() {
    if (armed_) set(0, 0);
  }

 private:
  void set(int first_ms, int interval_ms) {
    armed_ = first_ms > 0;
    ticks_ = interval_ms > 0;
    const auto to_timespec = [](int ms) { return timespec{ms / 1000, ms % 1000 * 1'000'000L}; };
    const itimerspec value = {to_timespec(interval_ms), to_timespec(first_ms)};
    timerfd_settime(descriptor_.native_handle(), 0, &value, nullptr);
  }

  void watch() {
    descriptor_.async_wait(asio::posix::stream_descriptor::wait_read, [this](error_code error) {
      if (error) return;
      std::uint64_t expiries = 0;
      // Nothing to read: set anew after it had expired.
      const bool expired =
          ::read(descriptor_.native_handle(), &expiries, sizeof expiries) == sizeof expiries;
      if (expired) {
        armed_ = ticks_;
        on_expiry_(expiries);
      }
      watch();
    });
  }

  asio::posix::stream_descriptor descriptor_;
  std::function<void(std::uint64_t)> on_expiry_;
  bool armed_ = false;  // will still expire
  bool ticks_ = false;
};

class Connection;

}  // namespace

// Everything but `arrivals_` and `closing_` belongs to the polling thread.
struct mg_server {
 public:
  mg_server(void* param, mg_handler_t handler);
  ~mg_server();
  mg_server(const mg_server&) = delete;
  mg_server& operator=(const mg_server&) = delete;

  // Any thread.
  mg_connection* connect(Destination destination);
  std::vector<tcp::endpoint> resolve(const char* host, int port);
  asio::io_context& loop() { return loop_; }
  void* param() const { return param_; }
  bool is_polled_here() const { return polling_ == std::this_thread::get_id(); }

  int poll(int milliseconds);

  // Calls the handler. An event other than MG_POLL ends the wait of the poll.
  int deliver(mg_connection& connection, mg_event event);

 private:
  using Connections = std::vector<std::shared_ptr<Connection>>;

  void admit_arrivals();
  void notice_arrivals(std::uint64_t ticks);
  bool has_arrivals();
  void wait(int milliseconds);
  void sweep();
  Connections take_all();

  asio::io_context loop_{1};
  void* const param_;
  const mg_handler_t handler_;
  Timer deadline_;
  Timer ticker_;
  bool wait_over_ = false;
  std::atomic<std::thread::id> polling_{};  // the thread inside poll()
  Connections connections_;
  Connections unclaimed_;  // closed, without a connection_param

  std::mutex mutex_;      // guards what follows
  Connections arrivals_;  // made, not yet admitted
  bool closing_ = false;
};

namespace {

// One connection from mg_connect() to MG_CLOSE. Pending operations share in its ownership, so the
// memory outlives MG_CLOSE until the loop has run what was pending.
class Connection final : public mg_connection, public std::enable_shared_from_this<Connection> {
 public:
  Connection(mg_server& server, Destination destination)
      : server_(server),
        socket_(server.loop()),
        destination_(std::move(destination)),
        maker_(std::this_thread::get_id()) {
    server_param = server.param();
  }

  bool may_start(std::uint64_t ticks);
  void start() { try_next_address(); }
  void poll();
  void close();
  bool is_closed() const { return closed_; }

  // Any thread.
  int queue(const char* bytes, std::size_t size);

 private:
  bool may_send_at_once() const;
  std::size_t send_at_once(const char* bytes, std::size_t size);
  bool keep(const char* bytes, std::size_t size);
  void wait(tcp::socket::wait_type readiness, void (Connection::*then)());
  void wait(const mg_facade::Attempt& attempt, void (Connection::*then)());

  void try_next_address();
  bool open_socket(const tcp::endpoint& address);
  void connected();
  void note_addresses();
  void handshake();
  void established();

  void read();
  void take(const char* bytes, std::size_t size);
  void end_of_stream();
  void deliver_reply(mg_facade::Reply& reply);
  void show(mg_facade::Reply& reply);
  void hide_reply();

  void write();
  void write_again();
  bool has_something_to_write();
  void writing_failed();

  mg_server& server_;
  tcp::socket socket_;
  const Destination destination_;
  const std::thread::id maker_;
  std::uint64_t waited_ticks_ = 0;
  std::size_t next_address_ = 0;
  std::unique_ptr<mg_facade::Transport> transport_;
  mg_facade::ReplyReader reader_;
  bool established_ = false;
  bool write_is_waiting_ = false;
  bool write_has_failed_ = false;  // inside an event handler, which must not see the close
  std::string outgoing_;
  std::size_t sent_ = 0;  // of outgoing_

  std::atomic<bool> closed_{false};
  std::atomic<bool> reply_is_due_{false};  // something was queued since the last reply
  std::mutex mutex_;                       // guards queued_
  std::string queued_;
};

// True when its maker had the time to store connection_param: it has been stored, or its maker is
// the very thread that now polls, or the grace time has passed.
bool Connection::may_start(std::uint64_t ticks) {
  waited_ticks_ += ticks;
  return connection_param != nullptr || maker_ == std::this_thread::get_id() ||
         waited_ticks_ >= kGraceTicks;
}

void Connection::poll() {
  if (server_.deliver(*this, MG_POLL) != MG_FALSE) {
    close();
  } else {
    write();
  }
}

void Connection::close() {
  if (closed_.exchange(true)) return;
  transport_.reset();
  error_code ignored;
  socket_.close(ignored);
  server_.deliver(*this, MG_CLOSE);
}

// Only what the socket does not take at once is copied. The lock is held all the while, or another
// thread's bytes could come between these.
int Connection::queue(const char* bytes, std::size_t size) {
  if (closed_) return 0;
  const std::lock_guard<std::mutex> lock(mutex_);
  const bool at_once = may_send_at_once();
  const std::size_t sent = at_once ? send_at_once(bytes, size) : 0;
  if (sent < size && !keep(bytes + sent, size - sent)) {
    // Nobody can use half a request; TLS may have begun a record where nothing counts as sent.
    if (at_once) write_has_failed_ = true;
    return 0;
  }
  reply_is_due_ = true;
  return static_cast<int>(size);
}

// False when there is no memory for it.
bool Connection::keep(const char* bytes, std::size_t size) try {
  queued_.reserve(queued_.size() + size);  // whatever may throw comes before the change
  asio::post(server_.loop(), [self = shared_from_this()] { self->write(); });
  queued_.append(bytes, size);
  return true;
} catch (...) {
  return false;
}

// In an event handler, while nothing else waits to be sent.
bool Connection::may_send_at_once() const {
  return server_.is_polled_here() && established_ && !write_is_waiting_ && !write_has_failed_ &&
         sent_ == outgoing_.size() && queued_.empty();
}

// Straight out of the caller's memory.
std::size_t Connection::send_at_once(const char* bytes, std::size_t size) {
  std::size_t sent = 0;
  while (sent < size) {
    const mg_facade::Attempt attempt = transport_->write(bytes + sent, size - sent);
    if (attempt.result == mg_facade::Attempt::kDone) {
      sent += attempt.size;
      continue;
    }
    write_has_failed_ =
        attempt.result == mg_facade::Attempt::kFailed || attempt.result == mg_facade::Attempt::kEnd;
    break;
  }
  return sent;
}

void Connection::wait(tcp::socket::wait_type readiness, void (Connection::*then)()) {
  socket_.async_wait(readiness, [self = shared_from_this(), then](error_code error) {
    if (self->closed_) return;
    if (error) {
      self->close();
    } else {
      (*self.*then)();
    }
  });
}

void Connection::wait(const mg_facade::Attempt& attempt, void (Connection::*then)()) {
  wait(attempt.result == mg_facade::Attempt::kWantWrite ? tcp::socket::wait_write
                                                        : tcp::socket::wait_read,
       then);
}

void Connection::try_next_address() {
  while (next_address_ < destination_.addresses.size()) {
    const tcp::endpoint& address = destination_.addresses[next_address_++];
    if (!open_socket(address)) continue;
    socket_.async_connect(address, [self = shared_from_this()](error_code error) {
      if (self->closed_) return;
      if (error) {
        self->try_next_address();
      } else {
        self->connected();
      }
    });
    return;
  }
  close();
}

// Not Asio's open(): a child that another thread starts must not inherit the socket.
bool Connection::open_socket(const tcp::endpoint& address) {
  error_code error;
  socket_.close(error);
  const int descriptor =
      ::socket(address.protocol().family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return false;
  socket_.assign(address.protocol(), descriptor, error);
  if (error) ::close(descriptor);
  return !error;
}

void Connection::connected() {
  note_addresses();
  const int descriptor = socket_.native_handle();
  transport_ = destination_.use_tls ? mg_facade::make_tls_transport(descriptor, destination_.host)
                                    : mg_facade::make_tcp_transport(descriptor);
  if (transport_) {
    handshake();
  } else {
    close();
  }
}

void Connection::note_addresses() {
  error_code ignored;
  const tcp::endpoint remote = socket_.remote_endpoint(ignored);
  const tcp::endpoint local = socket_.local_endpoint(ignored);
  remote.address().to_string().copy(remote_ip, sizeof remote_ip - 1);
  local.address().to_string().copy(local_ip, sizeof local_ip - 1);
  remote_port = remote.port();
  local_port = local.port();
}

void Connection::handshake() {
  const mg_facade::Attempt attempt = transport_->handshake();
  switch (attempt.result) {
    case mg_facade::Attempt::kDone:
      return established();
    case mg_facade::Attempt::kWantRead:
    case mg_facade::Attempt::kWantWrite:
      return wait(attempt, &Connection::handshake);
    default:
      return close();
  }
}

void Connection::established() {
  established_ = true;
  if (server_.deliver(*this, MG_CONNECT) == MG_FALSE) return close();
  write();
  if (!closed_) read();
}

void Connection::read() {
  std::array<char, 16384> bytes;
  for (;;) {
    const mg_facade::Attempt attempt = transport_->read(bytes.data(), bytes.size());
    switch (attempt.result) {
      case mg_facade::Attempt::kDone:
        take(bytes.data(), attempt.size);
        if (closed_) return;
        break;
      case mg_facade::Attempt::kEnd:
        return end_of_stream();
      case mg_facade::Attempt::kFailed:
        return close();
      default:
        return wait(attempt, &Connection::read);
    }
  }
}

// A reply that nobody asked for is no answer to the next request either. (A server that gives an
// idle connection up says so with a reply of its own, 408 for one.)
void Connection::take(const char* bytes, std::size_t size) {
  reader_.feed(bytes, size);
  if (reply_is_due_) {
    if (std::optional<mg_facade::Reply> reply = reader_.next()) deliver_reply(*reply);
  } else if (reader_.has_bytes()) {
    close();
  }
}

void Connection::end_of_stream() {
  std::optional<mg_facade::Reply> reply = reader_.finish();
  if (reply && reply_is_due_) deliver_reply(*reply);
  close();
}

void Connection::deliver_reply(mg_facade::Reply& reply) {
  const bool is_last = !reply.usable || reader_.has_bytes();
  reply_is_due_ = false;
  if (reply.usable) show(reply);
  const int answer = server_.deliver(*this, MG_REPLY);
  hide_reply();
  if (is_last || answer == MG_FALSE) {
    close();
  } else {
    write();
  }
}

void Connection::show(mg_facade::Reply& reply) {
  uri = reply.status_text.c_str();
  http_version = reply.reason.c_str();
  status_code = reply.status;
  content = reply.body.data();
  content_len = reply.body.size();
  for (const auto& [name, value] : reply.headers) {
    if (num_headers == static_cast<int>(std::size(http_headers))) break;
    http_headers[num_headers++] = {name.c_str(), value.c_str()};
  }
}

void Connection::hide_reply() {
  uri = nullptr;
  http_version = nullptr;
  status_code = 0;
  content = nullptr;
  content_len = 0;
  num_headers = 0;
  std::fill(std::begin(http_headers), std::end(http_headers), mg_header{});
}

void Connection::write() {
  if (!established_ || write_is_waiting_ || closed_) return;
  if (write_has_failed_) return writing_failed();
  while (!closed_ && has_something_to_write()) {
    const mg_facade::Attempt attempt =
        transport_->write(outgoing_.data() + sent_, outgoing_.size() - sent_);
    switch (attempt.result) {
      case mg_facade::Attempt::kDone:
        sent_ += attempt.size;
        break;
      case mg_facade::Attempt::kWantRead:
      case mg_facade::Attempt::kWantWrite:
        write_is_waiting_ = true;
        return wait(attempt, &Connection::write_again);
      default:
        return writing_failed();
    }
  }
}

void Connection::write_again() {
  write_is_waiting_ = false;
  write();
}

// Swapped, not assigned: a string that is assigned to may keep its memory, here a whole request's.
bool Connection::has_something_to_write() {
  if (sent_ < outgoing_.size()) return true;
  sent_ = 0;
  std::string().swap(outgoing_);
  const std::lock_guard<std::mutex> lock(mutex_);
  outgoing_.swap(queued_);
  return !outgoing_.empty();
}

// A server that refuses a large request answers and closes before it has read it all: its reply may
// lie in the receive buffer already.
void Connection::writing_failed() {
  write_is_waiting_ = true;
  read();
  close();
}

}  // namespace

mg_server::mg_server(void* param, mg_handler_t handler)
    : param_(param),
      handler_(handler),
      deadline_(loop_, [this](std::uint64_t /*expiries*/) { wait_over_ = true; }),
      ticker_(loop_, [this](std::uint64_t ticks) { notice_arrivals(ticks); }) {}

mg_server::~mg_server() {
  for (const auto& connection : take_all())
    connection->close();
}

mg_server::Connections mg_server::take_all() {
  const std::lock_guard<std::mutex> lock(mutex_);
  closing_ = true;  // a handler that connects again on MG_CLOSE would go on for ever
  Connections all = std::move(connections_);
  std::move(arrivals_.begin(), arrivals_.end(), std::back_inserter(all));
  connections_.clear();
  arrivals_.clear();
  return all;
}

std::vector<tcp::endpoint> mg_server::resolve(const char* host, int port) {
  tcp::resolver resolver(loop_);
  error_code error;
  const auto results =
      resolver.resolve(host, std::to_string(port), tcp::resolver::numeric_service, error);
  return std::vector<tcp::endpoint>(results.begin(), results.end());
}

mg_connection* mg_server::connect(Destination destination) {
  const auto connection = std::make_shared<Connection>(*this, std::move(destination));
  const std::lock_guard<std::mutex> lock(mutex_);
  if (closing_) return nullptr;
  arrivals_.reserve(arrivals_.size() + 1);  // whatever may throw comes before the change
  asio::post(loop_, [this] { notice_arrivals(0); });
  arrivals_.push_back(connection);
  return connection.get();
}

int mg_server::deliver(mg_connection& connection, mg_event event) {
  if (event != MG_POLL) wait_over_ = true;
  return handler_(&connection, event);
}

int mg_server::poll(int milliseconds) {
  wait_over_ = false;
  admit_arrivals();
  if (connections_.empty() && !has_arrivals()) return 0;
  polling_ = std::this_thread::get_id();
  for (const auto& connection : connections_) {
    if (!connection->is_closed()) connection->poll();
  }
  wait(milliseconds);
  polling_ = std::thread::id();
  sweep();
  const std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(connections_.size() + arrivals_.size());
}

void mg_server::admit_arrivals() {
  Connections admitted;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto held = std::stable_partition(arrivals_.begin(), arrivals_.end(),
                                            [](const auto& c) { return c->may_start(0); });
    std::move(arrivals_.begin(), held, std::back_inserter(admitted));
    arrivals_.erase(arrivals_.begin(), held);
    if (arrivals_.empty()) ticker_.disarm();
  }
  for (const auto& connection : admitted) {
    connections_.push_back(connection);
    connection->start();
  }
}

// Ends the wait as soon as the next poll can admit one; until then looks again with each tick.
void mg_server::notice_arrivals(std::uint64_t ticks) {
  const std::lock_guard<std::mutex> lock(mutex_);
  bool all_held = true;
  for (const auto& connection : arrivals_) {
    if (connection->may_start(ticks)) all_held = false;
  }
  if (!all_held) wait_over_ = true;
  if (ticks == 0 && !arrivals_.empty()) ticker_.arm_ticking(kTickMilliseconds);
}

bool mg_server::has_arrivals() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return !arrivals_.empty();
}

void mg_server::wait(int milliseconds) {
  if (milliseconds > 0) {
    deadline_.arm_once(milliseconds);
    while (!wait_over_)
      loop_.run_one();
    deadline_.disarm();
  }
  for (int i = 0; i < kMostHandlersPerDrain && loop_.poll_one() > 0; ++i) {
  }
}

// One whose maker has not stored its connection_param by now may yet be about to: its memory stays
// until the server goes.
void mg_server::sweep() {
  const auto closed = [](const auto& connection) { return connection->is_closed(); };
  std::copy_if(connections_.begin(), connections_.end(), std::back_inserter(unclaimed_),
               [&](const auto& connection) {
                 return closed(connection) && connection->connection_param == nullptr;
               });
  connections_.erase(std::remove_if(connections_.begin(), connections_.end(), closed),
                     connections_.end());
}

mg_server* mg_create_server(void* server_param, mg_handler_t handler) try {
  return handler == nullptr ? nullptr : new mg_server(server_param, handler);
} catch (...) {
  return nullptr;
}

mg_connection* mg_connect(mg_server* server, const char* host, int port, int use_ssl) try {
  if (server == nullptr || host == nullptr || *host == '\0') return nullptr;
  if (port < 0 || port > 65535) return nullptr;
  std::vector<tcp::endpoint> addresses = server->resolve(host, port);
  if (addresses.empty()) return nullptr;
  return server->connect({host, use_ssl != 0, std::move(addresses)});
} catch (...) {
  return nullptr;
}

int mg_poll_server(mg_server* server, int milliseconds) {
  // What a handler throws must not unwind the loop's state: it ends the process here.
  // NOLINTNEXTLINE(bugprone-exception-escape): on purpose
  return [&]() noexcept { return server == nullptr ? 0 : server->poll(milliseconds); }();
}

void mg_destroy_server(mg_server** server) {
  if (server == nullptr) return;
  delete *server;
  *server = nullptr;
}

int mg_write(mg_connection* connection, const void* bytes, int length) try {
  if (connection == nullptr || bytes == nullptr || length <= 0) return 0;
  return static_cast<Connection*>(connection)
      ->queue(static_cast<const char*>(bytes), static_cast<std::size_t>(length));
} catch (...) {
  return 0;
}

void* mg_start_thread(void* (*function)(void*), void* param) try {
  if (function == nullptr) return nullptr;
  static char started;
  std::thread([function, param] { function(param); }).detach();
  return &started;
} catch (...) {
  return nullptr;
}
