// The options of `fleet`.
#ifndef BENCH_FLEET_COMMAND_LINE_H
#define BENCH_FLEET_COMMAND_LINE_H

#include <string>

#include "bench/fleet/scenario.h"

namespace fleet {

struct CommandLine {
  Scenario scenario;
  unsigned threads = 1;
  std::string csv;
  std::size_t bin = 1;
  bool trace = false;
};

/// Ends the process for --help, --version, and with one line and status 2 for what is wrong.
CommandLine read_command_line(int argc, char** argv);

}  // namespace fleet

#endif
