// Any bytes from the store through the configuration thread's handling: a document changes the
// fields of its own node alone, and what the command line says is never changed.
#include <tuple>

#include "log_consumer/qv_json_obj_factory.h"
#include "log_consumer/qv_log_consumer_shared.h"
#include "log_consumer/qv_store_message.h"
#include "tests/support/fuzz.h"
#include "tests/support/journal.h"

namespace {

using test_support::must_hold;

// The fields by the node that they come from. Nobody else uses the record here: no lock.
auto from_server_assigned() {
  const auto& shared = logConsumerShared;
  return std::make_tuple(shared.sysId, shared.nuvToken, shared.setDelayMinutes);
}
auto from_rgw() {
  return logConsumerShared.aapStateStr;
}
auto from_interfaces() {
  const auto& shared = logConsumerShared;
  return std::make_tuple(shared.wifiAssociated, shared.lastActivityTime.tv_sec,
                         shared.initialLogSending);
}
auto from_system() {
  const auto& shared = logConsumerShared;
  return std::make_tuple(shared.offset, shared.dstOffset, shared.enableDst);
}
auto from_nowhere() {
  const auto& shared = logConsumerShared;
  return std::make_tuple(shared.dataUploadServerAddr, shared.dataUploadServerPort,
                         shared.relayServerAddr, shared.relayServerPort, shared.manualUpdate,
                         shared.sleepSeconds, shared.resetLogConsumer, shared.inactivityExit,
                         shared.loggingEnabled);
}

void prepare() {
  storeSharedDefaults();
  logConsumerShared.sysId = "an id";
  logConsumerShared.nuvToken = "a token";
  logConsumerShared.dataUploadServerAddr = logConsumerShared.relayServerAddr = "a server";
  logConsumerShared.dataUploadServerPort = logConsumerShared.relayServerPort = 1;
  test_support::clear_journal();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = test_support::fuzz_text(data, size);
  prepare();
  const auto before = std::make_tuple(from_server_assigned(), from_rgw(), from_interfaces(),
                                      from_system(), from_nowhere());
  const auto object = QvJsonObjFactory::makeObj(text);
  const int type = object == nullptr ? -1 : static_cast<int>(object->getObjType());
  handleStoreMessage(text);
  must_hold(type == kServerAssignedObj || from_server_assigned() == std::get<0>(before),
            "id, token");
  must_hold(type == kRgwObj || from_rgw() == std::get<1>(before), "state");
  must_hold(type == kInterfacesWrapperObj || from_interfaces() == std::get<2>(before), "Wi-Fi");
  must_hold(type == kSystemObj || from_system() == std::get<3>(before), "clock");
  must_hold(from_nowhere() == std::get<4>(before), "what no document changes");
  must_hold(from_rgw().size() <= 15 && !from_rgw().empty(), "a state's text stays in its object");
  must_hold(type != -1 || test_support::journal().empty(), "what is no document is no word");
  return 0;
}
