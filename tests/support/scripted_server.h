// A raw TCP or TLS peer on loopback that does exactly what a script says, byte for byte.
//
//   ScriptedServer server({{expect_text("\r\n\r\n"), send_bytes("HTTP/1.1 200 OK\r\n\r\n", 1),
//                           close_connection()}});
//   connect_to("127.0.0.1", server.port()); ...
//   EXPECT_EQ(server.received(), "GET / HTTP/1.1\r\n\r\n");
//
// The first accepted connection runs the first script, the second the second, and so on; when the
// scripts are used up, a connection runs the last one again. Each connection has a thread of its
// own. A script that has come to its end leaves the connection open and goes on reading and
// keeping bytes until the peer closes. The destructor closes everything and joins the threads.
//
// No step reads a clock, so replaced clocks (fake_time.h) make no difference.
#ifndef TESTS_SUPPORT_SCRIPTED_SERVER_H
#define TESTS_SUPPORT_SCRIPTED_SERVER_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/test_certificates.h"

namespace test_support {

class ScriptedPeer;

/// One thing to do on a connection. False ends the connection (peer gone, server stopping).
using Step = std::function<bool(ScriptedPeer&)>;
using Script = std::vector<Step>;

/// Reads until `count` further bytes have come (since the last expect).
Step expect_bytes(std::size_t count);

/// Reads until `text` has come (since the last expect).
Step expect_text(std::string text);

/// Sends in pieces of `piece` bytes, each in a segment of its own with a short pause behind it;
/// 0 sends all at once.
Step send_bytes(std::string bytes, std::size_t piece = 0);

/// Real milliseconds; ends early when the server is destroyed.
Step pause_ms(int milliseconds);

/// Reads at most `piece` bytes, then pauses, again and again until the peer closes.
Step read_slowly(std::size_t piece, int milliseconds);

Step read_to_end();  ///< until the peer closes
// Closing while the peer's bytes lie unread resets the connection: expect them first.
Step half_close();        ///< FIN: sends no more, still reads (TLS: close_notify first)
Step close_connection();  ///< an orderly close (TLS: close_notify first)
Step cut_connection();    ///< FIN without TLS's close_notify, as a crashed server's system does
Step reset_connection();  ///< RST
Step run(std::function<void()> action);  ///< anything the test wants done at this place

class ScriptedServer {
 public:
  struct Options {
    bool ipv6 = false;              ///< listens on ::1 instead of 127.0.0.1
    const Identity* tls = nullptr;  ///< speaks TLS with this certificate; must outlive the server
    int tls_version = 0;            ///< that one only, e.g. 0x0303 for TLS 1.2; 0: any
    int receive_buffer = 0;         ///< SO_RCVBUF in bytes; 0: the system's
  };

  /// Listens and accepts at once. @throws std::system_error without a socket
  explicit ScriptedServer(std::vector<Script> scripts);
  ScriptedServer(std::vector<Script> scripts, Options options);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  int port() const;

  /// How many connections were accepted so far. Any thread.
  std::size_t accepted() const;

  /// What came on a connection so far, decrypted; "" for one not accepted yet. Any thread.
  std::string received(std::size_t connection = 0) const;

  /// True when the peer (or a step) has ended this connection. Any thread.
  bool ended(std::size_t connection = 0) const;

  /// True when the client has ended TLS in order (close_notify). Any thread.
  bool said_goodbye(std::size_t connection = 0) const;

  /// The name the client asked for in its TLS greeting (SNI); "" for none. Any thread.
  std::string server_name(std::size_t connection = 0) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// A loopback port that refuses connections for as long as the object lives.
class RefusingPort {
 public:
  explicit RefusingPort(bool ipv6 = false);
  ~RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;

  int port() const { return port_; }

 private:
  int descriptor_;
  int port_;
};

}  // namespace test_support

#endif
