// What a fleet's devices do, counted for each second of the day.
#ifndef BENCH_FLEET_LOAD_H
#define BENCH_FLEET_LOAD_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "bench/fleet/scenario.h"

namespace fleet {

enum Event : std::size_t {
  kStart,        ///< a process starts
  kGivenUp,      ///< a pass ends at once because neither server is connected
  kPass,         ///< a pass reaches its kinds
  kConnect,      ///< the engine asks for a connection
  kAttempt,      ///< the first packet of a connection leaves the device
  kEstablished,  ///< a connection stands, TLS included
  kClosed,       ///< a connection that stood is gone
  kRequest,      ///< a request begins to go out
  kAccepted,     ///< answered 200
  kFailed,       ///< an attempt to send has failed, for whatever reason
  kGenerated,    ///< a producer has finished a file
  kMarked,       ///< a file is marked as sent
  kKilled,       ///< the service manager's watchdog has ended a process
  kEvents        ///< how many there are
};

/// Names as in the reports.
extern const std::array<const char*, kEvents> kEventNames;

/// One second. 64 bytes: a device touches few of them, and each is one line of the cache.
struct alignas(64) Second {
  std::array<std::uint32_t, kEvents> events = {};
  std::uint64_t bytes = 0;  ///< of requests
};

class Load {
 public:
  /// `detail`: of kGenerated and kMarked the kind's row in the table, of kRequest its bytes.
  using Trace = std::function<void(Event, Moment, std::int64_t detail)>;

  explicit Load(Moment end);

  /// Events at or after the end are not counted.
  void note(Event event, Moment moment, std::int64_t detail = 0);
  void note_request(Moment moment, std::int64_t bytes);

  /// Called with every event that is counted, in no strict order of time.
  void trace(Trace trace) { trace_ = std::move(trace); }

  void add(const Load& other);

  const std::vector<Second>& seconds() const { return seconds_; }
  std::uint64_t total(Event event) const;
  std::uint64_t total_bytes() const;

 private:
  Moment end_;
  std::vector<Second> seconds_;
  Trace trace_;
};

inline void Load::note(Event event, Moment moment, std::int64_t detail) {
  if (moment >= end_) return;
  ++seconds_[static_cast<std::size_t>(moment / kSecond)].events[event];
  if (trace_) trace_(event, moment, detail);
}

inline void Load::note_request(Moment moment, std::int64_t bytes) {
  if (moment >= end_) return;
  note(kRequest, moment, bytes);
  seconds_[static_cast<std::size_t>(moment / kSecond)].bytes += static_cast<std::uint64_t>(bytes);
}

}  // namespace fleet

#endif
