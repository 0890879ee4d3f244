// A local datagram socket that records what others send: /dev/log, NOTIFY_SOCKET.
#ifndef LAB_SINKS_DATAGRAM_SINK_H
#define LAB_SINKS_DATAGRAM_SINK_H

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "lab/support/unique_fd.h"

namespace lab {

struct Datagram {
  std::string bytes;
  long pid = 0;  ///< of the sender
};

class DatagramSink {
 public:
  /// Binds the path, mode 0666. A socket that nobody serves any more is replaced.
  /// @throws std::runtime_error naming the path
  explicit DatagramSink(std::string path);
  ~DatagramSink();  ///< removes the path
  DatagramSink(const DatagramSink&) = delete;
  DatagramSink& operator=(const DatagramSink&) = delete;

  int descriptor() const { return socket_.get(); }  ///< readable for poll()
  /// @return the next datagram without waiting, or nothing when there is none.
  std::optional<Datagram> receive() const;

 private:
  std::string path_;
  UniqueFd socket_;
};

/// A syslog line as syslog(3) sends it, "<29>Nov 21 01:41:15 ident[12]: text", as
/// {"priority":5,"facility":3,"ident":"ident","pid":12,"text":"text"}. What does not look like
/// that: {"raw":"..."}.
nlohmann::ordered_json parse_syslog(const std::string& line);

/// The lines of a notification to the service manager: {"state":"READY=1"} each.
std::vector<nlohmann::ordered_json> parse_notification(const std::string& text);

/// The whole of a sink program: options --path and --out, a line of JSON with the time and the
/// sender's pid for each record that `parse` makes of a datagram. @return the exit status.
int run_sink(int argc, char** argv, const std::string& program, const std::string& about,
             const std::string& default_path,
             const std::function<std::vector<nlohmann::ordered_json>(const std::string&)>& parse);

}  // namespace lab

#endif
