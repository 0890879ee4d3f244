#include "lab/upload_server/upload_server.h"

#include <netdb.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "lab/support/record.h"
#include "lab/upload_server/stream.h"

namespace lab {
namespace {

constexpr char kClosedUnanswered[] = "closed without an answer";
constexpr char kAnswered[] = "answered";
constexpr char kClosedAfterAnswer[] = "closed after the answer";

std::runtime_error failure(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

struct AddressDeleter {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using Address = std::unique_ptr<addrinfo, AddressDeleter>;

Address numeric_address(const std::string& host, std::uint16_t port) {
  addrinfo hints = {};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
  if (error != 0) throw std::runtime_error("address " + host + ": " + gai_strerror(error));
  return Address(list);
}

std::uint16_t bound_port(int socket) {
  sockaddr_storage address = {};
  socklen_t size = sizeof address;
  if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return 0;
  in_port_t port = 0;  // at the same place for both families
  static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
  std::memcpy(&port, reinterpret_cast<char*>(&address) + offsetof(sockaddr_in, sin_port),
              sizeof port);
  return ntohs(port);
}

// A broken connection must be an error of write(), and signals are the program's main thread's.
void block_signals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

Reply refusal_of(const Upload& upload) {
  Reply reply;
  reply.status = 400;
  reply.reason = "Bad Request";
  reply.body = json_line({{"code", 0}, {"error", upload.problem}});
  reply.close = CloseAt::kAfterReply;
  return reply;
}

}  // namespace

bool UploadReport::accepted() const {
  return status == 200 && (outcome == kAnswered || outcome == kClosedAfterAnswer);
}

nlohmann::ordered_json to_json(const UploadReport& report) {
  nlohmann::ordered_json fields = nlohmann::ordered_json::object();
  for (const auto& [name, value] : report.upload.fields)
    fields[name] = value;
  return {{"upload", report.number},
          {"connection", report.connection},
          {"time", report.time},
          {"kind", name_of(report.upload.kind)},
          {"fields", fields},
          {"file_name", report.upload.file_name},
          {"bytes", report.upload.file.size()},
          {"request_bytes", report.upload.request.size()},
          {"sha256", sha256(report.upload.file)},
          {"problem", report.upload.problem},
          {"status", report.status},
          {"outcome", report.outcome}};
}

/// One connection and its thread.
class UploadServer::Connection {
 public:
  Connection(UploadServer& server, unsigned number, UniqueFd socket, bool refused)
      : server_(server), number_(number), refused_(refused), stream_(std::move(socket)) {
    thread_ = std::thread([this] { run(); });
  }
  ~Connection() { thread_.join(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool finished() const { return finished_; }

  /// The server's mutex is held.
  void drop() {
    dropped_ = true;
    stream_.abort();
    server_.changed_.notify_all();
  }

 private:
  void run();
  bool serve_one();
  bool receive(UploadParser& parser, Reply& reply);
  std::size_t read_some(char* buffer, std::size_t size);
  bool answer(const Reply& reply, UploadReport& report);
  bool write_pieces(const std::string& bytes, const Reply& reply);
  void end(const Reply& reply);
  bool pause(std::chrono::milliseconds time);

  UploadServer& server_;
  const unsigned number_;
  const bool refused_;
  Stream stream_;
  std::string pending_;   // came together with an earlier upload, belongs to the next
  bool dropped_ = false;  // guarded by the server's mutex
  std::atomic<bool> finished_{false};
  std::thread thread_;
};

void UploadServer::Connection::run() {
  block_signals();
  std::string problem = refused_ ? "refused as told" : "";
  if (problem.empty() && server_.tls_) problem = stream_.start_tls(server_.tls_.get());
  if (problem.empty()) {
    while (serve_one()) {
    }
  } else if (server_.settings_.on_failed_connection) {
    const std::lock_guard<std::mutex> lock(server_.callback_);
    server_.settings_.on_failed_connection(number_, problem);
  }
  stream_.close();
  finished_ = true;
  server_.changed_.notify_all();
}

// Returns false when the connection has ended.
bool UploadServer::Connection::serve_one() {
  UploadParser parser;
  Reply reply;
  const bool whole = receive(parser, reply);
  if (!parser.started()) return false;

  UploadReport report;
  report.connection = number_;
  report.time = utc_now();
  report.upload = parser.take();
  bool goes_on = false;
  if (whole) {
    if (!report.upload.problem.empty()) reply = refusal_of(report.upload);
    goes_on = answer(reply, report);
  } else {
    report.outcome =
        reply.close == CloseAt::kInRequest ? "closed in the request" : "cut off by the client";
  }
  server_.note(std::move(report));
  if (!goes_on) end(reply);
  return goes_on;
}

// Reads one upload; `reply` becomes what it is to be answered with, known from its first bytes on,
// since it may also say how to read. Returns false when the upload is not whole.
bool UploadServer::Connection::receive(UploadParser& parser, Reply& reply) {
  constexpr std::size_t kEnoughToTell = 5;
  constexpr std::size_t kAtOnce = 65536;
  std::array<char, kAtOnce> buffer = {};
  std::size_t received = 0;
  bool chosen = false;
  while (!parser.finished()) {
    std::size_t limit = chosen ? kAtOnce : kEnoughToTell;
    if (reply.read_piece > 0) limit = std::min(limit, reply.read_piece);
    if (reply.close == CloseAt::kInRequest) {
      if (received >= reply.close_after) return false;
      limit = std::min(limit, reply.close_after - received);
    }
    const std::size_t count = read_some(buffer.data(), limit);
    if (count == 0) return false;
    received += count;
    const std::size_t taken = parser.feed(buffer.data(), count);
    pending_.insert(0, buffer.data() + taken, count - taken);
    if (!chosen && (parser.kind() != UploadKind::kUnknown || parser.finished())) {
      reply = server_.next_reply(parser.kind());
      chosen = true;
    }
    if (reply.read_piece > 0 && !pause(reply.read_pause)) return false;
  }
  return true;
}

std::size_t UploadServer::Connection::read_some(char* buffer, std::size_t size) {
  if (pending_.empty()) return stream_.read(buffer, size);
  const std::size_t count = pending_.copy(buffer, size);
  pending_.erase(0, count);
  return count;
}

// Fills in status and outcome. Returns false when the connection is to end.
bool UploadServer::Connection::answer(const Reply& reply, UploadReport& report) {
  if (!pause(reply.delay)) {
    report.outcome = kClosedUnanswered;
    return false;
  }
  if (reply.silent) {
    report.outcome = "left without an answer";
    return true;
  }
  std::string bytes = bytes_of(reply);
  if (reply.close == CloseAt::kBeforeReply) bytes.clear();
  if (reply.close == CloseAt::kInReply) bytes.resize(std::min(bytes.size(), reply.close_after));
  if (!write_pieces(bytes, reply)) {
    report.outcome = "client gone";
    return false;
  }
  if (reply.close == CloseAt::kBeforeReply || reply.close == CloseAt::kInReply) {
    report.outcome = bytes.empty() ? kClosedUnanswered : "closed in the answer";
    return false;
  }
  if (reply.raw.empty()) report.status = reply.status;
  const bool goes_on = reply.close == CloseAt::kNever && reply.framing != Framing::kUntilClose &&
                       value_of(report.upload.headers, "Connection") != "close";
  report.outcome = goes_on ? kAnswered : kClosedAfterAnswer;
  return goes_on;
}

bool UploadServer::Connection::write_pieces(const std::string& bytes, const Reply& reply) {
  const std::size_t piece = reply.piece == 0 ? bytes.size() : reply.piece;
  for (std::size_t at = 0; at < bytes.size(); at += piece) {
    if (at > 0 && !pause(reply.piece_pause)) return false;
    if (!stream_.write(bytes.data() + at, std::min(piece, bytes.size() - at))) return false;
  }
  return true;
}

void UploadServer::Connection::end(const Reply& reply) {
  if (reply.reset) {
    stream_.reset();
  } else {
    stream_.close();
  }
}

// Returns false when the connection is to end now.
bool UploadServer::Connection::pause(std::chrono::milliseconds time) {
  std::unique_lock<std::mutex> lock(server_.mutex_);
  return !server_.changed_.wait_for(lock, time, [this] { return dropped_; });
}

void UploadServer::TlsContextDeleter::operator()(ssl_ctx_st* context) const {
  SSL_CTX_free(context);
}

UploadServer::UploadServer(Settings settings)
    : settings_(std::move(settings)), port_(settings_.port), wake_(eventfd(0, EFD_CLOEXEC)) {
  if (!wake_) throw failure("eventfd");
  if (!settings_.certificate.empty()) load_certificate();
  listen();
}

UploadServer::~UploadServer() {
  pause();
}

void UploadServer::load_certificate() {
  tls_.reset(SSL_CTX_new(TLS_server_method()));
  if (!tls_ || SSL_CTX_set_min_proto_version(tls_.get(), TLS1_2_VERSION) != 1) {
    throw std::runtime_error("TLS is not available");
  }
  if (SSL_CTX_use_certificate_chain_file(tls_.get(), settings_.certificate.c_str()) != 1) {
    throw std::runtime_error("no usable certificate: " + settings_.certificate);
  }
  if (SSL_CTX_use_PrivateKey_file(tls_.get(), settings_.key.c_str(), SSL_FILETYPE_PEM) != 1) {
    throw std::runtime_error("no key that fits the certificate: " + settings_.key);
  }
}

void UploadServer::listen() {
  const Address address = numeric_address(settings_.address, port_);
  UniqueFd socket(::socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (!socket || setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(socket.get(), address->ai_addr, address->ai_addrlen) != 0 ||
      ::listen(socket.get(), SOMAXCONN) != 0) {
    throw failure("cannot listen on " + settings_.address + " port " + std::to_string(port_));
  }
  if (port_ == 0) port_ = bound_port(socket.get());
  listener_ = std::move(socket);
  acceptor_ = std::thread([this] { accept_loop(); });
}

void UploadServer::accept_loop() {
  block_signals();
  for (;;) {
    std::array<pollfd, 2> ready = {{{listener_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}}};
    if (poll(ready.data(), ready.size(), -1) == -1) continue;
    if (ready[1].revents != 0) return;
    UniqueFd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (socket) {
      welcome(std::move(socket));
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));  // until some connection ends
    }
    join_finished(false);
  }
}

void UploadServer::welcome(UniqueFd socket) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const bool refused = refuse_ > 0;
  if (refused) --refuse_;
  connections_.push_back(
      std::make_unique<Connection>(*this, ++accepted_, std::move(socket), refused));
}

void UploadServer::join_finished(bool all) {
  std::list<std::unique_ptr<Connection>> ended;  // joined after the lock is free again
  const std::lock_guard<std::mutex> lock(mutex_);
  for (auto at = connections_.begin(); at != connections_.end();) {
    const auto next = std::next(at);
    if (all) (*at)->drop();
    if (all || (*at)->finished()) ended.splice(ended.end(), connections_, at);
    at = next;
  }
}

Reply UploadServer::next_reply(UploadKind kind) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto fits = std::find_if(script_.begin(), script_.end(), [kind](const Reply& reply) {
    return !reply.only_for || *reply.only_for == kind;
  });
  if (fits == script_.end()) return default_reply_;
  Reply reply = std::move(*fits);
  script_.erase(fits);
  return reply;
}

void UploadServer::note(UploadReport report) {
  const std::lock_guard<std::mutex> one_at_a_time(callback_);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    report.number = static_cast<unsigned>(reports_.size()) + 1;
  }
  if (settings_.on_upload) settings_.on_upload(report);
  if (!settings_.keep_bytes) {
    report.upload.request.clear();
    report.upload.file.clear();
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  reports_.push_back(std::move(report));
  changed_.notify_all();
}

void UploadServer::script(const Reply& reply, unsigned times) {
  const std::lock_guard<std::mutex> lock(mutex_);
  script_.insert(script_.end(), times, reply);
}

void UploadServer::set_default_reply(const Reply& reply) {
  const std::lock_guard<std::mutex> lock(mutex_);
  default_reply_ = reply;
}

void UploadServer::clear_script() {
  const std::lock_guard<std::mutex> lock(mutex_);
  script_.clear();
  default_reply_ = Reply();
}

void UploadServer::refuse_connections(unsigned times) {
  const std::lock_guard<std::mutex> lock(mutex_);
  refuse_ = times;
}

void UploadServer::pause() {
  const std::lock_guard<std::mutex> lock(lifecycle_);
  if (!acceptor_.joinable()) return;
  eventfd_write(wake_.get(), 1);
  acceptor_.join();
  eventfd_t ignored = 0;
  eventfd_read(wake_.get(), &ignored);
  listener_.reset();
  join_finished(true);
}

void UploadServer::resume() {
  const std::lock_guard<std::mutex> lock(lifecycle_);
  if (!acceptor_.joinable()) listen();
}

void UploadServer::drop_connections() {
  join_finished(true);
}

std::vector<UploadReport> UploadServer::reports() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return reports_;
}

bool UploadServer::wait_for_reports(std::size_t count, std::chrono::seconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return reports_.size() >= count; });
}

unsigned UploadServer::connections_accepted() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return accepted_;
}

unsigned UploadServer::connections_open() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<unsigned>(
      std::count_if(connections_.begin(), connections_.end(),
                    [](const auto& connection) { return !connection->finished(); }));
}

}  // namespace lab
