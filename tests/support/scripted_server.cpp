#include "tests/support/scripted_server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "compat/mongoose/openssl_ptr.h"

namespace test_support {
namespace {

void require(bool holds, const char* what) {
  if (!holds) throw std::system_error(errno, std::generic_category(), what);
}

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  void close() {
    if (number_ >= 0) ::close(number_);
    number_ = -1;
  }
  int get() const { return number_; }

 private:
  int number_;
};

// A stream socket bound to a free loopback port, which is handed back in `port`.
int bound_socket(bool ipv6, int receive_buffer, int& port) {
  const int descriptor = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(descriptor >= 0, "socket");
  if (receive_buffer > 0) {
    setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
  }
  union {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
  } address = {};
  socklen_t size = sizeof address.v4;
  address.v4.sin_family = AF_INET;
  address.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (ipv6) {
    address.v6 = {};
    address.v6.sin6_family = AF_INET6;
    address.v6.sin6_addr = in6addr_loopback;
    size = sizeof address.v6;
  }
  const bool bound = bind(descriptor, &address.any, size) == 0 &&
                     getsockname(descriptor, &address.any, &size) == 0;
  if (!bound) ::close(descriptor);
  require(bound, "bind");
  port = ntohs(ipv6 ? address.v6.sin6_port : address.v4.sin_port);
  return descriptor;
}

using mg_facade::OpensslPtr;
using ContextPtr = OpensslPtr<SSL_CTX, SSL_CTX_free>;
using SessionPtr = OpensslPtr<SSL, SSL_free>;

OpensslPtr<BIO, BIO_free> reader(const std::string& text) {
  return OpensslPtr<BIO, BIO_free>(BIO_new_mem_buf(text.data(), -1));
}

ContextPtr server_context(const Identity& identity, int version) {
  ContextPtr context(SSL_CTX_new(TLS_server_method()));
  if (version != 0) {
    SSL_CTX_set_security_level(context.get(), 0);  // old versions are refused otherwise
    SSL_CTX_set_min_proto_version(context.get(), version);
    SSL_CTX_set_max_proto_version(context.get(), version);
  }
  const OpensslPtr<X509, X509_free> certificate(
      PEM_read_bio_X509(reader(identity.certificate).get(), nullptr, nullptr, nullptr));
  const OpensslPtr<EVP_PKEY, EVP_PKEY_free> key(
      PEM_read_bio_PrivateKey(reader(identity.key).get(), nullptr, nullptr, nullptr));
  const bool usable = SSL_CTX_use_certificate(context.get(), certificate.get()) == 1 &&
                      SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1;
  if (!usable) throw std::runtime_error("identity of the scripted server");
  return context;
}

// A write to a peer that has gone shall fail, not kill the test.
void block_sigpipe() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

class ScriptedPeer {
 public:
  ScriptedPeer(int descriptor, int stop_descriptor)
      : socket_(descriptor), stop_descriptor_(stop_descriptor) {
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }

  bool accept_tls(SSL_CTX* context) {
    session_.reset(SSL_new(context));
    SSL_set_fd(session_.get(), socket_.get());
    if (SSL_accept(session_.get()) != 1) return false;
    const char* name = SSL_get_servername(session_.get(), TLSEXT_NAMETYPE_host_name);
    const std::lock_guard<std::mutex> lock(mutex_);
    server_name_ = name == nullptr ? "" : name;
    return true;
  }

  // False at the end of the stream or on an error.
  bool read_some(std::size_t limit = 65536) {
    std::vector<char> bytes(limit);
    const auto size = session_ ? SSL_read(session_.get(), bytes.data(), static_cast<int>(limit))
                               : recv(socket_.get(), bytes.data(), limit, 0);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (size <= 0) {
      said_goodbye_ = session_ && (SSL_get_shutdown(session_.get()) & SSL_RECEIVED_SHUTDOWN) != 0;
      return false;
    }
    received_.append(bytes.data(), static_cast<std::size_t>(size));
    return true;
  }

