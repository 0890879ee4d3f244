// A program that this process starts.
#ifndef LAB_SUPPORT_CHILD_H
#define LAB_SUPPORT_CHILD_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "lab/support/unique_fd.h"

namespace lab {

/// Where a child's standard output or error goes.
struct Output {
  enum class To { kSame, kPipe, kFile } to = To::kSame;
  std::string file;  ///< kFile: appended to

  static Output pipe() { return {To::kPipe, ""}; }
  static Output file_at(std::string path) { return {To::kFile, std::move(path)}; }
};

struct ChildSettings {
  std::vector<std::string> command;      ///< looked up in PATH unless it has a "/"
  std::vector<std::string> environment;  ///< "NAME=value", besides or instead of this process's
  std::string directory;                 ///< working directory; empty: this one
  Output standard_output;
  Output standard_error;  ///< kPipe: joins the standard output's pipe
};

class Child {
 public:
  /// Starts it, with no signal blocked. @throws std::runtime_error naming the program
  explicit Child(const ChildSettings& settings);
  /// Kills it if it still runs.
  ~Child();
  Child(Child&& other) noexcept;
  Child& operator=(Child&& other) = delete;
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  bool running();  ///< asks without waiting
  int wait();      ///< waits for its end. @return see status()
  void signal(int number);
  /// Exit status, or 128 + the signal's number, as a shell gives it; -1 while it runs.
  int status() const { return status_; }

  int output() const { return output_.get(); }  ///< what a pipe gives, blocking; -1 without one
  /// @return the next line of the pipe without its newline, waiting for it; nothing at the end.
  std::optional<std::string> read_line();
  /// Whatever the pipe has at once, in whole lines. Call it when output() is readable.
  /// @return false at the end of the pipe.
  bool read_lines(std::vector<std::string>& lines);

 private:
  bool fill();
  std::optional<std::string> take_line();
  void note_end(int wait_status);

  pid_t pid_ = -1;
  int status_ = -1;
  UniqueFd output_;
  std::string received_;
};

}  // namespace lab

#endif
