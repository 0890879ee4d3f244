// The store's documents coming in, and the requests going out to it.
#include <benchmark/benchmark.h>

#include <nlohmann/json.hpp>
#include <string>

#include "bench/micro/counted_memory.h"
#include "log_consumer/qv_log_consumer_shared.h"
#include "log_consumer/qv_store_message.h"
#include "pushpull_data/qv_process_api.h"

namespace {

// As the store sends them, with the members that others read, too.
constexpr const char* kDocuments[] = {
    R"({"serverAssigned":{"identities":{"sysId":"AB12345678"},"security":{"nuvToken":)"
    R"({"encoded":"dG9rZW4gdGhhdCBpcyBsb25nZXIgdGhhbiBhIHNob3J0IG9uZQ=="}},"urlsSec":)"
    R"({"dataUploadUrl":"logs.example.com","dataUploadPort":443}}})",
    R"({"rgw":{"aapState":"bound","configSec":{"relayServerUrl":"relay.example.com",)"
    R"("relayServerPort":8443}}})",
    R"({"interfaces":[{"id":1,"name":"wlan0","wifiStatus":{"status":"associated","rssi":-61}},)"
    R"({"id":2,"name":"eth0"},{"id":3,"name":"lo"}]})",
    R"({"system":{"clock":{"offset":-18000,"dstOffset":3600,"enableDst":true}}})",
};
constexpr const char* kNames[] = {"serverAssigned", "rgw", "interfaces", "system"};

// A receive queue's buffer: text that ends with a NUL.
const char* buffer_of(const benchmark::State& state) {
  return kDocuments[state.range(0)];
}

void bare_parse(benchmark::State& state) {
  const std::string text = buffer_of(state);
  const auto parse = [&] {
    const nlohmann::json document = nlohmann::json::parse(text);
    benchmark::DoNotOptimize(&document);
  };
  for (auto _ : state)
    parse();
  count_memory(state, parse);
  state.SetLabel(kNames[state.range(0)]);
}

// From the queue's buffer to the shared record, as the configuration thread does it.
void store_document(benchmark::State& state) {
  storeSharedDefaults();
  const auto store = [&] {
    const std::string text = buffer_of(state);
    handleStoreMessage(text);
  };
  for (auto _ : state)
    store();
  count_memory(state, store);
  state.SetLabel(kNames[state.range(0)]);
}

// A request of the kind that asks for a node.
void request_message(benchmark::State& state) {
  const auto build = [&] {
    QvProcessApi request;
    request.setfunction("get");
    request.setcomp_id(QV_CMPID_LOG_CONSUMER);
    request.setBuff("/serverAssigned");
    if (!request.toJSON()) state.SkipWithError("no text");
    benchmark::DoNotOptimize(request.getJsonString().data());
  };
  for (auto _ : state)
    build();
  count_memory(state, build);
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(bare_parse)->DenseRange(0, 3);
BENCHMARK(store_document)->DenseRange(0, 3);
BENCHMARK(request_message);

}  // namespace
