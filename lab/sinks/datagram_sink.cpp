#include "lab/sinks/datagram_sink.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "lab/support/options.h"
#include "lab/support/record.h"
#include "lab/support/signals.h"

namespace lab {
namespace {

using Json = nlohmann::ordered_json;

bool somebody_serves(const sockaddr_un& address) {
  const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// The sender's process id out of the ancillary data.
long pid_in(msghdr& header) {
  const cmsghdr* const control = CMSG_FIRSTHDR(&header);
  if (control == nullptr || control->cmsg_type != SCM_CREDENTIALS) return 0;
  struct ucred credentials = {};
  std::memcpy(&credentials, CMSG_DATA(control), sizeof credentials);
  return credentials.pid;
}

}  // namespace

DatagramSink::DatagramSink(std::string path)
    : path_(std::move(path)),
      socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path_.empty() || path_.size() >= sizeof address.sun_path) {
    throw std::runtime_error("no usable path for a socket: " + path_);
  }
  path_.copy(address.sun_path, path_.size());
  if (somebody_serves(address)) throw std::runtime_error("already served: " + path_);
  struct stat status = {};
  if (lstat(path_.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) unlink(path_.c_str());
  const int on = 1;
  if (!socket_ || setsockopt(socket_.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0 ||
      bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("cannot bind " + path_ + ": " + std::strerror(errno));
  }
  chmod(path_.c_str(), 0666);
}

DatagramSink::~DatagramSink() {
  unlink(path_.c_str());
}

std::optional<Datagram> DatagramSink::receive() const {
  std::string bytes(64UL * 1024, '\0');
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(struct ucred))> control = {};
  iovec vector = {bytes.data(), bytes.size()};
  msghdr header = {};
  header.msg_iov = &vector;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  const ssize_t count = recvmsg(socket_.get(), &header, 0);
  if (count == -1) return std::nullopt;
  bytes.resize(static_cast<std::size_t>(count));
  return Datagram{std::move(bytes), pid_in(header)};
}

Json parse_syslog(const std::string& line) {
  // The date has no year and no zone; the time of arrival says more and is noted by the caller.
  static const std::regex format(
      R"(<(\d{1,3})>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d ([^:\[]*)(?:\[(\d+)\])?: )");
  constexpr std::size_t kLongestHead = 128;  // a text of any length is no work for a regex
  const std::string head = line.substr(0, kLongestHead);
  std::smatch parts;
  if (!std::regex_search(head, parts, format, std::regex_constants::match_continuous)) {
    return {{"raw", line}};
  }
  const long code = std::stol(parts[1]);
  return {{"priority", code % 8},
          {"facility", code / 8},
          {"ident", parts[2].str()},
          {"pid", parts[3].matched ? std::stol(parts[3]) : 0},
          {"text", line.substr(static_cast<std::size_t>(parts.length()))}};
}

std::vector<Json> parse_notification(const std::string& text) {
  std::vector<Json> records;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    records.push_back({{"state", line}});
  return records;
}

int run_sink(int argc, char** argv, const std::string& program, const std::string& about,
             const std::string& default_path,
             const std::function<std::vector<Json>(const std::string&)>& parse) {
  std::string path = default_path;
  std::string out;
  Options(program, about + "\nEnds on SIGTERM.")
      .text("path", "PATH", "the socket" + (path.empty() ? "" : " (" + path + ")"), &path)
      .text("out", "FILE", "append to FILE instead of printing", &out)
      .read_or_exit(argc, argv);
  try {
    const UniqueFd stop = block_stop_signals();
    const DatagramSink sink(path);
    std::ofstream file;
    if (!out.empty()) file.open(out, std::ios::app);
    if (!out.empty() && !file) throw std::runtime_error("cannot write " + out);
    std::ostream& output = out.empty() ? std::cout : file;
    output << json_line({{"event", "ready"}, {"path", path}}) << std::endl;
    for (;;) {
      std::array<pollfd, 2> ready = {{{sink.descriptor(), POLLIN, 0}, {stop.get(), POLLIN, 0}}};
      if (poll(ready.data(), ready.size(), -1) == -1) continue;
      while (const auto datagram = sink.receive()) {
        for (const Json& record : parse(datagram->bytes)) {
          Json line = {{"time", utc_now()}, {"sender", datagram->pid}};
          line.update(record);
          output << json_line(line) << std::endl;
        }
      }
      if (ready[1].revents != 0) return 0;
    }
  } catch (const std::exception& error) {
    std::cerr << program << ": " << error.what() << std::endl;
    return 1;
  }
}

}  // namespace lab
