// Any bytes from a server through the whole client over a real connection, cut anywhere: what the
// event handler sees is what the reply reader alone makes of the bytes, which an oracle judges, and
// one MG_CLOSE.
//
// The first byte of an input says how the rest is cut and how the server ends: bit 0 in order, or
// with a reset, which may overtake what was sent before it.
#include "compat/mongoose/mongoose.h"
#include "tests/compat/mongoose/reply_oracle.h"
#include "tests/compat/mongoose/reply_transcript.h"
#include "tests/support/fuzz.h"
#include "tests/support/loopback_peer.h"

namespace {

using test_support::must_hold;

struct Seen {
  int connects = 0;
  int closes = 0;
  std::string replies;
};

std::string describe(const mg_connection& connection) {
  if (connection.uri == nullptr) return "unusable\n";
  mg_facade::Reply reply;
  reply.usable = true;
  reply.status_text = connection.uri;
  reply.reason = connection.http_version;
  for (int i = 0; i < connection.num_headers; ++i)
    reply.headers.emplace_back(connection.http_headers[i].name, connection.http_headers[i].value);
  reply.body.assign(connection.content, connection.content_len);
  return reply_test::describe(reply);
}

int note_event(mg_connection* connection, mg_event event) {
  Seen& seen = *static_cast<Seen*>(connection->server_param);
  must_hold(seen.closes == 0, "nothing comes after MG_CLOSE");
  must_hold((event == MG_REPLY) == (connection->content != nullptr) ||
                (event == MG_REPLY && connection->uri == nullptr),
            "a reply is shown in its event alone");
  if (event == MG_CONNECT) ++seen.connects;
  if (event == MG_CLOSE) ++seen.closes;
  if (event == MG_REPLY) seen.replies += describe(*connection);
  return event == MG_POLL ? MG_FALSE : MG_TRUE;
}

// What one request is answered with; headers beyond those that a connection shows are dropped.
std::string first_reply(std::string_view bytes, bool in_order) {
  constexpr std::size_t kShown = 30;
  mg_facade::ReplyReader reader;
  reader.feed(bytes.data(), bytes.size());
  std::optional<mg_facade::Reply> reply = reader.next();
  if (!reply && in_order) reply = reader.finish();
  if (!reply) return "";
  reply_test::ReplyOracle(bytes).judge(*reply);
  if (reply->headers.size() > kShown) reply->headers.resize(kShown);
  return reply_test::describe(*reply);
}

void answer(test_support::LoopbackPeer& peer, mg_server* server, std::string_view bytes,
            std::size_t piece) {
  for (; !bytes.empty(); bytes.remove_prefix(std::min(piece, bytes.size()))) {
    peer.send(bytes.substr(0, piece));
    mg_poll_server(server, 0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input = test_support::fuzz_text(data, size);
  if (input.empty()) return 0;
  const bool in_order = (data[0] & 1U) == 0;
  const std::string_view bytes = std::string_view(input).substr(1);
  static test_support::LoopbackPeer peer;
  Seen seen;
  mg_server* server = mg_create_server(&seen, note_event);
  must_hold(mg_write(mg_connect(server, "127.0.0.1", peer.port(), 0), "request", 7) == 7,
            "a write");
  while (seen.connects == 0)
    mg_poll_server(server, 1000);
  peer.accept();
  while (peer.take() == 0)
    mg_poll_server(server, 1);
  answer(peer, server, bytes, 1 + (data[0] >> 1U));
  if (in_order) {
    peer.half_close();
  } else {
    peer.reset();
  }
  while (seen.closes == 0)
    mg_poll_server(server, 1000);
  const std::string expected = first_reply(bytes, in_order);
  must_hold(seen.replies == expected || (!in_order && seen.replies.empty()),
            "the reply is what the bytes say");
  mg_destroy_server(&server);
  must_hold(seen.connects == 1 && seen.closes == 1, "one MG_CONNECT, one MG_CLOSE");
  return 0;
}
