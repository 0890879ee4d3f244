#include "lab/driver/service_manager.h"

#include <csignal>
#include <utility>

namespace lab {

ServiceManager::ServiceManager(ChildSettings service,
                               std::function<void(const std::string&)> report)
    : settings_(std::move(service)), report_(std::move(report)), next_start_(Clock::now()) {}

void ServiceManager::step() {
  if (!ended() || Clock::now() < next_start_) return;
  child_.emplace(settings_);
  report_("service started, pass " + std::to_string(++starts_));
}

bool ServiceManager::ended() {
  if (child_ && !child_->running()) note_end();
  return !child_;
}

void ServiceManager::stop() {
  stopped_at_ = Clock::now();
  if (child_) child_->signal(SIGTERM);
}

bool ServiceManager::step_to_end() {
  if (ended()) return true;
  if (Clock::now() - stopped_at_ > std::chrono::seconds(10)) child_->signal(SIGKILL);
  return false;
}

void ServiceManager::note_end() {
  const int status = child_->status();
  child_.reset();
  next_start_ = Clock::now() + std::chrono::seconds(1);
  if (status != 0) ++failures_;
  report_("service ended with status " + std::to_string(status));
}

}  // namespace lab
