// syslog_sink: records syslog lines with priority and time. See --help.
#include <nlohmann/json.hpp>

#include "lab/sinks/datagram_sink.h"

int main(int argc, char** argv) {
  return lab::run_sink(
      argc, argv, "syslog_sink",
      "Records what is sent to a syslog socket, one JSON object a line, with priority and time.",
      "/dev/log", [](const std::string& line) {
        return std::vector<nlohmann::ordered_json>{lab::parse_syslog(line)};
      });
}
