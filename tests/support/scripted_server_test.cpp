// The scripted peer does what its script says, seen from a plain socket.
#include "tests/support/scripted_server.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "gtest/gtest.h"

namespace {

using namespace test_support;

class Client {
 public:
  explicit Client(int port) : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr any = {};
    static_assert(sizeof any == sizeof address);
    std::copy_n(reinterpret_cast<const char*>(&address), sizeof any, reinterpret_cast<char*>(&any));
    error_ = connect(descriptor_, &any, sizeof any) == 0 ? 0 : errno;
  }
  ~Client() { close(descriptor_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  int error() const { return error_; }
  void write(const std::string& text) const {
    EXPECT_EQ(send(descriptor_, text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  // Everything until the server closes; "reset" behind it when it did not close in order.
  std::string read_all() const {
    std::string result;
    std::array<char, 1000> bytes = {};
    for (;;) {
      const ssize_t size = recv(descriptor_, bytes.data(), bytes.size(), 0);
      if (size < 0) return result + "reset";
      if (size == 0) return result;
      result.append(bytes.data(), static_cast<std::size_t>(size));
    }
  }

 private:
  int descriptor_;
  int error_ = 0;
};

TEST(ScriptedServer, AnswersWhatItExpectedAndKeepsTheBytes) {
  ScriptedServer server({{expect_text("?"), send_bytes("one", 1), expect_bytes(2),
                          send_bytes("two"), close_connection()}});
  const Client client(server.port());
  client.write("who?xy");
  EXPECT_EQ(client.read_all(), "onetwo");
  EXPECT_EQ(server.received(), "who?xy");
  EXPECT_EQ(server.accepted(), 1u);
}

TEST(ScriptedServer, RunsAScriptPerConnectionAndTheLastOneAgain) {
  ScriptedServer server(
      {{send_bytes("first"), close_connection()}, {send_bytes("later"), close_connection()}});
  EXPECT_EQ(Client(server.port()).read_all(), "first");
  EXPECT_EQ(Client(server.port()).read_all(), "later");
  EXPECT_EQ(Client(server.port()).read_all(), "later");
}

TEST(ScriptedServer, Resets) {
  ScriptedServer server({{expect_bytes(1), reset_connection()}});
  const Client client(server.port());
  client.write("x");
  EXPECT_EQ(client.read_all(), "reset");
}

TEST(ScriptedServer, EndsWhileAClientIsStillConnected) {
  auto server = std::make_unique<ScriptedServer>(
      std::vector<Script>{{pause_ms(3'600'000)}, {expect_text("never")}});
  const Client pausing(server->port());
  const Client expecting(server->port());
  while (server->accepted() < 2)
    usleep(1000);
  server.reset();
  EXPECT_EQ(pausing.read_all(), "");
  EXPECT_EQ(expecting.read_all(), "");
}

TEST(RefusingPort, Refuses) {
  const RefusingPort port;
  EXPECT_EQ(Client(port.port()).error(), ECONNREFUSED);
}

}  // namespace
