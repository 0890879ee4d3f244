#include "pushpull_data/qv_process_api.h"

#include <limits>
#include <new>
#include <nlohmann/json.hpp>
#include <utility>

#include "libjson.h"
#include "pushpull_data/qv_json_ptr.h"

namespace {

// A JSON object in the making. A member that cannot be made spoils the whole; one that cannot be
// taken in keeps it from being written.
class JsonObject {
 public:
  void add(JSONNODE* member) {
    QvJsonNodePtr owned(member);
    _whole = _whole && owned != nullptr;
    if (_whole) json_push_back(_node.get(), owned.release());
  }

  void add(const char* name, JsonObject object) {
    if (object._whole) json_set_name(object._node.get(), name);
    add(object._whole ? object._node.release() : nullptr);
  }

  [[nodiscard]] std::string write() const {
    if (!_whole) return {};
    const QvJsonTextPtr text(json_write_formatted(_node.get()));
    return text == nullptr ? std::string() : std::string(text.get());
  }

 private:
  QvJsonNodePtr _node{json_new(JSON_NODE)};
  bool _whole = _node != nullptr;
};

JsonObject write_arg(const QvProcessApi& request) {
  JsonObject arg;
  arg.add(json_new_i("comp_id", request.getcomp_id()));
  if (request.getdstcomp_id() != QV_CMPID_RESERVED) {
    arg.add(json_new_i("dst_comp_id", request.getdstcomp_id()));
  }
  arg.add(json_new_a("buffer", request.getBuff().c_str()));
  if (request.get_notify_on_change_only()) arg.add(json_new_b("notifyOnChangeOnly", 1));
  if (request.get_pack_and_send()) arg.add(json_new_b("pack_and_send", 1));
  if (!request.getsenderId().empty()) {
    arg.add(json_new_a("sender_id", request.getsenderId().c_str()));
  }
  return arg;
}

JsonObject write_que(const QvProcessApi& request) {
  JsonObject que;
  que.add(json_new_i("flags", request.getque_flags()));
  que.add(json_new_i("maxmsg", request.getque_maxmsg()));
  que.add(json_new_i("msgsize", request.getque_msgsize()));
  que.add(json_new_i("curmsgs", request.getque_curmsgs()));
  return que;
}

using nlohmann::json;

// The member of this name and type, or null.
const json* find(const json& object, const char* name, bool (json::*is_type)() const noexcept) {
  const auto member = object.find(name);
  return member != object.end() && ((*member).*is_type)() ? &*member : nullptr;
}

std::string read_text(const json& object, const char* name) {
  const json* member = find(object, name, &json::is_string);
  return member == nullptr ? std::string() : member->get<std::string>();
}

bool read_flag(const json& object, const char* name) {
  const json* member = find(object, name, &json::is_boolean);
  return member != nullptr && member->get<bool>();
}

// 0 for a number that does not fit.
template <typename Integer>
Integer read_number(const json& object, const char* name) {
  const json* member = find(object, name, &json::is_number_integer);
  if (member == nullptr) return 0;
  const auto value = member->get<std::int64_t>();
  const bool fits = value >= std::numeric_limits<Integer>::min() &&
                    value <= std::numeric_limits<Integer>::max() &&
                    (!member->is_number_unsigned() || value >= 0);
  return fits ? static_cast<Integer>(value) : 0;
}

eQV_CMP_IDs_ read_id(const json& object, const char* name) {
  return static_cast<eQV_CMP_IDs_>(read_number<std::int32_t>(object, name));
}

// A reference: a copy would recurse as deep as the text nests.
const json& read_object(const json& object, const char* name, const json& none) {
  const json* member = find(object, name, &json::is_object);
  return member == nullptr ? none : *member;
}

void read_arg(const json& arg, QvProcessApi& request) {
  request.setcomp_id(read_id(arg, "comp_id"));
  request.setdstcomp_id(read_id(arg, "dst_comp_id"));
  request.setBuff(read_text(arg, "buffer"));
  request.set_notify_on_change_only(read_flag(arg, "notifyOnChangeOnly"));
  request.set_pack_and_send(read_flag(arg, "pack_and_send"));
  request.setsenderId(read_text(arg, "sender_id"));
}

void read_que(const json& que, QvProcessApi& request) {
  request.setque_flags(read_number<long>(que, "flags"));
  request.setque_maxmsg(read_number<long>(que, "maxmsg"));
  request.setque_msgsize(read_number<long>(que, "msgsize"));
  request.setque_curmsgs(read_number<long>(que, "curmsgs"));
}

}  // namespace

