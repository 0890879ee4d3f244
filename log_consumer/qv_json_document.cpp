#include "log_consumer/qv_json_document.h"

#include <limits>
#include <nlohmann/json.hpp>

namespace {

using Kind = QvJsonDocument::Kind;
using Node = QvJsonDocument::Node;

/// Takes down what the parser reads. Each callback's result says whether to go on.
class Builder : public nlohmann::json_sax<nlohmann::json> {
 public:
  Builder(std::vector<Node>& nodes, std::string& texts) : nodes_(nodes), texts_(texts) {}

  bool has_one_member() const { return members_ == 1; }

  bool null() override { return scalar(Kind::kOther); }
  bool boolean(bool value) override { return scalar(Kind::kFlag, value ? 1 : 0); }
  bool number_integer(number_integer_t value) override {
    const bool fits = value >= std::numeric_limits<int>::min();  // it is negative
    return fits ? scalar(Kind::kNumber, static_cast<int>(value)) : scalar(Kind::kOther);
  }
  bool number_unsigned(number_unsigned_t value) override {
    const bool fits = value <= std::numeric_limits<int>::max();
    return fits ? scalar(Kind::kNumber, static_cast<int>(value)) : scalar(Kind::kOther);
  }
  bool number_float(number_float_t, const string_t&) override { return scalar(Kind::kOther); }
  bool string(string_t& value) override {
    if (!scalar(Kind::kText)) return false;
    if (in_list()) return true;
    Node& node = nodes_.back();
    node.text = store(value);
    node.text_size = static_cast<std::uint32_t>(value.size());
    return true;
  }
  bool binary(binary_t&) override { return false; }
  bool key(string_t& value) override {
    key_ = store(value);
    key_size_ = static_cast<std::uint32_t>(value.size());
    return open_.size() > 1 || ++members_ == 1;
  }
  bool start_object(std::size_t) override { return open(Kind::kObject); }
  bool start_array(std::size_t) override { return open(Kind::kList); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception&) override {
    return false;
  }

 private:
  bool in_list() const { return nodes_[open_.back()].kind == Kind::kList; }

  std::uint32_t store(const string_t& text) {
    const auto begin = static_cast<std::uint32_t>(texts_.size());
    texts_ += text;
    return begin;
  }

  Node& append(Kind kind) {
    Node& node = nodes_.emplace_back();
    node.kind = kind;
    node.key = key_;
    node.key_size = key_size_;
    node.end = static_cast<std::uint32_t>(nodes_.size());
    key_size_ = 0;
    return node;
  }

  bool scalar(Kind kind, int number = 0) {
    if (open_.empty()) return false;  // no object at the top
    if (!in_list()) append(kind).number = number;
    return true;
  }

  bool open(Kind kind) {
    if (open_.empty() && kind == Kind::kList) return false;
    open_.push_back(static_cast<std::uint32_t>(nodes_.size()));
    append(kind);
    return true;
  }

  bool close() {
    nodes_[open_.back()].end = static_cast<std::uint32_t>(nodes_.size());
    open_.pop_back();
    return true;
  }

  std::vector<Node>& nodes_;
  std::string& texts_;
  std::vector<std::uint32_t> open_;  // from the top to the object or list being read
  std::uint32_t key_ = 0;            // of the member that comes next
  std::uint32_t key_size_ = 0;
  int members_ = 0;  // at the top
};

}  // namespace

bool QvJsonDocument::parse(const std::string& json) {
  constexpr std::size_t kUsualNodes = 16;
  nodes_.reserve(kUsualNodes);
  texts_.reserve(json.size());
  Builder builder(nodes_, texts_);
  return nlohmann::json::sax_parse(json, &builder) && builder.has_one_member();
}

const QvJsonDocument::Node* QvJsonDocument::find(std::uint32_t object,
                                                 std::string_view wanted) const {
  const Node* found = nullptr;
  if (nodes_[object].kind != Kind::kObject) return found;
  for (std::uint32_t place = object + 1; place < nodes_[object].end; place = nodes_[place].end) {
    if (key(nodes_[place]) == wanted) found = &nodes_[place];
  }
  return found;
}
