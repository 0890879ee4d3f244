#include "pushpull_data/qv_pushpull_api.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace {

constexpr char kStoreQueue[] = "/pushpull";
constexpr unsigned kRequestPriority = 1;
constexpr int kRetries = 5;
constexpr useconds_t kPauseMicroseconds = 1000000;
constexpr int kSendSeconds = 1;
// Stands in the last failure's line where an error number is expected; log readers search for it.
constexpr int kSendFailedCode = 50003;

unsigned as_hex(mqd_t queue) {
  return static_cast<unsigned>(queue);
}

mqd_t open_store(const std::string& suffix) try {
  return mq_open((kStoreQueue + suffix).c_str(), O_RDWR);
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  return -1;
}

// Opens the queue of a client that has none. The last init()'s result.
int reopen(QvPushpullApi& api) {
  int result = -1;
  for (int attempt = 1; attempt <= kRetries && result != 0; ++attempt) {
    syslog(LOG_ERR, "QvPushpullApi : MsgQueue: Invalid Descriptor: %x, Retry Attempt %d",
           as_hex(api.queue_descriptor), attempt);
    usleep(kPauseMicroseconds);
    result = api.init(api.subq_name);
  }
  if (result != 0) {
    syslog(LOG_CRIT,
           "QvPushpullApi : Fatal Error: Can not open msg que to push pull after %d retries.  "
           "Aborting!",
           kRetries);
  }
  return result;
}

bool send_within_time(mqd_t queue, const std::string& msg) {
  // mq_timedsend() knows this clock only.
  const struct timespec deadline = qv_deadline_after(CLOCK_REALTIME, kSendSeconds);
  return mq_timedsend(queue, msg.c_str(), msg.size() + 1, kRequestPriority, &deadline) == 0;
}

void report_failed_send(mqd_t queue, int attempt) {
  const int error = errno;
  struct mq_attr attributes = {};
  mq_getattr(queue, &attributes);
  syslog(LOG_ERR,
         "QvPushPullApi: mq_timedsend failed with errnum %d, Msgs in que = %ld, Retry Attempt %d",
         error, attributes.mq_curmsgs, attempt);
}

template <typename Queue>
Queue* create_queue(const char* name, int queue_size, int message_size) try {
  auto queue = std::make_unique<Queue>(name, queue_size, message_size);
  return queue->initialized() ? queue.release() : nullptr;
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  return nullptr;
}

}  // namespace

int QvPushpullApi::init(const std::string& suffix) {
  queue_descriptor = open_store(suffix);
  const int error = errno;
  syslog(LOG_DEBUG, "QvPushpullApi MessageQueue: mq_open: MQ: %x", as_hex(queue_descriptor));
  if (queue_descriptor != -1) return 0;
  syslog(LOG_ERR, "QvPushpullApi MessageQueue:mq_open: \"%s\" -failed:, ERR_CODE : %d", kStoreQueue,
         error);
  return -1;
}

int QvPushpullApi::terminate() {
  if (queue_descriptor == 0) return 0;
  const int result = mq_close(queue_descriptor);
  queue_descriptor = -1;
  if (result == 0) return 0;
  syslog(LOG_ERR, "QvPushpullApi : terminate: mq_close: failed:");
  return -1;
}

int QvPushpullApi::post_msg_to_pushpull_data(const std::string& msg) {
  if (queue_descriptor == -1) {
    const int result = reopen(*this);
    if (result != 0) return result;
  }
  for (int attempt = 0; attempt < kRetries; ++attempt) {
    if (send_within_time(queue_descriptor, msg)) return 0;
    report_failed_send(queue_descriptor, attempt);
    usleep(kPauseMicroseconds);
  }
  syslog(LOG_CRIT,
         "QvPushpullApi: mq_send FAILED all tries: Descriptor: %x, ERR_CODE: %d, Message Length = "
         "%d",
         as_hex(queue_descriptor), kSendFailedCode, static_cast<int>(msg.size() + 1));
  return -1;
}

mqd_t QvPushpullApi::message_queue_create_and_error_handling(const char* name, int oflag,
                                                             mode_t mode, struct mq_attr* attr) {
  qv_set_mqueue_limits();
  const mode_t mask = set_umask_to_all();
  const mqd_t queue = mq_open(name, oflag, mode, attr);
  const int error = errno;
  syslog(LOG_ERR, " message_queue_create_and_error_handling: open ::%d", queue);
  errno = error;
  qv_handle_error_and_flush(queue);
  set_umask_value(mask);
  return queue;
}

QvPushpullTransmitQueue* QvPushpullApi::create_transmit_queue(const char* name, int queue_size,
                                                              int message_size) {
  return create_queue<QvPushpullTransmitQueue>(name, queue_size, message_size);
}

QvPushpullReceiveQueue* QvPushpullApi::create_receive_queue(const char* name, int queue_size,
                                                            int message_size) {
  return create_queue<QvPushpullReceiveQueue>(name, queue_size, message_size);
}
