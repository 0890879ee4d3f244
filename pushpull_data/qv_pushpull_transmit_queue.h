// A queue that a component creates to write into.
#ifndef PUSHPULL_DATA_QV_PUSHPULL_TRANSMIT_QUEUE_H
#define PUSHPULL_DATA_QV_PUSHPULL_TRANSMIT_QUEUE_H

#include <mqueue.h>

#include <cstdint>
#include <string>

#include "pushpull_data/qv_pushpull_signal.h"

/// Owner of a queue of texts for another component to read.
///
/// Any thread may send; one sends at a time. A priority goes from 0 to 32767, and the queue gives
/// higher ones out first. Each send returns 0, or -1 with errno set (EMSGSIZE: longer than the
/// queue's messages; ETIMEDOUT).
class QvPushpullTransmitQueue {
 public:
  bool _initialized = false;       ///< the queue is open
  mqd_t _mqueue = -1;              ///< owned; -1 when not open
  QvPushpullMutex _access_mutex;   ///< serialises senders and the destructor
  std::int32_t _queue_size = 0;    ///< messages that were asked for
  std::int32_t _message_size = 0;  ///< bytes that were asked for

  /// Creates the queue, or takes over one of this name as it is, messages included. Every failure
  /// is logged; initialized() tells, and errno says why.
  /// @param queue_size  messages   @param message_size  bytes
  QvPushpullTransmitQueue(const char* name, int queue_size, int message_size);

  /// Closes the queue; its name and its messages stay.
  ~QvPushpullTransmitQueue();
  QvPushpullTransmitQueue(const QvPushpullTransmitQueue&) = delete;
  QvPushpullTransmitQueue& operator=(const QvPushpullTransmitQueue&) = delete;

  [[nodiscard]] bool initialized() const;

  /// Sends a text with a NUL behind it, without a priority (0) or with one; waits for room without
  /// limit.
  int send(const std::string& message);
  int send(const std::string& message, unsigned priority);

  /// As send(), but waits at most so many seconds for the other senders and for room.
  int timedsend(int seconds, const std::string& message);
  int timedsend(int seconds, const std::string& message, unsigned priority);

  /// @return messages that nobody has read yet; -1 when the queue cannot be asked.
  [[nodiscard]] long current_messages() const;

  /// @return whether a sender would have to wait.
  [[nodiscard]] bool is_full() const;
};

#endif
