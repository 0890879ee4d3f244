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

/// The store's word that Wi-Fi is up: nothing is sent before it.
extern const char kWifiUp[];

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
class Deliveries {
 public:
  /// Puts the device's find first on the path of what is started from now on.
  Deliveries();

  /// A waiting file with bytes that no other file has. Its directory is made.
  void add(const std::string& path);
  /// All files wait again, with new bytes.
  void renew();

  /// The files that stand at 0400.
  int marked() const;
  bool all_marked() const { return marked() == static_cast<int>(files_.size()); }

  /// Adds a test failure for a false mark, for a file that changed, and for each upload that
  /// repeats one of the same file without a reason.
  void check() const;
  /// Something happened that is a reason to send one file once more: a fault, a kill.
  void explain_a_repeat() { ++explained_repeats_; }

  /// Whether the server has got exactly these bytes and has answered 200.
  bool accepted(const std::string& bytes) const;
  lab::UploadServer& server() { return server_; }

  /// Marks cannot be set: each start sends each file again.
  bool may_repeat = false;

 private:
  int repeats() const;

  lab::UploadServer server_{{}};
  std::map<std::string, std::string> files_;  // path, bytes
  unsigned made_ = 0;
  int explained_repeats_ = 0;  // of these bytes
};

/// Deliveries, the queues of a store, and passes of the service between them.
class World : public Deliveries {
 public:
  World();

  /// Runs one pass. Adds a test failure for a crash, a hang, and whatever check() finds.
  Outcome run(const Fault& fault);

  /// Starts the service, without faults, until nothing waits. (A pass that begins while a
  /// connection is still being made serves the other server alone.)
  /// @return false when something waits after many starts
  bool send_all();

  std::vector<std::string> further_arguments = {"-l1"};
  /// Whether a pass may end by the crash handler: where memory or the first thread is missing.
  bool may_abort = false;
  /// The store says no more once the service knows that Wi-Fi is there.
  bool quiet_store = false;
  /// The clock's hour changes as the first pass begins, and the activity log is archived. The
  /// fault's call is counted in the archiving alone.
  bool hour_changes = false;
  /// Whether the fault may leave the service without a log and a way to the service manager: of one
  /// that lives on nothing can be seen then. It gets so many seconds for a pass; 0: as long as it
  /// takes.
  int seconds_in_silence = 0;

 private:
  void pass_to_its_end(test_support::Service& service, const test_support::DatagramSink& log,
                       const test_support::DatagramSink& notify);
  void expect_life(const test_support::Service& service, const test_support::DatagramSink& log,
                   const test_support::DatagramSink& notify) const;

  std::vector<std::string> environment(const Fault& fault) const;

  test_support::StoreQueues store_;
};

}  // namespace fault_test

#endif
