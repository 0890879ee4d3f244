#include "lab/pushpull_store/tree.h"

#include <stdexcept>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace lab {
namespace {

using testing::ElementsAre;

const char kTree[] =
    R"({"rgw":{"aapState":"bound","configSec":{"relayServerPort":8443}},
        "interfaces":[{"id":1,"wifiStatus":{"status":"associated"}},{"id":2}]})";

std::string document(const std::string& path) {
  const Json tree = parse_json(kTree);
  const Json* const node = find_node(tree, parse_path(path));
  return node == nullptr ? "none" : nested_document(tree, parse_path(path), *node).dump();
}

TEST(Tree, PathsAreSplitAtSlashes) {
  EXPECT_THAT(parse_path("/rgw/aapState"), ElementsAre("rgw", "aapState"));
  EXPECT_THAT(parse_path("//rgw/"), ElementsAre("rgw"));
  EXPECT_THAT(parse_path("/"), ElementsAre());
  EXPECT_THROW(parse_path("rgw"), std::invalid_argument);
  EXPECT_THROW(parse_path(""), std::invalid_argument);
  EXPECT_THAT(parse_paths("/a;/b/c;"), ElementsAre(Path{"a"}, Path{"b", "c"}));
  EXPECT_THROW(parse_paths(""), std::invalid_argument);
  EXPECT_EQ(to_text(parse_path("/a/b")), "/a/b");
  EXPECT_EQ(to_text({}), "/");
}

TEST(Tree, DocumentHasTheNestingFromTheTopAndNothingElse) {
  EXPECT_EQ(document("/rgw/aapState"), R"({"rgw":{"aapState":"bound"}})");
  EXPECT_EQ(document("/rgw/configSec"), R"({"rgw":{"configSec":{"relayServerPort":8443}}})");
  EXPECT_EQ(document("/interfaces/0/wifiStatus"),
            R"({"interfaces":[{"wifiStatus":{"status":"associated"}}]})");
  EXPECT_EQ(document("/interfaces/1"), R"({"interfaces":[{"id":2}]})");
}

TEST(Tree, WhatIsNotThereIsNotFound) {
  for (const char* path : {"/system", "/rgw/x", "/rgw/aapState/x", "/interfaces/2",
                           "/interfaces/-1", "/interfaces/x", "/interfaces/0x"}) {
    EXPECT_EQ(document(path), "none") << path;
  }
}

TEST(Tree, StoringMergesObjectsAndReplacesTheRest) {
  Json tree = parse_json(kTree);
  merge(tree, parse_json(R"({"rgw":{"aapState":"error","new":{"a":1}},"interfaces":[{"id":3}]})"));
  EXPECT_EQ(tree.dump(),
            R"({"rgw":{"aapState":"error","configSec":{"relayServerPort":8443},"new":{"a":1}},)"
            R"("interfaces":[{"id":3}]})");
  merge(tree, parse_json(R"({"rgw":7})"));
  EXPECT_EQ(tree["rgw"], 7);
}

TEST(Tree, DocumentTouchesWhatItWritesAndWhatLiesAbove) {
  const Json written = parse_json(R"({"rgw":{"aapState":"bound"},"list":[1]})");
  for (const char* path : {"/", "/rgw", "/rgw/aapState", "/rgw/aapState/deeper", "/list/0"}) {
    EXPECT_TRUE(touches(written, parse_path(path))) << path;
  }
  for (const char* path : {"/system", "/rgw/configSec"}) {
    EXPECT_FALSE(touches(written, parse_path(path))) << path;
  }
}

TEST(Tree, OnlyJsonOfABoundedDepthIsRead) {
  EXPECT_THROW(parse_json("{"), std::invalid_argument);
  EXPECT_THROW(parse_json(""), std::invalid_argument);
  EXPECT_THROW(parse_json("\"\xff\""), std::invalid_argument);
  EXPECT_NO_THROW(parse_json(std::string(128, '[') + std::string(128, ']')));
  EXPECT_THROW(parse_json(std::string(129, '[') + std::string(129, ']')), std::invalid_argument);
  EXPECT_THROW(parse_json(std::string(1'000'000, '[')), std::invalid_argument);
}

}  // namespace
}  // namespace lab
