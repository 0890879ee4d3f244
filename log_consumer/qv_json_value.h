// The rules by which views read JSON: what is valid, and that all else counts as absent.
//
// Only the views' sources include this header.
#ifndef LOG_CONSUMER_QV_JSON_VALUE_H
#define LOG_CONSUMER_QV_JSON_VALUE_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "log_consumer/qv_json_base.h"
#include "log_consumer/qv_json_document.h"

/// One JSON value of a document that outlives it. Each read leaves what it fills alone when there
/// is no member of that key or it is not valid.
class QvJsonValue {
 public:
  QvJsonValue(const QvJsonDocument& document, std::uint32_t place)
      : document_(&document), place_(place) {}

  /// Reads a string.
  void read(const char* key, QvJB_base<std::string>& value) const;

  /// Reads a whole number that fits int.
  void read(const char* key, QvJB_base<int>& value) const;

  /// Reads true or false.
  void read(const char* key, QvJB_base<bool>& value) const;

  /// Reads a string that is one of `texts`; its place in the list is the enumerator's number.
  template <typename Enum, std::size_t N>
  void read(const char* key, const std::array<const char*, N>& texts, QvJB_base<Enum>& value) const;

  /// Reads an object with all that it holds.
  template <typename Section>
  void readSection(const char* key, QvJB_base<Section>& section) const;

  /// The objects among the elements of an array; empty for anything else.
  std::vector<QvJsonValue> objects() const;

 private:
  using Kind = QvJsonDocument::Kind;
  using Node = QvJsonDocument::Node;

  /// The member of this key, null when there is none of this kind or this is no object.
  const Node* find(const char* key, Kind kind) const;

  const QvJsonDocument* document_;
  std::uint32_t place_;
};

template <typename Enum, std::size_t N>
void QvJsonValue::read(const char* key, const std::array<const char*, N>& texts,
                       QvJB_base<Enum>& value) const {
  const Node* const member = find(key, Kind::kText);
  if (member == nullptr) return;
  const auto found = std::find(texts.begin(), texts.end(), document_->text(*member));
  if (found != texts.end()) value = static_cast<Enum>(found - texts.begin());
}

template <typename Section>
void QvJsonValue::readSection(const char* key, QvJB_base<Section>& section) const {
  const Node* const member = find(key, Kind::kObject);
  if (member != nullptr) {
    section.make_valid().read(QvJsonValue(*document_, document_->placeOf(*member)));
  }
}

#endif
