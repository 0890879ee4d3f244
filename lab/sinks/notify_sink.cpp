// notify_sink: records notifications to the service manager. See --help.
#include <nlohmann/json.hpp>

#include "lab/sinks/datagram_sink.h"

int main(int argc, char** argv) {
  return lab::run_sink(argc, argv, "notify_sink",
                       "Records notifications to the service manager (READY=1, WATCHDOG=1), one\n"
                       "JSON object a line, with time. Set NOTIFY_SOCKET of a service to its path.",
                       "", lab::parse_notification);
}
