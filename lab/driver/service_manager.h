// Starts the service and starts it again whenever it has ended, as a device's service manager does.
#ifndef LAB_DRIVER_SERVICE_MANAGER_H
#define LAB_DRIVER_SERVICE_MANAGER_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "lab/support/child.h"

namespace lab {

class ServiceManager {
 public:
  /// @param report  gets a line for each start and each end
  ServiceManager(ChildSettings service, std::function<void(const std::string&)> report);

  /// To be called often. Starts the service if it does not run, a second after it ended.
  void step();

  /// @return whether the service does not run; does not start it again.
  bool ended();

  /// Asks the service to end. Call step_to_end() until it has.
  void stop();
  bool step_to_end();  ///< @return ended(); kills the service when that takes over ten seconds

  unsigned starts() const { return starts_; }
  unsigned failures() const { return failures_; }  ///< ends with a status other than 0

 private:
  using Clock = std::chrono::steady_clock;
  void note_end();

  const ChildSettings settings_;
  const std::function<void(const std::string&)> report_;
  std::optional<Child> child_;
  Clock::time_point next_start_;
  Clock::time_point stopped_at_;
  unsigned starts_ = 0;
  unsigned failures_ = 0;
};

}  // namespace lab

#endif
