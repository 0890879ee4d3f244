// JSON texts and node paths: checked, built, taken apart and laid out. Pure functions.
#ifndef TOOLS_PPCTL_DOCUMENTS_H
#define TOOLS_PPCTL_DOCUMENTS_H

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace ppctl {

/// Keeps the members' order, so that a document comes out as it went in.
using Json = nlohmann::ordered_json;

/// Objects and arrays within each other; the store drops what is deeper.
inline constexpr std::size_t kDeepest = 128;

/// What is wrong with a JSON text, and where: line and column (in characters) count from 1.
struct JsonFault {
  std::size_t line;
  std::size_t column;
  std::string reason;
};

/// @return the first fault of a text that is not one JSON value, or is deeper than kDeepest.
std::optional<JsonFault> find_fault(const std::string& text);

/// Reads one JSON value. An integer that 64 bits do not hold is a fault: it would be rounded.
/// @param source  what the text is, for the message
/// @throws Failure kUsage, "SOURCE: line 2, column 7: REASON"
Json parse_json(const std::string& text, const std::string& source);

/// Reads a document for the store: an object with at least one member. Throws as parse_json().
Json parse_document(const std::string& text, const std::string& source);

/// A VALUE of the command line: JSON, or, when it is none, that text as a string. What begins like
/// an object, an array or a string in JSON is meant to be JSON, and a fault in it is one; so is a
/// number that is too large.
/// @param literally  take it as a string in any case
/// @throws Failure kUsage
Json parse_value(const std::string& text, bool literally);

/// @param what  of the command line, for the message
/// @throws Failure kUsage for bytes that no request can hold
void check_utf8(const std::string& text, const std::string& what);

/// The names along a node's path: "/rgw/aapState" gives "rgw" and "aapState", "/" gives none.
using Path = std::vector<std::string>;

/// @throws Failure kUsage for a text that is no path: it begins with "/", its names are not empty
/// and hold neither ";" (which separates paths on the wire) nor control characters, in UTF-8.
Path parse_path(const std::string& text);

/// As parse_path(), but refuses "/", the whole tree.
Path parse_node_path(const std::string& text);

/// The document that holds nothing but `value` at `path`.
Json nest(const Path& path, Json value);

/// Whether a name in a path selects an element of an array.
bool is_index(const std::string& name);

/// @return the node at `path`, or null when the document does not hold it. An answer to a path that
/// leads into an array holds an array with that element alone.
const Json* find_node(const Json& document, const Path& path);

/// A message of the store: JSON; a text that is none (a component's sync text) becomes a string.
Json read_message(const std::string& text);

enum class Layout {
  kCompact,  ///< one line
  kPretty,   ///< for people
};

/// A value as text without a newline at its end. Bytes that are no UTF-8 become U+FFFD.
std::string write_json(const Json& value, Layout layout);

}  // namespace ppctl

#endif
