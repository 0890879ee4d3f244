// One pass of the service, the program itself, under one fault of the system, and what must hold
// afterwards whatever the fault was.
#ifndef TESTS_FAULTS_FAULT_TRIAL_H
#define TESTS_FAULTS_FAULT_TRIAL_H

#include <map>
#include <string>
#include <vector>

#include "lab/upload_server/upload_server.h"
#include "tests/support/service_process.h"

namespace fault_test {

/// The program under test.
std::string program();

/// Environment variables that make the program's pauses fifty times shorter.
std::vector<std::string> haste();

/// A call that fails, as the preloaded library is told: see system_faults.cpp.
struct Fault {
  std::string function;  ///< empty: none
  long call = 0;
  int error = 0;
};

/// How a pass went.
struct Outcome {
  bool failed = false;   ///< the fault came to pass
  long calls = 0;        ///< of the fault's function in the whole pass
  bool ended = false;    ///< by itself; false: it lived on, fed the watchdog, and was killed
  bool aborted = false;  ///< by an exception that nobody caught: a line in the log, status 0
  int sent = 0;          ///< files marked in this pass
};

/// The files under watch, what they hold, and the server that they go to.
///
/// It trusts nothing that the service says: a mark counts as true only if the server has got
/// exactly these bytes and has answered 200.
class World {
 public:
  World();

  /// A waiting file with bytes that no other file has. Its directory is made.
  void add(const std::string& path);
  /// All files wait again, with new bytes.
  void renew();

  /// Runs one pass. Adds a test failure for a crash, a hang, a false mark or a file that changed.
  Outcome run(const Fault& fault);

  /// Starts the service, without faults, until nothing waits. (A pass that begins while a
  /// connection is still being made serves the other server alone.)
  /// @return false when something waits after many starts
  bool send_all();

  /// The files that stand at 0400.
  int marked() const;

  lab::UploadServer& server() { return server_; }

  std::vector<std::string> further_arguments = {"-l1"};
  /// Whether a pass may end by the crash handler: where memory or the first thread is missing.
  bool may_abort = false;
  /// The store says no more once the service knows that Wi-Fi is there.
  bool quiet_store = false;
  /// Whether the fault may leave the service without a log and a way to the service manager: of one
  /// that lives on nothing can be seen then. It gets so many seconds for a pass; 0: as long as it
  /// takes.
  int seconds_in_silence = 0;

 private:
  void check_files() const;
  bool accepted(const std::string& bytes) const;
  void pass_to_its_end(test_support::Service& service, const test_support::DatagramSink& log,
                       const test_support::DatagramSink& notify);
  void expect_life(const test_support::Service& service, const test_support::DatagramSink& log,
                   const test_support::DatagramSink& notify) const;

  lab::UploadServer server_{{}};
  test_support::StoreQueues store_;
  std::map<std::string, std::string> files_;  // path, bytes
  unsigned made_ = 0;
};

}  // namespace fault_test

#endif