QvProcessApi::QvProcessApi()
    : paction(std::make_shared<std::string>()),
      pbuff(std::make_shared<std::string>()),
      pjsonstring(std::make_shared<std::string>()),
      psenderId(std::make_shared<std::string>()) {}

void QvProcessApi::setfunction(const std::string& function) {
  *paction = function;
}
const std::string& QvProcessApi::getfunction() const {
  return *paction;
}
void QvProcessApi::setBuff(const std::string& buffer) {
  *pbuff = buffer;
}
const std::string& QvProcessApi::getBuff() const {
  return *pbuff;
}
void QvProcessApi::setsenderId(const std::string& sender_id) {
  *psenderId = sender_id;
}
const std::string& QvProcessApi::getsenderId() const {
  return *psenderId;
}
void QvProcessApi::setcomp_id(eQV_CMP_IDs_ id) {
  pcomp_id = id;
}
eQV_CMP_IDs_ QvProcessApi::getcomp_id() const {
  return pcomp_id;
}
void QvProcessApi::setdstcomp_id(eQV_CMP_IDs_ id) {
  dst_comp_id = id;
}
eQV_CMP_IDs_ QvProcessApi::getdstcomp_id() const {
  return dst_comp_id;
}
void QvProcessApi::setque_flags(long flags) {
  que_flags = flags;
}
long QvProcessApi::getque_flags() const {
  return que_flags;
}
void QvProcessApi::setque_maxmsg(long messages) {
  que_maxmsg = messages;
}
long QvProcessApi::getque_maxmsg() const {
  return que_maxmsg;
}
void QvProcessApi::setque_msgsize(long bytes) {
  que_msgsize = bytes;
}
long QvProcessApi::getque_msgsize() const {
  return que_msgsize;
}
void QvProcessApi::setque_curmsgs(long messages) {
  que_curmsgs = messages;
}
long QvProcessApi::getque_curmsgs() const {
  return que_curmsgs;
}
void QvProcessApi::set_notify_on_change_only(bool only) {
  notify_on_change_only = only;
}
bool QvProcessApi::get_notify_on_change_only() const {
  return notify_on_change_only;
}
void QvProcessApi::set_pack_and_send(bool pack) {
  pack_and_send = pack;
}
bool QvProcessApi::get_pack_and_send() const {
  return pack_and_send;
}
void QvProcessApi::setJsonString(const std::string& text) {
  *pjsonstring = text;
}
const std::string& QvProcessApi::getJsonString() const {
  return *pjsonstring;
}
std::size_t QvProcessApi::getJsonStringSize() const {
  return pjsonstring->size();
}

bool QvProcessApi::toJSON() try {
  pjsonstring->clear();
  JsonObject message;
  message.add(json_new_a("function", paction->c_str()));
  message.add("arg", write_arg(*this));
  if (que_maxmsg >= 1 && que_msgsize >= 1) message.add("que", write_que(*this));
  *pjsonstring = message.write();
  return !pjsonstring->empty();
} catch (const std::bad_alloc&) {
  return false;
}

bool QvProcessApi::parseJSON() {
  const json message = json::parse(*pjsonstring, nullptr, false);
  if (!message.is_object() || find(message, "function", &json::is_string) == nullptr) return false;
  setfunction(read_text(message, "function"));
  const json none = json::object();
  read_arg(read_object(message, "arg", none), *this);
  read_que(read_object(message, "que", none), *this);
  return true;
}
