#include "log_consumer/qv_json_obj_factory.h"

#include <nlohmann/json.hpp>

#include "log_consumer/qv_json_value.h"

namespace {

/// Counts the members at the top of a text, duplicates too, which a parsed document no longer
/// shows. Keeps nothing else, and stops at the second one.
class TopMembers : public nlohmann::json_sax<nlohmann::json> {
 public:
  int count() const { return count_; }

  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return false; }
  bool key(string_t&) override {
    if (depth_ == 1) ++count_;
    return count_ <= 1;
  }
  bool start_object(std::size_t) override { return enter(); }
  bool end_object() override { return leave(); }
  bool start_array(std::size_t) override { return enter(); }
  bool end_array() override { return leave(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception&) override {
    return false;
  }

 private:
  bool enter() {
    ++depth_;
    return true;
  }
  bool leave() {
    --depth_;
    return true;
  }

  int depth_ = 0;
  int count_ = 0;
};

bool has_one_member(const std::string& json) {
  TopMembers members;
  return nlohmann::json::sax_parse(json, &members) && members.count() == 1;
}

template <typename View>
std::shared_ptr<QvJsonObj> filled(const std::string& name, const QvJsonValue& node) {
  auto view = std::make_shared<View>(name);
  view->read(node);
  return view;
}

std::shared_ptr<QvJsonObj> make_view(const std::string& name, const QvJsonValue& node) {
  if (name == "serverAssigned") return filled<QvServerAssigned>(name, node);
  if (name == "rgw") return filled<QvRgw>(name, node);
  if (name == "interfaces") return filled<QvInterfacesWrapper>(name, node);
  if (name == "system") return filled<QvSystem>(name, node);
  return nullptr;
}

}  // namespace

std::shared_ptr<QvJsonObj> QvJsonObjFactory::makeObj(const std::string& json) noexcept {
  try {
    if (!has_one_member(json)) return nullptr;
    const nlohmann::json document = nlohmann::json::parse(json);
    const auto member = document.begin();
    return make_view(member.key(), QvJsonValue(member.value()));
  } catch (...) {  // want of memory; the text has just been found good
    return nullptr;
  }
}
