#include "bench/fleet/scenario.h"

#include "log_consumer/qv_log_consumer_mg.h"

namespace fleet {

const Outage* Scenario::outage_at(Moment moment) const {
  for (const Outage& outage : outages) {
    if (outage.span.contains(moment)) return &outage;
  }
  return nullptr;
}

const Outage* Scenario::next_cut(Moment moment) const {
  for (const Outage& outage : outages) {
    const bool cuts = outage.fault == Fault::kRefuse || outage.fault == Fault::kDrop;
    if (cuts && outage.span.from >= moment) return &outage;
  }
  return nullptr;
}

namespace {

template <typename Item, typename SpanOf>
bool in_order(const std::vector<Item>& items, SpanOf span_of) {
  for (std::size_t i = 1; i < items.size(); ++i) {
    if (span_of(items[i]).from < span_of(items[i - 1]).until) return false;
  }
  return true;
}

}  // namespace

std::string objection(const Scenario& scenario) {
  // Answers that come when their request has timed out are taken for others': hazards of their own.
  constexpr Moment kTimeOut = kSecond * kSecondsBetweenChecks * kReplyChecks;
  const std::int64_t largest = scenario.file_bytes * 3 / 2 + 1000;
  const Moment slowest = scenario.handshake() + scenario.upload(largest) + scenario.answer +
                         scenario.round_trip + 3 * kSecond;
  if (slowest >= kTimeOut)
    return "the largest files would take longer than the service waits for an answer";
  if (!in_order(scenario.outages, [](const Outage& outage) { return outage.span; }))
    return "outages must be in order of time and must not overlap";
  if (!in_order(scenario.power_cuts, [](const Span& span) { return span; }))
    return "power cuts must be in order of time and must not overlap";
  return "";
}

}  // namespace fleet
