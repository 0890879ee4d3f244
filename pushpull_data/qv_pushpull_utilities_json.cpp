#include <syslog.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <exception>
#include <fstream>
#include <limits>

#include "pushpull_data/qv_json_ptr.h"
#include "pushpull_data/qv_pushpull_utilities.h"

namespace {

constexpr std::array<const char*, 6> kTypeTexts = {
    "JSON node is of JSON_NULL type",   "JSON node is of JSON_STRING type",
    "JSON node is of JSON_NUMBER type", "JSON node is of JSON_BOOL type",
    "JSON node is of JSON_ARRAY type",  "JSON node is of JSON_NODE type"};

/// Takes the first element of `elements` that `wanted` is contained in out of it.
/// @return false when there is none.
bool take_match(JSONNODE* wanted, JSONNODE* elements) {
  for (json_index_t i = 0; i < json_size(elements); ++i) {
    if (qv_json_subset_equal(wanted, json_at(elements, i))) {
      const QvJsonNodePtr matched(json_pop_back_at(elements, i));
      return true;
    }
  }
  return false;
}

/// @param b  loses the elements that are matched
bool array_contained(JSONNODE* a, JSONNODE* b) {
  return std::all_of(json_begin(a), json_end(a),
                     [b](JSONNODE* element) { return take_match(element, b); });
}

bool object_contained(JSONNODE* a, JSONNODE* b);

/// One member of the object `a`, looked up in the object `b`.
bool member_contained(JSONNODE* member, JSONNODE* a, JSONNODE* b) {
  const QvJsonTextPtr name(json_name(member));
  JSONNODE** const found = json_find(b, name.get());
  if (found == json_end(b) || json_type(*found) != json_type(member)) return false;
  switch (json_type(member)) {
    case JSON_NODE:
      return qv_json_subset_equal(member, *found);
    case JSON_ARRAY:
      return array_contained(member, *found);
    default:
      // The whole objects, not the two members: strict on purpose.
      return json_equal(a, b) != 0;
  }
}

bool object_contained(JSONNODE* a, JSONNODE* b) {
  return std::all_of(json_begin(a), json_end(a),
                     [a, b](JSONNODE* member) { return member_contained(member, a, b); });
}

/// Whether a segment of a path is an array's index; `index` is then its value, or the nearest int.
bool is_index(const std::string& segment, int& index) {
  const char* const end = segment.data() + segment.size();
  const auto result = std::from_chars(segment.data(), end, index);
  if (result.ec == std::errc::result_out_of_range) {
    using Limits = std::numeric_limits<int>;
    index = segment.front() == '-' ? Limits::min() : Limits::max();
  }
  return result.ec != std::errc::invalid_argument && result.ptr == end;
}

constexpr std::array<std::uint32_t, 256> make_crc_table() {
  std::array<std::uint32_t, 256> table = {};
  for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
    std::uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc >> 1) ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0U);
    table[byte] = crc;
  }
  return table;
}

}  // namespace

const std::array<std::uint32_t, 256> QV_PUSHPULL_CRC32_TABLE_04C11DB7 = make_crc_table();

bool qv_json_subset_equal(void* a, void* b) {
  if (json_type(a) != json_type(b)) {
    syslog(LOG_ERR,
           "***qv_json_subset_equal: trying to compare two diff types json nodes %d,%d  ***",
           json_type(a), json_type(b));
    return false;
  }
  if (json_size(a) == 0 || json_size(b) == 0) return false;
  const QvJsonNodePtr copy_a(json_copy(a));
  const QvJsonNodePtr copy_b(json_copy(b));
  if (copy_a == nullptr || copy_b == nullptr) return false;  // for want of memory
  switch (json_type(a)) {
    case JSON_ARRAY:
      return array_contained(copy_a.get(), copy_b.get());
    case JSON_NODE:
      return object_contained(copy_a.get(), copy_b.get());
    default:
      return json_equal(copy_a.get(), copy_b.get()) != 0;
  }
}

JSONNODE* ParseJsonFile(std::string path) {
  std::ifstream file(path, std::ios::binary);
  if (!file.is_open()) return nullptr;
  std::ostringstream content;
  content << file.rdbuf();
  const std::string text = content.str();
  if (json_is_valid(text.c_str()) == 0) {
    syslog(LOG_ERR, "PushPull:%s@%d: JSON in file %s is invalid json", __func__, __LINE__,
           path.c_str());
    return nullptr;
  }
  return json_parse(text.c_str());
}

bool CheckSizeRequested(std::string path, std::string* out) {
  try {
    std::string prev_node_name;
    for (std::size_t begin = 1, end = 0; end != std::string::npos; begin = end + 1) {
      end = path.find('/', begin);
      const std::string segment = path.substr(begin, end - begin);
      int index = 0;
      if (segment.empty()) {
        syslog(LOG_DEBUG, "PushPull:%s@%d: Root path or dangling / or back to back slashes //",
               __func__, __LINE__);
      } else if (segment != "size") {
        prev_node_name = segment;
      } else if (prev_node_name.empty()) {
        syslog(LOG_DEBUG, "PushPull:%s@%d:prev_node_name size is=0", __func__, __LINE__);
        prev_node_name = segment;
      } else if (is_index(prev_node_name, index)) {
        syslog(LOG_ERR, "PushPull:%s@%d:out =%d,Read path incorrect", __func__, __LINE__, index);
        return false;
      } else {
        *out = path.substr(0, path.find("/size"));
        return true;
      }
    }
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "PushPull:%s@%d: Exception %s", __func__, __LINE__, error.what());
    syslog(LOG_ERR, "PushPull:%s@%d: Read path incorrect", __func__, __LINE__);
  }
  return false;
}

std::uint32_t CalcCrc32(std::string data) {
  std::uint32_t crc = 0xFFFFFFFFU;
  for (const char byte : data) {
    const std::uint32_t index = (crc ^ static_cast<unsigned char>(byte)) & 0xFFU;
    crc = QV_PUSHPULL_CRC32_TABLE_04C11DB7[index] ^ (crc >> 8);
  }
  return crc;
}

void ConvertIntToString(long value, std::stringstream* out) {
  try {
    *out << value;
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "PushPull:%s@%d: Exception %s", __func__, __LINE__, error.what());
    syslog(LOG_ERR, "PushPull:%s@%d: Err in int to string conv", __func__, __LINE__);
  }
}

double qv_pushpull_get_timestamp() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long microseconds = now.tv_nsec / 1000;
  return static_cast<double>(now.tv_sec) + static_cast<double>(microseconds) * 1e-6;
}

bool DoesFileExist(std::string path) {
  return std::ifstream(path).is_open();
}

void PrintJsonType(void* node) {
  if (node == nullptr) {
    syslog(LOG_ERR, "NULL pointer");
    return;
  }
  const auto type = static_cast<unsigned char>(json_type(node));
  syslog(LOG_DEBUG, "%s", type < kTypeTexts.size() ? kTypeTexts[type] : "Invalid JSON type");
}

void PrintJsonNode(void* node) {
  if (node == nullptr) return;
  const QvJsonTextPtr text(json_write_formatted(node));
  if (text != nullptr) syslog(LOG_DEBUG, "%s", text.get());
}

void PrintJsonSize(void* node) {
  if (node == nullptr) return;
  syslog(LOG_DEBUG, "Size of the node is %u", json_size(node));
}

void PrintJsonName(void* node) {
  if (node == nullptr) return;
  const QvJsonTextPtr name(json_name(node));
  if (name != nullptr) syslog(LOG_DEBUG, "Name of the node is %s", name.get());
}
