#include "tests/support/journal.h"

#include <syslog.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <thread>
#include <utility>

namespace test_support {
namespace {

// Leaked on purpose: threads may log while the process ends.
struct State {
  std::mutex mutex;
  Journal lines;
  std::function<void(const std::string&)> hook;
};
State& state() {
  static State* const instance = new State;
  return *instance;
}

#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the formats are the callers'

std::string format_text(const char* format, va_list arguments) {
  const int saved_errno = errno;
  va_list again;
  va_copy(again, arguments);
  const int size = vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(size < 0 ? 0 : static_cast<std::size_t>(size) + 1, '\0');
  if (!text.empty()) {
    static_cast<void>(vsnprintf(text.data(), text.size(), format, arguments));
    text.pop_back();
  }
  errno = saved_errno;
  return text;
}

}  // namespace

void note(std::string line) {
  std::function<void(const std::string&)> hook;
  {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().lines.push_back(line);
    hook = state().hook;
  }
  if (hook) hook(line);
}

void on_note(std::function<void(const std::string&)> hook) {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().hook = std::move(hook);
}

Journal journal() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  return state().lines;
}

Journal journal(const std::string& prefix) {
  Journal result;
  for (std::string& line : journal()) {
    if (line.compare(0, prefix.size(), prefix) == 0) result.push_back(std::move(line));
  }
  return result;
}

std::size_t count(const std::string& line) {
  std::size_t result = 0;
  for (const std::string& entry : journal()) {
    if (entry == line) ++result;
  }
  return result;
}

void clear_journal() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().lines.clear();
}

bool wait_a_little() {
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  return true;
}

}  // namespace test_support

// The replacements. A definition in the program goes before the C library's.

extern "C" {

void openlog(const char* ident, int option, int facility) {
  test_support::note("openlog " + std::string(ident) + " " + std::to_string(option) + " " +
                     std::to_string(facility));
}

void vsyslog(int priority, const char* format, va_list arguments) {
  test_support::note("syslog " + std::to_string(priority) + " " +
                     test_support::format_text(format, arguments));
}

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}

}  // extern "C"
