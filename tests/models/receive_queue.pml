/* The hand-shake of the receive queue: one user that asks with a time-out, one receiver thread, the
 * POSIX queue between the store and the receiver. See pushpull_data/qv_pushpull_receive_queue.cpp
 * and qv_pushpull_signal.h; the names are theirs.
 *
 * Every interleaving of: MESSAGES messages that come whenever they like, CALLS calls of
 * timed_receive() each of which may time out at any moment of its wait, and then the destructor.
 * Shown: no deadlock, the receiver ends, and the messages come out whole, once each and in order.
 *
 * What a lock guards is written as one atomic step; the wait of a condition variable is a step that
 * becomes possible when its flag stands, which is what a loop around pthread_cond_wait() makes of
 * it, spurious wake-ups included. The queue has room for one message, so that it is full at times; a
 * store that then waits for room when all is over is no mistake of ours.
 *
 * Mistakes to be found (-DNAME): TAKEN_TWICE takes a value that comes with the time-out and leaves it
 * standing, NO_WAKE_UP leaves out the text that the destructor sends to the queue, BLOCKING_WAKE_UP
 * waits for room to send it, TWO_RECEPTIONS asks again while the receiver still has the buffer.
 */
#define MESSAGES 3
#define CALLS 5
#define FAILED 98  /* -1, here always with EAGAIN */
#define WAKE_UP 99 /* "DESTRUCTOR CALLED" */

chan queue = [1] of { byte };
bool nonblocking = false; /* O_NONBLOCK, of our side alone */

/* _message_received_signal */
byte message_value = 0; /* 0: none pending */
bool message_proceed = false;
/* _start_reception_signal */
bool start_value = false;
bool start_proceed = false;

bool receiver_owns_buffer = false;
bool run_receiver_thread = true;
bool receiver_ended = false;

byte buffer = 0;
byte taken = 0; /* the last message that the user got */

active proctype store() {
  byte next = 1;
  do
  :: next <= MESSAGES ->
end_full:
     queue!next;
     next++
  :: else -> break
  od
}

active proctype receiver() {
  byte pending;
  do
  :: !run_receiver_thread -> break
  :: else ->
     /* conditionalwait(true, start, true) */
     atomic {
       (start_value || start_proceed);
       start_proceed = false;
       if
       :: start_value -> start_value = false
       :: else -> goto again
       fi
     }
     pending = message_value;
     if
     :: pending != 0 -> skip
     :: else ->
        /* mq_receive(): one that has begun to wait is not ended by the flag */
        atomic {
          if
          :: empty(queue) && nonblocking -> pending = FAILED; goto publish
          :: nempty(queue) || !nonblocking -> skip
          fi
        }
        atomic { queue?buffer; pending = buffer }
     fi;
publish:
     atomic {
       receiver_owns_buffer = false;
       message_value = pending;
       message_proceed = true
     }
again: skip
  od;
  receiver_ended = true
}

/* What the user has in hands is the next message, and the buffer still holds it. */
inline take(value) {
  if
  :: value == 0 -> skip
  :: value == WAKE_UP -> assert(false)
  :: else ->
     assert(value == taken + 1);
     assert(buffer == value);
     taken = value
  fi
}

active proctype user() {
  byte calls = 0;
  byte result;
  bool must_wait;
  do
  :: calls < CALLS ->
     calls++;
     result = 0;
     /* take_or_ask() */
     atomic {
#ifndef TWO_RECEPTIONS
       if
       :: receiver_owns_buffer && message_value == 0 -> must_wait = true; goto wait
       :: else -> skip
       fi;
#endif
       message_proceed = false;
       result = message_value;
       message_value = 0;
       must_wait = (result == 0);
       if
       :: must_wait -> receiver_owns_buffer = true
       :: else -> skip
       fi
     }
     if
     :: must_wait -> atomic { start_value = true; start_proceed = true }
     :: else -> skip
     fi;
wait:
     /* timedwait(): a broadcast, or the time-out */
     if
     :: must_wait ->
        if
        :: atomic { message_proceed -> message_proceed = false; result = message_value;
                    message_value = 0 }
        :: atomic { !message_proceed -> result = 0 } /* ETIMEDOUT */
#ifdef TAKEN_TWICE
        :: atomic { message_proceed -> message_proceed = false; result = message_value }
#endif
        fi
     :: else -> skip
     fi;
     take(result)
  :: else -> break
  od;
  /* the destructor */
  run_receiver_thread = false;
  atomic { start_value = false; start_proceed = true }
  /* send_wake_up() */
#ifdef BLOCKING_WAKE_UP
  queue!WAKE_UP;
#else
  nonblocking = true;
#ifndef NO_WAKE_UP
  atomic {
    if
    :: nfull(queue) -> queue!WAKE_UP
    :: full(queue) -> skip /* EAGAIN */
    fi
  }
#endif
#endif
  receiver_ended /* pthread_join() */
}
