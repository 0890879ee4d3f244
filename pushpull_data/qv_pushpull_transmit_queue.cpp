#include "pushpull_data/qv_pushpull_transmit_queue.h"

#include <cerrno>
#include <mutex>

#include "pushpull_data/qv_pushpull_utilities.h"

namespace {

using Lock = std::lock_guard<QvPushpullMutex>;

}  // namespace

QvPushpullTransmitQueue::QvPushpullTransmitQueue(const char* name, int queue_size, int message_size)
    : _mqueue(qv_open_own_mqueue(name, queue_size, message_size)),
      _queue_size(queue_size),
      _message_size(message_size) {
  _initialized = _mqueue != -1;
}

QvPushpullTransmitQueue::~QvPushpullTransmitQueue() {
  const Lock lock(_access_mutex);
  if (_mqueue != -1) mq_close(_mqueue);
}

bool QvPushpullTransmitQueue::initialized() const {
  return _initialized;
}

int QvPushpullTransmitQueue::send(const std::string& message) {
  return send(message, 0);
}

int QvPushpullTransmitQueue::send(const std::string& message, unsigned priority) {
  const Lock lock(_access_mutex);
  return mq_send(_mqueue, message.c_str(), message.size() + 1, priority);
}

int QvPushpullTransmitQueue::timedsend(int seconds, const std::string& message) {
  return timedsend(seconds, message, 0);
}

int QvPushpullTransmitQueue::timedsend(int seconds, const std::string& message, unsigned priority) {
  const struct timespec deadline = qv_deadline_after(CLOCK_REALTIME, seconds);
  if (!_access_mutex.lock_until(deadline)) {
    errno = ETIMEDOUT;
    return -1;
  }
  const Lock lock(_access_mutex, std::adopt_lock);
  return mq_timedsend(_mqueue, message.c_str(), message.size() + 1, priority, &deadline);
}

long QvPushpullTransmitQueue::current_messages() const {
  struct mq_attr attributes = {};
  return mq_getattr(_mqueue, &attributes) == 0 ? attributes.mq_curmsgs : -1;
}

bool QvPushpullTransmitQueue::is_full() const {
  struct mq_attr attributes = {};
  return mq_getattr(_mqueue, &attributes) == 0 && attributes.mq_curmsgs >= attributes.mq_maxmsg;
}
