// In an object of its own, so that a program can bring its own of the functions in
// qv_pushpull_utilities.cpp.
#include <fcntl.h>
#include <syslog.h>

#include <cerrno>

#include "pushpull_data/qv_pushpull_utilities.h"

mqd_t qv_open_own_mqueue(const char* name, int queue_size, int message_size) {
  if (queue_size <= 0 || message_size <= 0) {
    syslog(LOG_ERR,
           "Unsupported queue or mesage size (queue = %s, queue_size = %d, message_size = %d)",
           name, queue_size, message_size);
    errno = EINVAL;
    return -1;
  }
  constexpr mode_t kQueueMode = 0660;
  struct mq_attr attributes = {};
  attributes.mq_maxmsg = queue_size;
  attributes.mq_msgsize = message_size;
  qv_set_mqueue_limits();
  const mqd_t queue = qv_mq_open(name, O_RDWR | O_CREAT, kQueueMode, &attributes);
  if (queue == -1) {
    const int error = errno;
    syslog(LOG_ERR, "Unable to open message queue %s (error %d)", name, error);
    errno = error;
  }
  return queue;
}
