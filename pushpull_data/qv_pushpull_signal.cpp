#include "pushpull_data/qv_pushpull_signal.h"

#include <limits>
#include <system_error>

namespace {

void throw_on_error(int error) {
  if (error != 0) throw std::system_error(error, std::system_category(), "mutex lock");
}

}  // namespace

QvPushpullMutex::QvPushpullMutex() {
  pthread_mutex_init(&_mutex, nullptr);
}

QvPushpullMutex::~QvPushpullMutex() {
  pthread_mutex_destroy(&_mutex);
}

void QvPushpullMutex::lock() {
  throw_on_error(pthread_mutex_lock(&_mutex));
}

bool QvPushpullMutex::lock_until(const struct timespec& deadline) {
  const int error = pthread_mutex_timedlock(&_mutex, &deadline);
  if (error == ETIMEDOUT) return false;
  throw_on_error(error);
  return true;
}

void QvPushpullMutex::unlock() {
  pthread_mutex_unlock(&_mutex);
}

pthread_mutex_t* QvPushpullMutex::get_reference() {
  return &_mutex;
}

struct timespec qv_deadline_after(clockid_t clock, int seconds) {
  struct timespec deadline = {};
  clock_gettime(clock, &deadline);
  constexpr time_t kEnd = std::numeric_limits<time_t>::max();
  const bool beyond = seconds > 0 && deadline.tv_sec > kEnd - seconds;
  deadline.tv_sec = beyond ? kEnd : deadline.tv_sec + seconds;
  return deadline;
}
