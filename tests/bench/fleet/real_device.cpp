#include "tests/bench/fleet/real_device.h"

#include <syslog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <memory>

#include "log_consumer/qv_log_consumer_socket_thread.h"
#include "mongoose.h"
#include "tests/bench/fleet/virtual_time.h"
#include "tests/support/files.h"

namespace test_support {
namespace {

using fleet::kNever;
using fleet::Moment;
using fleet::Scenario;
using Shared = logConsumerSharedStruct;

constexpr std::int64_t kNanosPerMilli = 1'000'000;
constexpr std::time_t kMidnight = 1'767'225'600;  // 2026-01-01 00:00 UTC

Day the_day;
std::vector<Moment> the_exits;
const Scenario* the_scenario = nullptr;
bool in_pass = false;
bool data_upload_missing = false;

Moment now() {
  return VirtualTime::now() / kNanosPerMilli;
}

void sleep_until(Moment moment) {
  VirtualTime::sleep_until(moment * kNanosPerMilli);
}

void observe(fleet::Event event, Moment moment, std::int64_t detail = 0) {
  the_day.push_back({event, moment, detail});
}

bool begins_with(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

// What the engine says about itself.
void hear(const std::string& line) {
  if (begins_with(line, "Connecting to ")) observe(fleet::kConnect, now());
  if (line == "Send error") observe(fleet::kFailed, now());
  if (begins_with(line, "Sending ")) observe(fleet::kMarked, now());
  if (begins_with(line, "relay server connection not done") && data_upload_missing)
    observe(fleet::kGivenUp, now());
  data_upload_missing = begins_with(line, "data upload connection not done");
  if (begins_with(line, "Bypassing random delay values for all")) {
    if (!in_pass) observe(fleet::kPass, now());
    in_pass = true;
  }
  if (line == "No files found in debug! Resetting") in_pass = false;
}

}  // namespace
}  // namespace test_support

// --- the event loop's library, on a network of the scenario's ---

using test_support::now;
using test_support::the_scenario;

namespace {

using fleet::kNever;
using fleet::Moment;

struct Link : mg_connection {
  Moment stands = kNever;
  Moment closes = kNever;
  Moment replies = kNever;
  const char* status = nullptr;
  bool established = false;
  bool closed = false;
};

const fleet::Outage* outage(Moment moment) {
  for (const fleet::Outage& each : the_scenario->outages) {
    if (each.span.contains(moment)) return &each;
  }
  return nullptr;
}

bool fails(Moment moment, fleet::Fault fault) {
  const fleet::Outage* const found = outage(moment);
  return found != nullptr && found->fault == fault;
}

void begin(Link& link) {
  test_support::observe(fleet::kAttempt, now());
  if (fails(now(), fleet::Fault::kRefuse)) {
    link.closes = now() + the_scenario->round_trip;
    return;
  }
  link.stands = now() + the_scenario->handshake();
  for (const fleet::Outage& each : the_scenario->outages) {
    if (each.fault == fleet::Fault::kRefuse && each.span.from > now())
      link.closes = std::min(link.closes, each.span.from);
  }
}

}  // namespace

struct mg_server {
  void* param;
  mg_handler_t handler;
  std::vector<std::unique_ptr<Link>> arrivals;
  std::vector<std::unique_ptr<Link>> links;

  Moment next_event() const {
    Moment next = kNever;
    for (const auto& link : links) {
      next = std::min({next, link->closes, link->replies});
      if (!link->established) next = std::min(next, link->stands);
    }
    return next;
  }

  void close(Link& link) {
    link.closed = true;
    if (link.established) test_support::observe(fleet::kClosed, now());
    handler(&link, MG_CLOSE);
  }

