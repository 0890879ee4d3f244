#include "tools/ppctl/documents.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <system_error>

#include "tools/ppctl/failure.h"

namespace ppctl {

namespace {

constexpr int kIndentation = 2;

// "[json.exception.parse_error.101] parse error at line 1, column 5: WHAT" gives WHAT.
std::string bare_reason(std::string text) {
  if (text.rfind('[', 0) == 0) text.erase(0, text.find("] ") + 2);
  if (text.rfind("parse error", 0) == 0) text.erase(0, text.find(": ") + 2);
  return text;
}

// Takes every value and keeps none: what is wanted is the place of a fault.
class FaultFinder : public nlohmann::json_sax<Json> {
 public:
  std::size_t position = 0;  // bytes read up to the fault
  std::string reason;

  bool null() override { return true; }
  bool boolean(bool /*value*/) override { return true; }
  bool number_integer(number_integer_t /*value*/) override { return true; }
  bool number_unsigned(number_unsigned_t /*value*/) override { return true; }
  bool number_float(number_float_t /*value*/, const string_t& /*text*/) override { return true; }
  bool string(string_t& /*value*/) override { return true; }
  bool binary(binary_t& /*value*/) override { return true; }
  bool start_object(std::size_t /*members*/) override { return true; }
  bool key(string_t& /*value*/) override { return true; }
  bool end_object() override { return true; }
  bool start_array(std::size_t /*members*/) override { return true; }
  bool end_array() override { return true; }
  bool parse_error(std::size_t bytes, const std::string& /*token*/,
                   const nlohmann::detail::exception& error) override {
    position = bytes;
    reason = bare_reason(error.what());
    return false;
  }
};

bool begins_character(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
}

JsonFault fault_at(const std::string& text, std::size_t offset, const std::string& reason) {
  const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(offset, text.size()));
  const auto line_begin = std::find(std::make_reverse_iterator(end), text.rend(), '\n').base();
  return {static_cast<std::size_t>(std::count(text.begin(), end, '\n')) + 1,
          static_cast<std::size_t>(std::count_if(line_begin, end, begins_character)) + 1, reason};
}

// The first place outside the strings of a text, which is JSON, of which `is_fault` says so.
template <typename IsFault>
std::optional<std::size_t> find_outside_strings(const std::string& text, IsFault is_fault) {
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (in_string) {
      if (text[i] == '\\') {
        ++i;
      } else {
        in_string = text[i] != '"';
      }
    } else if (text[i] == '"') {
      in_string = true;
    } else if (is_fault(i)) {
      return i;
    }
  }
  return std::nullopt;
}

// The first bracket that is deeper than allowed.
std::optional<std::size_t> find_too_deep(const std::string& text) {
  return find_outside_strings(text, [&text, depth = std::size_t{0}](std::size_t i) mutable {
    const char c = text[i];
    if (c == '}' || c == ']') --depth;
    return (c == '{' || c == '[') && ++depth > kDeepest;
  });
}

constexpr char kNumberCharacters[] = "+-.0123456789eE";

template <typename Integer>
bool holds(const std::string& number) {
  Integer value = 0;
  return std::from_chars(number.data(), number.data() + number.size(), value).ec == std::errc();
}

// The first integer that would be rounded: it would become a double.
std::optional<std::size_t> find_too_large(const std::string& text) {
  return find_outside_strings(text, [&text, behind = std::size_t{0}](std::size_t i) mutable {
    if (i < behind || (text[i] != '-' && (text[i] < '0' || text[i] > '9'))) return false;
    behind = std::min(text.find_first_not_of(kNumberCharacters, i), text.size());
    const std::string number = text.substr(i, behind - i);
    return number.find_first_of(".eE") == std::string::npos && !holds<std::int64_t>(number) &&
           !holds<std::uint64_t>(number);
  });
}

// It begins like what can be nothing else, or is a number that is too large.
bool is_meant_as_json(const std::string& text, const JsonFault& fault) {
  const auto begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return false;
  return std::string("{[\"").find(text[begin]) != std::string::npos ||
         (fault.reason.rfind("number overflow", 0) == 0 &&
          text.find_first_not_of(kNumberCharacters) == std::string::npos);
}

