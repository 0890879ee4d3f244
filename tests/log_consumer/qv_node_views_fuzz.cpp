// Any bytes from the store through the views, checked against two other JSON readers: whether a
// text makes an object, and every value that an object gives.
#include <array>
#include <optional>

#include "log_consumer/qv_json_obj_factory.h"
#include "tests/compat/libjson/json_tree.h"
#include "tests/log_consumer/stored_document.h"
#include "tests/support/fuzz.h"

namespace {

using test_support::has_section;
using test_support::must_hold;
using test_support::stored_flag;
using test_support::stored_number;
using test_support::stored_text;
using test_support::StoredJson;

/// What a getter gives, if it gives anything.
template <typename View, typename Value>
std::optional<Value> got(const View& view, bool (View::*getter)(Value*) const) {
  Value value = {};
  return (view.*getter)(&value) ? std::optional<Value>(value) : std::nullopt;
}

/// The section that a getter gives; null when it gives none.
template <typename View, typename Section>
const Section* section(const View& view, bool (View::*getter)(Section**) const) {
  Section* found = nullptr;
  return (view.*getter)(&found) ? found : nullptr;
}

void look_at(const QvRgw& view, const StoredJson& document) {
  const auto state = got(view, &QvRgw::getAapState);
  must_hold((state ? std::optional<std::string>(view.getAapStateStr(*state)) : std::nullopt) ==
                test_support::stored_aap_state(document),
            "the state");
  const auto* const config = section(view, &QvRgw::getConfigSec);
  must_hold((config != nullptr) == has_section(document, {"rgw", "configSec"}), "its section");
  if (config == nullptr) return;
  must_hold(got(*config, &QvRgwConfigSec::getRelayServerUrl) ==
                stored_text(document, {"rgw", "configSec", "relayServerUrl"}),
            "the relay server");
  must_hold(got(*config, &QvRgwConfigSec::getRelayServerPort) ==
                stored_number(document, {"rgw", "configSec", "relayServerPort"}),
            "its port");
}

void look_at(const QvServerAssigned& view, const StoredJson& document) {
  const auto* const identities = section(view, &QvServerAssigned::getIdentities);
  must_hold((identities ? got(*identities, &QvIdentities::getSysId) : std::nullopt) ==
                stored_text(document, {"serverAssigned", "identities", "sysId"}),
            "the id");
  const auto* const security = section(view, &QvServerAssigned::getSecurity);
  const auto* const token = security ? section(*security, &QvSecurity::getNuvToken) : nullptr;
  must_hold((token ? got(*token, &QvToken::getEncoded) : std::nullopt) ==
                stored_text(document, {"serverAssigned", "security", "nuvToken", "encoded"}),
            "the token");
  must_hold(view.getUrlsSec(nullptr) == has_section(document, {"serverAssigned", "urlsSec"}),
            "the servers");
}

void look_at(const QvInterfacesWrapper& view, const StoredJson& document) {
  for (const int id : {1, 2, 0, -1}) {
    QvInterfaces out("interfaces");
    const StoredJson* const stored = test_support::stored_interface(document, id);
    must_hold((view.searchQvInterfacesById(id, out) == 0) == (stored != nullptr), "an interface");
    if (stored == nullptr) continue;
    must_hold(got(out, &QvInterfaces::getId) == id, "the one that was asked for");
    const auto* const wifi = section(out, &QvInterfaces::getWifiStatus);
    const auto status = wifi ? got(*wifi, &QvInterfaceWiFiStatus::getStatus) : std::nullopt;
    static constexpr std::array<const char*, 3> kTexts = {"disassociated", "associated", "error"};
    must_hold((status ? std::optional<std::string>(kTexts.at(static_cast<std::size_t>(*status)))
                      : std::nullopt) == test_support::stored_wifi_status(*stored),
              "its status");
  }
}

void look_at(const QvSystem& view, const StoredJson& document) {
  const auto* const clock = section(view, &QvSystem::getClock);
  must_hold((clock != nullptr) == has_section(document, {"system", "clock"}), "the clock");
  if (clock == nullptr) return;
  must_hold(got(*clock, &QvSystemClock::getOffset) ==
                stored_number(document, {"system", "clock", "offset"}),
            "its offset");
  must_hold(got(*clock, &QvSystemClock::getDstOffset) ==
                stored_number(document, {"system", "clock", "dstOffset"}),
            "that of the summer");
  must_hold(got(*clock, &QvSystemClock::getEnableDst) ==
                stored_flag(document, {"system", "clock", "enableDst"}),
            "whether there is one");
}

void look_at(const QvJsonObj& view, const StoredJson& document) {
  must_hold(document.is_object(), "what makes an object is JSON");
  switch (view.getObjType()) {
    case kRgwObj:
      return look_at(dynamic_cast<const QvRgw&>(view), document);
    case kServerAssignedObj:
      return look_at(dynamic_cast<const QvServerAssigned&>(view), document);
    case kInterfacesWrapperObj:
      return look_at(dynamic_cast<const QvInterfacesWrapper&>(view), document);
    case kSystemObj:
      return look_at(dynamic_cast<const QvSystem&>(view), document);
    default:
      must_hold(false, "one of the four types");
  }
}

/// What the name of the only member at the top promises.
bool is_known_document(JSONNODE* tree) {
  if (json_type(tree) != JSON_NODE || json_size(tree) != 1) return false;
  for (const char* name : {"rgw", "serverAssigned", "interfaces", "system"}) {
    if (json_find(tree, name) != json_end(tree)) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = test_support::fuzz_text(data, size);
  const std::shared_ptr<QvJsonObj> view = QvJsonObjFactory::makeObj(text);
  if (view != nullptr) look_at(*view, test_support::stored_document(text));
  const test_support::Tree tree = test_support::parsed(text);  // null also for deep nesting
  if (tree == nullptr) return 0;
  must_hold(is_known_document(tree.get()) == (view != nullptr), "known documents make objects");
  return 0;
}
