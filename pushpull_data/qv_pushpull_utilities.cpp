#include "pushpull_data/qv_pushpull_utilities.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <syslog.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

namespace {

constexpr rlim_t kMqueueBytes = 851968000;

int remove_messages(mqd_t q, const struct mq_attr& attributes) try {
  std::vector<char> buffer(static_cast<std::size_t>(attributes.mq_msgsize));
  int removed = 0;
  while (removed < attributes.mq_curmsgs &&
         mq_receive(q, buffer.data(), buffer.size(), nullptr) != -1) {
    ++removed;
  }
  return removed;
} catch (const std::bad_alloc&) {
  return 0;
}

}  // namespace

void qv_set_mqueue_limits() {
  const struct rlimit limit = {kMqueueBytes, kMqueueBytes};
  setrlimit(RLIMIT_MSGQUEUE, &limit);
}

mode_t set_umask_to_all() {
  return umask(0);
}

void set_umask_value(mode_t mask) {
  umask(mask);
}

mqd_t qv_mq_open(const char* name, int /*oflag*/, mode_t mode, struct mq_attr* attr) {
  const mode_t mask = set_umask_to_all();
  mqd_t queue = mq_open(name, O_RDWR);
  if (queue == -1 && errno == ENOENT) queue = mq_open(name, O_RDWR | O_CREAT, mode, attr);
  set_umask_value(mask);
  return queue;
}

void qv_handle_error_and_flush(mqd_t q) {
  if (q == -1) {
    syslog(LOG_ERR, "Error in creating the queue. Error: %d", errno);
    return;
  }
  struct mq_attr attributes = {};
  if (mq_getattr(q, &attributes) != 0) {
    syslog(LOG_ERR, "Unable to get queue attributes for descriptor: %d", q);
    return;
  }
  const int removed = remove_messages(q, attributes);
  if (removed > 0) syslog(LOG_DEBUG, "Flushed %d stale messages from queue %d", removed, q);
}

bool qv_check_mqueue_limit(mqd_t q, long packed_buff_length, long new_buff_length) {
  struct mq_attr attr = {};
  if (mq_getattr(q, &attr) != 0) return false;
  syslog(LOG_DEBUG,
         "qv_check_mqueue_limit : packed_buff_length = %ld, new_buff_length = %ld, "
         "attr.mq_msgsize = %ld",
         packed_buff_length, new_buff_length, attr.mq_msgsize);
  // A difference of lengths, since their sum may not fit a long.
  const bool fits = packed_buff_length < attr.mq_msgsize - new_buff_length;
  syslog(LOG_DEBUG,
         fits ? "qv_check_mqueue_limit : return true" : "qv_check_mqueue_limit : return false");
  return fits;
}

int systemx(const char* cmd) try {
  const std::string command(cmd);
  return std::system(command.c_str());
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  return -1;
}
