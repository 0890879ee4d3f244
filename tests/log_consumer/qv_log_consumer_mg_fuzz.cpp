// Any bytes from a server through a connection's event handler, over a real connection: the
// judgement and its lines in the log are those of the first reply's status, as an oracle finds it
// in the bytes, and once the server has closed, the request has failed.
//
// The first byte of an input: bit 0 the server, the others how the rest is cut.
#include <array>

#include "compat/mongoose/reply_reader.h"
#include "log_consumer/qv_log_consumer_mg.h"
#include "tests/compat/mongoose/reply_oracle.h"
#include "tests/support/fuzz.h"
#include "tests/support/journal.h"
#include "tests/support/loopback_peer.h"

namespace {

using test_support::must_hold;
using Shared = logConsumerSharedStruct;

constexpr char kRequest[] = "POST /v1/Upload HTTP/1.1\r\n\r\n";
constexpr int kRequestSize = sizeof kRequest - 1;

std::string judgement(std::string_view bytes) {
  mg_facade::ReplyReader reader;
  reader.feed(bytes.data(), bytes.size());
  std::optional<mg_facade::Reply> reply = reader.next();
  if (!reply) reply = reader.finish();
  if (!reply) return "";
  reply_test::ReplyOracle(bytes).judge(*reply);
  if (!reply->usable) return "Invalid URI in server response";
  if (reply->status_text == "200") return "Got 200 good resp from server";
  return "Got bad code from server: " + reply->status_text + " " + reply->reason;
}

void check_log(const std::string& expected, bool relay) {
  const test_support::Journal lines = test_support::journal("syslog ");
  const std::string closed =
      relay ? "Relay server connection closed" : "Data upload connection closed";
  must_hold(!lines.empty() && lines.back() == "syslog 7 " + closed, "the close comes last");
  must_hold(test_support::count("syslog 7 Response event") == (expected.empty() ? 0 : 1),
            "one reply, or none");
  must_hold(expected.empty() || test_support::count("syslog 6 " + expected) == 1,
            "the line of the judgement");
}

mongooseFileSendState state_of(LogConsumerMongooseClass& connection) {
  const std::lock_guard<std::mutex> lock(connection.stateMutex);
  return connection.state;
}

bool connected(const LogConsumerMongooseClass& connection) {
  return shared_get(connection.info.serverType == kRelaySrv ? &Shared::relayServerConnectDone
                                                            : &Shared::dataUploadConnectDone);
}

// A connection as at the start. The same two objects serve a whole run: a registered one is never
// freed, not even when another takes its place.
std::shared_ptr<LogConsumerMongooseClass> first_connection(bool relay) {
  static std::array<std::shared_ptr<LogConsumerMongooseClass>, 2> objects = {
      std::make_shared<LogConsumerMongooseClass>(), std::make_shared<LogConsumerMongooseClass>()};
  auto& object = objects.at(relay ? 1 : 0);
  object->info.serverType = relay ? kRelaySrv : kDataUploadSrv;
  object->client = nullptr;
  object->state = kNone;
  init_lc_mg_client(object);
  return object;
}

// Connects, and has the request written.
void send_request(LogConsumerMongooseClass& connection, test_support::LoopbackPeer& peer) {
  connection.connect_proxy_client("127.0.0.1", peer.port());
  connection.fileData.assign(kRequest, kRequest + kRequestSize);
  connection.fileLength = kRequestSize;
  connection.state = kOutgoingPending;
  while (!connected(connection))
    mg_poll_server(connection.info.mg_server_ptr, 1000);
  peer.accept();
  for (std::size_t got = 0; got < kRequestSize; got += peer.take())
    mg_poll_server(connection.info.mg_server_ptr, 0);
  must_hold(state_of(connection) == kWaitingResp, "written, and waiting");
}

void answer(LogConsumerMongooseClass& connection, test_support::LoopbackPeer& peer,
            std::string_view bytes, std::size_t piece) {
  for (; !bytes.empty(); bytes.remove_prefix(std::min(piece, bytes.size()))) {
    peer.send(bytes.substr(0, piece));
    mg_poll_server(connection.info.mg_server_ptr, 0);
  }
  peer.half_close();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input = test_support::fuzz_text(data, size);
  if (input.empty()) return 0;
  const bool relay = (data[0] & 1U) != 0;
  const std::string_view bytes = std::string_view(input).substr(1);
  test_support::clear_journal();
  static test_support::LoopbackPeer peer;
  const auto connection = first_connection(relay);
  send_request(*connection, peer);
  answer(*connection, peer, bytes, 1 + (data[0] >> 1U));
  while (connected(*connection))
    mg_poll_server(connection->info.mg_server_ptr, 1000);
  check_log(judgement(bytes), relay);
  must_hold(state_of(*connection) == kBadResp, "a closed connection has failed its request");
  mg_destroy_server(&connection->info.mg_server_ptr);
  return 0;
}
