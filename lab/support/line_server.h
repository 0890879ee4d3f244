// A TCP port on the loopback that answers each line with a line.
#ifndef LAB_SUPPORT_LINE_SERVER_H
#define LAB_SUPPORT_LINE_SERVER_H

#include <cstdint>
#include <functional>
#include <list>
#include <string>

#include "lab/support/unique_fd.h"

namespace lab {

/// Any number of clients, one line at a time, everything on the thread of serve().
class LineServer {
 public:
  using Handler = std::function<std::string(const std::string& line)>;

  /// Listens on 127.0.0.1. @param port  0: any free one  @throws std::runtime_error
  explicit LineServer(std::uint16_t port);

  std::uint16_t port() const { return port_; }

  /// Serves until `stop` becomes readable. A line longer than 1 MiB ends its connection.
  void serve(int stop, const Handler& handler);

 private:
  struct Client {
    UniqueFd socket;
    std::string received;
  };
  static bool serve_client(Client& client, const Handler& handler);

  UniqueFd listener_;
  std::uint16_t port_ = 0;
  std::list<Client> clients_;
};

}  // namespace lab

#endif
