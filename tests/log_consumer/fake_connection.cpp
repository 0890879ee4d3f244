#include "tests/log_consumer/fake_connection.h"

#include <memory>

#include "log_consumer/qv_log_consumer_mg.h"
#include "tests/support/journal.h"

namespace {

using Shared = logConsumerSharedStruct;
using test_support::note;

std::string nameOf(servers server) {
  return server == kDataUploadSrv ? "data" : "relay";
}

}  // namespace

test_support::FakeServers& test_support::fake_servers() {
  static FakeServers servers;
  return servers;
}

void init_lc_mg_client(std::shared_ptr<LogConsumerMongooseClass>& proxy) {
  note("init " + nameOf(proxy->info.serverType));
}

void exec_lc_mg_client(std::shared_ptr<LogConsumerMongooseClass>& proxy) {
  note("exec " + nameOf(proxy->info.serverType));
}

void terminate_lc_mg_client(std::shared_ptr<LogConsumerMongooseClass>& proxy) {
  note("terminate " + nameOf(proxy->info.serverType));
}

void LogConsumerMongooseClass::connect_proxy_client(std::string host, int port_number) {
  note("connect " + nameOf(info.serverType) + " " + host + ":" + std::to_string(port_number));
  const test_support::FakeServers& fakes = test_support::fake_servers();
  if (info.serverType == kDataUploadSrv) {
    shared_set(&Shared::dataUploadConnectDone, fakes.dataUploadAnswers);
  } else {
    shared_set(&Shared::relayServerConnectDone, fakes.relayAnswers);
  }
}

bool LogConsumerMongooseClass::send_file(std::vector<char> data, int length) {
  note("send " + nameOf(info.serverType));
  test_support::FakeServers& fakes = test_support::fake_servers();
  fakes.received.push_back(
      {info.serverType, std::string(data.data(), static_cast<std::size_t>(length))});
  return !fakes.answer || fakes.answer(fakes.received.back());
}
