#include "tests/log_consumer/fault_world.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <iterator>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <regex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "log_consumer/qv_log_consumer_mg.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"
#include "mongoose.h"
#include "tests/lab/requests.h"
#include "tests/support/fake_time.h"
#include "tests/support/files.h"

extern "C" {
mg_connection* __real_mg_connect(mg_server* server, const char* host, int port, int use_ssl);
mg_connection* __wrap_mg_connect(mg_server* server, const char* host, int port, int use_ssl);
int __real_mg_poll_server(mg_server* server, int milliseconds);
int __wrap_mg_poll_server(mg_server* server, int milliseconds);
}

namespace test_support {
namespace {

using Shared = logConsumerSharedStruct;

constexpr std::int64_t kMicro = 1'000'000;
constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kPauseBeforeFile = 5 * kMicro;
constexpr char kClosingDelimiter[] = "\r\n--acebdf13572468--\r\n";

// A port whose queue of connections is full: further greetings are dropped.
class DeafPort {
 public:
  DeafPort() : listener_(open()) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    const bool ready = bind(listener_, any, size) == 0 && listen(listener_, 0) == 0 &&
                       getsockname(listener_, any, &size) == 0 && connect(guest_, any, size) == 0;
    if (!ready) throw std::runtime_error("deaf port");
    port_ = ntohs(address.sin_port);
  }
  ~DeafPort() {
    close(guest_);
    close(listener_);
  }
  DeafPort(const DeafPort&) = delete;
  DeafPort& operator=(const DeafPort&) = delete;

  int port() const { return port_; }

 private:
  static int open() { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

  int listener_;
  int guest_ = open();
  int port_ = 0;
};

const Identity& authority() {
  static const Identity identity = make_self_signed({"Device Authority", "", -1, 1}, true);
  return identity;
}

const Identity& rightful() {
  static const Identity identity =
      make_signed({"127.0.0.1", "DNS:localhost,IP:127.0.0.1", -1, 1}, authority());
  return identity;
}

}  // namespace

struct FaultWorld::State {
  // One connection's other end.
  struct Peer {
    bool never_stands;
    std::unique_ptr<ScriptedServer> server;
    std::unique_ptr<RefusingPort> refusing;
    std::unique_ptr<DeafPort> deaf;
    bool ended() const { return server && server->ended(); }

    mutable std::mutex mutex;  // guards what follows
    std::vector<ConnectionRecord::Answer> answers;
  };

  State(servers server_type, bool with_tls) : type(server_type), tls(with_tls) {}

  // On the engine's thread.
  mg_connection* connect(mg_server* server, const char* host, int use_ssl);
  void pass_time(std::int64_t microseconds);
  void come_to_rest();
  void watch_marks();

  void make_files(std::size_t bytes);
  bool modes_have_changed();
  Script good_manners() const;
  std::unique_ptr<Peer> make_peer(PeerPlan plan) const;
  std::vector<ConnectionRecord> records() const;
  LogConsumerMongooseClass& connection() const;
  bool connection_stands() const;
  bool holds_back(const mg_server* server) const;
  mongooseFileSendState request_state() const;

  const servers type;
  const bool tls;
  const std::thread::id engine_thread = std::this_thread::get_id();
  TempDir folder;
  FakeTime clock;
  DeliveryOracle oracle;
  std::string paths[2];
  std::size_t file_size = 0;
  std::vector<std::string> earlier_complaints;
  std::vector<std::int64_t> connects;
  std::multimap<std::int64_t, std::function<void()>> appointments;
  int last_modes[2] = {0, 0};
  LogConsumer* engine = nullptr;
  std::size_t events_at_connect = 0;
  std::size_t closes_at_connect = 0;

  std::atomic<std::int64_t> now{0};
  std::atomic<bool> busy{false};    // the server acts, or the client has something to notice
  std::atomic<bool> silent{false};  // nothing will come before the time of `wakes_at`
  std::atomic<std::int64_t> wakes_at{0};
  std::atomic<bool> reads_in_silence{false};
  std::atomic<std::size_t> requests_written{0};  // on the present connection
  std::atomic<std::size_t> requests_read{0};
  std::atomic<bool> awaits_pause{false};
  std::atomic<bool> pauses{false};
  std::atomic<std::size_t> events{0};  // connections made or closed
  std::atomic<std::size_t> closes{0};
  std::atomic<const mg_server*> refused_later{nullptr};  // whose connection will be

