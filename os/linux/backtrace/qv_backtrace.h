// Crash diagnostics: a stack trace in syslog when a fatal signal arrives, and a callback that ends
// the process. Every line begins with "[ST]:" and is written with priority error, e.g.
//
//     [ST]:----- stack trace start 1770109500------
//     [ST]:  /lib/x86_64-linux-gnu/libc.so.6 : ()+0x3c050, Addr: 4e1d2050
//     [ST]:  ./log_consumer : LogConsumer::execute()+0x41, Addr: 8a3e0a51
//     [ST]:----- stack trace end ------
//     [ST]: signal received 11
//
// Frames carry names as far as the program exports them (-rdynamic; stripping keeps these), offset
// and the low 32 bits of the address. Functions of C linkage keep their name as it is, with "()".
//
// What a trace cannot show: the handler runs on the stack of the thread that took the signal, so an
// overflow of that stack leaves no room for it and the kernel ends the process by the signal
// itself, without a line. The same holds when the handler crashes (on a damaged heap, say): it uses
// syslog(), malloc() and backtrace_symbols(), which signal handlers should not, because the process
// ends right after.
#ifndef OS_LINUX_BACKTRACE_QV_BACKTRACE_H
#define OS_LINUX_BACKTRACE_QV_BACKTRACE_H

#include <csignal>

extern "C" {

/// Installs the handler. Called once, at start-up, before threads are started.
///
/// A signal of both lists is installed once. A handler that was installed by an earlier call stays,
/// but the lists are replaced: its signal then ends the process with status 1.
///
/// @param name               program, for the log line only
/// @param stackTraceSignals  signals that get a trace; ends at -1 or after 15; may be null
/// @param callBackSignals    signals that are handed to the callback; likewise
/// @param callBackFunction   called with the signal, after the trace if there is one; may be null:
///                           then a signal without a trace is ignored. When it returns, the
///                           interrupted instruction is tried again.
/// @return 0, or -1 when a signal cannot be handled: an error says which, the signals before it
/// stay installed.
int qv_bt_install(const char* name, const int* stackTraceSignals, const int* callBackSignals,
                  void (*callBackFunction)(int));

/// The callback of this service: logs the signal and ends the process through exit(), with status
/// 0, on the thread that took the signal.
void qv_bt_default_callback(int signal);

// What these two are made of.

/// Lists as qv_bt_install() took them, unused entries -1. Written at start-up only; the handler
/// reads it on any thread.
struct qv_bt_config {
  static constexpr int kMaxSignals = 15;
  int stackTraceSignals[kMaxSignals];
  int callBackSignals[kMaxSignals];
  void (*callBackFunction)(int signal);
};
extern struct qv_bt_config btConfig;

/// The handler: trace, callback, exit(1), as the lists say.
void qv_bt_signal_handler(int signal, siginfo_t* info, void* context);

/// @return whether `signal` stands in a list, before the -1 that ends it.
bool qv_bt_signal_in_list(int signal, const int* list);

/// Logs the calling thread's stack: at most 64 frames, of which its own is left out, as the handler
/// leaves out its own. Never inlined, so that it has one in every kind of build.
[[gnu::noinline]] void print_stacktrace();

}  // extern "C"

#endif