  bool write_all(const char* bytes, std::size_t size) {
    while (size > 0) {
      const auto sent = session_ ? SSL_write(session_.get(), bytes, static_cast<int>(size))
                                 : send(socket_.get(), bytes, size, MSG_NOSIGNAL);
      if (sent <= 0) return false;
      bytes += sent;
      size -= static_cast<std::size_t>(sent);
    }
    return true;
  }

  // `done` is given all bytes that came since the last expectation was met, and says how many of
  // them meet this one; 0: not yet.
  template <typename Done>
  bool expect(Done done) {
    for (;;) {
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        const std::size_t used = done(std::string_view(received_).substr(expected_));
        expected_ += used;
        if (used > 0) return true;
      }
      if (!read_some()) return false;
    }
  }

  bool pause(int milliseconds) const {
    pollfd stop = {stop_descriptor_, POLLIN, 0};
    return poll(&stop, 1, milliseconds) == 0;
  }

  void say_goodbye() {
    if (session_ && SSL_is_init_finished(session_.get())) SSL_shutdown(session_.get());
    ERR_clear_error();
  }
  void shut_down(int how) const { shutdown(socket_.get(), how); }

  void close() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    socket_.close();
  }

  void reset() {
    const linger at_once = {1, 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close();
  }

  // From the owner's thread while the connection's own thread may be blocked in it.
  void wake() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!ended_) shut_down(SHUT_RDWR);
  }

  std::string received() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }
  std::string server_name() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return server_name_;
  }
  bool said_goodbye() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return said_goodbye_;
  }
  bool ended() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return ended_;
  }

 private:
  Descriptor socket_;
  int stop_descriptor_;
  SessionPtr session_;
  std::size_t expected_ = 0;

  mutable std::mutex mutex_;  // guards what follows, and the closing of socket_
  std::string received_;
  std::string server_name_;
  bool said_goodbye_ = false;
  bool ended_ = false;
};

Step expect_bytes(std::size_t count) {
  return [count](ScriptedPeer& peer) {
    return count == 0 || peer.expect([count](std::string_view bytes) {
      return bytes.size() < count ? std::size_t{0} : count;
    });
  };
}

Step expect_text(std::string text) {
  return [text = std::move(text)](ScriptedPeer& peer) {
    return peer.expect([&text](std::string_view bytes) {
      const auto place = bytes.find(text);
      return place == std::string_view::npos ? std::size_t{0} : place + text.size();
    });
  };
}

