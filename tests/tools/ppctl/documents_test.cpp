#include "tools/ppctl/documents.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tools/ppctl/failure.h"
#include "tools/ppctl/session.h"

using ppctl::Json;
using ppctl::Layout;
using ppctl::Path;

namespace {

// The text of the failure, "" without one; a status other than kUsage is named.
template <typename Work>
std::string failure_of(Work work) {
  try {
    work();
  } catch (const ppctl::Failure& failure) {
    return (failure.status() == ppctl::Status::kUsage ? "" : "not usage: ") +
           std::string(failure.what());
  }
  return "";
}

std::string place_of(const std::string& text) {
  const auto fault = ppctl::find_fault(text);
  return fault ? std::to_string(fault->line) + ":" + std::to_string(fault->column) : "none";
}

std::string nested_arrays(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

}  // namespace

TEST(JsonFault, ATextThatIsJsonHasNone) {
  for (const char* const text :
       {"{}", "[]", "1", "-1.5e3", "\"a\"", "null", " {\"a\":[1,{}]} \n"}) {
    EXPECT_EQ(place_of(text), "none") << text;
  }
}

TEST(JsonFault, IsPlacedAtTheCharacterThatIsWrong) {
  EXPECT_EQ(place_of("{\"a\":1,}"), "1:8");
  EXPECT_EQ(place_of("{\n  \"a\": 1\n  \"b\": 2\n}"), "3:5");  // the end of what is not expected
  EXPECT_EQ(place_of("x"), "1:1");
  EXPECT_EQ(place_of("{}\n}"), "2:1");
}

TEST(JsonFault, AtTheEndOfATextIsPlacedBehindItsLastCharacter) {
  EXPECT_EQ(place_of("{\"a\":"), "1:6");
  EXPECT_EQ(place_of(""), "1:1");
}

TEST(JsonFault, ColumnsCountCharactersNotBytes) {
  EXPECT_EQ(place_of("{\"\u00e4\u20ac\":x}"), "1:7");
}

TEST(JsonFault, ANumberThatNobodyCanHoldIsPlacedToo) {
  EXPECT_EQ(place_of("{\"a\":\n1e999}"), "2:5");
  EXPECT_EQ(ppctl::find_fault("1e999")->reason, "number overflow parsing '1e999'");
}

TEST(JsonFault, SaysWhatIsWrongWithoutTheLibrarysOrnaments) {
  const std::string reason = ppctl::find_fault("{\"a\" 1}")->reason;
  EXPECT_EQ(reason.rfind("syntax error while parsing object separator", 0), 0U) << reason;
}

TEST(JsonFault, BytesThatAreNoUtf8AreOne) {
  EXPECT_EQ(place_of("{\"a\":\"\xff\"}"), "1:7");
}

TEST(JsonFault, DepthUpToTheStoresLimitIsNone) {
  EXPECT_EQ(place_of(nested_arrays(ppctl::kDeepest)), "none");
}

TEST(JsonFault, OneLevelMoreThanTheStoresLimitIsPlacedAtItsBracket) {
  EXPECT_EQ(place_of("\n" + nested_arrays(ppctl::kDeepest + 1)), "2:129");
  EXPECT_EQ(ppctl::find_fault(nested_arrays(ppctl::kDeepest + 1))->reason,
            "deeper than 128 levels");
}

TEST(JsonFault, BracketsWithinStringsAreNotDeep) {
  EXPECT_EQ(place_of("[\"" + std::string(500, '[') + "\\\"[\"]"), "none");
}

TEST(JsonFault, SiblingsAreNotDeep) {
  std::string text = "[";
  for (int i = 0; i < 300; ++i)
    text += "{},";
  EXPECT_EQ(place_of(text + "[]]"), "none");
}

TEST(Document, IsAnObjectWithANode) {
  EXPECT_EQ(ppctl::parse_document("{\"rgw\":{}}", "file").dump(), "{\"rgw\":{}}");
  const std::string text = "file: line 1, column 1: a document is an object with a node in it";
  for (const char* const other : {"{}", "[1]", "1", "null", "\"text\""}) {
    EXPECT_EQ(failure_of([&] { ppctl::parse_document(other, "file"); }), text) << other;
  }
}

TEST(Document, KeepsTheOrderOfItsMembers) {
  EXPECT_EQ(ppctl::parse_document("{\"b\":1,\"a\":2}", "file").dump(), "{\"b\":1,\"a\":2}");
}

TEST(Document, AFaultNamesSourceLineAndColumn) {
  const std::string text = failure_of([] { ppctl::parse_document("{\n\"a\":}", "stdin"); });
  EXPECT_EQ(text.rfind("stdin: line 2, column 5: ", 0), 0U) << text;
}

TEST(Document, AnIntegerThatWouldBeRoundedIsAFault) {
  for (const char* const text :
       {"9223372036854775807", "18446744073709551615", "-9223372036854775808", "1e20",
        "18446744073709551616.5", "-1.5e-3",
        "{\"18446744073709551616\":[0,\"-99999999999999999999\"]}"}) {
    EXPECT_NO_THROW(ppctl::parse_json(text, "file")) << text;
  }
  const std::string reason = ": an integer that 64 bits do not hold";
  EXPECT_EQ(failure_of([] { ppctl::parse_json("18446744073709551616", "file"); }),
            "file: line 1, column 1" + reason);
  EXPECT_EQ(
      failure_of([] { ppctl::parse_json("{\"\\\"\":[1,2.5,\n -9223372036854775809]}", "file"); }),
      "file: line 2, column 2" + reason);
}

TEST(Value, IsJsonWhenItCanBe) {
  EXPECT_EQ(ppctl::parse_value("5", false), Json(5));
  EXPECT_EQ(ppctl::parse_value("-18000", false), Json(-18000));
  EXPECT_EQ(ppctl::parse_value("true", false), Json(true));
  EXPECT_EQ(ppctl::parse_value("null", false), Json(nullptr));
  EXPECT_EQ(ppctl::parse_value("\"5\"", false), Json("5"));
  EXPECT_EQ(ppctl::parse_value("[1,2]", false), Json({1, 2}));
}

TEST(Value, IsAStringWhenItIsNoJson) {
  for (const char* const text : {"bound", "", "1.2.3", "truely", "a \"b\"", "-"}) {
    EXPECT_EQ(ppctl::parse_value(text, false), Json(text)) << text;
  }
}

TEST(Value, ThatBeginsLikeJsonMustBeJson) {
  for (const char* const text : {"{\"a\":", "[1,", "\"bound", "  {"}) {
    EXPECT_EQ(failure_of([&] { ppctl::parse_value(text, false); }).rfind("VALUE: line 1, ", 0), 0U)
        << text;
  }
}

TEST(Value, ThatIsANumberTooLargeToHoldIsRefused) {
  for (const char* const text : {"1e309", "-1E+400", "18446744073709551616"}) {
    EXPECT_EQ(failure_of([&] { ppctl::parse_value(text, false); }).rfind("VALUE: line 1, ", 0), 0U)
        << text;
    EXPECT_EQ(ppctl::parse_value(text, true), Json(text));
  }
  EXPECT_EQ(ppctl::parse_value("1e309 J", false), Json("1e309 J"));
}

TEST(Value, TakenLiterallyIsAlwaysAString) {
  EXPECT_EQ(ppctl::parse_value("5", true), Json("5"));
  EXPECT_EQ(ppctl::parse_value("{\"a\":", true), Json("{\"a\":"));
}

TEST(Value, ThatIsNoUtf8IsRefused) {
  EXPECT_EQ(failure_of([] { ppctl::parse_value("\xff", false); }), "VALUE is not UTF-8 text");
  EXPECT_EQ(failure_of([] { ppctl::parse_value("\xff", true); }), "VALUE is not UTF-8 text");
  EXPECT_EQ(failure_of([] { ppctl::parse_value("{\"\xff\":1}", false); }),
            "VALUE is not UTF-8 text");
}

TEST(NodePath, IsTheNamesBetweenTheSlashes) {
  EXPECT_EQ(ppctl::parse_path("/rgw"), (Path{"rgw"}));
  EXPECT_EQ(ppctl::parse_path("/rgw/aapState"), (Path{"rgw", "aapState"}));
  EXPECT_EQ(ppctl::parse_path("/"), Path{});
}

TEST(NodePath, MustBeOne) {
  for (const char* const text : {"", "rgw", "//", "/rgw/", "/a//b", "/a;/b", "/a\nb", "/a\x7f"}) {
    EXPECT_NE(failure_of([&] { ppctl::parse_path(text); }), "") << text;
  }
}

TEST(NodePath, IsUtf8) {
  EXPECT_EQ(ppctl::parse_path("/\u00e4"), ppctl::Path{"\u00e4"});
  EXPECT_EQ(failure_of([] { ppctl::parse_path("/a/\xff"); }), "path \"/a/\xff\" is not UTF-8 text");
}

TEST(NodePath, OfOneNodeIsNotTheWholeTree) {
  EXPECT_EQ(failure_of([] { ppctl::parse_node_path("/"); }),
            "path \"/\": this needs a node, not the whole tree");
  EXPECT_EQ(ppctl::parse_node_path("/a"), (Path{"a"}));
}

TEST(NodePath, HasALimitedDepth) {
  std::string path;
  for (std::size_t i = 0; i < ppctl::kDeepest - 1; ++i)
    path += "/a";
  EXPECT_EQ(ppctl::parse_path(path).size(), ppctl::kDeepest - 1);
  EXPECT_NE(failure_of([&] { ppctl::parse_path(path + "/a"); }), "");
}

TEST(NestedDocument, HoldsNothingButTheValue) {
  EXPECT_EQ(ppctl::nest({"rgw", "aapState"}, "bound").dump(), R"({"rgw":{"aapState":"bound"}})");
  EXPECT_EQ(ppctl::nest({"a"}, Json::array({1})).dump(), R"({"a":[1]})");
}

TEST(NestedDocument, GivesItsValueBackAtItsPath) {
  const Path path = {"a", "b", "c"};
  const Json document = ppctl::nest(path, {{"d", 1}});
  ASSERT_NE(ppctl::find_node(document, path), nullptr);
  EXPECT_EQ(*ppctl::find_node(document, path), Json({{"d", 1}}));
}

TEST(FindNode, IsNullForWhatTheDocumentDoesNotHold) {
  const Json document = Json::parse(R"({"rgw":{"aapState":"bound"},"list":[{"id":1},{"id":2}]})");
  EXPECT_EQ(ppctl::find_node(document, {"rgw", "other"}), nullptr);
  EXPECT_EQ(ppctl::find_node(document, {"rgw", "aapState", "deeper"}), nullptr);
  EXPECT_EQ(ppctl::find_node(document, {"list", "2"}), nullptr);
  EXPECT_EQ(ppctl::find_node(document, {"list", "id"}), nullptr);
  EXPECT_EQ(ppctl::find_node(document, {"list", "99999999999999999999"}), nullptr);
}

TEST(FindNode, NamesLeadIntoObjectsAndNumbersIntoArrays) {
  const Json document = Json::parse(R"({"list":[{"id":1},{"id":2}],"5":{"6":7}})");
  EXPECT_EQ(*ppctl::find_node(document, {"list", "1", "id"}), Json(2));
  EXPECT_EQ(*ppctl::find_node(document, {"5", "6"}), Json(7));
  EXPECT_EQ(*ppctl::find_node(document, {}), document);
}

TEST(FindNode, TheOnlyElementOfAnArrayIsTheOneThatWasAskedFor) {
  const Json answer = Json::parse(R"({"list":[{"id":2}]})");
  EXPECT_EQ(*ppctl::find_node(answer, {"list", "1", "id"}), Json(2));
}

TEST(Message, IsItsJsonOrElseAString) {
  EXPECT_EQ(ppctl::read_message(R"({"a":1})"), Json({{"a", 1}}));
  EXPECT_EQ(ppctl::read_message("hello"), Json("hello"));
  EXPECT_EQ(ppctl::read_message(""), Json(""));
}

TEST(Message, TooDeepForThisProgramIsAString) {
  const std::string text = nested_arrays(100000);
  EXPECT_EQ(ppctl::read_message(text), Json(text));
}

TEST(WrittenJson, IsOneLineOrIndented) {
  const Json value = Json::parse(R"({"a":{"b":[1]}})");
  EXPECT_EQ(ppctl::write_json(value, Layout::kCompact), R"({"a":{"b":[1]}})");
  EXPECT_EQ(ppctl::write_json(value, Layout::kPretty),
            "{\n  \"a\": {\n    \"b\": [\n      1\n    ]\n  }\n}");
}

TEST(WrittenJson, KeepsUtf8AndReplacesWhatIsNone) {
  EXPECT_EQ(ppctl::write_json(Json("\u00e4"), Layout::kCompact), "\"\u00e4\"");
  EXPECT_EQ(ppctl::write_json(Json("a\xff"), Layout::kCompact), "\"a\ufffd\"");
}

namespace {

std::string as_text(const std::vector<ppctl::QueueSize>& sizes) {
  std::string text;
  for (const auto& size : sizes) {
    text += std::to_string(size.messages) + "x" + std::to_string(size.bytes) + " ";
  }
  return text;
}

}  // namespace

TEST(ReplyQueue, IsLargeWhereTheBudgetIsLarge) {
  EXPECT_EQ(as_text(ppctl::reply_queue_sizes(851968000, {})), "16x262144 10x8192 3x8192 1x8192 ");
  EXPECT_EQ(as_text(ppctl::reply_queue_sizes(RLIM_INFINITY, {})),
            "16x262144 10x8192 3x8192 1x8192 ");
}

TEST(ReplyQueue, TakesAtMostAQuarterOfAnOrdinaryUsersBudget) {
  EXPECT_EQ(as_text(ppctl::reply_queue_sizes(819200, {})), "10x8192 3x8192 1x8192 ");
  EXPECT_EQ(as_text(ppctl::reply_queue_sizes(327680, {})), "10x8192 3x8192 1x8192 ");
  EXPECT_EQ(as_text(ppctl::reply_queue_sizes(327679, {})), "3x8192 1x8192 ");
}

TEST(ReplyQueue, IsTriedInItsSmallestFormWhateverTheBudget) {
  EXPECT_EQ(as_text(ppctl::reply_queue_sizes(0, {})), "1x8192 ");
}

TEST(ReplyQueue, TakesTheMessageSizeThatWasAskedFor) {
  EXPECT_EQ(as_text(ppctl::reply_queue_sizes(819200, 65536)), "3x65536 1x65536 ");
  EXPECT_EQ(as_text(ppctl::reply_queue_sizes(819200, 262144)), "1x262144 ");
  EXPECT_EQ(as_text(ppctl::reply_queue_sizes(819200, 30000)), "6x30000 3x30000 1x30000 ");
  EXPECT_EQ(as_text(ppctl::reply_queue_sizes(851968000, 100000)),
            "16x100000 10x100000 3x100000 1x100000 ");
}

TEST(DefaultId, IsAProcessesOwnAndNeitherTheServicesNorOneThatMayDelete) {
  EXPECT_EQ(ppctl::default_id(1), 0x50000001);
  EXPECT_EQ(ppctl::default_id(4194304), 0x50400000);  // the highest process id of Linux
}

TEST(SecondsText, IsAsShortAsCanBe) {
  EXPECT_EQ(ppctl::seconds_text(std::chrono::milliseconds(5000)), "5 s");
  EXPECT_EQ(ppctl::seconds_text(std::chrono::milliseconds(300)), "0.3 s");
  EXPECT_EQ(ppctl::seconds_text(std::chrono::milliseconds(0)), "0 s");
  EXPECT_EQ(ppctl::seconds_text(std::chrono::milliseconds(100000)), "100 s");
}
