// The two operations whose instructions are budgeted, for callgrind; see ../budgets.
//
//   operations [REPETITIONS]     as often as asked for, once unless told
//
// Counted is the service's own code and the libraries under it, in user space:
//   upload    LogConsumer::sendFile() of a 20,000-byte file to a server on loopback, from opening
//   the
//             file to the judged reply, with the polls of the connection; then the mark
//   document  handleStoreMessage() of one /serverAssigned document
// each after one that is not counted, so that nothing is done for the first time.
//
// One thread does everything: where the service sleeps while its serving thread works, this program
// polls the connection itself and lets the other side of it answer, the latter not counted. The
// syslog lines are written by nobody: they are masked.
#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#include "log_consumer/qv_log_consumer_mg.h"
#include "log_consumer/qv_log_consumer_shared.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"
#include "log_consumer/qv_store_message.h"

namespace {

constexpr std::size_t kFileBytes = 20'000;
constexpr char kFile[] = "debug_20260203_0905.txt.gz";
constexpr char kDocument[] =
    R"({"serverAssigned":{"identities":{"sysId":"AB12345678"},"security":{"nuvToken":)"
    R"({"encoded":"dG9rZW4gdGhhdCBpcyBsb25nZXIgdGhhbiBhIHNob3J0IG9uZQ=="}},"urlsSec":)"
    R"({"dataUploadUrl":"logs.example.com","dataUploadPort":443}}})";

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

/// The server: takes one connection, answers each whole request with 200.
class Peer {
 public:
  Peer() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    require(bind(listener_, generic, size) == 0 && listen(listener_, 1) == 0 &&
                getsockname(listener_, generic, &size) == 0,
            "no port");
    port_ = ntohs(address.sin_port);
  }
  ~Peer() {
    close(connection_);
    close(listener_);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  int port() const { return port_; }

  void accept() { connection_ = ::accept(listener_, nullptr, nullptr); }

  void expect_request() { is_due_ = true; }

  /// Waits for the request that is expected and answers it; returns when the answer has arrived. A
  /// request that does not come whole is left for the next call: its sender has to poll again.
  void serve() {
    while (is_due_ && has_more()) {
      char bytes[65536];
      const ssize_t got = recv(connection_, bytes, sizeof bytes, MSG_DONTWAIT);
      require(got > 0, "connection lost");
      request_.append(bytes, static_cast<std::size_t>(got));
      if (ends_with(request_, "--acebdf13572468--\r\n")) answer();
    }
  }

 private:
  bool has_more() const {
    constexpr int kMilliseconds = 500;
    pollfd waiting = {connection_, POLLIN, 0};
    return poll(&waiting, 1, kMilliseconds) == 1;
  }

  void answer() {
    is_due_ = false;
    request_.clear();
    const std::string reply = "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n{\"code\":1}";
    require(send(connection_, reply.data(), reply.size(), 0) == static_cast<ssize_t>(reply.size()),
            "no reply sent");
    constexpr useconds_t kPauseMicroseconds = 1000;
    int on_the_way = 0;  // bytes that the other side's kernel has not confirmed yet
    while (ioctl(connection_, SIOCOUTQ, &on_the_way) == 0 && on_the_way > 0)
      usleep(kPauseMicroseconds);
  }

  static bool ends_with(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
  }

  int listener_ = socket(AF_INET, SOCK_STREAM, 0);
  int connection_ = -1;
  int port_ = 0;
  bool is_due_ = false;
  std::string request_;
};

Peer& peer() {
  static Peer peer;
  return peer;
}

struct mg_server* polled = nullptr;

/// What the serving thread and the server do meanwhile.
void let_others_work() {
  mg_poll_server(polled, 0);
  CALLGRIND_TOGGLE_COLLECT;
  peer().serve();
  CALLGRIND_TOGGLE_COLLECT;
}

}  // namespace

// In place of the C library's: the service's pauses are where the others have their turn.
unsigned sleep(unsigned /*seconds*/) {
  let_others_work();
  return 0;
}

namespace {

void connect(LogConsumer& engine) {
  engine.dataUploadProxy = std::make_shared<LogConsumerMongooseClass>();
  init_lc_mg_client(engine.dataUploadProxy);
  polled = engine.dataUploadProxy->info.mg_server_ptr;
  engine.dataUploadProxy->connect_proxy_client("127.0.0.1", peer().port());
  constexpr int kPolls = 1000;
  constexpr int kMilliseconds = 10;
  for (int poll = 0; poll < kPolls && !logConsumerShared.dataUploadConnectDone; ++poll) {
    mg_poll_server(polled, kMilliseconds);
  }
  require(logConsumerShared.dataUploadConnectDone, "no connection");
  peer().accept();
}

void upload(LogConsumer& engine) {
  peer().expect_request();
  require(engine.sendFile(kFile, "Debug", kDataUploadSrv, kFile) == 0, "not sent");
  require(engine.setReadOnly(kFile) == 0, "not marked");
}

void counted(const char* name, int repetitions, void (*operation)(LogConsumer&),
             LogConsumer& engine) {
  operation(engine);
  for (int repetition = 0; repetition < repetitions; ++repetition) {
    chmod(kFile, 0644);
    CALLGRIND_ZERO_STATS;
    CALLGRIND_TOGGLE_COLLECT;
    operation(engine);
    CALLGRIND_TOGGLE_COLLECT;
    CALLGRIND_DUMP_STATS_AT(name);
  }
}

void run(int repetitions) {
  setlogmask(LOG_MASK(LOG_EMERG));
  storeSharedDefaults();
  shared_set(&logConsumerSharedStruct::sysId, "AB12345678");
  shared_set(&logConsumerSharedStruct::dataUploadServerAddr, "127.0.0.1");
  std::ofstream(kFile) << std::string(kFileBytes, 'x');
  LogConsumer engine;
  connect(engine);
  counted("upload", repetitions, upload, engine);
  counted(
      "document", repetitions, [](LogConsumer& /*engine*/) { handleStoreMessage(kDocument); },
      engine);
  mg_destroy_server(&engine.dataUploadProxy->info.mg_server_ptr);
}

}  // namespace

int main(int argc, char** argv) try {
  run(argc > 1 ? std::stoi(argv[1]) : 1);
  return 0;
} catch (const std::exception& error) {
  std::cerr << "operations: " << error.what() << '\n';
  return 1;
}
