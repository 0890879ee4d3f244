// Waiting for descriptors, for a moment and for the signals that end the program, all at once.
#ifndef TOOLS_PPCTL_EVENTS_H
#define TOOLS_PPCTL_EVENTS_H

#include <chrono>
#include <csignal>

namespace ppctl {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

/// Holds every signal that would end the process back for its lifetime, but for those that cannot
/// be held back (SIGKILL) and those of a crash, and gives them out as Interrupted, from wait()
/// alone: so a signal unwinds the stack like any failure, and every owner on it cleans up. A signal
/// that the process was told to ignore (nohup) stays ignored.
///
/// Everything that may take long therefore waits here first and acts when it can do so at once.
///
/// Made before any other thread, so that all of them hold the signals back too. One per process.
class Events {
 public:
  Events();   ///< @throws Failure without a descriptor
  ~Events();  ///< what was held back meanwhile and not given out takes its course
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;

  /// From now on wait() ends the run also when nobody reads stdout any more.
  void end_with_output() { watch_output_ = true; }

  /// Waits until `fd` is ready for `events` (of poll()), an error on it included, or `deadline` has
  /// passed. An `fd` of -1 is never ready.
  /// @return whether it is ready.
  /// @throws Interrupted
  bool wait(int fd, short events, TimePoint deadline) const;

 private:
  [[noreturn]] void interrupt() const;

  sigset_t before_ = {};
  int signals_ = -1;
  bool watch_output_ = false;
};

}  // namespace ppctl

#endif
