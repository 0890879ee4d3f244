#include "libjson.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t kMaxDepth = 128;

struct Node {
  char type;
  std::string name;
  std::string text;                 // of a string: its characters; of a scalar: its JSON
  double number = 0;                // of a number; every JSON number fits, if not exactly
  std::vector<JSONNODE*> children;  // owned
  bool child_lost = false;          // for want of memory

  explicit Node(char node_type, std::string node_text = {}, double value = 0)
      : type(node_type), text(std::move(node_text)), number(value) {}
  Node(const Node& other) : Node(other.type, other.text, other.number) {
    name = other.name;
    child_lost = other.child_lost;
    children.reserve(other.children.size());
    for (const JSONNODE* child : other.children) {
      children.push_back(new Node(*static_cast<const Node*>(child)));
    }
  }
  Node& operator=(const Node&) = delete;
  ~Node() {
    for (JSONNODE* child : children)
      delete static_cast<Node*>(child);
  }

  bool is_container() const { return type == JSON_ARRAY || type == JSON_NODE; }

  void append(std::unique_ptr<Node> child) {
    if (type == JSON_ARRAY) child->name.clear();
    children.push_back(nullptr);  // may throw, so before the child is let go
    children.back() = child.release();
  }
};

Node* as_node(JSONNODE* handle) {
  return static_cast<Node*>(handle);
}
const Node* as_node(const JSONNODE* handle) {
  return static_cast<const Node*>(handle);
}

std::string text_of(const char* text) {
  return text == nullptr ? "" : text;
}

/// Runs `work` and turns whatever it throws, which is want of memory, into `fallback`.
template <typename Result, typename Work>
Result guarded(Result fallback, Work work) noexcept {
  try {
    return work();
  } catch (...) {
    return fallback;
  }
}

std::unique_ptr<Node> named_node(const char* name, char type, std::string text, double number = 0) {
  auto node = std::make_unique<Node>(type, std::move(text), number);
  node->name = text_of(name);
  return node;
}

std::unique_ptr<Node> default_node(char type) {
  switch (type) {
    case JSON_NULL:
      return std::make_unique<Node>(type, "null");
    case JSON_NUMBER:
      return std::make_unique<Node>(type, "0");
    case JSON_BOOL:
      return std::make_unique<Node>(type, "false");
    case JSON_STRING:
    case JSON_ARRAY:
    case JSON_NODE:
      return std::make_unique<Node>(type);
    default:
      return nullptr;
  }
}

/// Builds a tree from what the parser reads. Each callback's result says whether to go on.
class TreeBuilder : public nlohmann::json_sax<nlohmann::json> {
 public:
  std::unique_ptr<Node> take_root() { return std::move(root_); }

  bool null() override { return add_scalar(JSON_NULL, "null"); }
  bool boolean(bool value) override { return add_scalar(JSON_BOOL, value ? "true" : "false"); }
  bool number_integer(number_integer_t value) override {
    return add_scalar(JSON_NUMBER, std::to_string(value), static_cast<double>(value));
  }
  bool number_unsigned(number_unsigned_t value) override {
    return add_scalar(JSON_NUMBER, std::to_string(value), static_cast<double>(value));
  }
  bool number_float(number_float_t value, const string_t& literal) override {
    return add_scalar(JSON_NUMBER, literal, value);
  }
  bool string(string_t& value) override { return add_scalar(JSON_STRING, std::move(value)); }
  bool binary(binary_t&) override { return false; }
  bool key(string_t& value) override {
    name_ = std::move(value);
    return true;
  }
  bool start_object(std::size_t) override { return open(JSON_NODE); }
  bool start_array(std::size_t) override { return open(JSON_ARRAY); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception&) override {
    return false;
  }

 private:
  bool add_scalar(char type, std::string text, double number = 0) {
    if (open_.empty()) return false;  // a scalar is no document
    add(std::make_unique<Node>(type, std::move(text), number));
    return true;
  }

  Node* add(std::unique_ptr<Node> node) {
    node->name = std::exchange(name_, {});
    open_.back()->append(std::move(node));
    return as_node(open_.back()->children.back());
  }

