// Free functions of the pushpull library.
#ifndef PUSHPULL_DATA_QV_PUSHPULL_UTILITIES_H
#define PUSHPULL_DATA_QV_PUSHPULL_UTILITIES_H

#include <mqueue.h>
#include <sys/stat.h>

// Message queues. A descriptor is -1 when there is none. The umask belongs to the whole process
// and is changed without a lock, so queues are opened while nobody else creates files: at start-up.

/// Asks for room for 851968000 bytes of queued messages (RLIMIT_MSGQUEUE, soft and hard), so that a
/// queue of 64 x 262144 fits. A refusal is ignored: small queues fit anyway, and a large one then
/// fails in mq_open() and is reported there.
void qv_set_mqueue_limits();

/// Sets the umask to 0. @return the mask that stood before.
mode_t set_umask_to_all();

void set_umask_value(mode_t mask);

/// Opens a queue for reading and writing; creates it only when there is none of this name. What
/// exists is taken as it is, its attributes included. The umask does not narrow `mode`.
/// @param oflag  ignored
/// @return the descriptor, or -1 with errno set.
mqd_t qv_mq_open(const char* name, int oflag, mode_t mode, struct mq_attr* attr);

/// Creates, or takes over, a queue of this component's own: mode 0660, larger limits asked for.
/// Sizes below 1 are refused. A failure is logged.
/// @param queue_size    messages   @param message_size  bytes
/// @return the descriptor, or -1 with errno set.
mqd_t qv_open_own_mqueue(const char* name, int queue_size, int message_size);

/// Empties a queue just opened of what an earlier run left in it: at most as many messages as it
/// held when this began. Never waits, also when another reader is faster: the descriptor does not
/// block meanwhile. A descriptor of -1 is
/// reported with errno.
void qv_handle_error_and_flush(mqd_t q);

/// @param packed_buff_length, new_buff_length  bytes, not negative
/// @return whether a message of both parts and a terminating NUL fits the queue's message size;
/// false also when the queue cannot be asked.
bool qv_check_mqueue_limit(mqd_t q, long packed_buff_length, long new_buff_length);

/// Runs a shell command. @param cmd  not null   @return the result of system().
int systemx(const char* cmd);

#endif
