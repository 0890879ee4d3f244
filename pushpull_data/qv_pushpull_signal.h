// A mutex, and a value that one thread hands to another.
#ifndef PUSHPULL_DATA_QV_PUSHPULL_SIGNAL_H
#define PUSHPULL_DATA_QV_PUSHPULL_SIGNAL_H

#include <pthread.h>

#include <cerrno>
#include <ctime>
#include <mutex>

/// Owner of one POSIX mutex with default attributes. Fits std::lock_guard.
class QvPushpullMutex {
 public:
  pthread_mutex_t _mutex;

  QvPushpullMutex();
  ~QvPushpullMutex();
  QvPushpullMutex(const QvPushpullMutex&) = delete;
  QvPushpullMutex& operator=(const QvPushpullMutex&) = delete;

  /// @throws std::system_error when the mutex cannot be locked; nobody catches it, so it ends the
  /// process.
  void lock();

  /// Waits for the mutex until a moment of CLOCK_REALTIME.
  /// @return false when another thread still held it then.
  /// @throws std::system_error as lock() does.
  bool lock_until(const struct timespec& deadline);

  void unlock();

  /// For the pthread functions; the mutex stays this object's.
  pthread_mutex_t* get_reference();
};

// Deadlines reach the C library, and the members of who includes this header, as 64 bits: time goes
// on after 2038 on 32-bit machines too.
static_assert(sizeof(timespec::tv_sec) == 8, "compile with _TIME_BITS=64");

/// `seconds` from now on `clock`; a sum beyond the range of time_t stays at its end.
struct timespec qv_deadline_after(clockid_t clock, int seconds);

/// A value guarded by a condition variable. broadcast() stores a value and ends the next wait,
/// whether that wait has begun yet or not; each wait uses the flag up.
///
/// Any thread may call any operation; one thread waits. Time-outs run on CLOCK_MONOTONIC, so that
/// setting the device's clock neither ends nor prolongs them. Lock order: `_condition_mutex`, then
/// `_proceed_mutex`.
template <typename T>
class QvPushpullSignal {
 public:
  pthread_condattr_t _attributes;
  QvPushpullMutex _condition_mutex;  ///< guards `_value` and the wait
  QvPushpullMutex _proceed_mutex;    ///< guards `_proceed`
  pthread_cond_t _condition;
  T _value{};
  bool _proceed = false;  ///< a broadcast came that no wait has used up

  QvPushpullSignal();
  ~QvPushpullSignal();
  QvPushpullSignal(const QvPushpullSignal&) = delete;
  QvPushpullSignal& operator=(const QvPushpullSignal&) = delete;

  /// Waits for a broadcast and takes the value.
  /// @param reset  true: leaves T() behind
  /// @return 0, or the error number that ended the wait.
  int wait(T& value, bool reset);

  /// As wait(), but does not wait while the value already is `expected`, however it came there.
  int conditionalwait(T expected, T& value, bool reset);

  /// As wait(), for at most so many seconds. A broadcast that comes in the same instant as the
  /// time-out counts as come.
  /// @return 0, or ETIMEDOUT; `value` is then what stands there and is never reset.
  int timedwait(int seconds, T& value, bool reset);

  /// Stores the value and ends the waits.
  void broadcast(T value);

  /// As broadcast(), for a caller that holds `_condition_mutex`.
  void broadcast_locked(T value);

  T get_value();
  void set_value(T value);  ///< ends no wait

  /// @return whether a broadcast has come that no wait has used up; uses it up.
  bool test_proceed();

 private:
  // Both with `_condition_mutex` held.
  template <typename Sleep>
  int sleep_until_proceed(Sleep sleep);
  void take(T& value, bool reset);
};

template <typename T>
QvPushpullSignal<T>::QvPushpullSignal() {
  pthread_condattr_init(&_attributes);
  pthread_condattr_setclock(&_attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&_condition, &_attributes);
}

template <typename T>
QvPushpullSignal<T>::~QvPushpullSignal() {
  pthread_cond_destroy(&_condition);
  pthread_condattr_destroy(&_attributes);
}

template <typename T>
int QvPushpullSignal<T>::wait(T& value, bool reset) {
  const std::lock_guard<QvPushpullMutex> lock(_condition_mutex);
  const int error = sleep_until_proceed(
      [this] { return pthread_cond_wait(&_condition, _condition_mutex.get_reference()); });
  take(value, reset && error == 0);
  return error;
}

template <typename T>
int QvPushpullSignal<T>::conditionalwait(T expected, T& value, bool reset) {
  const std::lock_guard<QvPushpullMutex> lock(_condition_mutex);
  int error = 0;
  if (_value == expected) {
    test_proceed();
  } else {
    error = sleep_until_proceed(
        [this] { return pthread_cond_wait(&_condition, _condition_mutex.get_reference()); });
  }
  take(value, reset && error == 0);
  return error;
}

template <typename T>
int QvPushpullSignal<T>::timedwait(int seconds, T& value, bool reset) {
  const std::lock_guard<QvPushpullMutex> lock(_condition_mutex);
  const struct timespec deadline = qv_deadline_after(CLOCK_MONOTONIC, seconds);
  const int error = sleep_until_proceed([this, &deadline] {
    return pthread_cond_timedwait(&_condition, _condition_mutex.get_reference(), &deadline);
  });
  take(value, reset && error == 0);
  return error;
}

template <typename T>
void QvPushpullSignal<T>::broadcast(T value) {
  const std::lock_guard<QvPushpullMutex> lock(_condition_mutex);
  broadcast_locked(value);
}

template <typename T>
void QvPushpullSignal<T>::broadcast_locked(T value) {
  _value = value;
  {
    const std::lock_guard<QvPushpullMutex> proceed_lock(_proceed_mutex);
    _proceed = true;
  }
  pthread_cond_broadcast(&_condition);
}

template <typename T>
T QvPushpullSignal<T>::get_value() {
  const std::lock_guard<QvPushpullMutex> lock(_condition_mutex);
  return _value;
}

template <typename T>
void QvPushpullSignal<T>::set_value(T value) {
  const std::lock_guard<QvPushpullMutex> lock(_condition_mutex);
  _value = value;
}

template <typename T>
bool QvPushpullSignal<T>::test_proceed() {
  const std::lock_guard<QvPushpullMutex> lock(_proceed_mutex);
  const bool proceed = _proceed;
  _proceed = false;
  return proceed;
}

template <typename T>
template <typename Sleep>
int QvPushpullSignal<T>::sleep_until_proceed(Sleep sleep) {
  int error = 0;
  // The flag is looked at after a time-out too: what came in that instant must not be left behind
  // with the value already taken, or it would be taken twice.
  while (!test_proceed()) {
    if (error != 0) return error;
    error = sleep();
  }
  return 0;
}

template <typename T>
void QvPushpullSignal<T>::take(T& value, bool reset) {
  value = _value;
  if (reset) _value = T();
}

#endif
