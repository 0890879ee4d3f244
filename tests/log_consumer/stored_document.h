// What a document of the store says, read a second time: by another library than the views' own.
#ifndef TESTS_LOG_CONSUMER_STORED_DOCUMENT_H
#define TESTS_LOG_CONSUMER_STORED_DOCUMENT_H

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace test_support {

using StoredJson = nlohmann::json;
using StoredPath = std::initializer_list<const char*>;

/// A text, which a NUL ends. Also a value of no use (is_discarded()) where this library is
/// stricter: it refuses numbers beyond double.
inline StoredJson stored_document(const std::string& text) {
  return StoredJson::parse(text.c_str(), nullptr, false);
}

/// The value at the end of keys, each of an object inside the one before; null when one is missing.
/// Of several values of one key the last counts.
inline const StoredJson* stored_value(const StoredJson& top, StoredPath path) {
  const StoredJson* value = &top;
  for (const char* key : path) {
    const auto member = value->find(key);
    if (member == value->end()) return nullptr;
    value = &*member;
  }
  return value;
}

inline bool has_section(const StoredJson& top, StoredPath path) {
  const StoredJson* const value = stored_value(top, path);
  return value != nullptr && value->is_object();
}

inline std::optional<std::string> stored_text(const StoredJson& top, StoredPath path) {
  const StoredJson* const value = stored_value(top, path);
  if (value == nullptr || !value->is_string()) return std::nullopt;
  return value->get<std::string>();
}

inline std::optional<std::string> stored_text(const StoredJson& top, StoredPath path,
                                              std::initializer_list<const char*> list) {
  const std::optional<std::string> text = stored_text(top, path);
  const bool listed = text && std::find(list.begin(), list.end(), *text) != list.end();
  return listed ? text : std::nullopt;
}

inline std::optional<std::string> stored_aap_state(const StoredJson& top) {
  return stored_text(top, {"rgw", "aapState"},
                     {"unregistered", "registering", "registered", "binding", "bound", "error"});
}

/// A whole number that fits int.
inline std::optional<int> stored_number(const StoredJson& top, StoredPath path) {
  const StoredJson* const value = stored_value(top, path);
  if (value == nullptr || !value->is_number_integer()) return std::nullopt;
  constexpr std::int64_t kLeast = std::numeric_limits<int>::min();
  constexpr std::int64_t kMost = std::numeric_limits<int>::max();
  if (value->is_number_unsigned() && value->get<std::uint64_t>() > kMost) return std::nullopt;
  const auto number = value->get<std::int64_t>();
  if (number < kLeast || number > kMost) return std::nullopt;
  return static_cast<int>(number);
}

inline std::optional<bool> stored_flag(const StoredJson& top, StoredPath path) {
  const StoredJson* const value = stored_value(top, path);
  if (value == nullptr || !value->is_boolean()) return std::nullopt;
  return value->get<bool>();
}

/// The first element of the interfaces that has this id; null when none has.
inline const StoredJson* stored_interface(const StoredJson& top, int id) {
  const StoredJson* const list = stored_value(top, {"interfaces"});
  if (list == nullptr || !list->is_array()) return nullptr;
  const auto found = std::find_if(list->begin(), list->end(), [id](const StoredJson& element) {
    return stored_number(element, {"id"}) == id;
  });
  return found == list->end() ? nullptr : &*found;
}

inline std::optional<std::string> stored_wifi_status(const StoredJson& interface) {
  return stored_text(interface, {"wifiStatus", "status"}, {"disassociated", "associated", "error"});
}

}  // namespace test_support

#endif
