#include "lab/pushpull_store/tree.h"

#include <charconv>
#include <sstream>
#include <stdexcept>

namespace lab {
namespace {

// The child that a part of a path names, as a const or a modifiable node.
template <typename Node>
Node* child_of(Node& node, const std::string& part) {
  if (node.is_object()) {
    const auto found = node.find(part);
    return found == node.end() ? nullptr : &*found;
  }
  std::size_t index = 0;
  const char* const end = part.data() + part.size();
  const auto [stop, error] = std::from_chars(part.data(), end, index);
  const bool number = error == std::errc() && stop == end;
  return node.is_array() && number && index < node.size() ? &node[index] : nullptr;
}

template <typename Node>
Node* find(Node& tree, const Path& path) {
  Node* node = &tree;
  for (const std::string& part : path) {
    node = child_of(*node, part);
    if (node == nullptr) return nullptr;
  }
  return node;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) {
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

}  // namespace

Path parse_path(const std::string& text) {
  if (text.empty() || text.front() != '/') throw std::invalid_argument("no path: " + text);
  return split(text, '/');
}

std::vector<Path> parse_paths(const std::string& text) {
  std::vector<Path> paths;
  for (const std::string& part : split(text, ';'))
    paths.push_back(parse_path(part));
  if (paths.empty()) throw std::invalid_argument("no path");
  return paths;
}

std::string to_text(const Path& path) {
  std::string text;
  for (const std::string& part : path)
    text += "/" + part;
  return text.empty() ? "/" : text;
}

Json parse_json(const std::string& text) {
  constexpr int kDeepest = 128;  // what handles a document recursively needs a bound
  const auto check_depth = [](int depth, Json::parse_event_t event, const Json&) {
    const bool opens =
        event == Json::parse_event_t::array_start || event == Json::parse_event_t::object_start;
    if (opens && depth >= kDeepest) throw std::invalid_argument("nested too deeply");
    return true;
  };
  try {
    return Json::parse(text, check_depth);
  } catch (const Json::parse_error&) {
    throw std::invalid_argument("no JSON");
  }
}

const Json* find_node(const Json& tree, const Path& path) {
  return find(tree, path);
}
Json* find_node(Json& tree, const Path& path) {
  return find(tree, path);
}

Json nested_document(const Json& tree, const Path& path, const Json& node) {
  Json document = node;
  for (std::size_t length = path.size(); length > 0; --length) {
    const Json* const parent =
        find_node(tree, Path(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(length) - 1));
    Json outer = parent != nullptr && parent->is_array() ? Json::array() : Json::object();
    if (outer.is_array()) {
      outer.push_back(std::move(document));
    } else {
      outer[path[length - 1]] = std::move(document);
    }
    document = std::move(outer);
  }
  return document;
}

void merge(Json& tree, const Json& document) {
  if (!tree.is_object() || !document.is_object()) {
    tree = document;
    return;
  }
  for (const auto& [name, value] : document.items())
    merge(tree[name], value);
}

bool touches(const Json& document, const Path& path) {
  const Json* node = &document;
  for (const std::string& part : path) {
    if (!node->is_object()) return true;  // replaces what the path leads into
    node = child_of(*node, part);
    if (node == nullptr) return false;
  }
  return true;
}

}  // namespace lab