  bool open(char type) {
    if (open_.size() == kMaxDepth) return false;
    auto node = std::make_unique<Node>(type);
    if (open_.empty()) {
      root_ = std::move(node);
      open_.push_back(root_.get());
    } else {
      open_.push_back(add(std::move(node)));
    }
    return true;
  }

  bool close() {
    open_.pop_back();
    return true;
  }

  std::unique_ptr<Node> root_;
  std::vector<Node*> open_;  // from the root to the container being read
  std::string name_;         // of the member that comes next
};

std::unique_ptr<Node> parse(const char* text) {
  TreeBuilder builder;
  if (!nlohmann::json::sax_parse(text, text + std::strlen(text), &builder)) return nullptr;
  return builder.take_root();
}

/// Whether a text stands in JSON as it is: nothing but printable ASCII, and nothing to be escaped.
bool is_plain(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; });
}

/// Appends a string as JSON. Bytes that are no UTF-8, which only a caller can have put in, become
/// U+FFFD: what is written can always be read back.
void write_quoted(const std::string& text, std::string& out) {
  if (is_plain(text)) {
    out.append(1, '"').append(text).append(1, '"');
  } else {
    out += nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  }
}

void write_value(const Node& node, std::size_t depth, std::string& out);

void write_children(const Node& node, std::size_t depth, std::string& out) {
  if (node.child_lost) throw std::bad_alloc();
  const char* separator = "\n";
  for (const JSONNODE* handle : node.children) {
    const Node& child = *as_node(handle);
    out += std::exchange(separator, ",\n");
    out.append(depth, '\t');
    if (node.type == JSON_NODE) {
      write_quoted(child.name, out);
      out += " : ";
    }
    write_value(child, depth, out);
  }
  if (node.children.empty()) return;
  out += '\n';
  out.append(depth - 1, '\t');
}

void write_value(const Node& node, std::size_t depth, std::string& out) {
  if (node.is_container()) {
    out += node.type == JSON_NODE ? '{' : '[';
    write_children(node, depth + 1, out);
    out += node.type == JSON_NODE ? '}' : ']';
  } else if (node.type == JSON_STRING) {
    write_quoted(node.text, out);
  } else {
    out += node.text;
  }
}

/// A copy for the caller, who frees it with json_free(); null when memory ran out.
char* released(const std::string& text) {
  const std::size_t size = text.size() + 1;
  void* const copy = std::malloc(size);
  return copy == nullptr ? nullptr : static_cast<char*>(std::memcpy(copy, text.c_str(), size));
}

/// The whole number at the start of a text, after blanks; the nearest long when it does not fit;
/// 0 when there is none.
json_int_t leading_integer(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
  if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
  json_int_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc::result_out_of_range) return value;
  using Limits = std::numeric_limits<json_int_t>;
  return text.front() == '-' ? Limits::min() : Limits::max();
}

bool is_integer_literal(const std::string& text) {
  return text.find_first_of(".eE") == std::string::npos;
}

json_int_t truncated(double number) {
  using Limits = std::numeric_limits<json_int_t>;
  // Both bounds are powers of two and so exact as double, which Limits::max() may not be.
  const double beyond = std::ldexp(1.0, Limits::digits);
  if (number >= beyond) return Limits::max();
  if (number < -beyond) return Limits::min();
  return static_cast<json_int_t>(number);
}

json_int_t as_integer(const Node& node) {
  switch (node.type) {
    case JSON_NUMBER:
      return is_integer_literal(node.text) ? leading_integer(node.text) : truncated(node.number);
    case JSON_BOOL:
      return node.text == "true" ? 1 : 0;
    case JSON_STRING:
      return leading_integer(node.text);
    default:
      return 0;
  }
}

/// Whole numbers differ when their digits do, however large they are; others are compared as the
/// doubles they stand for.
bool same_number(const Node& a, const Node& b) {
  if (is_integer_literal(a.text) && is_integer_literal(b.text)) return a.text == b.text;
  return !(a.number < b.number) && !(b.number < a.number);
}

bool same(const Node& a, const Node& b) {
  if (a.type != b.type || a.name != b.name || a.children.size() != b.children.size()) return false;
  if (a.type == JSON_NUMBER) return same_number(a, b);
  if (a.text != b.text) return false;
  for (std::size_t i = 0; i < a.children.size(); ++i) {
    if (!same(*as_node(a.children[i]), *as_node(b.children[i]))) return false;
  }
  return true;
}

}  // namespace

