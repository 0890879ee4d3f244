// All devices of a fleet, and what their day amounts to.
#ifndef BENCH_FLEET_FLEET_H
#define BENCH_FLEET_FLEET_H

#include <cstdint>

#include "bench/fleet/load.h"
#include "bench/fleet/scenario.h"

namespace fleet {

struct Result {
  Load load;
  std::uint64_t waiting;  ///< files at the end, of all devices
};

/// Lets every device live its day. The result depends on the scenario alone, not on `threads`.
Result simulate(const Scenario& scenario, unsigned threads);

/// The same for device number 0 alone, with a call for each event.
Result follow(const Scenario& scenario, Load::Trace trace);

}  // namespace fleet

#endif
