#include "tests/faults/fault_trial.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "gtest/gtest.h"
#include "tests/lab/requests.h"
#include "tests/support/files.h"

namespace fault_test {

namespace {

namespace fs = std::filesystem;
using test_support::DatagramSink;
using test_support::eventually;
using test_support::file_mode;
using test_support::Service;

constexpr char kReport[] = "/tmp/fault_report";
constexpr int kPatience = 240;  // seconds, on a busy machine

// What leaves the service without a way to hear of Wi-Fi for the rest of its life: it asks for its
// queue once. It then lives on and feeds the watchdog.
constexpr char kNoQueue[] = "PushpullLC thread: Unable to open message queue";

void read_report(Outcome& outcome) {
  std::ifstream report(kReport);
  for (std::string word; report >> word;) {
    if (word == "failed") {
      outcome.failed = true;
    } else {
      report >> outcome.calls;
    }
  }
}

std::ptrdiff_t watchdog_fed(const DatagramSink& notify) {
  const std::vector<std::string> lines = notify.lines();
  return std::count(lines.begin(), lines.end(), "WATCHDOG=1");
}

void show(const DatagramSink& log) {
  for (const std::string& line : log.lines())
    std::cerr << "  " << line << '\n';
}

}  // namespace

const char kWifiUp[] = R"({"interfaces":[{"id":1,"wifiStatus":{"status":"associated"}}]})";

std::string program() {
  return LOG_CONSUMER_PROGRAM;
}

std::vector<std::string> haste() {
  return {"LD_PRELOAD=" FAULT_LIBRARY, "SYSTEM_FAULT_HASTE=50"};
}

Deliveries::Deliveries() {
  fs::create_directories("/tmp/find");
  if (!fs::exists("/tmp/find/find")) fs::create_symlink("/usr/bin/busybox", "/tmp/find/find");
  setenv("PATH", "/tmp/find:/usr/bin:/bin", 1);
}

void Deliveries::add(const std::string& path) {
  fs::create_directories(fs::path(path).parent_path());
  // A gzip stream, by which the server knows a raw upload and its end.
  files_[path] = test_support::gzip(test_support::noise(300 + 7 * made_, made_ + 1));
  ++made_;
  test_support::write_file(path, files_[path]);
}

void Deliveries::renew() {
  const std::map<std::string, std::string> before = files_;
  for (const auto& [path, bytes] : before) {
    chmod(path.c_str(), 0644);
    add(path);
  }
  explained_repeats_ = 0;
}

int Deliveries::marked() const {
  return static_cast<int>(std::count_if(files_.begin(), files_.end(), [](const auto& file) {
    return file_mode(file.first) == 0400;
  }));
}

bool Deliveries::accepted(const std::string& bytes) const {
  const std::vector<lab::UploadReport> reports = server_.reports();
  return std::any_of(reports.begin(), reports.end(), [&](const lab::UploadReport& report) {
    return report.accepted() && report.upload.file == bytes;
  });
}

int Deliveries::repeats() const {
  int repeats = 0;
  const std::vector<lab::UploadReport> reports = server_.reports();
  for (const auto& file : files_) {
    const auto copies = std::count_if(reports.begin(), reports.end(), [&](const auto& report) {
      return report.upload.file == file.second;
    });
    repeats += std::max(0, static_cast<int>(copies) - 1);
  }
  return repeats;
}

void Deliveries::check() const {
  for (const auto& [path, bytes] : files_) {
    EXPECT_EQ(test_support::read_file(path), bytes) << path << " was changed";
    const int mode = file_mode(path);
    EXPECT_TRUE(mode == 0644 || mode == 0400) << path << " has mode " << std::oct << mode;
    EXPECT_TRUE(mode != 0400 || accepted(bytes)) << path << " is marked, but never arrived";
  }
  EXPECT_TRUE(may_repeat || repeats() <= explained_repeats_)
      << repeats() << " uploads repeat another, " << explained_repeats_ << " have a reason";
}

World::World() {
  setenv("NOTIFY_SOCKET", "/tmp/notify", 1);
}

std::vector<std::string> World::environment(const Fault& fault) const {
  // The third look at the clock: enableLog() has taken the hour and dated the log by then.
  constexpr char kFirstPass[] = "3";
  std::vector<std::string> variables = haste();
  variables.push_back(std::string("SYSTEM_FAULT_REPORT=") + kReport);
  if (hour_changes) variables.push_back(std::string("SYSTEM_FAULT_HOUR=") + kFirstPass);
  if (!fault.function.empty()) {
    variables.push_back("SYSTEM_FAULT=" + fault.function + ":" + std::to_string(fault.call) + ":" +
                        std::to_string(fault.error));
  }
  return variables;
}

// Publishes like a store whose values are refreshed now and then: a fault may cost the service one
// message, and what it last said wakes the configuration thread for the end of the pass.
void World::pass_to_its_end(Service& service, const DatagramSink& log, const DatagramSink& notify) {
  constexpr int kLooksBetween = 10;
  bool asked = false;
  int looks = 0;
  eventually(
      [&] {
        if (store_.takesRequest("\"/interfaces\"")) asked = true;
        const bool knows = quiet_store && log.has("wifi now associated");
        const bool listens = !knows && (asked || watchdog_fed(notify) > 0);
        if (listens && looks++ % kLooksBetween == 0 && store_.documents().count() == 0) {
          store_.documents().send_text(kWifiUp);
        }
        return !service.running() || log.has(kNoQueue);
      },
      seconds_in_silence > 0 ? seconds_in_silence : kPatience);
}

void World::expect_life(const Service& service, const DatagramSink& log,
                        const DatagramSink& notify) const {
  if (seconds_in_silence > 0) return;
  const std::ptrdiff_t fed = watchdog_fed(notify);
  EXPECT_TRUE(log.has(kNoQueue)) << "hangs";
  EXPECT_TRUE(eventually([&] { return watchdog_fed(notify) >= fed + 2; }, kPatience))
      << "does not feed the watchdog";
  EXPECT_TRUE(service.running());
}

bool World::send_all() {
  constexpr int kStarts = 20;
  for (int start = 0; start < kStarts && !all_marked(); ++start)
    run({});
  return all_marked();
}

Outcome World::run(const Fault& fault) {
  unlink(kReport);
  while (store_.documents().take()) {
  }
  const int marked_before = marked();
  Outcome outcome;
  const DatagramSink log("/dev/log");
  const DatagramSink notify("/tmp/notify");
  std::vector<std::string> command = {program(), "-d5", "-s127.0.0.1",
                                      "-p" + std::to_string(server().port())};
  command.insert(command.end(), further_arguments.begin(), further_arguments.end());
  Service service(command, environment(fault));
  pass_to_its_end(service, log, notify);
  outcome.ended = !service.running();
  if (!outcome.ended) {
    expect_life(service, log, notify);
    service.signal(SIGKILL);
  }
  const int status = service.wait();
  EXPECT_TRUE(status == 0 || (!outcome.ended && status == -SIGKILL)) << "ended with " << status;
  EXPECT_FALSE(log.has("stack trace"));
  outcome.aborted = log.has("[ST]: signal received 6");
  EXPECT_TRUE(may_abort || !outcome.aborted) << "an exception that nobody caught";
  read_report(outcome);
  if (outcome.failed || !outcome.ended) explain_a_repeat();
  check();
  outcome.sent = marked() - marked_before;
  if (testing::Test::HasFailure()) show(log);
  return outcome;
}

}  // namespace fault_test
