// The other end of sd_notify().
#ifndef TESTS_SUPPORT_NOTIFY_SOCKET_H
#define TESTS_SUPPORT_NOTIFY_SOCKET_H

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "tests/support/files.h"

namespace test_support {

/// A datagram socket under NOTIFY_SOCKET, read all the time: a sender waits while the few places
/// of such a socket are taken.
class NotifySocket {
 public:
  NotifySocket() {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    // Lets the reader look at `ending_` now and then.
    const struct timeval patience = {0, 20000};
    if (socket_ == -1 ||
        bind(socket_, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0 ||
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0) {
      throw std::system_error(errno, std::generic_category(), "notify socket");
    }
    setenv("NOTIFY_SOCKET", path_.c_str(), 1);
    reader_ = std::thread([this] { read_all(); });
  }
  ~NotifySocket() {
    unsetenv("NOTIFY_SOCKET");
    ending_ = true;
    reader_.join();
    close(socket_);
  }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  /// All datagrams sent before this call, in their order.
  std::vector<std::string> datagrams() {
    // What was sent before is read before what is sent now.
    const std::string mark = "mark " + std::to_string(++marks_);
    send(mark);
    for (;;) {
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (last_mark_ == mark) return datagrams_;
      }
      std::this_thread::yield();
    }
  }

  /// How many datagrams have been exactly `text` so far.
  std::size_t count(const std::string& text) {
    const std::vector<std::string> all = datagrams();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), text));
  }

 private:
  void send(const std::string& text) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    sendto(socket_, text.data(), text.size(), 0, reinterpret_cast<struct sockaddr*>(&address),
           sizeof address);
  }

  void read_all() {
    char buffer[4096];
    while (!ending_) {
      const ssize_t size = recv(socket_, buffer, sizeof buffer, 0);
      if (size < 0) continue;
      const std::string text(buffer, static_cast<std::size_t>(size));
      const std::lock_guard<std::mutex> lock(mutex_);
      if (text.compare(0, 5, "mark ") == 0) {
        last_mark_ = text;
      } else {
        datagrams_.push_back(text);
      }
    }
  }

  const TempDir directory_;
  const std::string path_ = directory_ / "notify";
  const int socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::atomic<bool> ending_ = false;
  int marks_ = 0;
  std::mutex mutex_;
  std::vector<std::string> datagrams_;
  std::string last_mark_;
  std::thread reader_;
};

}  // namespace test_support

#endif
