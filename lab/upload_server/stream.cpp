#include "lab/upload_server/stream.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

namespace lab {

void Stream::TlsDeleter::operator()(ssl_st* tls) const {
  SSL_free(tls);
}

Stream::Stream(UniqueFd socket) : socket_(std::move(socket)) {
  const int on = 1;  // each piece of an answer goes out at once
  setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

Stream::~Stream() = default;

std::string Stream::start_tls(ssl_ctx_st* context) {
  ERR_clear_error();
  tls_.reset(SSL_new(context));
  if (!tls_ || SSL_set_fd(tls_.get(), socket_.get()) != 1 || SSL_accept(tls_.get()) != 1) {
    std::array<char, 256> text = {};
    ERR_error_string_n(ERR_get_error(), text.data(), text.size());
    tls_.reset();
    return std::string("TLS: ") + text.data();
  }
  return "";
}

std::size_t Stream::read(char* buffer, std::size_t size) {
  constexpr std::size_t kMost = 1UL << 20U;  // SSL_read takes an int
  size = std::min(size, kMost);
  if (tls_)
    return static_cast<std::size_t>(
        std::max(0, SSL_read(tls_.get(), buffer, static_cast<int>(size))));
  ssize_t count = 0;
  do {
    count = recv(socket_.get(), buffer, size, 0);
  } while (count == -1 && errno == EINTR);
  return static_cast<std::size_t>(std::max<ssize_t>(0, count));
}

bool Stream::write(const char* data, std::size_t size) {
  while (size > 0) {
    std::size_t count = 0;
    if (tls_) {
      if (SSL_write_ex(tls_.get(), data, size, &count) != 1) return false;
    } else {
      const ssize_t sent = send(socket_.get(), data, size, MSG_NOSIGNAL);
      if (sent == -1 && errno == EINTR) continue;
      if (sent == -1) return false;
      count = static_cast<std::size_t>(sent);
    }
    data += count;
    size -= count;
  }
  return true;
}

void Stream::close() {
  if (!socket_) return;
  if (tls_) SSL_shutdown(tls_.get());
  shutdown(socket_.get(), SHUT_WR);
  drain();
  close_socket();
}

// Bytes left unread would turn the close into a reset, which may overtake the answer.
void Stream::drain() {
  constexpr std::chrono::milliseconds kLongest(1000);
  const auto end = std::chrono::steady_clock::now() + kLongest;
  struct timeval timeout = {};
  timeout.tv_usec = 100'000;
  setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  std::array<char, 65536> scratch = {};
  while (std::chrono::steady_clock::now() < end) {
    const ssize_t count = recv(socket_.get(), scratch.data(), scratch.size(), 0);
    if (count == 0 || (count == -1 && errno != EAGAIN && errno != EINTR)) return;
  }
}

void Stream::reset() {
  if (!socket_) return;
  const struct linger at_once = {1, 0};
  setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  close_socket();
}

void Stream::close_socket() {
  const std::lock_guard<std::mutex> lock(mutex_);
  tls_.reset();
  socket_.reset();
}

void Stream::abort() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (socket_) shutdown(socket_.get(), SHUT_RDWR);
}

}  // namespace lab
