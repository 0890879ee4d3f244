// How the crash handler reads a line of a stack; for its own source and tests.
#ifndef OS_LINUX_BACKTRACE_QV_BACKTRACE_FRAME_H
#define OS_LINUX_BACKTRACE_QV_BACKTRACE_FRAME_H

#include <cstddef>
#include <optional>
#include <string_view>

/// Where the parts of a frame's text stand: "MODULE(NAME+OFFSET) [ADDRESS]".
struct StackFrameMarks {
  std::size_t open;   ///< the parenthesis before the name
  std::size_t plus;   ///< the sign before the offset
  std::size_t close;  ///< the parenthesis after the offset
};

/// Finds the parts of a line of backtrace_symbols(), scanning it once: the last '(' and the last
/// '+' before the first ')' that follows a '+'.
/// @return nothing when one is missing or they stand in another order.
std::optional<StackFrameMarks> findStackFrameMarks(std::string_view line);

#endif