  mutable std::mutex mutex;
  std::deque<PeerPlan> plans;
  std::vector<std::unique_ptr<Peer>> peers;  // grows on the engine's thread alone
};

namespace {

std::atomic<FaultWorld::State*> the_world{nullptr};

// Of the connection that this thread serves.
thread_local FaultWorld::State::Peer* own_peer = nullptr;
thread_local std::size_t read_of_upload = 0;  // by part_of_request()

void record_answer(int status) {
  const std::lock_guard<std::mutex> lock(own_peer->mutex);
  own_peer->answers.push_back({status, own_peer->server->received().size()});
}

FaultWorld::State& world() {
  return *the_world;
}

// The service's objects are never destroyed; a test's engine ends before its threads' memory may.
void keep(std::shared_ptr<LogConsumerMongooseClass> object) {
  static auto& all = *new std::vector<std::shared_ptr<LogConsumerMongooseClass>>;
  all.push_back(std::move(object));
}

bool is_close(const std::string& line) {
  return line == "syslog 7 Data upload connection closed" ||
         line == "syslog 7 Relay server connection closed";
}

bool is_connect(const std::string& line) {
  return line == "syslog 7 Connect event from data upload srv" ||
         line == "syslog 7 Connect event from relay srv";
}

bool wrote_something(const std::string& line) {
  return line.rfind("syslog 7 mg_write returned ", 0) == 0 &&
         line.rfind("syslog 7 mg_write returned 0,", 0) != 0;
}

bool is_connect_sent(const std::string& line) {
  return line == "syslog 7 Data upload client connection sent" ||
         line == "syslog 7 Relay server client connection sent";
}

void notice(const std::string& line) {
  FaultWorld::State& state = world();
  if (wrote_something(line)) ++state.requests_written;
  if (is_close(line)) state.refused_later = nullptr;
  if (is_close(line)) ++state.closes;
  if (is_close(line) || is_connect(line)) ++state.events;
  // What the engine does next is to look at the flag.
  if (is_connect_sent(line)) state.come_to_rest();
}

Step set_busy(bool value) {
  return run([value] { world().busy = value; });
}

Step in_order(std::vector<Step> steps) {
  return [steps = std::move(steps)](ScriptedPeer& peer) {
    return std::all_of(steps.begin(), steps.end(),
                       [&peer](const Step& step) { return step(peer); });
  };
}

// Waits in real time; ends early with the server.
template <typename Condition>
bool wait_for(ScriptedPeer& peer, Condition condition) {
  const Step moment = pause_ms(1);
  while (!condition()) {
    if (!moment(peer)) return false;
  }
  return true;
}

// Once the engine's clock has moved on by so many microseconds; kNever waits for ever.
Step until_later(std::int64_t microseconds) {
  return [microseconds](ScriptedPeer& peer) {
    FaultWorld::State& state = world();
    const std::int64_t end = microseconds == kNever ? kNever : state.now + microseconds;
    state.wakes_at = end;
    state.silent = true;
    const bool woken = wait_for(peer, [&] { return state.now >= end; });
    state.busy = true;
    state.silent = false;
    return woken;
  };
}

}  // namespace

Step request() {
  return [](ScriptedPeer& peer) {
    FaultWorld::State& state = world();
    const Step read = state.type == kRelaySrv
                          ? expect_bytes(state.file_size - std::exchange(read_of_upload, 0))
                          : expect_text(kClosingDelimiter);
    state.busy = false;
    const bool came = read(peer);
    state.busy = true;
    state.silent = false;
    ++state.requests_read;
    return came;
  };
}

Step request_in_silence() {
  return in_order({run([] {
                     world().wakes_at = kNever;
                     world().reads_in_silence = true;
                     world().silent = true;
                   }),
                   request(), run([] { world().reads_in_silence = false; })});
}

Step part_of_request(std::size_t bytes) {
  return in_order({set_busy(false), expect_bytes(bytes), set_busy(true),
                   run([bytes] { read_of_upload += bytes; })});
}

Step until_the_pause() {
  return [](ScriptedPeer& peer) {
    FaultWorld::State& state = world();
    state.pauses = false;
    state.awaits_pause = true;
    state.busy = false;
    return wait_for(peer, [&] { return state.pauses.load(); });
  };
}

Step until_client_closes() {
  return in_order({read_to_end(), cut_connection()});
}

Step answer(int status, std::string bytes, std::size_t piece) {
  return in_order({run([status] { record_answer(status); }), send_bytes(std::move(bytes), piece)});
}

Step wait_seconds(int seconds) {
  return until_later(seconds * kMicro);
}

Step silence() {
  return until_later(kNever);
}

std::string reply(const std::string& status, const std::string& body) {
  return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         body;
}

// --- the engine's side ---

mg_connection* FaultWorld::State::connect(mg_server* server, const char* host, int use_ssl) {
  // Time that stands still until the thread runs.
  if (!eventually([this] { return connection().info.served.load(); })) {
    earlier_complaints.emplace_back("no serving thread");
  }
  connects.push_back(now / kMicro);
  PeerPlan plan;
  if (!plans.empty()) {
    plan = std::move(plans.front());
    plans.pop_front();
  }
  events_at_connect = events;
  closes_at_connect = closes;
  silent = false;
  if (plan.kind == PeerPlan::kUnresolvable) host = "device.invalid";
  wakes_at = kNever;
  busy = plan.kind == PeerPlan::kScript;
  refused_later = plan.kind == PeerPlan::kRefuseLater ? server : nullptr;
  awaits_pause = false;
  std::unique_ptr<Peer> peer = make_peer(std::move(plan));
  int port = 1;
  if (peer->server) port = peer->server->port();
  if (peer->refusing) port = peer->refusing->port();
  if (peer->deaf) port = peer->deaf->port();
  {
    const std::lock_guard<std::mutex> lock(mutex);
    peers.push_back(std::move(peer));
  }
  return __real_mg_connect(server, host, port, use_ssl);
}

void FaultWorld::State::pass_time(std::int64_t microseconds) {
  if (std::this_thread::get_id() != engine_thread) {
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    return;
  }
  if (engine == nullptr) return;
  if (microseconds == kPauseBeforeFile && awaits_pause.exchange(false)) {
    busy = true;
    pauses = true;
  }
  come_to_rest();
  if (modes_have_changed()) watch_marks();
  now += microseconds;
  if (!eventually([this] { return !silent || now < wakes_at; })) {
    earlier_complaints.emplace_back("the server did not wake");
  }
  come_to_rest();
  while (!appointments.empty() && now >= appointments.begin()->first) {
    const std::function<void()> action = std::move(appointments.begin()->second);
    appointments.erase(appointments.begin());
    action();
    come_to_rest();
  }
}

void FaultWorld::State::come_to_rest() {
  const auto at_rest = [&] {
    if (connection().info.exit_flag) return !connection().info.served;
    if (peers.empty() || peers.back()->never_stands) return true;
    if (events == events_at_connect) return holds_back(refused_later);
    if (peers.back()->ended() || !connection_stands()) {
      return closes > closes_at_connect && !connection_stands();
    }
    const bool server_is_busy = busy;  // to be read first: an answer follows a request
    switch (request_state()) {
      case kOutgoingPending:
        return false;
      case kWaitingResp:
        return !(reads_in_silence && requests_written != requests_read) && silent;
      default:
        return silent || !server_is_busy;
    }
  };
  if (!eventually(at_rest)) {
    earlier_complaints.push_back(
        "no rest: state " + std::to_string(request_state()) + (busy ? ", busy" : "") +
        (silent ? ", silent" : "") + ", written " + std::to_string(requests_written) + ", read " +
        std::to_string(requests_read) + ", events " + std::to_string(events - events_at_connect));
  }
}

LogConsumerMongooseClass& FaultWorld::State::connection() const {
  return type == kRelaySrv ? *engine->relayServerProxy : *engine->dataUploadProxy;
}

bool FaultWorld::State::holds_back(const mg_server* server) const {
  return server != nullptr && server == refused_later && request_state() < kOutgoingPending;
}

bool FaultWorld::State::connection_stands() const {
  return shared_get(type == kRelaySrv ? &Shared::relayServerConnectDone
                                      : &Shared::dataUploadConnectDone);
}

mongooseFileSendState FaultWorld::State::request_state() const {
  // Held while a request is written: what it says is all said then.
  const std::lock_guard<std::mutex> request(connection().requestMutex);
  const std::lock_guard<std::mutex> lock(connection().stateMutex);
  return connection().state;
}

bool FaultWorld::State::modes_have_changed() {
  bool changed = false;
  for (int i = 0; i < 2; ++i) {
    changed = std::exchange(last_modes[i], file_mode(paths[i])) != file_mode(paths[i]) || changed;
  }
  return changed;
}

void FaultWorld::State::watch_marks() {
  for (std::string& complaint : oracle.complaints(records(), journal())) {
    if (std::find(earlier_complaints.begin(), earlier_complaints.end(), complaint) ==
        earlier_complaints.end()) {
      earlier_complaints.push_back(std::move(complaint));
    }
  }
}

// --- the servers' side ---

Script FaultWorld::State::good_manners() const {
  Script script;
  for (int i = 0; i < 4; ++i) {
    script.push_back(request());
    script.push_back(answer(200, reply("200 OK")));
  }
  return script;
}

std::unique_ptr<FaultWorld::State::Peer> FaultWorld::State::make_peer(PeerPlan plan) const {
  auto peer = std::make_unique<Peer>();
  peer->never_stands = plan.never_stands || plan.kind == PeerPlan::kNeverAnswer ||
                       plan.kind == PeerPlan::kUnresolvable;
  if (plan.kind == PeerPlan::kRefuse || plan.kind == PeerPlan::kRefuseLater) {
    peer->refusing = std::make_unique<RefusingPort>();
  }
  if (plan.kind == PeerPlan::kNeverAnswer) peer->deaf = std::make_unique<DeafPort>();
  if (plan.kind != PeerPlan::kScript) return peer;
  ScriptedServer::Options options;
  options.tls_version = plan.tls_version;
  if (tls != plan.other_protocol) options.tls = plan.tls != nullptr ? plan.tls : &rightful();
  Script script = std::move(plan.script);
  script.insert(script.begin(), run([self = peer.get()] { own_peer = self; }));
  const Script manners = good_manners();
  script.insert(script.end(), manners.begin(), manners.end());
  script.push_back(set_busy(false));
  peer->server = std::make_unique<ScriptedServer>(std::vector<Script>{std::move(script)}, options);
  return peer;
}

std::vector<ConnectionRecord> FaultWorld::State::records() const {
  const std::lock_guard<std::mutex> lock(mutex);
  std::vector<ConnectionRecord> result;
  for (const auto& peer : peers) {
    if (!peer->server) continue;
    const std::lock_guard<std::mutex> answers_lock(peer->mutex);
    result.push_back({peer->server->received(), peer->answers});
  }
  return result;
}

void FaultWorld::State::make_files(std::size_t bytes) {
  oracle = DeliveryOracle();
  for (std::uint32_t i = 0; i < 2; ++i) {
    const std::string directory = folder / (i == 0 ? "first" : "second");
    std::filesystem::create_directories(directory);
    paths[i] = directory + (i == 0 ? "/first.gz" : "/second.gz");
    const std::string contents = gzip(noise(bytes, i + 1));
    write_file(paths[i], contents);
    oracle.watch(paths[i]);
    if (i == 1 && contents.size() != file_size) throw std::logic_error("files of two sizes");
    file_size = contents.size();
  }
}

FaultWorld::FaultWorld(servers server, bool tls) : state_(std::make_unique<State>(server, tls)) {
  clear_journal();
  std::filesystem::create_directories("/tarv/data/logs/logconsumer");
  resize_files(601);
  const std::string bundle = state_->folder / "bundle.pem";
  write_file(bundle, authority().certificate);
  setenv("SSL_CERT_FILE", bundle.c_str(), 1);
  the_world = state_.get();
  state_->clock.on_sleep([](std::int64_t microseconds) { world().pass_time(microseconds); });
  on_note(notice);
}

FaultWorld::~FaultWorld() {
  on_note({});
  state_->clock.on_sleep({});
  state_->peers.clear();
  the_world = nullptr;
}

const std::string& FaultWorld::first() const {
  return state_->paths[0];
}
const std::string& FaultWorld::second() const {
  return state_->paths[1];
}
std::size_t FaultWorld::file_size() const {
  return state_->file_size;
}
void FaultWorld::resize_files(std::size_t bytes) {
  state_->make_files(bytes);
}

void FaultWorld::rewrite(const std::string& path, const std::string& contents) {
  write_file(path, contents);
  state_->oracle = DeliveryOracle();
  for (const std::string& each : state_->paths)
    state_->oracle.watch(each);
}

void FaultWorld::at(std::int64_t seconds, std::function<void()> action) {
  state_->appointments.emplace(seconds * kMicro, std::move(action));
}

LogConsumerMongooseClass& FaultWorld::connection() const {
  return state_->connection();
}

void FaultWorld::next_peers(std::vector<PeerPlan> plans) {
  state_->plans.assign(plans.begin(), plans.end());
}

void FaultWorld::start() {
  storeSharedDefaults();
  const bool relay = state_->type == kRelaySrv;
  shared_set(relay ? &Shared::relayServerAddr : &Shared::dataUploadServerAddr, "127.0.0.1");
  shared_set(relay ? &Shared::relayServerPort : &Shared::dataUploadServerPort,
             state_->tls ? 443 : 80);
  shared_set(&Shared::sysId, "AB12345678");
  shared_set(&Shared::wifiAssociated, true);
  LogConsumer engine;
  engine.logInfo = {
      {state_->folder / "first", kClpType, 0, state_->type, false, true},
      {state_->folder / "second", kDebugFileType, 0, state_->type, false, true},
  };
  state_->engine = &engine;
  engine.execute();
  for (const auto& object : {engine.dataUploadProxy, engine.relayServerProxy}) {
    if (!eventually([&] { return !object->info.served; })) {
      state_->earlier_complaints.emplace_back("a serving thread did not stop");
    }
    keep(object);
  }
  state_->engine = nullptr;
  state_->watch_marks();
}

std::vector<std::string> FaultWorld::complaints() const {
  return state_->earlier_complaints;
}

std::size_t FaultWorld::copies(const std::string& path) const {
  return state_->oracle.copies(state_->records(), path);
}

bool FaultWorld::sent(const std::string& path) const {
  return file_mode(path) == 0400;
}

std::vector<std::int64_t> FaultWorld::connects() const {
  return state_->connects;
}

std::int64_t FaultWorld::seconds() const {
  return state_->now / kMicro;
}

namespace {

std::string without_sizes(const std::string& line) {
  static const std::regex sizes("(returned|length is) [0-9]+");
  return std::regex_replace(line, sizes, "$1 #");
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// What the engine says when a call has returned may come behind what the serving thread, which may
// be faster, says of its outcome: it is put back to where the engine said that it calls.
Journal in_order_of_calls(Journal lines) {
  const std::vector<std::pair<std::string, std::vector<std::string>>> returns = {
      {"client connection sent", {"Connecting to ", "Mongoose server started."}},
      {"mg_write returned", {"Writing file to mg_write"}}};
  for (auto line = lines.begin(); line != lines.end(); ++line) {
    for (const auto& [returned, calls] : returns) {
      if (!contains(*line, returned)) continue;
      const auto call = std::find_if(
          std::make_reverse_iterator(line), lines.rend(),
          [&calls = calls](const std::string& said) {
            return std::any_of(calls.begin(), calls.end(),
                               [&](const std::string& text) { return contains(said, text); });
          });
      if (call != lines.rend()) std::rotate(call.base(), line, std::next(line));
    }
  }
  return lines;
}

// Lines from the first that contains `from` up to the one before the next that contains `to`.
Journal lines_between(const std::string& from, const std::string& to) {
  Journal result;
  for (const std::string& line : journal("syslog ")) {
    if (result.empty() && !contains(line, from)) continue;
    if (!result.empty() && contains(line, to)) break;
    result.push_back(without_sizes(line.substr(std::string("syslog ").size())));
  }
  return in_order_of_calls(result);
}

}  // namespace

Journal FaultWorld::way_to_connection() const {
  return lines_between("connection not done", "Bypassing");
}

Journal FaultWorld::turn_of(const std::string& path) const {
  return lines_between("Filename " + path, "Bypassing");
}

}  // namespace test_support

// --- what the linker puts in the place of the event loop's functions ---

mg_connection* __wrap_mg_connect(mg_server* server, const char* host, int /*port*/, int use_ssl) {
  return test_support::world().connect(server, host, use_ssl);
}

// A request is written at the poll after it was handed over: that poll shall come soon.
int __wrap_mg_poll_server(mg_server* server, int /*milliseconds*/) {
  constexpr int kSoon = 3;
  if (test_support::world().holds_back(server)) return 0;
  return __real_mg_poll_server(server, kSoon);
}