JSONNODE* json_new(char type) {
  return guarded<JSONNODE*>(nullptr, [&] { return default_node(type).release(); });
}

JSONNODE* json_new_a(const char* name, const char* value) {
  return guarded<JSONNODE*>(
      nullptr, [&] { return named_node(name, JSON_STRING, text_of(value)).release(); });
}

JSONNODE* json_new_i(const char* name, json_int_t value) {
  return guarded<JSONNODE*>(nullptr, [&] {
    const auto number = static_cast<double>(value);
    return named_node(name, JSON_NUMBER, std::to_string(value), number).release();
  });
}

JSONNODE* json_new_b(const char* name, json_bool_t value) {
  return guarded<JSONNODE*>(nullptr, [&] {
    return named_node(name, JSON_BOOL, value != 0 ? "true" : "false").release();
  });
}

JSONNODE* json_copy(const JSONNODE* node) {
  if (node == nullptr) return nullptr;
  return guarded<JSONNODE*>(nullptr, [&] { return new Node(*as_node(node)); });
}

void json_delete(JSONNODE* node) {
  delete as_node(node);
}

JSONNODE* json_parse(const char* text) {
  if (text == nullptr) return nullptr;
  return guarded<JSONNODE*>(nullptr, [&] { return parse(text).release(); });
}

json_bool_t json_is_valid(const char* text) {
  if (text == nullptr) return 0;
  return guarded<json_bool_t>(0, [&] { return parse(text) != nullptr ? 1 : 0; });
}

char* json_write_formatted(const JSONNODE* node) {
  return guarded<char*>(nullptr, [&] {
    std::string text;
    if (node != nullptr && as_node(node)->is_container()) write_value(*as_node(node), 0, text);
    return released(text);
  });
}

void json_free(void* text) {
  std::free(text);
}

char json_type(const JSONNODE* node) {
  return node == nullptr ? JSON_NULL : as_node(node)->type;
}

json_index_t json_size(const JSONNODE* node) {
  return node == nullptr ? 0 : static_cast<json_index_t>(as_node(node)->children.size());
}

char* json_name(const JSONNODE* node) {
  return guarded<char*>(nullptr,
                        [&] { return released(node == nullptr ? "" : as_node(node)->name); });
}

void json_set_name(JSONNODE* node, const char* name) {
  if (node == nullptr) return;
  guarded(false, [&] {
    as_node(node)->name = text_of(name);
    return true;
  });
}

json_int_t json_as_int(const JSONNODE* node) {
  return node == nullptr ? 0 : as_integer(*as_node(node));
}

json_bool_t json_equal(JSONNODE* node, JSONNODE* other) {
  return node != nullptr && other != nullptr && same(*as_node(node), *as_node(other)) ? 1 : 0;
}

void json_push_back(JSONNODE* parent, JSONNODE* child) {
  if (child == nullptr || parent == child) return;
  std::unique_ptr<Node> owned(as_node(child));
  if (parent == nullptr || !as_node(parent)->is_container()) return;
  as_node(parent)->child_lost |= guarded(true, [&] {
    as_node(parent)->append(std::move(owned));
    return false;
  });
}

JSONNODE_ITERATOR json_begin(JSONNODE* node) {
  return node == nullptr ? nullptr : as_node(node)->children.data();
}

JSONNODE_ITERATOR json_end(JSONNODE* node) {
  return node == nullptr ? nullptr : json_begin(node) + as_node(node)->children.size();
}

JSONNODE_ITERATOR json_find(JSONNODE* node, const char* name) {
  JSONNODE** const end = json_end(node);
  if (name == nullptr) return end;
  return std::find_if(json_begin(node), end,
                      [name](const JSONNODE* child) { return as_node(child)->name == name; });
}

JSONNODE* json_at(JSONNODE* node, json_index_t index) {
  return index < json_size(node) ? as_node(node)->children[index] : nullptr;
}

JSONNODE* json_pop_back_at(JSONNODE* node, json_index_t index) {
  if (index >= json_size(node)) return nullptr;
  auto& children = as_node(node)->children;
  JSONNODE* const child = children[index];
  children.erase(std::next(children.begin(), static_cast<std::ptrdiff_t>(index)));
  return child;
}
