// What the crash handler is made of; for its own source and tests.
#ifndef OS_LINUX_BACKTRACE_QV_BACKTRACE_INTERNAL_H
#define OS_LINUX_BACKTRACE_QV_BACKTRACE_INTERNAL_H

#include <csignal>
#include <cstddef>
#include <optional>
#include <string_view>

/// Longest list of signals.
inline constexpr int kMaxSignals = 15;

extern "C" {

/// Lists as qv_bt_install() took them, unused entries -1. Written at start-up only; the handler
/// reads it on any thread.
struct qv_bt_config {
  int stackTraceSignals[kMaxSignals];
  int callBackSignals[kMaxSignals];
  void (*callBackFunction)(int signal);
};
extern struct qv_bt_config btConfig;

/// The handler: trace, callback, exit(1), as the lists say.
void qv_bt_signal_handler(int signal, siginfo_t* info, void* context);

/// @return whether `signal` stands in a list, before the -1 that ends it.
bool qv_bt_signal_in_list(int signal, const int* list);

/// Logs the calling thread's stack: at most 64 frames, of which its own is left out. Never inlined,
/// so that it is its own frame that is left out in every kind of build.
[[gnu::noinline]] void print_stacktrace();

}  // extern "C"

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
