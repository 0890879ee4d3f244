// The JSON interface, seen through its C signatures alone.
#include "libjson.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/compat/libjson/json_tree.h"

namespace {

using test_support::name_of;
using test_support::nested_arrays;
using test_support::parsed;
using test_support::Text;
using test_support::Tree;
using test_support::written;
using testing::ElementsAre;
using namespace std::string_literals;

constexpr json_int_t kMaxInt = std::numeric_limits<json_int_t>::max();
constexpr json_int_t kMinInt = std::numeric_limits<json_int_t>::min();

/// The whole part of one number, or whatever else stands in `element`.
json_int_t integer_of(const std::string& element) {
  const Tree tree = parsed("[" + element + "]");
  EXPECT_NE(tree, nullptr) << element;
  return json_as_int(json_at(tree.get(), 0));
}

/// Whether two elements are equal by json_equal().
bool equal(const std::string& a, const std::string& b) {
  const Tree first = parsed("[" + a + "]");
  const Tree second = parsed("[" + b + "]");
  EXPECT_NE(first, nullptr) << a;
  EXPECT_NE(second, nullptr) << b;
  const json_bool_t result = json_equal(first.get(), second.get());
  EXPECT_EQ(result, json_equal(second.get(), first.get())) << a << " and " << b;
  return result != 0;
}

bool valid(const std::string& text) {
  const bool is_valid = json_is_valid(text.c_str()) != 0;
  EXPECT_EQ(is_valid, parsed(text) != nullptr) << text;
  return is_valid;
}

std::vector<std::string> names_of(JSONNODE* node) {
  std::vector<std::string> names;
  for (JSONNODE_ITERATOR it = json_begin(node); it != json_end(node); ++it) {
    names.push_back(name_of(*it));
  }
  return names;
}

TEST(LibjsonInterface, HasTheGenuineTypes) {
  EXPECT_TRUE((std::is_same_v<JSONNODE, void>));
  EXPECT_TRUE((std::is_same_v<JSONNODE_ITERATOR, void**>));
  EXPECT_TRUE((std::is_same_v<json_int_t, long>));
  EXPECT_TRUE((std::is_same_v<json_index_t, unsigned int>));
  EXPECT_TRUE((std::is_same_v<json_bool_t, int>));
}

TEST(LibjsonInterface, HasTheGenuineTypeNumbers) {
  const std::string types = {JSON_NULL, JSON_STRING, JSON_NUMBER, JSON_BOOL, JSON_ARRAY, JSON_NODE};
  EXPECT_EQ(types, "\0\1\2\3\4\5"s);
}

TEST(LibjsonNew, GivesEachTypeItsEmptyValue) {
  const Tree root(json_new(JSON_ARRAY));
  for (const char type : {JSON_NULL, JSON_STRING, JSON_NUMBER, JSON_BOOL, JSON_ARRAY, JSON_NODE}) {
    JSONNODE* const node = json_new(type);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(json_type(node), type);
    EXPECT_EQ(name_of(node), "");
    EXPECT_EQ(json_size(node), 0U);
    json_push_back(root.get(), node);
  }
  EXPECT_EQ(written(root.get()), "[\n\tnull,\n\t\"\",\n\t0,\n\tfalse,\n\t[],\n\t{}\n]");
}

TEST(LibjsonNew, RefusesAnUnknownType) {
  EXPECT_EQ(json_new('\6'), nullptr);
  EXPECT_EQ(json_new('\xff'), nullptr);
}

TEST(LibjsonNew, CopiesNamesAndValues) {
  std::string name = "name";
  std::string value = "value";
  const Tree root(json_new(JSON_NODE));
  json_push_back(root.get(), json_new_a(name.c_str(), value.c_str()));
  name = "????";
  value = "?????";
  EXPECT_EQ(written(root.get()), "{\n\t\"name\" : \"value\"\n}");
}

TEST(LibjsonNew, WritesTheWholeRangeOfIntegers) {
  const Tree root(json_new(JSON_ARRAY));
  for (const json_int_t value : {kMinInt, json_int_t{-1}, json_int_t{0}, kMaxInt}) {
    json_push_back(root.get(), json_new_i("", value));
  }
  EXPECT_EQ(written(root.get()), "[\n\t" + std::to_string(kMinInt) + ",\n\t-1,\n\t0,\n\t" +
                                     std::to_string(kMaxInt) + "\n]");
  EXPECT_EQ(json_as_int(json_at(root.get(), 0)), kMinInt);
  EXPECT_EQ(json_as_int(json_at(root.get(), 3)), kMaxInt);
}

TEST(LibjsonNew, TakesEveryNumberButZeroAsTrue) {
  const Tree root(json_new(JSON_ARRAY));
  for (const json_bool_t value : {0, 1, -1, 256}) {
    json_push_back(root.get(), json_new_b("", value));
  }
  EXPECT_EQ(written(root.get()), "[\n\tfalse,\n\ttrue,\n\ttrue,\n\ttrue\n]");
}

TEST(LibjsonNew, TakesANullTextAsEmpty) {
  const Tree root(json_new(JSON_NODE));
  json_push_back(root.get(), json_new_a(nullptr, nullptr));
  json_push_back(root.get(), json_new_i(nullptr, 1));
  json_push_back(root.get(), json_new_b(nullptr, 1));
  EXPECT_EQ(written(root.get()), "{\n\t\"\" : \"\",\n\t\"\" : 1,\n\t\"\" : true\n}");
}

TEST(LibjsonNull, IsHarmlessEverywhere) {
  EXPECT_EQ(json_copy(nullptr), nullptr);
  json_delete(nullptr);
  EXPECT_EQ(json_parse(nullptr), nullptr);
  EXPECT_EQ(json_is_valid(nullptr), 0);
  EXPECT_EQ(written(nullptr), "");
  json_free(nullptr);
  EXPECT_EQ(json_type(nullptr), JSON_NULL);
  EXPECT_EQ(json_size(nullptr), 0U);
  EXPECT_EQ(name_of(nullptr), "");
  json_set_name(nullptr, "name");
  EXPECT_EQ(json_as_int(nullptr), 0);
  EXPECT_EQ(json_equal(nullptr, nullptr), 0);
  json_push_back(nullptr, nullptr);
  EXPECT_EQ(json_begin(nullptr), json_end(nullptr));
  EXPECT_EQ(json_find(nullptr, "name"), json_end(nullptr));
  EXPECT_EQ(json_at(nullptr, 0), nullptr);
  EXPECT_EQ(json_pop_back_at(nullptr, 0), nullptr);
}

TEST(LibjsonNull, IsHarmlessBesideANode) {
  const Tree tree = parsed(R"({"a":1})");
  EXPECT_EQ(json_equal(tree.get(), nullptr), 0);
  EXPECT_EQ(json_equal(nullptr, tree.get()), 0);
  json_push_back(tree.get(), nullptr);
  EXPECT_EQ(json_find(tree.get(), nullptr), json_end(tree.get()));
  json_set_name(json_at(tree.get(), 0), nullptr);
  EXPECT_EQ(written(tree.get()), "{\n\t\"\" : 1\n}");
}

TEST(LibjsonTree, GivesWhatHasNoChildrenAsEmpty) {
  const Tree scalar(json_new_a("name", "value"));
  EXPECT_EQ(json_size(scalar.get()), 0U);
  EXPECT_EQ(json_begin(scalar.get()), json_end(scalar.get()));
  EXPECT_EQ(json_find(scalar.get(), "value"), json_end(scalar.get()));
  EXPECT_EQ(json_at(scalar.get(), 0), nullptr);
  EXPECT_EQ(json_pop_back_at(scalar.get(), 0), nullptr);
}

TEST(LibjsonTree, EndsAChildThatNobodyCanOwn) {  // shown by the leak check of the sanitizer build
  const Tree scalar(json_new(JSON_STRING));
  json_push_back(scalar.get(), json_new(JSON_NODE));
  EXPECT_EQ(json_size(scalar.get()), 0U);
  json_push_back(nullptr, json_new(JSON_NODE));
}

TEST(LibjsonTree, LeavesANodePushedIntoItselfAlone) {
  const Tree tree = parsed("[1]");
  json_push_back(tree.get(), tree.get());
  EXPECT_EQ(written(tree.get()), "[\n\t1\n]");
}

TEST(LibjsonTree, KeepsTheOrderOfMembers) {
  const Tree tree = parsed(R"({"z":1,"a":2,"m":3})");
  json_push_back(tree.get(), json_new_i("b", 4));
  EXPECT_THAT(names_of(tree.get()), ElementsAre("z", "a", "m", "b"));
}

TEST(LibjsonTree, GivesElementsOfAnArrayNoName) {
  const Tree tree(json_new(JSON_ARRAY));
  json_push_back(tree.get(), json_new_i("lost", 1));
  EXPECT_EQ(name_of(json_at(tree.get(), 0)), "");
  const Tree read = parsed(R"({"array":[{"x":1},2]})");
  EXPECT_THAT(names_of(*json_find(read.get(), "array")), ElementsAre("", ""));
}

TEST(LibjsonTree, RenamesANode) {
  const Tree tree = parsed(R"({"old":1})");
  json_set_name(json_at(tree.get(), 0), "new");
  EXPECT_EQ(written(tree.get()), "{\n\t\"new\" : 1\n}");
}

TEST(LibjsonTree, GivesChildrenAsOneArray) {
  const Tree tree = parsed("[10,20,30]");
  JSONNODE** const begin = json_begin(tree.get());
  ASSERT_EQ(json_end(tree.get()) - begin, 3);
  for (json_index_t i = 0; i < 3; ++i)
    EXPECT_EQ(begin[i], json_at(tree.get(), i));
  EXPECT_EQ(json_as_int(begin[2]), 30);
}

TEST(LibjsonTree, KeepsAHandleWhileItsNeighboursChange) {
  const Tree tree = parsed(R"({"first":1,"kept":2})");
  JSONNODE* const kept = *json_find(tree.get(), "kept");
  for (int i = 0; i < 100; ++i)
    json_push_back(tree.get(), json_new_i("more", i));
  const Tree popped(json_pop_back_at(tree.get(), 0));
  EXPECT_EQ(json_at(tree.get(), 0), kept);
  EXPECT_EQ(json_as_int(kept), 2);
}

TEST(LibjsonTree, GivesNothingOutOfRange) {
  const Tree tree = parsed("[1,2]");
  for (const json_index_t index : {2U, 3U, std::numeric_limits<json_index_t>::max()}) {
    EXPECT_EQ(json_at(tree.get(), index), nullptr);
    EXPECT_EQ(json_pop_back_at(tree.get(), index), nullptr);
  }
  EXPECT_EQ(json_size(tree.get()), 2U);
}

TEST(LibjsonFind, FindsTheFirstOfSeveral) {
  const Tree tree = parsed(R"({"x":0,"a":1,"a":2})");
  JSONNODE** const found = json_find(tree.get(), "a");
  EXPECT_EQ(found, json_begin(tree.get()) + 1);
  EXPECT_EQ(json_as_int(*found), 1);
}

TEST(LibjsonFind, ComparesTheWholeNameWithItsCase) {
  const Tree tree = parsed(R"({"code":1})");
  for (const char* name : {"Code", "cod", "codes", ""}) {
    EXPECT_EQ(json_find(tree.get(), name), json_end(tree.get())) << name;
  }
}

TEST(LibjsonFind, DoesNotLookIntoChildren) {
  const Tree tree = parsed(R"({"outer":{"inner":1}})");
  EXPECT_EQ(json_find(tree.get(), "inner"), json_end(tree.get()));
}

TEST(LibjsonFind, FindsAnEmptyName) {
  const Tree tree = parsed(R"({"a":1,"":2})");
  EXPECT_EQ(json_as_int(*json_find(tree.get(), "")), 2);
}

TEST(LibjsonPop, HandsTheChildOver) {
  Tree tree = parsed(R"({"a":1,"b":{"c":[2]},"d":3})");
  const Tree popped(json_pop_back_at(tree.get(), 1));
  EXPECT_EQ(written(tree.get()), "{\n\t\"a\" : 1,\n\t\"d\" : 3\n}");
  tree.reset();  // the child outlives its former parent
  EXPECT_EQ(name_of(popped.get()), "b");
  EXPECT_EQ(written(popped.get()), "{\n\t\"c\" : [\n\t\t2\n\t]\n}");
}

TEST(LibjsonPop, LetsTheChildMoveToAnotherParent) {
  const Tree from = parsed(R"({"moved":1})");
  const Tree to = parsed(R"({"here":0})");
  json_push_back(to.get(), json_pop_back_at(from.get(), 0));
  EXPECT_EQ(json_size(from.get()), 0U);
  EXPECT_THAT(names_of(to.get()), ElementsAre("here", "moved"));
}

TEST(LibjsonCopy, IsDeepAndIndependent) {
  const std::string text = R"({"a":[1,{"b":"x"}],"a":null,"t":true,"n":-1.5e3})";
  Tree original = parsed(text);
  const Tree copy(json_copy(original.get()));
  json_set_name(json_at(original.get(), 0), "changed");
  json_delete(json_pop_back_at(json_at(original.get(), 0), 1));
  original.reset();
  EXPECT_EQ(json_equal(copy.get(), parsed(text).get()), 1);
}

TEST(LibjsonCopy, KeepsTheNameOfItsRoot) {
  const Tree tree = parsed(R"({"inner":{"x":1}})");
  const Tree copy(json_copy(json_at(tree.get(), 0)));
  EXPECT_EQ(name_of(copy.get()), "inner");
}

TEST(LibjsonEqual, ComparesOrderOfMembersAndElements) {
  EXPECT_TRUE(equal(R"({"a":1,"b":2})", R"({"a":1,"b":2})"));
  EXPECT_FALSE(equal(R"({"a":1,"b":2})", R"({"b":2,"a":1})"));
  EXPECT_FALSE(equal("[1,2]", "[2,1]"));
  EXPECT_FALSE(equal("[1,2]", "[1,2,3]"));
  EXPECT_FALSE(equal("[1]", "[]"));
}

TEST(LibjsonEqual, ComparesNames) {
  EXPECT_FALSE(equal(R"({"a":1})", R"({"b":1})"));
  const Tree tree = parsed(R"({"a":{"x":1},"b":{"x":1},"a":{"x":1}})");
  EXPECT_EQ(json_equal(json_at(tree.get(), 0), json_at(tree.get(), 1)), 0);
  EXPECT_EQ(json_equal(json_at(tree.get(), 0), json_at(tree.get(), 2)), 1);
}

TEST(LibjsonEqual, ComparesTypesBeforeValues) {
  const std::vector<std::string> all = {"null", "\"\"", "\"null\"", "\"true\"", "\"1\"", "0",
                                        "1",    "true", "false",    "[]",       "{}"};
  for (const std::string& a : all) {
    for (const std::string& b : all)
      EXPECT_EQ(equal(a, b), a == b) << a << " and " << b;
  }
}

TEST(LibjsonEqual, ComparesNumbersByValue) {
  EXPECT_TRUE(equal("1", "1.0"));
  EXPECT_TRUE(equal("1", "1e0"));
  EXPECT_TRUE(equal("-0", "0"));
  EXPECT_TRUE(equal("-0.0", "0"));
  EXPECT_TRUE(equal("0.5", "5E-1"));
  EXPECT_FALSE(equal("1", "1.5"));
  EXPECT_FALSE(equal("1", "-1"));
}

TEST(LibjsonEqual, TellsLargeWholeNumbersApart) {
  EXPECT_FALSE(equal("9007199254740992", "9007199254740993"));
  EXPECT_FALSE(equal("18446744073709551616", "18446744073709551617"));
  EXPECT_TRUE(equal("18446744073709551617", "18446744073709551617"));
}

TEST(LibjsonEqual, ComparesStringsByTheirCharacters) {
  EXPECT_TRUE(equal(R"("A\/")", R"("\u0041/")"));
  EXPECT_FALSE(equal(R"("a")", R"("a\u0000")"));
  EXPECT_FALSE(equal(R"("a\u0000b")", R"("a\u0000c")"));
}

TEST(LibjsonAsInt, CutsFractions) {
  EXPECT_EQ(integer_of("1.999"), 1);
  EXPECT_EQ(integer_of("-1.999"), -1);
  EXPECT_EQ(integer_of("0.999"), 0);
  EXPECT_EQ(integer_of("-0.999"), 0);
  EXPECT_EQ(integer_of("-0"), 0);
  EXPECT_EQ(integer_of("-0.0"), 0);
}

TEST(LibjsonAsInt, TakesTheNumberAtTheStartOfAString) {
  EXPECT_EQ(integer_of(R"("+5")"), 5);
  EXPECT_EQ(integer_of(R"(" +5x")"), 5);
  EXPECT_EQ(integer_of(R"("+-5")"), 0);
  EXPECT_EQ(integer_of(R"("+")"), 0);
}

TEST(LibjsonAsInt, UnderstandsExponents) {
  EXPECT_EQ(integer_of("1e3"), 1000);
  EXPECT_EQ(integer_of("1.5E+2"), 150);
  EXPECT_EQ(integer_of("15e-1"), 1);
  EXPECT_EQ(integer_of("1e-400"), 0);
}

TEST(LibjsonAsInt, KeepsEveryLongExactly) {
  for (const json_int_t value : {kMinInt, kMinInt + 1, kMaxInt - 1, kMaxInt}) {
    EXPECT_EQ(integer_of(std::to_string(value)), value);
  }
}

TEST(LibjsonAsInt, GivesTheNearestLongBeyondItsRange) {
  for (const char* number : {"9223372036854775808", "9223372036854775808.0", "18446744073709551615",
                             "1e30", "1.5e308", "123456789012345678901234567890"}) {
    EXPECT_EQ(integer_of(number), kMaxInt) << number;
    EXPECT_EQ(integer_of("-"s + number), kMinInt) << number;
  }
}

TEST(LibjsonAsInt, GivesOneOrZeroForABoolean) {
  EXPECT_EQ(integer_of("true"), 1);
  EXPECT_EQ(integer_of("false"), 0);
}

TEST(LibjsonAsInt, ReadsTheNumberAtTheStartOfAString) {
  EXPECT_EQ(integer_of(R"("42")"), 42);
  EXPECT_EQ(integer_of(R"("-42abc")"), -42);
  EXPECT_EQ(integer_of(R"(" \t 7.9")"), 7);
  EXPECT_EQ(integer_of(R"("99999999999999999999")"), kMaxInt);
  EXPECT_EQ(integer_of(R"(" -99999999999999999999")"), kMinInt);
}

TEST(LibjsonAsInt, GivesZeroWithoutANumber) {
  for (const char* element : {R"("")", R"("  ")", R"("abc")", R"("-")", R"("- 1")", R"("inf")",
                              R"("nan")", "null", "[1]", R"({"a":1})"}) {
    EXPECT_EQ(integer_of(element), 0) << element;
  }
}

TEST(LibjsonParse, TakesObjectsAndArraysOnly) {
  EXPECT_TRUE(valid("{}"));
  EXPECT_TRUE(valid("[]"));
  EXPECT_TRUE(valid(" \t\r\n{ } \n"));
  for (const char* text : {"", " ", "null", "true", "false", "1", "\"text\""}) {
    EXPECT_FALSE(valid(text)) << text;
  }
}

TEST(LibjsonParse, KnowsEveryType) {
  const Tree tree = parsed(R"([null,"s",1,true,[],{}])");
  std::string types;
  for (json_index_t i = 0; i < json_size(tree.get()); ++i) {
    types += json_type(json_at(tree.get(), i));
  }
  EXPECT_EQ(types, "\0\1\2\3\4\5"s);
  EXPECT_EQ(json_type(tree.get()), JSON_ARRAY);
}

TEST(LibjsonParse, RefusesWhatIsNoStrictJson) {
  for (const char* text : {"{",
                           "}",
                           "[",
                           "]",
                           "[}",
                           "{]",
                           "[1",
                           "{\"a\":1",
                           "{\"a\":}",
                           "{\"a\"}",
                           "{\"a\" 1}",
                           "{a:1}",
                           "{'a':1}",
                           "{1:1}",
                           "{,}",
                           "[,]",
                           "[1,]",
                           "{\"a\":1,}",
                           "[1 2]",
                           "[1,,2]",
                           "{\"a\":1 \"b\":2}",
                           "{\"a\"::1}",
                           "[1]]",
                           "{} {}",
                           "[] x",
                           "[// note\n1]",
                           "[/* note */1]",
                           "# note\n[]",
                           "[undefined]",
                           "[NULL]",
                           "[nul]",
                           "[True]",
                           "[tru]",
                           "[falsey]"}) {
    EXPECT_FALSE(valid(text)) << text;
  }
}

TEST(LibjsonParse, RefusesWhatIsNoNumber) {
  for (const char* number : {"NaN", "nan", "Infinity", "-Infinity", "inf", "-", "+1", "01", "-01",
                             ".5", "1.", "1.e3", "1e", "1e+", "0x10", "1_000", "1,5e", "--1"}) {
    EXPECT_FALSE(valid("["s + number + "]")) << number;
  }
}

TEST(LibjsonParse, RefusesANumberThatNoDoubleHolds) {
  EXPECT_TRUE(valid("[1e308]"));
  EXPECT_FALSE(valid("[1e309]"));
  EXPECT_FALSE(valid("[-1e309]"));
  EXPECT_FALSE(valid("[" + std::string(400, '9') + "]"));
}

TEST(LibjsonParse, RefusesWhatIsNoString) {
  for (const char* text :
       {"[\"]", "[\"a]", "[\"\\\"]", "[\"\\x41\"]", "[\"\\u12\"]", "[\"\\u12g4\"]", "[\"\\\"",
        "[\"\n\"]", "[\"\t\"]", "[\"\x01\"]", "[\"\\ud800\"]", "[\"\\udc00\"]",
        "[\"\\ud800\\ud800\"]", "[\"\\ud800x\"]"}) {
    EXPECT_FALSE(valid(text)) << text;
  }
}

TEST(LibjsonParse, RefusesWhatIsNoUtf8) {
  for (const char* bytes : {"\x80", "\xc0\xaf", "\xc3", "\xc3(", "\xe2\x82", "\xed\xa0\x80",
                            "\xf0\x9f\x98", "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80", "\xff"}) {
    EXPECT_FALSE(valid("[\""s + bytes + "\"]"));
    EXPECT_FALSE(valid("{\""s + bytes + "\":1}"));
    EXPECT_FALSE(valid("["s + bytes + "]"));
  }
}

TEST(LibjsonParse, CountsNestingUpToItsLimit) {
  EXPECT_TRUE(valid(nested_arrays(127)));
  EXPECT_TRUE(valid(nested_arrays(128)));
  EXPECT_FALSE(valid(nested_arrays(129)));
  EXPECT_FALSE(valid(nested_arrays(1'000'000)));
  EXPECT_FALSE(valid(std::string(1'000'000, '[')));
}

TEST(LibjsonParse, CountsNestingNotSize) {
  std::string text = "[[]";
  for (int i = 0; i < 1000; ++i)
    text += ",[]";
  EXPECT_TRUE(valid(text + "]"));
}

TEST(LibjsonParse, WorksWithEveryNodeOfADeepTree) {
  const Tree tree = parsed(nested_arrays(128));
  const Tree copy(json_copy(tree.get()));
  EXPECT_EQ(json_equal(tree.get(), copy.get()), 1);
  const Tree again = parsed(written(tree.get()));
  EXPECT_EQ(json_equal(tree.get(), again.get()), 1);
}

TEST(LibjsonParse, KeepsDuplicates) {
  const Tree tree = parsed(R"({"a":1,"b":2,"a":3,"a":1})");
  EXPECT_EQ(json_size(tree.get()), 4U);
  EXPECT_THAT(names_of(tree.get()), ElementsAre("a", "b", "a", "a"));
  EXPECT_EQ(json_as_int(json_at(tree.get(), 2)), 3);
}

TEST(LibjsonParse, EndsAtTheTerminatingNul) {
  EXPECT_NE(Tree(json_parse("[1]\0garbage")), nullptr);
  EXPECT_EQ(Tree(json_parse("[1\0]")), nullptr);
}

TEST(LibjsonParse, SkipsAByteOrderMark) {
  EXPECT_TRUE(valid("\xef\xbb\xbf[1]"));
}

// A reader that is slower than the text is long never ends here: the time-out of the test is its
// only clock.
TEST(LibjsonParse, ReadsAndWritesALargeDocument) {
  std::string text = "{\"first\":0";
  for (int i = 0; i < 200'000; ++i)
    text += ",\"member" + std::to_string(i) + "\":[\"value\"]";
  const Tree tree = parsed(text + "}");
  ASSERT_EQ(json_size(tree.get()), 200'001U);
  const Tree again = parsed(written(tree.get()));
  EXPECT_EQ(json_equal(tree.get(), again.get()), 1);
}

TEST(LibjsonParse, ReadsOneLargeString) {
  const std::string value(262'144, 'x');
  const Tree tree = parsed("[\"" + value + "\"]");
  EXPECT_EQ(written(tree.get()), "[\n\t\"" + value + "\"\n]");
}

TEST(LibjsonWrite, IndentsWithTabsOneMemberALine) {
  const Tree tree = parsed(R"({"function":"get","arg":{"id":7,"list":[1,[true,null],{}]},"q":[]})");
  EXPECT_EQ(written(tree.get()),
            "{\n"
            "\t\"function\" : \"get\",\n"
            "\t\"arg\" : {\n"
            "\t\t\"id\" : 7,\n"
            "\t\t\"list\" : [\n"
            "\t\t\t1,\n"
            "\t\t\t[\n"
            "\t\t\t\ttrue,\n"
            "\t\t\t\tnull\n"
            "\t\t\t],\n"
            "\t\t\t{}\n"
            "\t\t]\n"
            "\t},\n"
            "\t\"q\" : []\n"
            "}");
}

TEST(LibjsonWrite, WritesEmptyContainersInOneLine) {
  EXPECT_EQ(written(Tree(json_new(JSON_NODE)).get()), "{}");
  EXPECT_EQ(written(Tree(json_new(JSON_ARRAY)).get()), "[]");
}

TEST(LibjsonWrite, WritesNothingForAScalar) {
  EXPECT_EQ(written(Tree(json_new_a("name", "value")).get()), "");
  EXPECT_EQ(written(Tree(json_new(JSON_NULL)).get()), "");
}

TEST(LibjsonWrite, LeavesTheNameOfTheRootOut) {
  const Tree tree = parsed(R"({"inner":{"x":1}})");
  EXPECT_EQ(written(json_at(tree.get(), 0)), "{\n\t\"x\" : 1\n}");
}

TEST(LibjsonWrite, EscapesWhatJsonAsksFor) {
  const Tree tree(json_new(JSON_NODE));
  json_push_back(tree.get(), json_new_a("\"\\\n", "\b\f\n\r\t\x01\x1f\"\\/\x7f"));
  EXPECT_EQ(written(tree.get()),
            "{\n\t\"\\\"\\\\\\n\" : \"\\b\\f\\n\\r\\t\\u0001\\u001f\\\"\\\\/\x7f\"\n}");
}

TEST(LibjsonWrite, KeepsUtf8AsItIs) {
  const std::string text = "\u00fc\u20ac\U0001f600";
  const Tree tree(json_new(JSON_NODE));
  json_push_back(tree.get(), json_new_a(text.c_str(), text.c_str()));
  const Tree read = parsed("{\"" + text + "\":\"\\u00fc\\u20ac\\ud83d\\ude00\"}");
  EXPECT_EQ(written(tree.get()), "{\n\t\"" + text + "\" : \"" + text + "\"\n}");
  EXPECT_EQ(json_equal(tree.get(), read.get()), 1);
}

TEST(LibjsonWrite, WritesValidJsonForBytesThatAreNoUtf8) {
  const Tree tree(json_new(JSON_NODE));
  json_push_back(tree.get(), json_new_a("\xff", "a\xc3(b"));
  EXPECT_EQ(written(tree.get()), "{\n\t\"\ufffd\" : \"a\ufffd(b\"\n}");
  EXPECT_TRUE(valid(written(tree.get())));
}

TEST(LibjsonWrite, WritesNumbersAsTheyWereRead) {
  const Tree tree = parsed("[1.10,-2.50e+03,1E-400,123456789012345678901234567890,-0]");
  EXPECT_EQ(written(tree.get()),
            "[\n\t1.10,\n\t-2.50e+03,\n\t1E-400,\n\t123456789012345678901234567890,\n\t0\n]");
}

TEST(LibjsonWrite, CarriesJsonTextInsideAString) {
  const std::string payload = R"({"rgw":{"aapState":"bound"}})";
  const Tree tree(json_new(JSON_NODE));
  json_push_back(tree.get(), json_new_a("buffer", payload.c_str()));
  EXPECT_EQ(written(tree.get()),
            "{\n\t\"buffer\" : \"{\\\"rgw\\\":{\\\"aapState\\\":\\\"bound\\\"}}\"\n}");
}

TEST(LibjsonNulInText, SurvivesReadingAndWriting) {
  const std::string text = "{\n\t\"a\\u0000b\" : \"c\\u0000d\"\n}";
  EXPECT_EQ(written(parsed(text).get()), text);
}

TEST(LibjsonNulInText, IsNeverTakenForTheEndOfAName) {
  const Tree tree = parsed(R"({"code\u0000x":1})");
  EXPECT_EQ(json_find(tree.get(), "code"), json_end(tree.get()));
  EXPECT_EQ(name_of(json_at(tree.get(), 0)), "code");  // all that a C text can show
}

TEST(LibjsonNulInText, EndsTheNumberAtTheStartOfAString) {
  EXPECT_EQ(integer_of(R"("12\u00003")"), 12);
}

TEST(LibjsonMemory, IsBalancedOverManyTrees) {  // shown by the leak check of the sanitizer build
  for (int i = 0; i < 1000; ++i) {
    const Tree tree(json_new(JSON_NODE));
    JSONNODE* const arg = json_new(JSON_NODE);
    json_set_name(arg, "arg");
    json_push_back(arg, json_new_i("comp_id", i));
    json_push_back(tree.get(), arg);
    const Tree read = parsed(written(tree.get()));
    ASSERT_EQ(json_equal(tree.get(), read.get()), 1);
    const Tree popped(json_pop_back_at(read.get(), 0));
    ASSERT_EQ(name_of(popped.get()), "arg");
  }
}

}  // namespace
