// JSON, text, time and file helpers of the pushpull library.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <fstream>
#include <locale>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>

#include "pushpull_data/qv_json_ptr.h"
#include "pushpull_data/qv_pushpull_utilities.h"
#include "tests/support/fake_time.h"
#include "tests/support/journal.h"
#include "tests/support/wide_names.h"

// Replaced for this program by the linker, so that a node can be of no known type.
extern "C" char __real_json_type(const JSONNODE* node);
extern "C" char __wrap_json_type(const JSONNODE* node);
extern "C" int __real_clock_gettime(clockid_t clock, struct timespec* now);
extern "C" int __wrap_clock_gettime(clockid_t clock, struct timespec* now);

namespace {

char forced_type = '\xff';
long forced_nanoseconds = -1;

}  // namespace

char __wrap_json_type(const JSONNODE* node) {
  return forced_type == '\xff' ? __real_json_type(node) : forced_type;
}

int __wrap_clock_gettime(clockid_t clock, struct timespec* now) {
  const int result = __real_clock_gettime(clock, now);
  if (forced_nanoseconds >= 0) *now = {12, forced_nanoseconds};
  return result;
}

namespace {

using test_support::FakeTime;
using test_support::journal;
using test_support::Journal;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using namespace std::string_literals;

QvJsonNodePtr parsed(const std::string& text) {
  QvJsonNodePtr tree(json_parse(text.c_str()));
  EXPECT_NE(tree, nullptr) << text;
  return tree;
}

class PushpullUtilities : public testing::Test {
 protected:
  void SetUp() override { test_support::clear_journal(); }
  void TearDown() override {
    forced_type = '\xff';
    forced_nanoseconds = -1;
  }
};

/// Containment of two documents, which must not change them.
bool contained(const std::string& a, const std::string& b) {
  const QvJsonNodePtr first = parsed(a);
  const QvJsonNodePtr second = parsed(b);
  const bool result = qv_json_subset_equal(first.get(), second.get());
  EXPECT_EQ(json_equal(first.get(), parsed(a).get()), 1) << a;
  EXPECT_EQ(json_equal(second.get(), parsed(b).get()), 1) << b;
  return result;
}

std::string mismatch(int a, int b) {
  return "syslog 3 ***qv_json_subset_equal: trying to compare two diff types json nodes " +
         std::to_string(a) + "," + std::to_string(b) + "  ***";
}

using Containment = PushpullUtilities;

TEST_F(Containment, OfAnArrayWithScalarsIsFalse) {
  EXPECT_FALSE(contained(R"({"a":[1,2]})", R"({"a":[2,1,3]})"));
  EXPECT_FALSE(contained("[1]", "[1]"));
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(Containment, OfAnObjectInAnArrayIsLoggedAndFalse) {
  EXPECT_FALSE(contained(R"({"a":1})", R"([{"a":1}])"));
  EXPECT_THAT(journal(), ElementsAre(mismatch(5, 4)));
}

TEST_F(Containment, OfNothingIsFalse) {
  EXPECT_FALSE(contained("{}", "{}"));
  EXPECT_FALSE(contained("[]", "[]"));
  EXPECT_FALSE(contained("{}", R"({"a":1})"));
  EXPECT_FALSE(contained(R"({"a":1})", "{}"));
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(Containment, OfAScalarInAnEqualOneIsFalse) {
  const QvJsonNodePtr a(json_new_i("n", 1));
  const QvJsonNodePtr b(json_new_i("n", 1));
  EXPECT_FALSE(qv_json_subset_equal(a.get(), b.get()));
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(Containment, OfNullIsFalse) {
  const QvJsonNodePtr tree = parsed(R"({"a":1})");
  EXPECT_FALSE(qv_json_subset_equal(nullptr, nullptr));
  EXPECT_FALSE(qv_json_subset_equal(tree.get(), nullptr));
  EXPECT_THAT(journal(), ElementsAre(mismatch(5, 0)));
}

TEST_F(Containment, OfScalarMembersDemandsEqualObjects) {
  EXPECT_TRUE(contained(R"({"a":1,"b":"x"})", R"({"a":1,"b":"x"})"));
  EXPECT_FALSE(contained(R"({"a":1})", R"({"a":1,"b":"x"})"));
  EXPECT_FALSE(contained(R"({"b":"x","a":1})", R"({"a":1,"b":"x"})"));
  EXPECT_FALSE(contained(R"({"a":1})", R"({"a":2})"));
}

TEST_F(Containment, OfAMemberThatIsMissingOrOfAnotherTypeIsFalseAndSilent) {
  EXPECT_FALSE(contained(R"({"a":{"x":1}})", R"({"b":{"x":1}})"));
  EXPECT_FALSE(contained(R"({"a":{"x":1}})", R"({"a":[{"x":1}]})"));
  EXPECT_FALSE(contained(R"({"a":1})", R"({"a":"1"})"));
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(Containment, OfObjectMembersLetsTheOuterObjectHaveMore) {
  EXPECT_TRUE(contained(R"({"a":{"x":1}})", R"({"z":0,"a":{"x":1},"b":2})"));
  EXPECT_FALSE(contained(R"({"a":{"x":1}})", R"({"a":{"x":1,"y":2}})"));
}

TEST_F(Containment, OfArraysIgnoresOrderAndAllowsMore) {
  EXPECT_TRUE(contained(R"([{"a":1},{"b":2}])", R"([{"c":3},{"b":2},{"a":1}])"));
  EXPECT_TRUE(contained(R"({"l":[{"a":1}]})", R"({"l":[{"b":2},{"a":1}]})"));
}

TEST_F(Containment, OfArraysUsesEachElementOnce) {
  EXPECT_FALSE(contained(R"([{"a":1},{"a":1}])", R"([{"a":1},{"b":2}])"));
  EXPECT_TRUE(contained(R"([{"a":1},{"a":1}])", R"([{"a":1},{"b":2},{"a":1}])"));
}

TEST_F(Containment, OfArraysTakesTheFirstThatFits) {
  // The first element fits both, and takes the one that the second would have needed.
  const std::string a = R"([{"o":{"p":1}},{"o":{"p":1},"q":{"r":2}}])";
  EXPECT_FALSE(contained(a, R"([{"o":{"p":1},"q":{"r":2}},{"o":{"p":1}}])"));
  EXPECT_TRUE(contained(a, R"([{"o":{"p":1}},{"o":{"p":1},"q":{"r":2}}])"));
}

TEST_F(Containment, OfArraysLogsEachElementOfAnotherType) {
  EXPECT_TRUE(contained(R"([{"a":1}])", R"([[1],2,{"a":1},[3]])"));
  EXPECT_THAT(journal(), ElementsAre(mismatch(5, 4), mismatch(5, 2)));
}

TEST_F(Containment, OfAnEmptyMemberArrayIsTrue) {
  EXPECT_TRUE(contained(R"({"a":[]})", R"({"a":[1,2]})"));
  EXPECT_TRUE(contained(R"({"a":[]})", R"({"a":[]})"));
  EXPECT_FALSE(contained(R"({"a":{}})", R"({"a":{}})"));
}

TEST_F(Containment, ComparesWholeObjectsAfterTheMatchingOfArrays) {
  EXPECT_TRUE(contained(R"({"x":1,"l":[{"a":1}]})", R"({"x":1,"l":[{"a":1}]})"));
  // Here the matching comes first and has taken the element out of the copy that is compared.
  EXPECT_FALSE(contained(R"({"l":[{"a":1}],"x":1})", R"({"l":[{"a":1}],"x":1})"));
}

// The rules of containment once more, on plain values.
struct Value {
  char type;
  std::string name;
  std::string text;
  std::vector<Value> children;

  bool operator==(const Value& other) const {
    return type == other.type && name == other.name && text == other.text &&
           children == other.children;
  }
};

class Model {
 public:
  Journal log;

  bool subset(Value a, Value b) {
    if (a.type != b.type) {
      log.push_back(mismatch(a.type, b.type));
      return false;
    }
    if (a.children.empty() || b.children.empty()) return false;
    return a.type == JSON_ARRAY ? arrays(a, b) : objects(a, b);
  }

 private:
  bool arrays(const Value& a, Value& b) {
    for (const Value& wanted : a.children) {
      auto candidate = b.children.begin();
      while (candidate != b.children.end() && !subset(wanted, *candidate))
        ++candidate;
      if (candidate == b.children.end()) return false;
      b.children.erase(candidate);
    }
    return true;
  }

  bool objects(const Value& a, Value& b) {
    for (const Value& member : a.children) {
      Value* other = nullptr;
      for (Value& candidate : b.children) {
        if (other == nullptr && candidate.name == member.name) other = &candidate;
      }
      if (other == nullptr || other->type != member.type) return false;
      const bool fits = member.type == JSON_NODE    ? subset(member, *other)
                        : member.type == JSON_ARRAY ? arrays(member, *other)
                                                    : a == b;
      if (!fits) return false;
    }
    return true;
  }
};

/// Small trees of few names and few scalars, so that two of them often have much in common.
class Generator {
 public:
  explicit Generator(unsigned seed) : random_(seed) {}

  Value tree(int depth = 3) {
    Value value = {below(2) == 0 ? JSON_ARRAY : JSON_NODE, "", "", {}};
    // Rarely empty, and scalars mostly in objects: elsewhere neither is ever contained.
    for (unsigned count = (below(30) + 9) / 10; count > 0; --count) {
      add_child(value, depth);
    }
    return value;
  }

  /// The same tree with a few changes anywhere: more, less, another order.
  Value variant(Value value) {
    for (Value& child : value.children) {
      if (is_container(child)) child = variant(child);
    }
    switch (below(16)) {
      case 0:
        add_child(value, 1);
        break;
      case 1:
        if (!value.children.empty()) value.children.pop_back();
        break;
      case 2:
        if (!value.children.empty()) std::swap(value.children.front(), value.children.back());
        break;
      default:
        break;
    }
    return value;
  }

  static bool is_container(const Value& value) {
    return value.type == JSON_ARRAY || value.type == JSON_NODE;
  }

 private:
  unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

  void add_child(Value& parent, int depth) {
    const bool leaf = parent.type == JSON_ARRAY ? below(16) == 0 : below(2) == 0;
    Value child = depth == 0 || leaf ? scalar() : tree(depth - 1);
    if (parent.type == JSON_NODE) child.name = std::string(1, static_cast<char>('a' + below(3)));
    parent.children.push_back(child);
  }

  Value scalar() {
    static const std::vector<Value> all = {{JSON_NULL, "", "null", {}},
                                           {JSON_BOOL, "", "true", {}},
                                           {JSON_NUMBER, "", "1", {}},
                                           {JSON_STRING, "", "\"1\"", {}}};
    return all[below(4)];
  }

  std::mt19937 random_;
};

std::string json_of(const Value& value) {
  if (!Generator::is_container(value)) return value.text;
  std::string out;
  for (const Value& child : value.children) {
    out += out.empty() ? "" : ",";
    if (value.type == JSON_NODE) out += "\"" + child.name + "\":";
    out += json_of(child);
  }
  return value.type == JSON_NODE ? "{" + out + "}" : "[" + out + "]";
}

TEST_F(Containment, FollowsItsRulesOnGeneratedTrees) {
  Generator generator(1);
  int found = 0;
  int logged = 0;
  constexpr int kPairs = 20'000;
  for (int i = 0; i < kPairs; ++i) {
    const Value a = generator.tree();
    const Value b = i % 4 == 0 ? generator.tree() : generator.variant(a);
    Model model;
    const bool expected = model.subset(a, b);
    test_support::clear_journal();
    ASSERT_EQ(contained(json_of(a), json_of(b)), expected) << json_of(a) << "\n" << json_of(b);
    ASSERT_EQ(journal(), model.log) << json_of(a) << "\n" << json_of(b);
    found += expected ? 1 : 0;
    logged += model.log.empty() ? 0 : 1;
  }
  RecordProperty("contained", found);
  RecordProperty("logged", logged);
  // The generator is of use only while neither result is rare.
  EXPECT_GT(found, kPairs / 20);
  EXPECT_LT(found, kPairs - kPairs / 20);
  EXPECT_GT(logged, kPairs / 20);
}

class JsonFile : public PushpullUtilities {
 protected:
  void SetUp() override {
    PushpullUtilities::SetUp();
    directory_ = testing::TempDir() + "json_file_XXXXXX";
    ASSERT_NE(mkdtemp(directory_.data()), nullptr);
    ASSERT_EQ(chmod(directory_.c_str(), 0755), 0);
    path_ = directory_ + "/document.json";
  }
  void TearDown() override {
    unlink(path_.c_str());
    rmdir(directory_.c_str());
    PushpullUtilities::TearDown();
  }

  void write(const std::string& content) { std::ofstream(path_, std::ios::binary) << content; }

  static void expect_invalid_line(const std::string& path) {
    ASSERT_EQ(journal().size(), 1U);
    EXPECT_THAT(journal()[0], MatchesRegex("syslog 3 PushPull:ParseJsonFile@[0-9]+: JSON in file " +
                                           path + " is invalid json"));
  }

  std::string directory_;
  std::string path_;
};

TEST_F(JsonFile, IsReadWhole) {
  std::string text = "{\"list\":[0";
  for (int i = 1; i < 20'000; ++i)
    text += ",\n" + std::to_string(i);
  write(text + "]}\n");
  const QvJsonNodePtr tree(ParseJsonFile(path_));
  ASSERT_NE(tree, nullptr);
  JSONNODE* const list = json_at(tree.get(), 0);
  ASSERT_EQ(json_size(list), 20'000U);
  EXPECT_EQ(json_as_int(json_at(list, 19'999)), 19'999);
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(JsonFile, ThatCannotBeOpenedGivesNullSilently) {
  EXPECT_EQ(ParseJsonFile(path_), nullptr);
  EXPECT_EQ(ParseJsonFile(""), nullptr);
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(JsonFile, ThatIsEmptyIsInvalid) {
  write("");
  EXPECT_EQ(ParseJsonFile(path_), nullptr);
  expect_invalid_line(path_);
}

TEST_F(JsonFile, ThatIsNoJsonIsInvalid) {
  write("{\"a\":1");
  EXPECT_EQ(ParseJsonFile(path_), nullptr);
  expect_invalid_line(path_);
}

TEST_F(JsonFile, ThatIsADirectoryIsInvalid) {
  EXPECT_EQ(ParseJsonFile(directory_), nullptr);
  expect_invalid_line(directory_);
}

TEST_F(JsonFile, ExistsWhenItOpens) {
  EXPECT_FALSE(DoesFileExist(path_));
  EXPECT_FALSE(DoesFileExist(""));
  write("");
  EXPECT_TRUE(DoesFileExist(path_));
}

TEST_F(JsonFile, ThatMayNotBeReadCountsAsAbsent) {
  write("{}");
  ASSERT_EQ(chmod(path_.c_str(), 0), 0);
  const uid_t user = geteuid();
  constexpr uid_t kNobody = 65534;
  if (user == 0 && seteuid(kNobody) != 0) {
    GTEST_SKIP() << "root that cannot become another user reads every file";
  }
  const bool exists = DoesFileExist(path_);
  JSONNODE* const tree = ParseJsonFile(path_);
  ASSERT_EQ(seteuid(user), 0);
  EXPECT_FALSE(exists);
  EXPECT_EQ(tree, nullptr);
}

/// CheckSizeRequested() as "true PATH", or "false"; then `out` must be untouched.
std::string size_request(const std::string& path) {
  std::string out = "untouched";
  if (CheckSizeRequested(path, &out)) return "true " + out;
  EXPECT_EQ(out, "untouched") << path;
  return "false";
}

using SizeRequest = PushpullUtilities;

MATCHER_P3(IsLine, priority, function, text, "") {
  return testing::ExplainMatchResult(
      MatchesRegex("syslog "s + priority + " PushPull:" + function + "@[0-9]+:" + text), arg,
      result_listener);
}

auto empty_segment_line() {
  return IsLine("7", "CheckSizeRequested", " Root path or dangling / or back to back slashes //");
}

auto no_name_line() {
  return IsLine("7", "CheckSizeRequested", "prev_node_name size is=0");
}

TEST_F(SizeRequest, OfANodeGivesItsPath) {
  EXPECT_EQ(size_request("/rgw/size"), "true /rgw");
  EXPECT_EQ(size_request("/interfaces/wifi/size"), "true /interfaces/wifi");
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(SizeRequest, OfAnElementIsRefused) {
  EXPECT_EQ(size_request("/list/3/size"), "false");
  EXPECT_THAT(journal(),
              ElementsAre(IsLine("3", "CheckSizeRequested", "out =3,Read path incorrect")));
}

TEST_F(SizeRequest, TellsNumbersFromNamesThatBeginWithThem) {
  EXPECT_EQ(size_request("/list/3a/size"), "true /list/3a");
  EXPECT_EQ(size_request("/list/3.0/size"), "true /list/3.0");
  EXPECT_EQ(size_request("/list/-/size"), "true /list/-");
  EXPECT_THAT(journal(), IsEmpty());
  EXPECT_EQ(size_request("/list/-3/size"), "false");
  EXPECT_EQ(size_request("/list/99999999999/size"), "false");
  EXPECT_EQ(size_request("/list/-99999999999/size"), "false");
  EXPECT_THAT(
      journal(),
      ElementsAre(IsLine("3", "CheckSizeRequested", "out =-3,Read path incorrect"),
                  IsLine("3", "CheckSizeRequested", "out =2147483647,Read path incorrect"),
                  IsLine("3", "CheckSizeRequested", "out =-2147483648,Read path incorrect")));
}

TEST_F(SizeRequest, AtTheTopIsTheNameOfANode) {
  EXPECT_EQ(size_request("/size"), "false");
  EXPECT_THAT(journal(), ElementsAre(no_name_line()));
}

TEST_F(SizeRequest, OfANodeNamedSizeIsCutAtItsName) {
  EXPECT_EQ(size_request("/size/size"), "true ");
  EXPECT_THAT(journal(), ElementsAre(no_name_line()));
}

TEST_F(SizeRequest, IsCutAtTheFirstSlashSize) {
  EXPECT_EQ(size_request("/sizes/x/size"), "true ");
  EXPECT_EQ(size_request("/a/sizes/x/size"), "true /a");
}

TEST_F(SizeRequest, EndsAtTheFirstSegmentThatAsks) {
  EXPECT_EQ(size_request("/a/size/b/3/size"), "true /a");
}

TEST_F(SizeRequest, NeedsTheSegment) {
  EXPECT_EQ(size_request("/rgw"), "false");
  EXPECT_EQ(size_request("/rgw/sizes"), "false");
  EXPECT_EQ(size_request("/rgw/Size"), "false");
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(SizeRequest, ReportsEmptySegments) {
  EXPECT_EQ(size_request("/"), "false");
  EXPECT_THAT(journal(), ElementsAre(empty_segment_line()));
  EXPECT_EQ(size_request("/rgw/"), "false");
  EXPECT_EQ(size_request("//"), "false");
  EXPECT_EQ(journal().size(), 4U);
}

TEST_F(SizeRequest, GoesOnBehindAnEmptySegment) {
  EXPECT_EQ(size_request("/rgw//size"), "true /rgw/");
  EXPECT_EQ(size_request("//size"), "false");
  EXPECT_THAT(journal(), ElementsAre(empty_segment_line(), empty_segment_line(), no_name_line()));
}

TEST_F(SizeRequest, SkipsTheFirstCharacterWhateverItIs) {
  EXPECT_EQ(size_request("rgw/size"), "true rgw");
  EXPECT_EQ(size_request("xsize"), "false");
  EXPECT_THAT(journal(), ElementsAre(no_name_line()));
}

TEST_F(SizeRequest, OfAnEmptyPathIsReportedAsAnException) {
  EXPECT_EQ(size_request(""), "false");
  EXPECT_THAT(journal(), ElementsAre(IsLine("3", "CheckSizeRequested", " Exception .*substr.*"),
                                     IsLine("3", "CheckSizeRequested", " Read path incorrect")));
}

TEST(Crc32, OfTheCheckTextIsThatOfItsVariant) {
  EXPECT_EQ(CalcCrc32("123456789"), 0x340BC6D9U);
}

TEST(Crc32, OfNothingIsItsInitialValue) {
  EXPECT_EQ(CalcCrc32(""), 0xFFFFFFFFU);
}

TEST(Crc32, IsTheComplementOfTheCommonOne) {
  std::string data;
  for (unsigned i = 0; i < 1021; ++i) {
    data += static_cast<char>(i * 7 + i / 256);
    const auto* const bytes = reinterpret_cast<const Bytef*>(data.data());
    const auto common = static_cast<std::uint32_t>(crc32(0, bytes, static_cast<uInt>(data.size())));
    ASSERT_EQ(CalcCrc32(data), ~common) << data.size();
  }
}

TEST(Crc32, UsesTheStandardTable) {
  EXPECT_EQ(QV_PUSHPULL_CRC32_TABLE_04C11DB7[0], 0U);
  EXPECT_EQ(QV_PUSHPULL_CRC32_TABLE_04C11DB7[1], 0x77073096U);
  EXPECT_EQ(QV_PUSHPULL_CRC32_TABLE_04C11DB7[128], 0xEDB88320U);
  EXPECT_EQ(QV_PUSHPULL_CRC32_TABLE_04C11DB7[255], 0x2D02EF8DU);
}

/// What a stream may do to us: a formatter that throws.
class ThrowingFormatter : public std::num_put<char> {
 protected:
  iter_type do_put(iter_type, std::ios_base&, char, long) const override {
    throw std::runtime_error("no digits left");
  }
};

using IntegerText = PushpullUtilities;

TEST_F(IntegerText, IsAppended) {
  std::stringstream out;
  out << "n=";
  ConvertIntToString(LONG_MIN, &out);
  ConvertIntToString(0, &out);
  ConvertIntToString(LONG_MAX, &out);
  EXPECT_EQ(out.str(), "n=" + std::to_string(LONG_MIN) + "0" + std::to_string(LONG_MAX));
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(IntegerText, KeepsWhatTheStreamThrowsInside) {
  std::stringstream out;
  out.imbue(std::locale(out.getloc(), new ThrowingFormatter));  // owned by the locale
  out.exceptions(std::ios::badbit);
  ConvertIntToString(1, &out);
  EXPECT_THAT(journal(),
              ElementsAre(IsLine("3", "ConvertIntToString", " Exception no digits left"),
                          IsLine("3", "ConvertIntToString", " Err in int to string conv")));
}

using Timestamp = PushpullUtilities;

TEST_F(Timestamp, IsTheMonotonicClockInSeconds) {
  const FakeTime time(1'770'109'500, 100'000);
  EXPECT_EQ(qv_pushpull_get_timestamp(), 100'000.0);
  usleep(1'250'000);
  EXPECT_DOUBLE_EQ(qv_pushpull_get_timestamp(), 100'001.25);
}

TEST_F(Timestamp, IsCutToWholeMicroseconds) {
  for (const long below_a_microsecond : {0L, 1L, 999L}) {
    forced_nanoseconds = 345'678'000 + below_a_microsecond;
    EXPECT_EQ(qv_pushpull_get_timestamp(), 12 + 345'678 * 1e-6);
  }
}

using Printers = PushpullUtilities;

TEST_F(Printers, NameEachType) {
  const QvJsonNodePtr tree = parsed(R"([null,"s",1,true,[],{}])");
  for (json_index_t i = 0; i < 6; ++i)
    PrintJsonType(json_at(tree.get(), i));
  EXPECT_THAT(journal(), ElementsAre("syslog 7 JSON node is of JSON_NULL type",
                                     "syslog 7 JSON node is of JSON_STRING type",
                                     "syslog 7 JSON node is of JSON_NUMBER type",
                                     "syslog 7 JSON node is of JSON_BOOL type",
                                     "syslog 7 JSON node is of JSON_ARRAY type",
                                     "syslog 7 JSON node is of JSON_NODE type"));
}

TEST_F(Printers, NameATypeThatIsNone) {
  const QvJsonNodePtr tree = parsed("{}");
  for (const char type : {'\6', '\x80'}) {
    forced_type = type;
    PrintJsonType(tree.get());
  }
  EXPECT_THAT(journal(), ElementsAre("syslog 7 Invalid JSON type", "syslog 7 Invalid JSON type"));
}

TEST_F(Printers, SayNothingOfNullButItsType) {
  PrintJsonNode(nullptr);
  PrintJsonSize(nullptr);
  PrintJsonName(nullptr);
  EXPECT_THAT(journal(), IsEmpty());
  PrintJsonType(nullptr);
  EXPECT_THAT(journal(), ElementsAre("syslog 3 NULL pointer"));
}

TEST_F(Printers, PrintTextSizeAndName) {
  const QvJsonNodePtr tree = parsed(R"({"rate %d":{"a":1,"b":[]}})");
  JSONNODE* const node = json_at(tree.get(), 0);
  PrintJsonNode(node);
  PrintJsonSize(node);
  PrintJsonName(node);
  EXPECT_THAT(journal(), ElementsAre("syslog 7 {\n\t\"a\" : 1,\n\t\"b\" : []\n}",
                                     "syslog 7 Size of the node is 2",
                                     "syslog 7 Name of the node is rate %d"));
}

}  // namespace
