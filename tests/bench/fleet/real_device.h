// The real upload engine for a device's day, in virtual time: its scheduler, its connections with
// their serving threads, real files and real modes. What is played are the event loop's library,
// whose network has the scenario's delays and outages, the configuration thread's word on Wi-Fi,
// the producers, and the service manager.
#ifndef TESTS_BENCH_FLEET_REAL_DEVICE_H
#define TESTS_BENCH_FLEET_REAL_DEVICE_H

#include <string>
#include <utility>
#include <vector>

#include "bench/fleet/load.h"
#include "bench/fleet/scenario.h"

namespace test_support {

struct Observed {
  fleet::Event event;
  fleet::Moment moment;
  std::int64_t detail;
};
using Day = std::vector<Observed>;

/// @param scenario  its kinds' directories must exist and be empty; faults: all but kDrop
/// @param plan  when processes are started (kStart) and producers finish a file of a kind
///              (kGenerated); everything else in it is passed over
/// @return what happened, of all events but kGenerated and kKilled. kPass only where no kind waits
///         for its slot.
Day live_with_the_engine(const fleet::Scenario& scenario, const Day& plan);

/// Of the latest day: when each process came to its end.
const std::vector<fleet::Moment>& exits();

}  // namespace test_support

#endif
