// What the JSON interface does when memory runs out, at every single allocation in turn.
#include <gtest/gtest.h>

#include <string>

#include "libjson.h"
#include "tests/compat/libjson/json_tree.h"
#include "tests/support/scarce_memory.h"

namespace {

using test_support::allocations_needed;
using test_support::parsed;
using test_support::ScarceMemory;
using test_support::Text;
using test_support::Tree;
using test_support::written;

constexpr char kLongText[] = "longer than any text that fits into the string object itself";

TEST(LibjsonOutOfMemory, GivesNoNode) {
  EXPECT_GE(allocations_needed([] { return Tree(json_new(JSON_NODE)) != nullptr; }), 1);
  EXPECT_GE(allocations_needed([] { return Tree(json_new_a(kLongText, kLongText)) != nullptr; }),
            3);
  EXPECT_GE(allocations_needed([] { return Tree(json_new_i(kLongText, 1)) != nullptr; }), 2);
  EXPECT_GE(allocations_needed([] { return Tree(json_new_b(kLongText, 1)) != nullptr; }), 2);
}

TEST(LibjsonOutOfMemory, GivesNoTree) {
  const std::string text = std::string("{\"") + kLongText + "\":[\"" + kLongText + "\",1.5,{}]}";
  EXPECT_GE(allocations_needed([&] { return Tree(json_parse(text.c_str())) != nullptr; }), 8);
  EXPECT_GE(allocations_needed([&] { return json_is_valid(text.c_str()) == 1; }), 8);
}

TEST(LibjsonOutOfMemory, GivesNoCopyAndLeavesTheOriginal) {
  const std::string text = std::string("[{\"a\":\"") + kLongText + "\"},[],2]";
  const Tree tree = parsed(text);
  EXPECT_GE(allocations_needed([&] { return Tree(json_copy(tree.get())) != nullptr; }), 6);
  EXPECT_EQ(json_equal(tree.get(), parsed(text).get()), 1);
}

TEST(LibjsonOutOfMemory, GivesNoText) {
  const Tree tree =
      parsed(std::string("{\"a\":\"") + kLongText + "\",\"b\":\"\\n" + kLongText + "\"}");
  EXPECT_GE(allocations_needed([&] { return Text(json_write_formatted(tree.get())) != nullptr; }),
            3);
}

TEST(LibjsonOutOfMemory, KeepsTheOldName) {
  const Tree tree = parsed("{\"old\":1}");
  {
    const ScarceMemory none(0);
    json_set_name(json_at(tree.get(), 0), kLongText);
  }
  EXPECT_EQ(written(tree.get()), "{\n\t\"old\" : 1\n}");
}

TEST(LibjsonOutOfMemory, EndsTheChildThatCannotBeTaken) {
  const Tree tree(json_new(JSON_NODE));
  JSONNODE* const child = json_new_a("name", kLongText);
  {
    const ScarceMemory none(0);
    json_push_back(tree.get(), child);
  }
  EXPECT_EQ(json_size(tree.get()), 0U);
}

TEST(LibjsonOutOfMemory, ATreeThatHasLostAChildIsNotWritten) {
  const Tree tree = parsed("{\"inner\":{}}");
  JSONNODE* const child = json_new_a("name", kLongText);
  {
    const ScarceMemory none(0);
    json_push_back(json_at(tree.get(), 0), child);
  }
  EXPECT_EQ(json_write_formatted(tree.get()), nullptr);
  const Tree copy(json_copy(tree.get()));
  EXPECT_EQ(json_write_formatted(copy.get()), nullptr);
}

}  // namespace
