#include "log_consumer/qv_json_value.h"

const QvJsonDocument::Node* QvJsonValue::find(const char* key, Kind kind) const {
  const Node* const member = document_->find(place_, key);
  return member != nullptr && member->kind == kind ? member : nullptr;
}

void QvJsonValue::read(const char* key, QvJB_base<std::string>& value) const {
  const Node* const member = find(key, Kind::kText);
  if (member != nullptr) value = std::string(document_->text(*member));
}

void QvJsonValue::read(const char* key, QvJB_base<int>& value) const {
  const Node* const member = find(key, Kind::kNumber);
  if (member != nullptr) value = member->number;
}

void QvJsonValue::read(const char* key, QvJB_base<bool>& value) const {
  const Node* const member = find(key, Kind::kFlag);
  if (member != nullptr) value = member->number != 0;
}

std::vector<QvJsonValue> QvJsonValue::objects() const {
  std::vector<QvJsonValue> found;
  const Node& list = document_->at(place_);
  if (list.kind != Kind::kList) return found;
  for (std::uint32_t place = place_ + 1; place < list.end; place = document_->at(place).end) {
    if (document_->at(place).kind == Kind::kObject) found.emplace_back(*document_, place);
  }
  return found;
}
