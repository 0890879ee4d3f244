// Any bytes from the store through the configuration thread's handling: a document changes the
// record to what another JSON reader finds in it, and nothing else.
#include <tuple>

#include "log_consumer/qv_json_obj_factory.h"
#include "log_consumer/qv_log_consumer_shared.h"
#include "log_consumer/qv_store_message.h"
#include "tests/log_consumer/stored_document.h"
#include "tests/support/fuzz.h"
#include "tests/support/journal.h"

namespace {

using test_support::must_hold;
using test_support::StoredJson;

// What documents set. Nobody else uses the record here: no lock.
struct Known {
  std::string id = logConsumerShared.sysId;
  std::string token = logConsumerShared.nuvToken;
  bool new_slots = logConsumerShared.setDelayMinutes;
  std::string state = logConsumerShared.aapStateStr;
  bool wifi = logConsumerShared.wifiAssociated;
  bool inactivity_period = logConsumerShared.lastActivityTime.tv_sec != 0;
  bool initial_sending = logConsumerShared.initialLogSending;
  int offset = logConsumerShared.offset;
  int dst_offset = logConsumerShared.dstOffset;
  bool enable_dst = logConsumerShared.enableDst;

  bool operator==(const Known& other) const { return all() == other.all(); }

 private:
  std::tuple<std::string, std::string, bool, std::string, bool, bool, bool, int, int, bool> all()
      const {
    return {id,     token,      new_slots, state, wifi, inactivity_period, initial_sending,
            offset, dst_offset, enable_dst};
  }
};

auto set_by_no_document() {
  const auto& shared = logConsumerShared;
  return std::make_tuple(shared.dataUploadServerAddr, shared.dataUploadServerPort,
                         shared.relayServerAddr, shared.relayServerPort, shared.manualUpdate,
                         shared.sleepSeconds, shared.resetLogConsumer, shared.inactivityExit,
                         shared.loggingEnabled);
}

/// What is known after a document.
Known after(Known known, const StoredJson& document) {
  using namespace test_support;
  if (const auto id = stored_text(document, {"serverAssigned", "identities", "sysId"})) {
    known.id = *id;
    known.new_slots = true;
  }
  known.token = stored_text(document, {"serverAssigned", "security", "nuvToken", "encoded"})
                    .value_or(known.token);
  known.state = stored_aap_state(document).value_or(known.state);
  const StoredJson* const interface = stored_interface(document, 1);
  const auto wifi = interface == nullptr ? std::nullopt : stored_wifi_status(*interface);
  if (wifi) {
    known.wifi = known.inactivity_period = wifi == "associated";
    known.initial_sending = known.initial_sending || !known.wifi;
  }
  known.offset = stored_number(document, {"system", "clock", "offset"}).value_or(known.offset);
  known.dst_offset =
      stored_number(document, {"system", "clock", "dstOffset"}).value_or(known.dst_offset);
  known.enable_dst =
      stored_flag(document, {"system", "clock", "enableDst"}).value_or(known.enable_dst);
  return known;
}

void prepare(bool used_before) {
  storeSharedDefaults();
  logConsumerShared.sysId = "an id";
  logConsumerShared.nuvToken = "a token";
  logConsumerShared.dataUploadServerAddr = logConsumerShared.relayServerAddr = "a server";
  logConsumerShared.dataUploadServerPort = logConsumerShared.relayServerPort = 1;
  if (used_before) {
    logConsumerShared.wifiAssociated = logConsumerShared.enableDst = true;
    logConsumerShared.lastActivityTime.tv_sec = 1;
    logConsumerShared.initialLogSending = false;
    logConsumerShared.offset = logConsumerShared.dstOffset = 7;
  }
  test_support::clear_journal();
}

void handle(const std::string& text, const StoredJson& document) {
  const Known before;
  const auto rest = set_by_no_document();
  handleStoreMessage(text);
  const bool known_document = QvJsonObjFactory::makeObj(text) != nullptr;
  must_hold(!known_document || document.is_object(), "what makes an object is JSON");
  must_hold(Known() == (known_document ? after(before, document) : before), "what is known then");
  must_hold(set_by_no_document() == rest, "what no document changes");
  must_hold(known_document || test_support::journal().empty(), "what is no document is no word");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = test_support::fuzz_text(data, size);
  const StoredJson document = test_support::stored_document(text);
  for (const bool used_before : {false, true}) {
    prepare(used_before);
    handle(text, document);
  }
  return 0;
}