  void deliver(Link& link) {
    if (link.closes <= now()) return close(link);
    if (!link.established && link.stands <= now()) {
      link.established = true;
      test_support::observe(fleet::kEstablished, now());
      handler(&link, MG_CONNECT);
    }
    if (link.replies <= now()) {
      link.replies = kNever;
      link.uri = link.status;
      link.http_version = "as told";
      if (std::string(link.status) == "200") test_support::observe(fleet::kAccepted, now());
      handler(&link, MG_REPLY);
      link.uri = link.http_version = nullptr;
    }
  }
};

extern "C" {

struct mg_server* mg_create_server(void* server_param, mg_handler_t handler) {
  return new mg_server{server_param, handler, {}, {}};
}

struct mg_connection* mg_connect(struct mg_server* server, const char*, int, int) {
  test_support::sleep_until(now() + the_scenario->resolve);
  server->arrivals.push_back(std::make_unique<Link>());
  return server->arrivals.back().get();
}

int mg_poll_server(struct mg_server* server, int milliseconds) {
  for (auto& link : server->arrivals) {
    begin(*link);
    server->links.push_back(std::move(link));
  }
  server->arrivals.clear();
  if (server->links.empty()) return 0;
  for (const auto& link : server->links)
    server->handler(link.get(), MG_POLL);
  test_support::sleep_until(std::min(now() + milliseconds, server->next_event()));
  for (const auto& link : server->links)
    server->deliver(*link);
  server->links.erase(std::remove_if(server->links.begin(), server->links.end(),
                                     [](const auto& link) { return link->closed; }),
                      server->links.end());
  return static_cast<int>(server->links.size());
}

void mg_destroy_server(struct mg_server** server) {
  for (const auto& link : (*server)->links)
    (*server)->close(*link);
  delete *server;
  *server = nullptr;
}

int mg_write(struct mg_connection* connection, const void* /*bytes*/, int length) {
  auto& link = *static_cast<Link*>(connection);
  if (link.stands == kNever) return length;
  const Moment sent = std::max(now(), link.stands);
  if (sent >= link.closes) return length;
  test_support::observe(fleet::kRequest, sent, length);
  const Moment arrived = sent + the_scenario->upload(length) + the_scenario->round_trip / 2;
  if (fails(arrived, fleet::Fault::kSilent)) return length;
  link.status = fails(arrived, fleet::Fault::kError) ? "503" : "200";
  link.replies = arrived + the_scenario->answer + the_scenario->round_trip / 2;
  return length;
}

void* mg_start_thread(void* (*function)(void*), void* param) {
  test_support::VirtualTime::start([function, param] { function(param); });
  return param;
}

void vsyslog(int /*priority*/, const char* format, va_list arguments) {
  if (the_scenario == nullptr) return;
  char line[1024];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the formats are the callers'
  static_cast<void>(vsnprintf(line, sizeof line, format, arguments));
#pragma GCC diagnostic pop
  test_support::hear(line);
}

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}

}  // extern "C"

// --- what surrounds the engine ---

namespace test_support {
namespace {

// The configuration thread's part.
void store_tells(bool* process_lives, Moment when) {
  sleep_until(when);
  if (!*process_lives) return;
  shared_set(&Shared::wifiAssociated, true);
  shared_set(&Shared::sysId, "AB12345678");
  shared_set(&Shared::setDelayMinutes, true);
}

void run_process(const Scenario& scenario) {
  storeSharedDefaults();
  if (scenario.waits_for_slot) {
    shared_set(&Shared::alwaysBypassRandomDelay, false);
    shared_set(&Shared::initialLogSending, false);
  }
  bool lives = true;
  VirtualTime::start([&, when = now() + scenario.wifi_known] { store_tells(&lives, when); });
  std::vector<logConsumerType> kinds = scenario.kinds;
  LogConsumer engine;
  engine.init(kinds, scenario.sleep_seconds, "logs.example.com", scenario.tls ? 443 : 80);
  in_pass = data_upload_missing = false;
  engine.execute();
  lives = false;
  the_exits.push_back(now());
  // The threads may still be in their last poll, and use the objects.
  sleep_until(now() + 5 * fleet::kSecond);
}

void produce(const Scenario& scenario, const Day& plan) {
  std::size_t number = 0;
  for (const Observed& file : plan) {
    if (file.event != fleet::kGenerated) continue;
    sleep_until(file.moment);
    const std::string& folder = scenario.kinds[static_cast<std::size_t>(file.detail)].filepath;
    write_file(folder + "/" + std::to_string(++number) + ".gz", "a log");
  }
}

}  // namespace

Day live_with_the_engine(const Scenario& scenario, const Day& plan) {
  the_day.clear();
  the_exits.clear();
  the_scenario = &scenario;
  {
    const VirtualTime time(kMidnight);
    VirtualTime::start([&] { produce(scenario, plan); });
    for (const Observed& start : plan) {
      if (start.event != fleet::kStart) continue;
      if (start.moment < now()) break;  // the engine is late: that shows as well
      sleep_until(start.moment);
      observe(fleet::kStart, start.moment);
      run_process(scenario);
    }
  }
  the_scenario = nullptr;
  return the_day;
}

const std::vector<Moment>& exits() {
  return the_exits;
}

}  // namespace test_support