void check_name(const std::string& name, const std::string& path) {
  const auto is_control = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
  if (name.empty()) {
    throw Failure(Status::kUsage, "path \"" + path + "\": a name in it is empty");
  }
  if (name.find(';') != std::string::npos || std::any_of(name.begin(), name.end(), is_control)) {
    throw Failure(Status::kUsage,
                  "path \"" + path + "\": no name holds \";\" or control characters");
  }
}

const Json* child_of(const Json& node, const std::string& name) {
  if (node.is_object()) {
    const auto member = node.find(name);
    return member == node.end() ? nullptr : &*member;
  }
  if (!node.is_array() || !is_index(name)) return nullptr;
  const std::size_t index = std::stoul(name);
  if (index < node.size()) return &node[index];
  return node.size() == 1 ? &node[0] : nullptr;
}

}  // namespace

std::optional<JsonFault> find_fault(const std::string& text) {
  FaultFinder finder;
  if (!Json::sax_parse(text, &finder)) {
    return fault_at(text, std::max<std::size_t>(finder.position, 1) - 1, finder.reason);
  }
  if (const auto offset = find_too_deep(text)) {
    return fault_at(text, *offset, "deeper than " + std::to_string(kDeepest) + " levels");
  }
  return std::nullopt;
}

Json parse_json(const std::string& text, const std::string& source) {
  auto fault = find_fault(text);
  if (!fault) {
    if (const auto offset = find_too_large(text)) {
      fault = fault_at(text, *offset, "an integer that 64 bits do not hold");
    }
  }
  if (fault) {
    throw Failure(Status::kUsage, source + ": line " + std::to_string(fault->line) + ", column " +
                                      std::to_string(fault->column) + ": " + fault->reason);
  }
  return Json::parse(text);
}

Json parse_document(const std::string& text, const std::string& source) {
  Json document = parse_json(text, source);
  if (!document.is_object() || document.empty()) {
    throw Failure(Status::kUsage,
                  source + ": line 1, column 1: a document is an object with a node in it");
  }
  return document;
}

Json parse_value(const std::string& text, bool literally) {
  check_utf8(text, "VALUE");
  const auto fault = find_fault(text);
  if (literally || (fault && !is_meant_as_json(text, *fault))) return text;
  return parse_json(text, "VALUE");
}

void check_utf8(const std::string& text, const std::string& what) {
  try {
    Json(text).dump();
  } catch (const Json::exception&) {
    throw Failure(Status::kUsage, what + " is not UTF-8 text");
  }
}

Path parse_path(const std::string& text) {
  check_utf8(text, "path \"" + text + "\"");
  if (text.rfind('/', 0) != 0) {
    throw Failure(Status::kUsage, "path \"" + text + "\": a path begins with \"/\"");
  }
  Path path;
  if (text == "/") return path;
  for (std::size_t begin = 1, end = 0; end != std::string::npos; begin = end + 1) {
    end = text.find('/', begin);
    path.push_back(text.substr(begin, end - begin));
    check_name(path.back(), text);
  }
  if (path.size() >= kDeepest) {
    throw Failure(Status::kUsage, "path \"" + text + "\" is deeper than " +
                                      std::to_string(kDeepest - 1) + " levels");
  }
  return path;
}

Path parse_node_path(const std::string& text) {
  Path path = parse_path(text);
  if (path.empty()) {
    throw Failure(Status::kUsage, "path \"/\": this needs a node, not the whole tree");
  }
  return path;
}

bool is_index(const std::string& name) {
  constexpr std::size_t kDigits = 9;
  return !name.empty() && name.size() <= kDigits &&
         std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

Json nest(const Path& path, Json value) {
  for (auto name = path.rbegin(); name != path.rend(); ++name) {
    Json object = Json::object();
    object[*name] = std::move(value);
    value = std::move(object);
  }
  return value;
}

const Json* find_node(const Json& document, const Path& path) {
  const Json* node = &document;
  for (const std::string& name : path) {
    node = child_of(*node, name);
    if (node == nullptr) return nullptr;
  }
  return node;
}

Json read_message(const std::string& text) {
  return find_fault(text) ? Json(text) : Json::parse(text);
}

std::string write_json(const Json& value, Layout layout) {
  return value.dump(layout == Layout::kPretty ? kIndentation : -1, ' ', false,
                    Json::error_handler_t::replace);
}

}  // namespace ppctl
