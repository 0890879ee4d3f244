// A stateful stand-in for the two server connections: it defines the connection unit's functions,
// so a test program that links it sends nothing and decides what the servers answer.
// Every call is noted in the journal: "init data", "exec relay", "connect data host:443",
// "send relay", "terminate data".
#ifndef TESTS_LOG_CONSUMER_FAKE_CONNECTION_H
#define TESTS_LOG_CONSUMER_FAKE_CONNECTION_H

#include <functional>
#include <string>
#include <vector>

#include "log_consumer/qv_log_consumer_shared.h"

namespace test_support {

struct Sent {
  servers server;
  std::string bytes;
};

/// What the two servers do; reset by each fixture.
struct FakeServers {
  bool dataUploadAnswers = true;  ///< a connect succeeds at once
  bool relayAnswers = true;
  /// Judges a send; success when empty. Called on the sending thread, with no lock held.
  std::function<bool(const Sent&)> answer;
  std::vector<Sent> received;
};

FakeServers& fake_servers();

}  // namespace test_support

#endif
