#include "lab/driver/session.h"

#include <fcntl.h>
#include <poll.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "lab/driver/display.h"
#include "lab/driver/scoreboard.h"
#include "lab/driver/service_manager.h"
#include "lab/sinks/datagram_sink.h"
#include "lab/support/child.h"
#include "lab/support/record.h"
#include "lab/support/signals.h"
#include "lab/upload_server/control.h"
#include "lab/upload_server/upload_server.h"

namespace {

using lab::json_line;
using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

constexpr char kNotifySocket[] = "/tmp/notify";
constexpr char kFindFolder[] = "/tmp/find";
constexpr char kSysId[] = "AB12345678";

// What the device's store holds, as soon as the device is registered and its Wi-Fi is up.
constexpr char kDocument[] = R"({
  "serverAssigned": {
    "identities": {"sysId": "AB12345678"},
    "security": {"nuvToken": {"encoded": "dG9rZW4="}},
    "urlsSec": {"dataUploadUrl": "not.used.example", "dataUploadPort": 443}},
  "rgw": {"aapState": "bound",
          "configSec": {"relayServerUrl": "not.used.example", "relayServerPort": 8443}},
  "interfaces": [{"id": 1, "wifiStatus": {"status": "associated"}}, {"id": 2}],
  "system": {"clock": {"offset": -18000, "dstOffset": 3600, "enableDst": true}}
})";

// Appends JSON lines to a file. Any thread.
class RecordFile {
 public:
  explicit RecordFile(const std::string& path) : file_(path) {
    if (!file_) throw std::runtime_error("cannot write " + path);
  }
  void add(const Json& event) {
    const std::lock_guard<std::mutex> lock(mutex_);
    file_ << json_line(event) << std::endl;
  }

 private:
  std::mutex mutex_;
  std::ofstream file_;
};

// A sink and where its lines go.
struct RecordedSink {
  lab::DatagramSink sink;
  RecordFile record;

  template <typename Parse>
  void drain(Parse parse) {
    while (const auto datagram = sink.receive()) {
      for (const Json& event : parse(datagram->bytes)) {
        Json line = {{"time", lab::utc_now()}};
        line.update(event);
        record.add(line);
      }
    }
  }
};

// The device's find: BusyBox's, in a folder of its own in front of the others.
std::string service_path(bool gnu_find) {
  const char* const path = std::getenv("PATH");
  const std::string system = path == nullptr ? "/usr/bin:/bin" : path;
  if (gnu_find) return "PATH=" + system;
  fs::create_directories(kFindFolder);
  const fs::path link = fs::path(kFindFolder) / "find";
  if (!fs::exists(link)) fs::create_symlink("/usr/bin/busybox", link);
  return "PATH=" + std::string(kFindFolder) + ":" + system;
}

class Session {
 public:
  explicit Session(const lab::SessionSettings& settings)
      : settings_(settings),
        files_(lab::seed(settings.seed)),
        board_(files_, kSysId),
        display_(settings.terminal),
        server_(server_settings()),
        manager_(service_settings(), [this](const std::string& text) { display_.event(text); }) {
    for (const std::string& command : settings_.commands) {
      const std::string answer = lab::control(server_, command);
      if (answer.find("\"ok\":true") == std::string::npos) {
        throw std::runtime_error("upload server: " + answer);
      }
    }
  }

  bool run() {
    hold_open();
    lab::Child store(store_settings());
    await_store(store);
    const auto end = Clock::now() + std::chrono::seconds(settings_.seconds);
    while (Clock::now() < end && !stop_asked_ && !complete()) {
      manager_.step();
      turn();
    }
    let_the_pass_end();
    manager_.stop();
    while (!manager_.step_to_end())
      turn();
    store.signal(SIGTERM);
    store.wait();
    board_.look_inside();
    return display_.summary(board_, manager_.starts(), manager_.failures()) && !stop_asked_;
  }

 private:
  using Clock = std::chrono::steady_clock;

  std::string in_record(const std::string& name) const { return settings_.record + "/" + name; }

  lab::UploadServer::Settings server_settings() {
    fs::create_directories(in_record("files"));
    lab::UploadServer::Settings server;
    server.keep_bytes = false;
    server.on_upload = [this](const lab::UploadReport& report) { note_upload(report); };
    return server;
  }

