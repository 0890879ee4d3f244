#include <sys/socket.h>

#include <cerrno>

#include "compat/mongoose/transport.h"

namespace mg_facade {
namespace {

class TcpTransport final : public Transport {
 public:
  explicit TcpTransport(int socket) : socket_(socket) {}

  Attempt handshake() override { return {Attempt::kDone}; }

  Attempt read(char* bytes, std::size_t size) override {
    const ssize_t got = recv(socket_, bytes, size, 0);
    return got == 0 ? Attempt{Attempt::kEnd} : judge(got, Attempt::kWantRead);
  }

  Attempt write(const char* bytes, std::size_t size) override {
    return judge(send(socket_, bytes, size, MSG_NOSIGNAL), Attempt::kWantWrite);
  }

 private:
  static Attempt judge(ssize_t moved, Attempt::Result when_not_ready) {
    if (moved >= 0) return {Attempt::kDone, static_cast<std::size_t>(moved)};
    const bool not_ready = errno == EAGAIN || errno == EINTR;
    return {not_ready ? when_not_ready : Attempt::kFailed};
  }

  int socket_;
};

}  // namespace

std::unique_ptr<Transport> make_tcp_transport(int socket) {
  return std::make_unique<TcpTransport>(socket);
}

}  // namespace mg_facade
