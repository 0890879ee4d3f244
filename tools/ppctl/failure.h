// How a run of ppctl ends when it does not end well.
#ifndef TOOLS_PPCTL_FAILURE_H
#define TOOLS_PPCTL_FAILURE_H

#include <exception>
#include <stdexcept>
#include <string>

namespace ppctl {

/// Exit status of the program; part of its interface.
enum class Status : int {
  kDone = 0,
  kNoSuchNode = 1,    ///< doctor: something is wrong
  kUsage = 2,         ///< wrong command line, bad JSON or another unusable input; nothing was sent
  kNotReachable = 3,  ///< no store, or no way to talk to it
  kTimedOut = 4,      ///< the store is there but has not answered, or has not taken the request
  kOwnTrouble = 5,    ///< output that cannot be written, no memory, answers that may be lost
};

/// Ends the run: one line on stderr, and this exit status.
class Failure : public std::runtime_error {
 public:
  Failure(Status status, const std::string& text) : std::runtime_error(text), status_(status) {}
  Status status() const { return status_; }

 private:
  Status status_;
};

/// Ends the run by a signal: everything is cleaned up, then the process dies of that signal, so
/// that the shell that started it knows. Without a line on stderr.
class Interrupted : public std::exception {
 public:
  explicit Interrupted(int signal) : signal_(signal) {}
  int signal() const { return signal_; }
  const char* what() const noexcept override { return "interrupted"; }

 private:
  int signal_;
};

/// "TEXT: what errno says", for a Failure. @param error  an errno
std::string with_reason(const std::string& text, int error);

}  // namespace ppctl

#endif