  void note_upload(const lab::UploadReport& report) {
    uploads_.add(to_json(report));
    const std::string path = board_.note(report);
    const std::string name = fs::path(path).filename();
    std::string lost;
    try {
      lab::write_file(in_record("files/" + std::to_string(report.number) + "-" +
                                lab::safe_file_name(name.empty() ? "unknown" : name)),
                      report.upload.file);
    } catch (const std::exception& error) {  // this is a thread of the server
      lost = std::string(", not kept: ") + error.what();
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    arrivals_.push_back(std::string(lab::name_of(report.upload.kind)) + " upload of " +
                        (path.empty() ? "unknown bytes" : path) + ", " +
                        std::to_string(report.upload.file.size()) +
                        " bytes: " + std::to_string(report.status) + ", " + report.outcome + lost);
  }

  // With a pause of 1 s the passes would keep step with the connections' own polls, and the relay
  // could be found between two connections in every single pass.
  lab::ChildSettings service_settings() const {
    lab::ChildSettings service;
    service.command = {
        settings_.service.empty() ? settings_.programs + "/log_consumer" : settings_.service, "-d2",
        "-s127.0.0.1", "-p" + std::to_string(server_.port())};
    service.command.insert(service.command.end(), settings_.service_options.begin(),
                           settings_.service_options.end());
    service.environment = {service_path(settings_.gnu_find),
                           std::string("NOTIFY_SOCKET=") + kNotifySocket};
    service.standard_output = lab::Output::file_at(in_record("service.out"));
    service.standard_error = lab::Output::file_at(in_record("service.out"));
    return service;
  }

  // Its queue for the service is made beforehand for machines that do not allow the full size.
  lab::ChildSettings store_settings() const {
    lab::write_file(in_record("document.json"), kDocument);
    lab::ChildSettings store;
    store.command = {settings_.programs + "/pushpull_store",
                     "--json",
                     "--component-queue",
                     "/log_consumer:10:8192",
                     "--document",
                     in_record("document.json")};
    store.standard_output = lab::Output::file_at(in_record("store.jsonl"));
    return store;
  }

  void await_store(lab::Child& store) {
    while (lab::read_file(in_record("store.jsonl")).find("\"ready\"") == std::string::npos) {
      if (!store.running()) throw std::runtime_error("the store did not start");
      turn();
    }
    display_.event("store serves /pushpull, upload server listens on port " +
                   std::to_string(server_.port()));
  }

  void hold_open() {
    for (const lab::SeededFile& file : files_) {
      if (fs::path(file.path).filename() != "held_open.gz") continue;
      held_ = lab::UniqueFd(open(file.path.c_str(), O_RDONLY | O_CLOEXEC));
      display_.event("holding " + file.path + " open: it has to wait");
    }
  }

  // Half the way, or when nothing else is left.
  void release_when_due() {
    if (held_.get() == -1) return;
    const std::size_t others = board_.to_be_sent() - 1;
    if (board_.sent() * 2 < others) return;
    held_ = lab::UniqueFd();
    display_.event("released the file that was held open");
  }

  bool complete() const { return board_.sent() == board_.to_be_sent(); }

  // When all is sent, the pass has little left to do.
  void let_the_pass_end() {
    const auto end = Clock::now() + std::chrono::seconds(20);
    while (complete() && !stop_asked_ && Clock::now() < end && !manager_.ended())
      turn();
  }

  // A quarter of a second in which everything that comes is recorded and shown.
  void turn() {
    std::array<pollfd, 3> descriptors = {{{stop_.get(), POLLIN, 0},
                                          {syslog_.sink.descriptor(), POLLIN, 0},
                                          {notify_.sink.descriptor(), POLLIN, 0}}};
    constexpr int kMilliseconds = 250;
    poll(descriptors.data(), descriptors.size(), kMilliseconds);
    if (descriptors[0].revents != 0) stop_asked_ = true;
    syslog_.drain(
        [](const std::string& line) { return std::vector<Json>{lab::parse_syslog(line)}; });
    notify_.drain(lab::parse_notification);
    show_arrivals();
    board_.look();
    release_when_due();
    display_.refresh(board_);
  }

  void show_arrivals() {
    std::vector<std::string> arrivals;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      arrivals.swap(arrivals_);
    }
    for (const std::string& arrival : arrivals)
      display_.event(arrival);
  }

  const lab::SessionSettings& settings_;
  const lab::UniqueFd stop_ = lab::block_stop_signals();
  const std::vector<lab::SeededFile> files_;
  lab::Scoreboard board_;
  lab::Display display_;
  RecordFile uploads_{in_record("uploads.jsonl")};
  RecordedSink syslog_{lab::DatagramSink("/dev/log"), RecordFile(in_record("syslog.jsonl"))};
  RecordedSink notify_{lab::DatagramSink(kNotifySocket), RecordFile(in_record("notify.jsonl"))};
  std::mutex mutex_;
  std::vector<std::string> arrivals_;  // not shown yet
  lab::UploadServer server_;           // its threads use what stands above
  lab::ServiceManager manager_;
  lab::UniqueFd held_;
  bool stop_asked_ = false;
};

}  // namespace

bool lab::run_session(const SessionSettings& settings) {
  return Session(settings).run();
}
