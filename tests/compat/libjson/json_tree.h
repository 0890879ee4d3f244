// Owners for what the JSON interface hands out.
#ifndef TESTS_COMPAT_LIBJSON_JSON_TREE_H
#define TESTS_COMPAT_LIBJSON_JSON_TREE_H

#include <cstddef>
#include <memory>
#include <string>

#include "libjson.h"

namespace test_support {

struct DeleteTree {
  void operator()(JSONNODE* node) const { json_delete(node); }
};
struct FreeText {
  void operator()(char* text) const { json_free(text); }
};

using Tree = std::unique_ptr<JSONNODE, DeleteTree>;
using Text = std::unique_ptr<char, FreeText>;

inline Tree parsed(const std::string& text) {
  return Tree(json_parse(text.c_str()));
}

inline std::string written(const JSONNODE* node) {
  return Text(json_write_formatted(node)).get();
}

inline std::string name_of(const JSONNODE* node) {
  return Text(json_name(node)).get();
}

/// `depth` arrays in one another: "[[[]]]" for 3.
inline std::string nested_arrays(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

}  // namespace test_support

#endif
