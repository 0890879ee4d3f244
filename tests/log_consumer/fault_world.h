// A device's world for the whole upload engine: the engine with its connections, facade and
// sockets is real, the servers are scripted, and time is the world's own.
//
//   FaultWorld world(kDataUploadSrv, false);
//   world.next_peers({{{request(), reset_connection()}}});   // then peers that behave
//   world.start();                                           // as the service manager does
//   EXPECT_EQ(world.complaints(), Strings{});
//
// Time passes only while nothing moves: a pause of the engine first waits, in real time, until what
// is under way between it and the server has come to rest (the server waits for bytes or has said
// that it stays silent; the client has judged the answer or noticed the close). Then the whole
// pause is over at once. So each run takes the same course, however busy the machine is, and a
// time-out of three minutes takes none.
//
// Each connection that the engine makes meets a peer of its own, in the order of next_peers().
// The engine is told port 443 for TLS, as on a device, and is led to the peer's own port.
//
// One world at a time. The test program has to be linked with
// --wrap=mg_connect and --wrap=mg_poll_server.
#ifndef TESTS_LOG_CONSUMER_FAULT_WORLD_H
#define TESTS_LOG_CONSUMER_FAULT_WORLD_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "log_consumer/qv_log_consumer_mg.h"
#include "tests/support/delivery_oracle.h"
#include "tests/support/journal.h"
#include "tests/support/scripted_server.h"
#include "tests/support/test_certificates.h"

namespace test_support {

/// What a connection meets.
struct PeerPlan {
  enum Kind {
    kScript,        ///< a server that runs `script` and behaves from then on
    kRefuse,        ///< a port where nobody listens
    kRefuseLater,   ///< likewise; the refusal comes when a request waits to be written
    kNeverAnswer,   ///< an address that swallows the greeting
    kUnresolvable,  ///< a name that does not resolve
  };
  Script script = {};
  Kind kind = kScript;
  const Identity* tls = nullptr;  ///< another certificate than the world's
  bool other_protocol = false;    ///< TLS where the client speaks plain, and the other way round
  int tls_version = 0;
  bool never_stands = false;  ///< the script keeps the connection from being made
};

// Steps that a world's time knows of. All are for its peers only.

Step request();                           ///< reads one whole upload
Step part_of_request(std::size_t bytes);  ///< reads so many further bytes
Step request_in_silence();   ///< reads one whole upload; nothing holds the engine's time up
                             ///< meanwhile
Step until_the_pause();      ///< waits for the engine's next pause before a file
Step until_client_closes();  ///< the engine's time waits for that, too
/// Gives an answer and records it. `status` is what the bytes say; a 1xx is none and needs no
/// record.
Step answer(int status, std::string bytes, std::size_t piece = 0);
/// Lets this many seconds of the engine's pauses pass.
Step wait_seconds(int seconds);
Step silence();  ///< for ever

/// Whole replies.
std::string reply(const std::string& status, const std::string& body = "{\"code\":1}");

class FaultWorld {
 public:
  FaultWorld(servers server, bool tls);
  ~FaultWorld();
  FaultWorld(const FaultWorld&) = delete;
  FaultWorld& operator=(const FaultWorld&) = delete;

  const std::string& first() const;   ///< a waiting file of the kind that is served first
  const std::string& second() const;  ///< one of the kind behind it
  std::size_t file_size() const;
  /// Gives both files other contents of about so many bytes; before the first start.
  void resize_files(std::size_t bytes);

  /// What the following connections meet; those behind them meet a server that behaves.
  void next_peers(std::vector<PeerPlan> plans);

  /// Replaces a file's contents, and what the oracle knows of it; before the first start.
  void rewrite(const std::string& path, const std::string& contents);
  /// On the engine's thread, in the pause in which its time comes to so many seconds.
  void at(std::int64_t seconds, std::function<void()> action);

  /// One start of the service: the engine from its first pass to its end.
  void start();

  /// The oracle's findings, in every pause so far and now.
  std::vector<std::string> complaints() const;
  std::size_t copies(const std::string& path) const;
  bool sent(const std::string& path) const;

  /// Moments of the connects so far, in seconds of the engine's time.
  std::vector<std::int64_t> connects() const;
  std::int64_t seconds() const;  ///< of the engine's pauses so far

  /// The engine's and the connection's syslog lines without the word "syslog", numbers of bytes
  /// as "#": those of the way to the first connection that stands, and those of a file's turn.
  Journal way_to_connection() const;
  Journal turn_of(const std::string& path) const;

  LogConsumerMongooseClass& connection() const;  ///< during a start

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace test_support

#endif
