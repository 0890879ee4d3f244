// A small client in a process of its own: what depends on the environment, happens once per
// process or at its end cannot be tested inside a test program.
//
//   mongoose_probe COMMAND...
//     tls HOST PORT     one request over TLS; prints the events up to the reply or the close
//     sh COMMAND        runs a shell command
//     exit PORT MICROSECONDS   connects to 127.0.0.1, leaves the polling to a thread of its own,
//                       and calls exit() that much later
//
// Prints an event or a syslog line ("syslog 3 text") a line.
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "compat/mongoose/mongoose.h"
#include "tests/compat/mongoose/client.h"
#include "tests/support/journal.h"

namespace {

using mongoose_test::Client;

constexpr char kRequest[] = "GET / HTTP/1.1\r\n\r\n";

void print(const std::vector<std::string>& lines) {
  for (const std::string& line : lines)
    std::cout << line << std::endl;
}

bool over(const Client& client) {
  const std::string last = client.events.empty() ? "" : client.events.back();
  return last == "CLOSE" || last.compare(0, 5, "REPLY") == 0;
}

void ask_over_tls(const std::string& host, int port) {
  test_support::clear_journal();
  Client client;
  mg_connection* const connection = client.connect(host, port, true);
  mg_write(connection, kRequest, sizeof kRequest - 1);
  client.poll_until([&] { return over(client); });
  print(client.events);
  print(test_support::journal("syslog "));
}

int ask_again(mg_connection* connection, mg_event event) {
  if (event != MG_POLL && event != MG_CLOSE) mg_write(connection, kRequest, sizeof kRequest - 1);
  return event == MG_POLL ? MG_FALSE : MG_TRUE;
}

void* poll_for_ever(void* server) {
  for (;;)
    mg_poll_server(static_cast<mg_server*>(server), 2000);
}

[[noreturn]] void exit_while_polling(int port, unsigned microseconds) {
  mg_server* const server = mg_create_server(nullptr, ask_again);
  for (int tls = 0; tls < 2; ++tls) {
    mg_connection* const connection = mg_connect(server, "127.0.0.1", port, tls);
    connection->connection_param = server;
  }
  mg_start_thread(poll_for_ever, server);
  usleep(microseconds);
  std::exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  for (std::size_t i = 0; i < words.size();) {
    const std::string& command = words[i];
    if (command == "tls") {
      ask_over_tls(words.at(i + 1), std::stoi(words.at(i + 2)));
      i += 3;
    } else if (command == "sh") {
      if (std::system(words.at(i + 1).c_str()) != 0) return 1;
      i += 2;
    } else {
      exit_while_polling(std::stoi(words.at(i + 1)),
                         static_cast<unsigned>(std::stoul(words.at(i + 2))));
    }
  }
  return 0;
}
