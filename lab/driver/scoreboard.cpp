#include "lab/driver/scoreboard.h"

#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <utility>

#include "lab/support/record.h"

namespace {

std::string contents(const std::string& path) {
  try {
    return lab::read_file(path);
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace

namespace lab {

Scoreboard::Scoreboard(const std::vector<SeededFile>& files, std::string sys_id)
    : sys_id_(std::move(sys_id)) {
  for (const SeededFile& file : files) {
    files_.push_back({});
    files_.back().file = file;
  }
  look();
}

std::string Scoreboard::note(const UploadReport& report) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto state = std::find_if(files_.begin(), files_.end(), [&report](const FileState& known) {
    return known.file.bytes == report.upload.file;
  });
  if (state == files_.end()) {
    ++unknown_;
    return {};
  }
  last_answers_.emplace_back(state->file.kind.name,
                             std::to_string(report.status) + ", " + report.outcome);
  if (report.accepted()) {
    ++state->accepted;
    state->problem += wrong_with(*state, report.upload);
  }
  return state->file.path;
}

std::string Scoreboard::wrong_with(const FileState& state, const Upload& upload) const {
  const Kind& kind = state.file.kind;
  if (!upload.problem.empty()) return upload.problem;
  if (kind.relayed) return upload.kind == UploadKind::kRaw ? "" : "did not arrive raw; ";
  if (upload.kind != UploadKind::kMultipart) return "did not arrive as a form; ";
  if (value_of(upload.fields, "LogType") != kind.name) return "wrong LogType; ";
  if (value_of(upload.fields, "SenderId") != sys_id_) return "wrong SenderId; ";
  const std::string name = std::filesystem::path(state.file.path).filename();
  return upload.file_name == name ? "" : "wrong file name; ";
}

void Scoreboard::look() {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (FileState& state : files_) {
    struct stat status = {};
    const bool there = stat(state.file.path.c_str(), &status) == 0;
    state.mode = there ? status.st_mode & 07777 : 0;
    state.intact = there && static_cast<std::size_t>(status.st_size) == state.file.bytes.size();
  }
}

void Scoreboard::look_inside() {
  look();
  const std::lock_guard<std::mutex> lock(mutex_);
  for (FileState& state : files_)
    state.intact = state.intact && contents(state.file.path) == state.file.bytes;
}

std::vector<FileState> Scoreboard::files() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return files_;
}

std::vector<KindState> Scoreboard::kinds() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<KindState> kinds;
  for (const Kind& kind : all_kinds()) {
    KindState row;
    row.name = kind.name;
    for (const FileState& state : files_) {
      if (state.file.kind.name != kind.name || !state.to_be_sent()) continue;
      ++(state.sent() ? row.sent : row.waiting);
    }
    for (const auto& [name, answer] : last_answers_) {
      if (name == kind.name) row.last_answer = answer;
    }
    kinds.push_back(std::move(row));
  }
  return kinds;
}

unsigned Scoreboard::unknown_uploads() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return unknown_;
}

std::size_t Scoreboard::to_be_sent() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      files_.begin(), files_.end(), [](const FileState& state) { return state.to_be_sent(); }));
}

std::size_t Scoreboard::sent() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(files_.begin(), files_.end(),
                    [](const FileState& state) { return state.to_be_sent() && state.sent(); }));
}

}  // namespace lab
