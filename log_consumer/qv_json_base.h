// What all node views are made of: a value that knows whether it is there, and their base class.
//
// Views belong to one thread at a time.
#ifndef LOG_CONSUMER_QV_JSON_BASE_H
#define LOG_CONSUMER_QV_JSON_BASE_H

#include <string>
#include <utility>

#include "log_consumer/qv_json_obj_type.h"

/// A value or a section of a view. It is valid when the JSON that it was made from holds it, and
/// changed when it became valid or got another value since set_changed(false).
template <typename T>
class QvJB_base {
 public:
  QvJB_base() = default;

  /// Still invalid; for sections, which are constructed with their name.
  explicit QvJB_base(T initial) : value_(std::move(initial)) {}

  QvJB_base& operator=(const T& value) {
    changed_ = changed_ || !valid_ || !(value_ == value);
    value_ = value;
    valid_ = true;
    return *this;
  }

  bool is_valid() const { return valid_; }
  bool is_changed() const { return changed_; }
  void set_changed(bool changed = true) { changed_ = changed; }

  /// From here on the value counts as absent.
  void invalidate() { valid_ = false; }

  /// The value; what it last was while invalid.
  operator const T&() const { return value_; }

  /// Writes a valid value to `out`, unless that is null. @return whether the value is valid.
  bool get(T* out) const {
    if (valid_ && out != nullptr) *out = value_;
    return valid_;
  }

  /// Points `out`, unless that is null, at a valid section in here. @return whether it is valid.
  bool get_section(T** out) {
    if (valid_ && out != nullptr) *out = &value_;
    return valid_;
  }

  /// Makes a section valid. @return the section, to be filled.
  T& make_valid() {
    changed_ = true;
    valid_ = true;
    return value_;
  }

  /// Copies a valid value over the target's; an invalid one leaves the target alone.
  void copy_valid(QvJB_base& target) const {
    if (valid_) target = value_;
  }

 private:
  T value_ = T();
  bool valid_ = false;
  bool changed_ = false;
};

/// Base of every view: the type and the name of the node that it shows.
class QvJsonObj {
 public:
  QvJsonObj(QvJsonObjType type, std::string name) : type_(type), name_(std::move(name)) {}
  virtual ~QvJsonObj() = default;
  QvJsonObj(const QvJsonObj&) = default;
  QvJsonObj& operator=(const QvJsonObj&) = default;

  QvJsonObjType getObjType() const { return type_; }
  const std::string& getName() const { return name_; }

 private:
  QvJsonObjType type_;
  std::string name_;
};

#endif
