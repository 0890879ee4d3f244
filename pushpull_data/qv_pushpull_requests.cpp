// The requests of a component: their texts, and which failure of theirs is logged how.
#include <syslog.h>

#include <cstdint>
#include <memory>
#include <new>

#include "pushpull_data/qv_pushpull_api.h"

namespace {

// A line in three pieces: putting them together would take memory, of which there may be none.
struct Line {
  Line(const char* whole) : before(whole) {}
  Line(const char* start, const std::string& text, const char* end)
      : before(start), between(text.c_str()), after(end) {}

  const char* before;
  const char* between = "";  ///< the caller's
  const char* after = "";
};

struct FailureTexts {
  Line not_sent;
  Line empty_message;  ///< " = " and the message's length follow
};

int post(QvPushpullApi& api, const std::string& post_msg, const FailureTexts& texts) {
  if (post_msg.empty()) {
    const Line& line = texts.empty_message;
    syslog(LOG_ERR, "%s%s%s = %d", line.before, line.between, line.after,
           static_cast<int>(post_msg.size()));
    return -1;
  }
  const int result = api.post_msg_to_pushpull_data(post_msg);
  if (result != 0) {
    const Line& line = texts.not_sent;
    syslog(LOG_ERR, "%s%s%s", line.before, line.between, line.after);
  }
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
                    {{"QvPushpullApi: ", text, " init_request:mq_send: failed:"},
                     {"QvPushpullApi :", text, " init_request:post_msg.size()"}});
}

int QvPushpullApi::exit_request(eQV_CMP_IDs_ comp_id, const std::string& text) {
  return post_plain(*this, comp_id, "exit", text,
                    {{"QvPushpullApi: ", text, " exit_request:mq_send: failed:"},
                     {"QvPushpullApi :", text, " exit_request:post_msg.size()"}});
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
