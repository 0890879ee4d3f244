#include "lab/support/line_server.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace lab {
namespace {

bool send_all(int socket, const std::string& text) {
  std::size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t count = send(socket, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count == -1 && errno != EINTR) return false;
    if (count > 0) sent += static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace

LineServer::LineServer(std::uint16_t port)
    : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  const int on = 1;
  if (!listener_ || setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(listener_.get(), generic, size) != 0 || listen(listener_.get(), SOMAXCONN) != 0 ||
      getsockname(listener_.get(), generic, &size) != 0) {
    throw std::runtime_error("cannot listen on 127.0.0.1 port " + std::to_string(port) + ": " +
                             std::strerror(errno));
  }
  port_ = ntohs(address.sin_port);
}

void LineServer::serve(int stop, const Handler& handler) {
  for (;;) {
    std::vector<pollfd> ready = {{stop, POLLIN, 0}, {listener_.get(), POLLIN, 0}};
    for (const Client& client : clients_)
      ready.push_back({client.socket.get(), POLLIN, 0});
    if (poll(ready.data(), ready.size(), -1) == -1) continue;
    if (ready[0].revents != 0) return;
    std::size_t index = 2;
    for (auto client = clients_.begin(); client != clients_.end(); ++index) {
      const bool lost = ready[index].revents != 0 && !serve_client(*client, handler);
      client = lost ? clients_.erase(client) : std::next(client);
    }
    if (ready[1].revents != 0) {
      UniqueFd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (socket) clients_.push_back({std::move(socket), ""});
    }
  }
}

// Returns false when the client is gone.
bool LineServer::serve_client(Client& client, const Handler& handler) {
  constexpr std::size_t kLongestLine = 1UL << 20U;
  std::array<char, 4096> buffer = {};
  const ssize_t count = recv(client.socket.get(), buffer.data(), buffer.size(), 0);
  if (count == -1 && errno == EINTR) return true;
  if (count <= 0) return false;
  client.received.append(buffer.data(), static_cast<std::size_t>(count));
  for (std::size_t end = 0; (end = client.received.find('\n')) != std::string::npos;) {
    const std::string line = client.received.substr(0, end);
    client.received.erase(0, end + 1);
    if (!send_all(client.socket.get(), handler(line) + "\n")) return false;
  }
  return client.received.size() <= kLongestLine;
}

}  // namespace lab
