// The queue into which the store writes its replies and change notifications, with the thread that
// reads it.
#ifndef PUSHPULL_DATA_QV_PUSHPULL_RECEIVE_QUEUE_H
#define PUSHPULL_DATA_QV_PUSHPULL_RECEIVE_QUEUE_H

#include <mqueue.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "pushpull_data/qv_pushpull_signal.h"

/// A component's receive queue, one buffer for one message, and the thread that fills it.
///
/// The buffer goes to and fro between two threads, and only its owner touches it:
///  1. The user asks for a message (timed_receive(), receive()): the buffer is the receiver's.
///  2. The receiver blocks in mq_receive(), stores the result as the value of
///     `_message_received_signal` and gives the buffer back in the same hold of that signal's
///     condition mutex: a message is pending.
///  3. The user takes the message: the value is 0 again, the buffer is the user's until it asks
///     again.
/// When the user gives up waiting, the receiver keeps the buffer and goes on receiving. The message
/// stays pending until the next call, and no second reception begins before that: no message is
/// lost, given out twice or written over another.
///
/// Threads: any number of users, one at a time. Lock order: `_access_mutex`, then a signal's
/// condition mutex, then that signal's proceed mutex. The receiver never takes `_access_mutex`.
class QvPushpullReceiveQueue {
 public:
  bool _initialized = false;  ///< the receiver runs
  mqd_t _mqueue = -1;         ///< owned; -1 when not open
  /// Result of the last mq_receive(): bytes, or -1; 0 while no message is pending.
  QvPushpullSignal<int> _message_received_signal;
  QvPushpullSignal<bool> _start_reception_signal;  ///< true asks the receiver for one message
  QvPushpullMutex _access_mutex;                   ///< serialises users and the destructor
  std::int32_t _queue_size = 0;                    ///< messages that were asked for
  /// Bytes of the longest message: what was asked for, or what an older queue of this name allows.
  std::size_t _queue_buffer_size = 0;
  std::vector<char> _queue_buffer;  ///< `_queue_buffer_size` and one more for a NUL
  pthread_t _receiver_thread_handle = {};
  std::atomic<bool> _run_receiver_thread = false;
  /// The receiver has been asked and has not delivered yet. Guarded by the condition mutex of
  /// `_message_received_signal`.
  bool _receiver_owns_buffer = false;

  /// Creates the queue, or takes over and empties one of this name, and starts the receiver.
  /// Every failure is logged; initialized() tells, and errno says why.
  /// @param queue_size  messages   @param message_size  bytes
  QvPushpullReceiveQueue(const char* name, int queue_size, int message_size);

  /// Ends the receiver at once, also one that is blocked in mq_receive(): a text that the queue
  /// sends to itself, "DESTRUCTOR CALLED", wakes it. The text is left in the queue, for the next
  /// run to flush. A queue of shorter messages gets an empty one. The queue's name stays.
  ~QvPushpullReceiveQueue();
  QvPushpullReceiveQueue(const QvPushpullReceiveQueue&) = delete;
  QvPushpullReceiveQueue& operator=(const QvPushpullReceiveQueue&) = delete;

  [[nodiscard]] bool initialized() const;

  /// Takes the next message, in the queue's order, and waits for one without limit.
  /// @return as timed_receive(), never 0 for want of time.
  int receive();

  /// Takes the next message, and waits for one at most so many seconds of CLOCK_MONOTONIC.
  /// @return the bytes of the message that get_queue_buffer() holds, the sender's NUL included; 0
  /// when none came in time, and for a message without any byte; -1 when mq_receive() failed.
  int timed_receive(int seconds);

  /// The message last taken, valid until the next call that takes one. A NUL follows the last byte,
  /// whatever was sent.
  char* get_queue_buffer();

  /// @return messages that stand in the queue, without one in the buffer; -1 when it cannot be
  /// asked.
  [[nodiscard]] long current_messages() const;

  /// @return whether a sender would have to wait.
  [[nodiscard]] bool is_full() const;

  void* receiver_thread();                           ///< body of the receiver
  static void* receiver_thread_entry(void* object);  ///< for pthread_create()

 private:
  bool allocate_buffer(std::size_t message_size);
  bool start_receiver_thread(const char* name);
  void stop_receiver_thread();
  bool take_or_ask(int& result);
  int receive_into_buffer();
  void publish(int result);
};

#endif
