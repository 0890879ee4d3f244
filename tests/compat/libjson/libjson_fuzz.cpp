// Any text through the JSON interface. What was read must survive writing, copying and taking
// apart.
#include <cstddef>

#include "tests/compat/libjson/json_tree.h"
#include "tests/support/fuzz.h"

namespace {

using test_support::must_hold;
using test_support::parsed;
using test_support::Tree;

/// @param cut_names  whether there may be names with U+0000, which json_name() can only show up to
///                   there and json_find() compares whole
void look_at(JSONNODE* node, bool cut_names) {
  must_hold(static_cast<unsigned char>(json_type(node)) <= JSON_NODE, "every node has a type");
  must_hold(static_cast<std::ptrdiff_t>(json_size(node)) == json_end(node) - json_begin(node),
            "the size is that of the list");
  json_as_int(node);
  for (JSONNODE_ITERATOR it = json_begin(node); it != json_end(node); ++it) {
    const std::string name = test_support::name_of(*it);
    JSONNODE** const found = json_find(node, name.c_str());
    must_hold(found <= it || cut_names, "the first of a name is found");
    must_hold(found == json_end(node) || test_support::name_of(*found) == name,
              "what is found has the name");
    look_at(*it, cut_names);
  }
}

void take_apart(const Tree& tree) {
  while (json_size(tree.get()) > 0) {
    take_apart(Tree(json_pop_back_at(tree.get(), json_size(tree.get()) / 2)));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = test_support::fuzz_text(data, size);
  const Tree tree = parsed(text);
  must_hold((tree != nullptr) == (json_is_valid(text.c_str()) != 0), "valid is what parses");
  if (tree == nullptr) return 0;
  look_at(tree.get(), text.find("\\u0000") != std::string::npos);
  const Tree again = parsed(test_support::written(tree.get()));
  must_hold(json_equal(tree.get(), again.get()) == 1, "written text reads back as the same tree");
  const Tree copy(json_copy(tree.get()));
  take_apart(tree);
  must_hold(json_equal(copy.get(), again.get()) == 1, "a copy stands alone");
  return 0;
}
