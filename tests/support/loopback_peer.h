// The server's side of connections on loopback, driven by the thread that also polls the client: no
// threads, nothing that depends on timing. For fuzz targets.
#ifndef TESTS_SUPPORT_LOOPBACK_PEER_H
#define TESTS_SUPPORT_LOOPBACK_PEER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <system_error>

namespace test_support {

/// Listens on a free port of 127.0.0.1; one connection at a time. One peer serves a whole run: a
/// closed connection keeps its port for a minute, and a new listener for each input finds none.
class LoopbackPeer {
 public:
  LoopbackPeer() {
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<struct sockaddr*>(&address);
    if (bind(listener_, any, size) != 0 || listen(listener_, 1) != 0 ||
        getsockname(listener_, any, &size) != 0) {
      throw std::system_error(errno, std::generic_category(), "loopback listener");
    }
    port_ = ntohs(address.sin_port);
  }
  ~LoopbackPeer() {
    close_connection();
    close(listener_);
  }
  LoopbackPeer(const LoopbackPeer&) = delete;
  LoopbackPeer& operator=(const LoopbackPeer&) = delete;

  int port() const { return port_; }

  /// Closes the connection before, and waits for the client's next one.
  void accept() {
    close_connection();
    connection_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  }

  /// @return how many bytes lay there, at most 4096; never waits.
  std::size_t take() {
    char bytes[4096];
    const ssize_t size = recv(connection_, bytes, sizeof bytes, MSG_DONTWAIT);
    return size > 0 ? static_cast<std::size_t>(size) : 0;
  }

  /// A client that is gone already is no error. For no more than a socket's buffer takes.
  void send(std::string_view bytes) {
    static_cast<void>(::send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
  }

  void half_close() { shutdown(connection_, SHUT_WR); }

  void reset() {
    const struct linger at_once = {1, 0};
    setsockopt(connection_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close_connection();
  }

  void close_connection() {
    if (connection_ != -1) close(connection_);
    connection_ = -1;
  }

 private:
  const int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int connection_ = -1;
  int port_ = 0;
};

}  // namespace test_support

#endif
