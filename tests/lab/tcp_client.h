// A client of a test: one TCP connection to a port of the loopback.
#ifndef TESTS_LAB_TCP_CLIENT_H
#define TESTS_LAB_TCP_CLIENT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string>

#include "lab/support/unique_fd.h"

namespace test_support {

class TcpClient {
 public:
  explicit TcpClient(std::uint16_t port) : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }

  bool connected() const { return connected_; }

  bool send(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t count =
          ::send(socket_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) return false;
      sent += static_cast<std::size_t>(count);
    }
    return true;
  }

  /// The next bytes, at most `size`; "" at the end of the connection, and then `error()` is the
  /// reason, 0 for an orderly end.
  std::string receive(std::size_t size = 65536) {
    std::string bytes(size, '\0');
    const ssize_t count = recv(socket_.get(), bytes.data(), size, 0);
    error_ = count == -1 ? errno : 0;
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
  }

  /// All bytes until the connection ends.
  std::string receive_all() {
    std::string all;
    for (std::string bytes = receive(); !bytes.empty(); bytes = receive())
      all += bytes;
    return all;
  }

  /// All bytes up to and including `end`.
  std::string receive_through(const std::string& end) {
    std::string all;
    while (all.size() < end.size() || all.compare(all.size() - end.size(), end.size(), end) != 0) {
      const std::string byte = receive(1);
      if (byte.empty()) break;
      all += byte;
    }
    return all;
  }

  int error() const { return error_; }
  void close() { socket_.reset(); }
  void end_sending() { shutdown(socket_.get(), SHUT_WR); }

 private:
  lab::UniqueFd socket_;
  bool connected_ = false;
  int error_ = 0;
};

}  // namespace test_support

#endif
