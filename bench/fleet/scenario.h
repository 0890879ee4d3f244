// What a fleet meets: how many devices, what they send, how they are restarted, and what happens to
// the servers and to the power.
//
// Times are milliseconds since 00:00 UTC of the simulated day. Durations are milliseconds too where
// nothing else is said.
#ifndef BENCH_FLEET_SCENARIO_H
#define BENCH_FLEET_SCENARIO_H

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "log_consumer/qv_log_consumer_shared.h"

namespace fleet {

using Moment = std::int64_t;

inline constexpr Moment kSecond = 1000;
inline constexpr Moment kMinute = 60 * kSecond;
inline constexpr Moment kHour = 60 * kMinute;
inline constexpr Moment kDay = 24 * kHour;
inline constexpr Moment kNever = std::numeric_limits<Moment>::max();

struct Span {
  Moment from;
  Moment until;
  bool contains(Moment moment) const { return moment >= from && moment < until; }
};

/// How the servers fail; both are one host and fail together.
enum class Fault {
  kRefuse,  ///< nothing listens: connections are reset, new ones refused
  kDrop,    ///< packets vanish; what stood before is unknown to the server afterwards
  kError,   ///< every request is answered 503
  kSilent,  ///< connections are accepted, requests never answered
};

struct Outage {
  Span span;
  Fault fault;
};

struct Scenario {
  long devices = 1000;
  long seed = 1;
  Moment end = kDay;

  // The service and what starts it. The defaults are the packaged unit's.
  int sleep_seconds = 5;        ///< option -d
  Moment restart = 20'000;      ///< RestartSec=
  long restart_random = 10;     ///< ExecStartPre= sleeps 0 to this - 1 whole seconds; 0: none
  Moment watchdog = 120'000;    ///< WatchdogSec=; 0: none
  bool waits_for_slot = false;  ///< a build in which no flag bypasses the slots
  Moment wifi_known = 300;      ///< from a process's start until the store has told of Wi-Fi
  Moment boot = 30'000;         ///< from power to the unit's start

  // The producers: each kind but the test kind, of which there is none on a device.
  double files_a_day = 4;            ///< each kind's
  std::int64_t file_bytes = 20'000;  ///< mean; sizes are even between half of it and one and a half
  bool together = false;             ///< all at the same moments of the clock, not each at its own

  // The network.
  Moment resolve = 20;  ///< of the server's name
  Moment round_trip = 60;
  bool tls = true;                        ///< one more round trip (TLS 1.3)
  std::int64_t bytes_a_second = 500'000;  ///< of one device's uplink
  Moment answer = 100;  ///< from the last byte of a request to the first of its answer

  std::vector<Outage> outages;   ///< in order of time, none overlaps another
  std::vector<Span> power_cuts;  ///< of the whole fleet; likewise

  std::vector<logConsumerType> kinds = buildLogTypeTable();

  Moment handshake() const { return (tls ? 2 : 1) * round_trip; }
  Moment upload(std::int64_t bytes) const { return bytes * kSecond / bytes_a_second; }

  /// @return the outage at a moment, null when there is none
  const Outage* outage_at(Moment moment) const;
  /// @return when the next outage that cuts off what stands begins, at `moment` or later
  const Outage* next_cut(Moment moment) const;
};

/// What the simulation cannot say anything true about.
/// @return why, in one line; empty when there is nothing
std::string objection(const Scenario& scenario);

}  // namespace fleet

#endif
