#include "log_consumer/qv_json_value.h"

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>

const nlohmann::json* QvJsonValue::find(const char* key) const {
  const auto member = json_->find(key);  // end() also for what is no object
  return member == json_->end() ? nullptr : &*member;
}

const nlohmann::json* QvJsonValue::find_object(const char* key) const {
  const nlohmann::json* const member = find(key);
  return member != nullptr && member->is_object() ? member : nullptr;
}

void QvJsonValue::read(const char* key, QvJB_base<std::string>& value) const {
  const nlohmann::json* const member = find(key);
  if (member != nullptr && member->is_string()) value = member->get_ref<const std::string&>();
}

void QvJsonValue::read(const char* key, QvJB_base<int>& value) const {
  using Limits = std::numeric_limits<int>;
  const nlohmann::json* const member = find(key);
  if (member == nullptr || !member->is_number_integer()) return;
  // Above the range of a signed number; reading it as one would wrap.
  if (member->is_number_unsigned() && member->get<std::uint64_t>() > Limits::max()) return;
  const auto number = member->get<std::int64_t>();
  if (number >= Limits::min() && number <= Limits::max()) value = static_cast<int>(number);
}

void QvJsonValue::read(const char* key, QvJB_base<bool>& value) const {
  const nlohmann::json* const member = find(key);
  if (member != nullptr && member->is_boolean()) value = member->get<bool>();
}

std::vector<QvJsonValue> QvJsonValue::objects() const {
  std::vector<QvJsonValue> found;
  if (!json_->is_array()) return found;
  for (const nlohmann::json& element : *json_) {
    if (element.is_object()) found.emplace_back(element);
  }
  return found;
}
