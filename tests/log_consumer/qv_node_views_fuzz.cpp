// Any bytes from the store through the views. Whether a text makes an object is checked against
// the other JSON reader of this system.
#include "log_consumer/qv_json_obj_factory.h"
#include "tests/compat/libjson/json_tree.h"
#include "tests/support/fuzz.h"

namespace {

using test_support::must_hold;

void look_at(const QvRgw& view) {
  QvRgw::aapStateEnum state = QvRgw::kAapStateError;
  if (view.getAapState(&state)) {
    must_hold(view.hashAapState(view.getAapStateStr(state)) == state, "a state has its text");
  }
  QvRgwConfigSec* config = nullptr;
  if (!view.getConfigSec(&config)) return;
  std::string url;
  int port = 0;
  config->getRelayServerUrl(&url);
  config->getRelayServerPort(&port);
  QvRgw copy("rgw");
  view.copyValid(copy);
  must_hold(copy.getConfigSec(nullptr), "a copy has what is valid");
}

void look_at(const QvServerAssigned& view) {
  std::string value;
  QvIdentities* identities = nullptr;
  if (view.getIdentities(&identities)) identities->getSysId(&value);
  QvSecurity* security = nullptr;
  QvToken* token = nullptr;
  if (view.getSecurity(&security) && security->getNuvToken(&token)) token->getEncoded(&value);
  view.getUrlsSec(nullptr);
}

void look_at(const QvInterfacesWrapper& view) {
  QvInterfaces out("interfaces");
  if (view.searchQvInterfacesById(1, out) != 0) return;
  int id = 0;
  must_hold(out.getId(&id) && id == 1, "the interface that was asked for");
  QvInterfaceWiFiStatus* wifi = nullptr;
  auto status = QvInterfaceWiFiStatus::kStatusError;
  if (out.getWifiStatus(&wifi) && wifi->getStatus(&status)) {
    must_hold(status >= 0 && status <= 2, "a status of the list");
  }
}

void look_at(const QvSystem& view) {
  QvSystemClock* clock = nullptr;
  if (!view.getClock(&clock)) return;
  int offset = 0;
  bool enabled = false;
  clock->getOffset(&offset);
  clock->getDstOffset(&offset);
  clock->getEnableDst(&enabled);
}

void look_at(const QvJsonObj& view) {
  switch (view.getObjType()) {
    case kRgwObj:
      return look_at(dynamic_cast<const QvRgw&>(view));
    case kServerAssignedObj:
      return look_at(dynamic_cast<const QvServerAssigned&>(view));
    case kInterfacesWrapperObj:
      return look_at(dynamic_cast<const QvInterfacesWrapper&>(view));
    case kSystemObj:
      return look_at(dynamic_cast<const QvSystem&>(view));
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
  if (view != nullptr) look_at(*view);
  const test_support::Tree tree = test_support::parsed(text);  // null also for deep nesting
  if (tree == nullptr) return 0;
  must_hold(is_known_document(tree.get()) == (view != nullptr), "known documents make objects");
  return 0;
}
