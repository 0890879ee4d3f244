#include "os/linux/backtrace/qv_backtrace.h"

#include <cxxabi.h>
#include <execinfo.h>
#include <syslog.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>

#include "os/linux/backtrace/qv_backtrace_frame.h"

struct qv_bt_config btConfig;

namespace {

constexpr int kMaxSignals = qv_bt_config::kMaxSignals;
constexpr int kMaxFrames = 64;

struct Free {
  void operator()(void* memory) const { std::free(memory); }
};

// Demangles into one buffer that grows with the longest name.
class Demangler {
 public:
  // The name as written in the source, or null; valid until the next call.
  const char* demangle(const char* name) {
    int status = 0;
    char* result = abi::__cxa_demangle(name, buffer_.get(), &size_, &status);
    if (status != 0) return nullptr;
    // What came back replaces what was handed in: the same, or enlarged.
    static_cast<void>(buffer_.release());
    buffer_.reset(result);
    return result;
  }

 private:
  std::size_t size_ = 256;
  std::unique_ptr<char, Free> buffer_{static_cast<char*>(std::malloc(size_))};
};

unsigned lowAddress(const void* address) {
  return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(address));
}

// Cuts the line in place, which is why it is not const.
void printFrame(char* line, const void* address, Demangler& demangler) {
  const std::optional<StackFrameMarks> marks = findStackFrameMarks(line);
  if (!marks) {
    syslog(LOG_ERR, "[ST]:  %s, Addr: %x\n", line, lowAddress(address));
    return;
  }
  line[marks->open] = line[marks->plus] = line[marks->close] = '\0';
  const char* const name = line + marks->open + 1;
  const char* const offset = line + marks->plus + 1;
  if (const char* demangled = demangler.demangle(name)) {
    syslog(LOG_ERR, "[ST]:  %s : %s+%s, Addr: %x\n", line, demangled, offset, lowAddress(address));
  } else {
    syslog(LOG_ERR, "[ST]:  %s : %s()+%s, Addr: %x\n", line, name, offset, lowAddress(address));
  }
}

void copyList(const int* from, int (&to)[kMaxSignals]) {
  std::fill(std::begin(to), std::end(to), -1);
  for (int i = 0; from != nullptr && i < kMaxSignals && from[i] != -1; ++i)
    to[i] = from[i];
}

bool installHandler(int signal) {
  struct sigaction action = {};
  action.sa_sigaction = qv_bt_signal_handler;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&action.sa_mask);
  if (sigaction(signal, &action, nullptr) == 0) return true;
  syslog(LOG_ERR, "[ST]: error setting signal handler for %d (%s)\n", signal, strsignal(signal));
  return false;
}

bool installHandlers() {
  for (int i = 0; i < kMaxSignals && btConfig.stackTraceSignals[i] != -1; ++i) {
    if (!installHandler(btConfig.stackTraceSignals[i])) return false;
  }
  for (int i = 0; i < kMaxSignals && btConfig.callBackSignals[i] != -1; ++i) {
    const int signal = btConfig.callBackSignals[i];
    if (qv_bt_signal_in_list(signal, btConfig.stackTraceSignals)) continue;
    if (!installHandler(signal)) return false;
  }
  return true;
}

// Inlined, so that frame 0, which is left out, is the function that takes the trace.
[[gnu::always_inline]] inline void traceStack() {
  syslog(LOG_ERR, "[ST]:----- stack trace start %d------\n", static_cast<int>(time(nullptr)));
  void* addresses[kMaxFrames];
  const int count = backtrace(addresses, kMaxFrames);
  if (count == 0) {
    syslog(LOG_ERR, "[ST]:  <empty, possibly corrupt>\n");
    return;
  }
  const std::unique_ptr<char*, Free> lines(backtrace_symbols(addresses, count));
  Demangler demangler;
  for (int i = 1; i < count; ++i)
    printFrame(lines.get()[i], addresses[i], demangler);
  syslog(LOG_ERR, "[ST]:----- stack trace end ------\n");
}

void callBack(int signal) {
  if (btConfig.callBackFunction != nullptr) btConfig.callBackFunction(signal);
}

}  // namespace

std::optional<StackFrameMarks> findStackFrameMarks(std::string_view line) {
  constexpr std::size_t kNone = std::string_view::npos;
  StackFrameMarks marks = {kNone, kNone, kNone};
  for (std::size_t i = 0; i < line.size() && marks.close == kNone; ++i) {
    if (line[i] == '(') marks.open = i;
    if (line[i] == '+') marks.plus = i;
    if (line[i] == ')' && marks.plus != kNone) marks.close = i;
  }
  if (marks.open == kNone || marks.close == kNone || marks.plus < marks.open) return std::nullopt;
  return marks;
}

int qv_bt_install(const char* name, const int* stackTraceSignals, const int* callBackSignals,
                  void (*callBackFunction)(int)) {
  copyList(stackTraceSignals, btConfig.stackTraceSignals);
  copyList(callBackSignals, btConfig.callBackSignals);
  btConfig.callBackFunction = callBackFunction;
  if (!installHandlers()) return -1;
  syslog(LOG_DEBUG, "[ST]:BT installed for %s\n", name);
  return 0;
}

void qv_bt_default_callback(int signal) {
  syslog(LOG_ERR, "[ST]: signal received %d \n", signal);
  std::exit(0);
}

void qv_bt_signal_handler(int signal, siginfo_t* /*info*/, void* /*context*/) {
  const bool doStackTrace = qv_bt_signal_in_list(signal, btConfig.stackTraceSignals);
  const bool doCallBack = qv_bt_signal_in_list(signal, btConfig.callBackSignals);
  if (doStackTrace) traceStack();
  if (!doCallBack) std::exit(1);
  callBack(signal);
}

bool qv_bt_signal_in_list(int signal, const int* list) {
  for (int i = 0; i < kMaxSignals && list[i] != -1; ++i) {
    if (list[i] == signal) return true;
  }
  return false;
}

void print_stacktrace() {
  traceStack();
}
