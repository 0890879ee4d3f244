// Any text through the JSON interface. What was read must survive writing, copying and taking
// apart.
#include <cstddef>

#include "tests/compat/libjson/json_tree.h"
#include "tests/support/fuzz.h"

namespace {

using test_support::must_hold;
using test_support::parsed;
using test_support::Tree;

void look_at(JSONNODE* node) {
  must_hold(static_cast<unsigned char>(json_type(node)) <= JSON_NODE, "every node has a type");
  must_hold(static_cast<std::ptrdiff_t>(json_size(node)) == json_end(node) - json_begin(node),
            "the size is that of the list");
  json_as_int(node);
  for (JSONNODE_ITERATOR it = json_begin(node); it != json_end(node); ++it) {
    const std::string name = test_support::name_of(*it);
    JSONNODE** const found = json_find(node, name.c_str());
    must_hold(found <= it || found == json_end(node), "the first of a name is found");
    look_at(*it);
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
  look_at(tree.get());
  const Tree again = parsed(test_support::written(tree.get()));
  must_hold(json_equal(tree.get(), again.get()) == 1, "written text reads back as the same tree");
  const Tree copy(json_copy(tree.get()));
  take_apart(tree);
  must_hold(json_equal(copy.get(), again.get()) == 1, "a copy stands alone");
  return 0;
}
