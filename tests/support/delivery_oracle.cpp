#include "tests/support/delivery_oracle.h"

#include <sys/stat.h>

#include <algorithm>
#include <stdexcept>

#include "lab/upload_server/upload_parser.h"
#include "tests/support/files.h"

namespace test_support {
namespace {

constexpr mode_t kWaiting = S_IFREG | 0644;
constexpr mode_t kSent = S_IFREG | 0400;

// The whole uploads among these bytes, in order.
std::vector<lab::Upload> uploads_in(const std::string& bytes, std::size_t size) {
  std::vector<lab::Upload> uploads;
  std::size_t place = 0;
  while (place < size) {
    lab::UploadParser parser;
    place += parser.feed(bytes.data() + place, size - place);
    if (!parser.finished()) break;
    uploads.push_back(parser.take());
    if (!uploads.back().problem.empty()) break;  // nobody can say where the next one begins
  }
  return uploads;
}

bool carries(const lab::Upload& upload, const std::string& name, const std::string& contents) {
  const bool named = upload.kind == lab::UploadKind::kRaw || upload.file_name == name;
  return upload.complete && upload.problem.empty() && named && upload.file == contents;
}

bool was_accepted(const ConnectionRecord& connection, const std::string& name,
                  const std::string& contents) {
  for (std::size_t i = 0; i < connection.answers.size(); ++i) {
    const ConnectionRecord::Answer& answer = connection.answers[i];
    if (answer.status != 200) continue;
    const std::vector<lab::Upload> uploads = uploads_in(connection.received, answer.received);
    if (i < uploads.size() && carries(uploads[i], name, contents)) return true;
  }
  return false;
}

}  // namespace

void DeliveryOracle::watch(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) throw std::invalid_argument(path);
  files_.push_back({path, path.substr(path.rfind('/') + 1), read_file(path), status.st_ino});
}

std::vector<std::string> DeliveryOracle::complaints(
    const std::vector<ConnectionRecord>& connections, const Journal& journal) const {
  std::vector<std::string> wrong;
  for (const File& file : files_) {
    struct stat status = {};
    if (stat(file.path.c_str(), &status) != 0) {
      wrong.push_back(file.path + " is gone");
      continue;
    }
    if (status.st_ino != file.inode) wrong.push_back(file.path + " is another file");
    if (read_file(file.path) != file.contents) wrong.push_back(file.path + " has other bytes");
    const bool marked = status.st_mode == kSent;
    if (!marked && status.st_mode != kWaiting) wrong.push_back(file.path + " has another mode");
    const bool accepted = std::any_of(
        connections.begin(), connections.end(),
        [&](const ConnectionRecord& c) { return was_accepted(c, file.name, file.contents); });
    if (marked && !accepted) wrong.push_back(file.path + " is marked and was not accepted");
    const auto told =
        std::count(journal.begin(), journal.end(), "syslog 6 Sending " + file.path + " went okay");
    if (told != (marked ? 1 : 0)) wrong.push_back(file.path + ": syslog tells another story");
  }
  return wrong;
}

std::size_t DeliveryOracle::copies(const std::vector<ConnectionRecord>& connections,
                                   const std::string& path) const {
  const File& wanted = file(path);
  std::size_t copies = 0;
  for (const ConnectionRecord& connection : connections) {
    for (const lab::Upload& upload : uploads_in(connection.received, connection.received.size())) {
      if (carries(upload, wanted.name, wanted.contents)) ++copies;
    }
  }
  return copies;
}

const DeliveryOracle::File& DeliveryOracle::file(const std::string& path) const {
  const auto found = std::find_if(files_.begin(), files_.end(),
                                  [&path](const File& file) { return file.path == path; });
  if (found == files_.end()) throw std::invalid_argument(path);
  return *found;
}

}  // namespace test_support
