#include "pushpull_data/qv_pushpull_api.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
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

struct FailureTexts {
  std::string not_sent;
  std::string empty_message;  ///< " = " and the message's length follow
};

int post(QvPushpullApi& api, const std::string& post_msg, const FailureTexts& texts) {
  if (post_msg.empty()) {
    syslog(LOG_ERR, "%s = %d", texts.empty_message.c_str(), static_cast<int>(post_msg.size()));
    return -1;
  }
  const int result = api.post_msg_to_pushpull_data(post_msg);
  if (result != 0) syslog(LOG_ERR, "%s", texts.not_sent.c_str());
  return result;
}

// A request that carries nothing but its buffer.
int post_plain(QvPushpullApi& api, eQV_CMP_IDs_ comp_id, const std::string& function,
               const std::string& buffer, const FailureTexts& texts) {
  return post(api,
              api.build_json_post_msg(comp_id, function, buffer, nullptr, false, "",
                                      QV_CMPID_RESERVED, false),
              texts);
}

}  // namespace

int QvPushpullApi::init(const std::string& suffix) {
  queue_descriptor = mq_open((kStoreQueue + suffix).c_str(), O_RDWR);
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

std::string QvPushpullApi::build_json_post_msg(eQV_CMP_IDs_ comp_id, const std::string& function,
                                               const std::string& buffer, struct mq_attr* attr,
                                               bool notifyOnChangeOnly,
                                               const std::string& sender_id,
                                               eQV_CMP_IDs_ dst_comp_id, bool pack_and_send) try {
  const auto request = std::make_unique<QvProcessApi>();
  request->setfunction(function);
  request->setBuff(buffer);
  request->setcomp_id(comp_id);
  request->setdstcomp_id(dst_comp_id);
  request->set_notify_on_change_only(notifyOnChangeOnly);
  request->set_pack_and_send(pack_and_send);
  request->setsenderId(sender_id);
  const struct mq_attr queue = attr == nullptr ? mq_attr{} : *attr;
  request->setque_flags(queue.mq_flags);
  request->setque_maxmsg(queue.mq_maxmsg);
  request->setque_msgsize(queue.mq_msgsize);
  request->setque_curmsgs(queue.mq_curmsgs);
  request->toJSON();
  return request->getJsonString();
} catch (const std::bad_alloc&) {
  return {};
}

int QvPushpullApi::comp_register(eQV_CMP_IDs_ comp_id, const std::string& name,
                                 struct mq_attr* attr) {
  return post(
      *this,
      build_json_post_msg(comp_id, "register", name, attr, false, "", QV_CMPID_RESERVED, false),
      {"QvPushpullApi: register : mq_send: failed:",
       "QvPushpullApi:comp_register : post_msg.size()"});
}

int QvPushpullApi::comp_unregister(eQV_CMP_IDs_ comp_id) {
  return post_plain(*this, comp_id, "unregister", "",
                    {"QvPushpullApi: unregister : mq_send: failed:",
                     "QvPushpullApi:comp_unregister:post_msg.size()"});
}

int QvPushpullApi::subscribe(eQV_CMP_IDs_ comp_id, const std::string& paths,
                             bool notifyOnChangeOnly) {
  return post(*this,
              build_json_post_msg(comp_id, "subscribe", paths, nullptr, notifyOnChangeOnly, "",
                                  QV_CMPID_RESERVED, false),
              {"QvPushpullApi: subscribe : mq_send: failed:",
               "QvPushpullApi :subscribe : post_msg.size()"});
}

int QvPushpullApi::un_subscribe(eQV_CMP_IDs_ comp_id, const std::string& paths) {
  return post_plain(*this, comp_id, "unsubscribe", paths,
                    {"QvPushpullApi: un_subscribe : mq_send: failed:",
                     "QvPushpullApi :un_subscribe : post_msg.size()"});
}

int QvPushpullApi::publish(eQV_CMP_IDs_ comp_id, const std::string& data) {
  return post_plain(
      *this, comp_id, "publish", data,
      {"QvPushpullApi: publish : mq_send: failed:", "QvPushpullApi :publish : post_msg.size()"});
}

int QvPushpullApi::get(eQV_CMP_IDs_ comp_id, const std::string& path, const std::string& sender_id,
                       bool pack_and_send) {
  return post(*this,
              build_json_post_msg(comp_id, "get", path, nullptr, false, sender_id,
                                  QV_CMPID_RESERVED, pack_and_send),
              {"QvPushpullApi: get : mq_send: failed:", "QvPushpullApi :get : post_msg.size()"});
}

int QvPushpullApi::flush(eQV_CMP_IDs_ comp_id) {
  return post_plain(
      *this, comp_id, "save", "",
      {"QvPushpullApi: flush : mq_send: failed:", "QvPushpullApi :flush : post_msg.size()"});
}

int QvPushpullApi::save_complete_tree(eQV_CMP_IDs_ comp_id) {
  return post_plain(*this, comp_id, "save_debug", "",
                    {"QvPushpullApi: save_complete_tree : mq_send: failed:",
                     "QvPushpullApi :save_complete_tree : post_msg.size()"});
}

int QvPushpullApi::clear(eQV_CMP_IDs_ comp_id, const std::string& path) {
  return post_plain(
      *this, comp_id, "clear", path,
      {"QvPushpullApi: clear : mq_send: failed:", "QvPushpullApi :clear : post_msg.size()"});
}

int QvPushpullApi::delete_node(eQV_CMP_IDs_ comp_id, const std::string& path) {
  if (check_delete_authority(comp_id) != 0) {
    syslog(LOG_ERR,
           "QvPushpullApi: delete_node : Component %d does not have permission to delete this "
           "node.",
           comp_id);
    return -1;
  }
  return post_plain(*this, comp_id, "delete", path,
                    {"QvPushpullApi: delete_node : mq_send: failed:",
                     "QvPushpullApi :delete_node : post_msg.size()"});
}

int QvPushpullApi::init_request(eQV_CMP_IDs_ comp_id, const std::string& text) {
  return post_plain(*this, comp_id, "init", text,
                    {"QvPushpullApi: " + text + " init_request:mq_send: failed:",
                     "QvPushpullApi :" + text + " init_request:post_msg.size()"});
}

int QvPushpullApi::exit_request(eQV_CMP_IDs_ comp_id, const std::string& text) {
  return post_plain(*this, comp_id, "exit", text,
                    {"QvPushpullApi: " + text + " exit_request:mq_send: failed:",
                     "QvPushpullApi :" + text + " exit_request:post_msg.size()"});
}

int QvPushpullApi::comp_sync(eQV_CMP_IDs_ comp_id, eQV_CMP_IDs_ dst_comp_id,
                             const std::string& buffer) {
  // Its failures are reported as those of a registration; log readers know them so.
  return post(*this,
              build_json_post_msg(comp_id, "sync", buffer, nullptr, false, "", dst_comp_id, false),
              {"QvPushpullApi: register : mq_send: failed:",
               "QvPushpullApi:comp_register : post_msg.size()"});
}

int QvPushpullApi::check_delete_authority(eQV_CMP_IDs_ id) {
  const auto first = static_cast<std::uint32_t>(QV_CMPID_DELETE_AUTHORITY_FIRST);
  const auto last = static_cast<std::uint32_t>(QV_CMPID_DELETE_AUTHORITY_LAST);
  return static_cast<std::uint32_t>(id) - first <= last - first ? 0 : -1;
}
