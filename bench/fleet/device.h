// One device for a day: its producers, its service manager, and the service's processes one after
// the other. A process goes through its passes as the upload engine does; the decisions, tables and
// constants are the service's own.
//
// Devices meet at the servers only, and the servers of the simulation answer whatever the load is.
// So each device lives by itself, in any order and on any thread, and needs no memory when its day
// is over.
#ifndef BENCH_FLEET_DEVICE_H
#define BENCH_FLEET_DEVICE_H

#include <array>
#include <cstdint>
#include <vector>

#include "bench/fleet/connection.h"
#include "bench/fleet/load.h"
#include "bench/fleet/scenario.h"

namespace fleet {

/// Small, fast, and the same everywhere (splitmix64).
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next();
  /// @return 0 to below - 1
  std::int64_t below(std::int64_t below);

 private:
  std::uint64_t state_;
};

/// What all devices share and nobody changes.
class Rules {
 public:
  explicit Rules(const Scenario& scenario);

  const Scenario& scenario() const { return scenario_; }
  /// Bytes of a request around a file of this kind.
  std::int64_t overhead(std::size_t kind) const { return overhead_[kind]; }
  bool slot_is_open(Moment now, int delay_minutes) const;
  Moment file_interval() const { return interval_; }

 private:
  const Scenario& scenario_;
  Moment interval_;
  std::vector<std::int64_t> overhead_;
  std::array<std::array<bool, 60>, 2> open_;  // by delay in minutes, minute of the hour
};

class Device {
 public:
  Device(const Rules& rules, std::uint64_t number, Load& load);

  /// Goes on with all processes that start before `until`, each to its end.
  void live_until(Moment until);

  /// @return the files that wait at the end of the day, to which it has to have lived
  std::uint64_t waiting();

 private:
  struct Kind {
    Moment next = kNever;  // file that a producer finishes
    std::uint64_t waiting = 0;
  };
  enum class PassEnd { kNextPass, kStop, kDead };

  Moment first_start();
  Moment powered(Moment since, Moment start);
  Moment random_pause();

  void run(Moment start);
  PassEnd pass();
  PassEnd finish(bool debug_out_of_slot);
  void keep_connected();
  bool serve(std::size_t kind);
  bool send(std::size_t kind);
  void terminate();
  void skip_quiet_passes();
  void note_activity(Moment when);
  void produce(std::size_t kind, Moment until);
  Moment next_file() const;
  Connection& connection_of(const logConsumerType& kind);
  bool dead() const { return now_ >= death_; }

  const Rules& rules_;
  const Scenario& scenario_;
  Load& load_;
  Random random_;
  std::vector<Kind> kinds_;
  Connection data_upload_;
  Connection relay_;

  Moment next_start_;
  Moment quiet_until_ = 0;  // no file waits before

  // Of the present process.
  Moment now_ = 0;
  Moment started_ = 0;
  Moment ends_anyway_ = 0;    // by a power cut or the end of the day
  Moment killed_ = kNever;    // by the watchdog
  Moment death_ = 0;          // the earlier of both
  Moment gives_up_ = kNever;  // the configuration thread
  int delay_minutes_ = 0;
};

}  // namespace fleet

#endif
