// A connection without traffic: what each turn of its loop costs.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/micro/counted_memory.h"
#include "compat/mongoose/mongoose.h"

namespace {

// Accepts in its backlog, and says nothing.
class Listener {
 public:
  Listener() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(socket_, generic, size) == 0 && listen(socket_, 1) == 0 &&
        getsockname(socket_, generic, &size) == 0) {
      port_ = ntohs(address.sin_port);
    }
  }
  ~Listener() { close(socket_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  int port() const { return port_; }

 private:
  int socket_ = socket(AF_INET, SOCK_STREAM, 0);
  int port_ = 0;
};

bool connected = false;

int note_event(mg_connection* /*connection*/, mg_event event) {
  if (event == MG_CONNECT) connected = true;
  return event == MG_CONNECT ? MG_TRUE : MG_FALSE;
}

void idle_poll(benchmark::State& state) {
  constexpr int kMilliseconds = 1;  // a real wait, as each poll has one
  constexpr int kPolls = 1000;
  const Listener listener;
  connected = false;
  mg_server* server = mg_create_server(nullptr, note_event);
  mg_connect(server, "127.0.0.1", listener.port(), 0);
  for (int poll = 0; poll < kPolls && !connected; ++poll)
    mg_poll_server(server, kMilliseconds);
  if (!connected) state.SkipWithError("no connection");
  const auto poll = [&] { mg_poll_server(server, kMilliseconds); };
  for (auto _ : state)
    poll();
  count_memory(state, poll);
  mg_destroy_server(&server);
}

BENCHMARK(idle_poll);

}  // namespace
