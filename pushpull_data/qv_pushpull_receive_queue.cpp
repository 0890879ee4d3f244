#include "pushpull_data/qv_pushpull_receive_queue.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <new>

#include "pushpull_data/qv_pushpull_utilities.h"

namespace {

using Lock = std::lock_guard<QvPushpullMutex>;

std::size_t message_size_of(mqd_t queue) {
  struct mq_attr attributes = {};
  if (mq_getattr(queue, &attributes) != 0) return 0;
  return static_cast<std::size_t>(attributes.mq_msgsize);
}

// The kernel may lack the memory for a message for a moment.
bool may_pass(int error) {
  return error == ENOMEM || error == EINTR;
}

// Tried until it is there: a receiver that nobody wakes would be waited for without end.
bool send_to_the_end(mqd_t queue, const char* bytes, std::size_t size) {
  constexpr useconds_t kPauseMicroseconds = 10000;
  while (mq_send(queue, bytes, size, 0) != 0) {
    if (!may_pass(errno)) return false;
    usleep(kPauseMicroseconds);
  }
  return true;
}

// Wakes a receiver that is blocked on the queue. Never waits for room: a full queue blocks no
// receiver, and one that comes to a queue without waiting finds out that it is to end.
void send_wake_up(mqd_t queue) {
  constexpr char kText[] = "DESTRUCTOR CALLED";
  struct mq_attr without_waiting = {};
  without_waiting.mq_flags = O_NONBLOCK;
  mq_setattr(queue, &without_waiting, nullptr);
  const bool too_long = !send_to_the_end(queue, kText, sizeof kText) && errno == EMSGSIZE;
  if (too_long) send_to_the_end(queue, "", 0);
}

}  // namespace

QvPushpullReceiveQueue::QvPushpullReceiveQueue(const char* name, int queue_size, int message_size)
    : _mqueue(qv_open_own_mqueue(name, queue_size, message_size)) {
  if (_mqueue == -1) return;
  qv_handle_error_and_flush(_mqueue);
  _queue_size = queue_size;
  _initialized =
      allocate_buffer(static_cast<std::size_t>(message_size)) && start_receiver_thread(name);
}

QvPushpullReceiveQueue::~QvPushpullReceiveQueue() {
  const Lock lock(_access_mutex);
  if (_run_receiver_thread) stop_receiver_thread();
  if (_mqueue != -1) mq_close(_mqueue);
}

bool QvPushpullReceiveQueue::initialized() const {
  return _initialized;
}

int QvPushpullReceiveQueue::receive() {
  const Lock lock(_access_mutex);
  int result = 0;
  if (!take_or_ask(result)) _message_received_signal.wait(result, true);
  return result;
}

int QvPushpullReceiveQueue::timed_receive(int seconds) {
  const Lock lock(_access_mutex);
  int result = 0;
  if (!take_or_ask(result)) _message_received_signal.timedwait(seconds, result, true);
  return result;
}

char* QvPushpullReceiveQueue::get_queue_buffer() {
  return _queue_buffer.data();
}

long QvPushpullReceiveQueue::current_messages() const {
  struct mq_attr attributes = {};
  return mq_getattr(_mqueue, &attributes) == 0 ? attributes.mq_curmsgs : -1;
}

bool QvPushpullReceiveQueue::is_full() const {
  struct mq_attr attributes = {};
  return mq_getattr(_mqueue, &attributes) == 0 && attributes.mq_curmsgs >= attributes.mq_maxmsg;
}

void* QvPushpullReceiveQueue::receiver_thread() {
  while (_run_receiver_thread) {
    bool start = false;
    _start_reception_signal.conditionalwait(true, start, true);
    if (!start) continue;
    const int pending = _message_received_signal.get_value();
    publish(pending != 0 ? pending : receive_into_buffer());
  }
  return nullptr;
}

void* QvPushpullReceiveQueue::receiver_thread_entry(void* object) {
  return static_cast<QvPushpullReceiveQueue*>(object)->receiver_thread();
}

bool QvPushpullReceiveQueue::allocate_buffer(std::size_t message_size) {
  // An older queue may allow longer messages, and mq_receive() refuses any smaller buffer.
  _queue_buffer_size = std::max(message_size, message_size_of(_mqueue));
  try {
    _queue_buffer.resize(_queue_buffer_size + 1);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  }
  return true;
}

bool QvPushpullReceiveQueue::start_receiver_thread(const char* name) {
  _run_receiver_thread = true;
  const int error = pthread_create(&_receiver_thread_handle, nullptr, receiver_thread_entry, this);
  if (error == 0) return true;
  _run_receiver_thread = false;
  syslog(LOG_ERR, "Unable to create receiver thread for message queue %s (error %d)", name, error);
  errno = error;
  return false;
}

void QvPushpullReceiveQueue::stop_receiver_thread() {
  _run_receiver_thread = false;
  _start_reception_signal.broadcast(false);
  send_wake_up(_mqueue);
  pthread_join(_receiver_thread_handle, nullptr);
  // A receiver that was blocked has taken the text. It stays behind whichever way the receiver
  // ended.
  if (current_messages() == 0) send_wake_up(_mqueue);
}

// True with a result at once; else the receiver has been asked, now or by an earlier call.
bool QvPushpullReceiveQueue::take_or_ask(int& result) {
  {
    const Lock lock(_message_received_signal._condition_mutex);
    // A value set by hand is pending like one from the receiver, whoever has the buffer.
    if (_receiver_owns_buffer && _message_received_signal._value == 0) return false;
    // What is decided here leaves no older broadcast behind to end a later wait.
    _message_received_signal.test_proceed();
    result = _message_received_signal._value;
    _message_received_signal._value = 0;
    if (result != 0) return true;
    _receiver_owns_buffer = true;
  }
  _start_reception_signal.broadcast(true);
  return false;
}

int QvPushpullReceiveQueue::receive_into_buffer() {
  const auto bytes = mq_receive(_mqueue, _queue_buffer.data(), _queue_buffer_size, nullptr);
  if (bytes >= 0) _queue_buffer[static_cast<std::size_t>(bytes)] = '\0';
  return static_cast<int>(bytes);
}

void QvPushpullReceiveQueue::publish(int result) {
  const Lock lock(_message_received_signal._condition_mutex);
  _receiver_owns_buffer = false;
  _message_received_signal.broadcast_locked(result);
}
