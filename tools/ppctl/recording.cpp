#include "tools/ppctl/recording.h"

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tools/ppctl/failure.h"

namespace ppctl {

namespace {

using std::chrono::milliseconds;

constexpr int kVersion = 1;
constexpr double kLongestSeconds = 3.2e9;  // a century; what is beyond is no recording's time

std::string utc_text(std::chrono::system_clock::time_point moment) {
  const auto since_epoch = std::chrono::floor<milliseconds>(moment.time_since_epoch());
  const std::time_t seconds = std::chrono::floor<std::chrono::seconds>(since_epoch).count();
  struct tm parts = {};
  gmtime_r(&seconds, &parts);
  std::ostringstream text;
  text << std::put_time(&parts, "%Y-%m-%dT%H:%M:%S.") << std::setfill('0') << std::setw(3)
       << since_epoch.count() % 1000 << 'Z';
  return text.str();
}

/// Reads a recording line by line.
class Reader {
 public:
  explicit Reader(std::string source) : source_(std::move(source)) {}

  Recording read(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      ++line_;
      if (line_ == 1) {
        check_header(parse(line));
      } else if (!line.empty()) {
        add(parse(line));
      }
    }
    if (line_ == 0) fail(1, "this is no recording, it is empty");
    return std::move(recording_);
  }

 private:
  [[noreturn]] void fail(std::size_t column, const std::string& reason) const {
    throw Failure(Status::kUsage, source_ + ": line " + std::to_string(line_ == 0 ? 1 : line_) +
                                      ", column " + std::to_string(column) + ": " + reason);
  }

  Json parse(const std::string& line) const {
    if (const auto fault = find_fault(line)) fail(fault->column, fault->reason);
    return Json::parse(line);
  }

  void check_header(const Json& header) const {
    const Json* const version = find_node(header, {"recording"});
    if (version == nullptr || *version != kVersion) {
      fail(1, "this is no recording: the first line has no \"recording\": 1");
    }
  }

  void add(const Json& entry) {
    const Json* const seconds = find_node(entry, {"t"});
    const Json* const message = find_node(entry, {"message"});
    if (seconds == nullptr || !seconds->is_number() || message == nullptr) {
      fail(1, "an entry has a number \"t\" and a \"message\"");
    }
    const milliseconds since = time_of(seconds->get<double>());
    if (message->is_object() && !message->empty()) {
      recording_.documents.push_back({since, *message});
    } else {
      ++recording_.left_out;
    }
  }

  milliseconds time_of(double seconds) {
    const std::chrono::duration<double> exact(std::clamp(seconds, -1.0, kLongestSeconds + 1));
    const auto since = std::chrono::round<milliseconds>(exact);
    if (since < last_ || seconds > kLongestSeconds) fail(1, "its \"t\" goes back or too far");
    last_ = since;
    return since;
  }

  const std::string source_;
  std::size_t line_ = 0;
  milliseconds last_{0};
  Recording recording_;
};

}  // namespace

std::string recording_header(std::chrono::system_clock::time_point started,
                             const std::vector<std::string>& paths) {
  const Json header = {{"recording", kVersion}, {"started", utc_text(started)}, {"paths", paths}};
  return write_json(header, Layout::kCompact) + "\n";
}

std::string recording_entry(milliseconds since, const Json& message) {
  const Json entry = {{"t", std::chrono::duration<double>(since).count()}, {"message", message}};
  return write_json(entry, Layout::kCompact) + "\n";
}

Recording parse_recording(const std::string& text, const std::string& source) {
  return Reader(source).read(text);
}

}  // namespace ppctl
