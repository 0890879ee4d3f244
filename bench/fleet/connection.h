// One device's connection to one server: its serving thread's polls, what the network does, and the
// outcome of a request, each computed at once instead of step by step.
//
//   - The serving thread of a server without a connection looks once a second, from its start on.
//   - A connection that was asked for is begun by the next look. From then on a poll follows every
//     two seconds, and at once after each event (established, answered).
//   - A request is written by the first poll after it was handed over. A connection that is gone is
//     polled no more: the request then waits its whole 181 s.
//   - The engine looks at its request once a second.
#ifndef BENCH_FLEET_CONNECTION_H
#define BENCH_FLEET_CONNECTION_H

#include <cstdint>

#include "bench/fleet/load.h"
#include "bench/fleet/scenario.h"

namespace fleet {

class Connection {
 public:
  Connection(const Scenario& scenario, Load& load) : scenario_(&scenario), load_(&load) {}

  /// The serving thread of a new process starts.
  void start(Moment now);

  /// The engine asks for a connection. @return when it goes on
  Moment connect(Moment now);

  /// @return whether the connect-done flag is set
  bool done(Moment now) const { return now >= stands_ && now < closes_; }

  struct Outcome {
    Moment moment;  ///< when the engine goes on
    bool good;
  };

  /// One attempt to send a request. Nothing at or after `death` is counted.
  Outcome send(Moment now, std::int64_t bytes, Moment death);

  /// The serving thread is asked to leave, and closes what stands as soon as it notices.
  void end(Moment now);

  /// Whatever there is of a connection ends, by now at the latest: its events are counted.
  void retire(Moment now);

  /// @return when a connection that stands will be lost, as far as is known by now
  Moment closes() const { return closes_; }

 private:
  void begin(Moment asked);
  Moment next_poll(Moment now) const;
  Moment thread_ends(Moment now) const;
  Moment answered(Moment sent, Moment arrived);
  Moment lost_at(Moment written) const;

  const Scenario* scenario_;
  Load* load_;
  bool connected_before_ = false;
  Moment thread_from_ = 0;
  Moment begun_ = kNever;  // by the serving thread
  Moment stands_ = kNever;
  Moment closes_ = kNever;     // as far as is known; also of one that never stands
  Moment dead_from_ = kNever;  // the server does not know it any more
  Moment last_event_ = 0;      // polls are counted from here
};

}  // namespace fleet

#endif
