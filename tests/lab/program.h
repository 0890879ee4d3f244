// Programs of the lab, started by a test.
#ifndef TESTS_LAB_PROGRAM_H
#define TESTS_LAB_PROGRAM_H

#include <csignal>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "lab/support/child.h"

namespace test_support {

/// The path of a program of this build.
inline std::string program_path(const std::string& name) {
  return std::string(LAB_PROGRAMS) + "/" + name;
}

/// A program with a pipe from its standard output and error.
class Program {
 public:
  explicit Program(const std::string& name, const std::vector<std::string>& arguments = {},
                   const std::vector<std::string>& environment = {})
      : child_(settings(name, arguments, environment)) {}

  /// The next line, waiting for it; "" at the end.
  std::string line() { return child_.read_line().value_or(""); }
  nlohmann::ordered_json json() { return nlohmann::ordered_json::parse(line()); }

  /// All lines that are left, joined; waits for the end of the output.
  std::string rest() {
    std::string all;
    while (auto next = child_.read_line())
      all += *next + "\n";
    return all;
  }

  /// Asks it to end. @return its exit status
  int stop() {
    child_.signal(SIGTERM);
    return child_.wait();
  }
  int wait() { return child_.wait(); }
  lab::Child& child() { return child_; }

 private:
  static lab::ChildSettings settings(const std::string& name,
                                     const std::vector<std::string>& arguments,
                                     const std::vector<std::string>& environment) {
    lab::ChildSettings result;
    result.command = {program_path(name)};
    result.command.insert(result.command.end(), arguments.begin(), arguments.end());
    result.environment = environment;
    result.standard_output = lab::Output::pipe();
    result.standard_error = lab::Output::pipe();
    return result;
  }

  lab::Child child_;
};

}  // namespace test_support

#endif