Step send_bytes(std::string bytes, std::size_t piece) {
  return [bytes = std::move(bytes), piece](ScriptedPeer& peer) {
    const std::size_t step = piece == 0 ? bytes.size() : piece;
    for (std::size_t place = 0; place < bytes.size(); place += step) {
      if (!peer.write_all(bytes.data() + place, std::min(step, bytes.size() - place))) return false;
      if (piece != 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
  };
}

Step pause_ms(int milliseconds) {
  return [milliseconds](ScriptedPeer& peer) { return peer.pause(milliseconds); };
}

Step read_slowly(std::size_t piece, int milliseconds) {
  return [piece, milliseconds](ScriptedPeer& peer) {
    while (peer.read_some(piece)) {
      if (!peer.pause(milliseconds)) return false;
    }
    return false;
  };
}

Step read_to_end() {
  return [](ScriptedPeer& peer) {
    while (peer.read_some()) {
    }
    return true;
  };
}

Step half_close() {
  return [](ScriptedPeer& peer) {
    peer.say_goodbye();
    peer.shut_down(SHUT_WR);
    return true;
  };
}

Step close_connection() {
  return [](ScriptedPeer& peer) {
    peer.say_goodbye();
    return false;
  };
}

Step cut_connection() {
  return [](ScriptedPeer& /*peer*/) { return false; };
}

Step reset_connection() {
  return [](ScriptedPeer& peer) {
    peer.reset();
    return false;
  };
}

Step run(std::function<void()> action) {
  return [action = std::move(action)](ScriptedPeer& /*peer*/) {
    action();
    return true;
  };
}

struct ScriptedServer::State {
  State(std::vector<Script> all_scripts, const Options& options)
      : scripts(std::move(all_scripts)),
        listener(bound_socket(options.ipv6, options.receive_buffer, port)),
        stop(eventfd(0, EFD_CLOEXEC)) {
    require(listen(listener.get(), 1000) == 0, "listen");
    if (options.tls != nullptr) {
      context = server_context(*options.tls, options.tls_version);
    }
    acceptor = std::thread([this] { accept_connections(); });
  }

  ~State() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = write(stop.get(), &one, sizeof one);
    shutdown(listener.get(), SHUT_RDWR);
    acceptor.join();
    for (ScriptedPeer& peer : peers)
      peer.wake();
    for (std::thread& thread : threads)
      thread.join();
  }

  void accept_connections() {
    for (;;) {
      const int descriptor = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
      if (descriptor < 0) return;
      const std::lock_guard<std::mutex> lock(mutex);
      const Script& script = scripts[std::min(peers.size(), scripts.size() - 1)];
      ScriptedPeer& peer = peers.emplace_back(descriptor, stop.get());
      threads.emplace_back([this, &peer, &script] { serve(peer, script); });
    }
  }

  void serve(ScriptedPeer& peer, const Script& script) const {
    block_sigpipe();
    const bool greeted = !context || peer.accept_tls(context.get());
    if (greeted && std::all_of(script.begin(), script.end(),
                               [&peer](const Step& step) { return step(peer); })) {
      read_to_end()(peer);
    }
    peer.close();
  }

  template <typename Result, typename Ask>
  Result ask(std::size_t connection, Result otherwise, Ask question) const {
    const std::lock_guard<std::mutex> lock(mutex);
    return connection < peers.size() ? question(peers[connection]) : otherwise;
  }

  const std::vector<Script> scripts;
  int port = 0;
  Descriptor listener;
  Descriptor stop;
  ContextPtr context;
  mutable std::mutex mutex;  // guards peers and threads
  std::deque<ScriptedPeer> peers;
  std::vector<std::thread> threads;
  std::thread acceptor;
};

ScriptedServer::ScriptedServer(std::vector<Script> scripts)
    : ScriptedServer(std::move(scripts), Options()) {}
ScriptedServer::ScriptedServer(std::vector<Script> scripts, Options options)
    : state_(std::make_unique<State>(std::move(scripts), options)) {}
ScriptedServer::~ScriptedServer() = default;

int ScriptedServer::port() const {
  return state_->port;
}

std::size_t ScriptedServer::accepted() const {
  const std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->peers.size();
}

std::string ScriptedServer::received(std::size_t connection) const {
  return state_->ask(connection, std::string(),
                     [](const ScriptedPeer& peer) { return peer.received(); });
}

bool ScriptedServer::ended(std::size_t connection) const {
  return state_->ask(connection, false, [](const ScriptedPeer& peer) { return peer.ended(); });
}

bool ScriptedServer::said_goodbye(std::size_t connection) const {
  return state_->ask(connection, false,
                     [](const ScriptedPeer& peer) { return peer.said_goodbye(); });
}

std::string ScriptedServer::server_name(std::size_t connection) const {
  return state_->ask(connection, std::string(),
                     [](const ScriptedPeer& peer) { return peer.server_name(); });
}

RefusingPort::RefusingPort(bool ipv6) : descriptor_(-1), port_(0) {
  descriptor_ = bound_socket(ipv6, 0, port_);  // bound but not listening
}

RefusingPort::~RefusingPort() {
  ::close(descriptor_);
}

}  // namespace test_support
