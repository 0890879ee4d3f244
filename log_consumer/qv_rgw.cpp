#include "log_consumer/qv_rgw.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "log_consumer/qv_json_value.h"

namespace {

constexpr std::array<const char*, 6> kStates = {"unregistered", "registering", "registered",
                                                "binding",      "bound",       "error"};

constexpr std::size_t kInlineCapacity = 15;  // of a std::string

constexpr bool all_states_fit() {
  for (const char* state : kStates) {
    if (std::string_view(state).size() > kInlineCapacity) return false;
  }
  return true;
}
static_assert(all_states_fit(), "storing a state over another must never allocate");

}  // namespace

QvRgwConfigSec::QvRgwConfigSec(std::string name) : QvJsonObj(kRgwConfigSecObj, std::move(name)) {}

void QvRgwConfigSec::read(const QvJsonValue& node) {
  node.read("relayServerUrl", relayServerUrl_);
  node.read("relayServerPort", relayServerPort_);
}

void QvRgwConfigSec::copyValid(QvRgwConfigSec& target) const {
  relayServerUrl_.copy_valid(target.relayServerUrl_);
  relayServerPort_.copy_valid(target.relayServerPort_);
}

bool QvRgwConfigSec::getRelayServerUrl(std::string* url) const {
  return relayServerUrl_.get(url);
}

bool QvRgwConfigSec::getRelayServerPort(int* port) const {
  return relayServerPort_.get(port);
}

QvRgw::QvRgw(std::string name)
    : QvJsonObj(kRgwObj, std::move(name)), configSec_(QvRgwConfigSec("configSec")) {}

void QvRgw::read(const QvJsonValue& node) {
  node.read("aapState", kStates, aapState_);
  node.readSection("configSec", configSec_);
}

void QvRgw::copyValid(QvRgw& target) const {
  aapState_.copy_valid(target.aapState_);
  QvRgwConfigSec* section = nullptr;
  if (getConfigSec(&section)) section->copyValid(target.configSec_.make_valid());
}

bool QvRgw::getAapState(aapStateEnum* state) const {
  return aapState_.get(state);
}

bool QvRgw::getConfigSec(QvRgwConfigSec** section) const {
  return configSec_.get_section(section);
}

const char* QvRgw::getAapStateStr(aapStateEnum state) const {
  const auto index = static_cast<std::size_t>(state);
  return index < kStates.size() ? kStates[index] : kStates[kAapStateError];
}

const char* QvRgw::getAapStateStr(int state) const {
  return getAapStateStr(static_cast<aapStateEnum>(state));
}

QvRgw::aapStateEnum QvRgw::hashAapState(const std::string& text) const {
  const auto found = std::find(kStates.begin(), kStates.end(), text);
  return found == kStates.end() ? kAapStateError
                                : static_cast<aapStateEnum>(found - kStates.begin());
}
