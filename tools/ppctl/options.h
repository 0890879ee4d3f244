// The command line: options, verbs, help.
#ifndef TOOLS_PPCTL_OPTIONS_H
#define TOOLS_PPCTL_OPTIONS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ppctl {

/// A verb as the command line sees it. What it does is registered in run.cpp.
struct Syntax {
  const char* name;
  const char* arguments;  ///< for the usage line
  std::size_t least;      ///< arguments
  std::size_t most;
  const char* options;  ///< letters of the options that it takes besides the common ones
  const char* summary;  ///< one line
  const char* text;     ///< more lines of its help, may be empty
};

inline constexpr std::size_t kAnyNumber = SIZE_MAX;

/// All verbs, in the order of the help.
const std::vector<Syntax>& all_syntax();

/// What the command line says.
struct Options {
  const Syntax* verb = nullptr;  ///< null only with help or version
  std::vector<std::string> arguments;

  bool help = false;
  bool version = false;
  bool quiet = false;                       ///< no messages but errors
  bool json = false;                        ///< one compact line a document, reports as JSON
  std::chrono::milliseconds timeout{5000};  ///< for the store to take requests and to answer
  std::string suffix;                       ///< of the store's queue name
  std::optional<std::int32_t> id;           ///< component id
  std::optional<long> message_size;         ///< bytes of the longest message to take

  bool no_wait = false;       ///< send, and do not wait until the store has served it
  bool raw = false;           ///< get: the value alone
  bool string = false;        ///< set: VALUE is a text, whatever it looks like
  bool debug = false;         ///< save: the complete tree
  bool changes_only = false;  ///< watch, record
  std::optional<long> count;  ///< watch, record: messages
  std::optional<std::chrono::milliseconds> window;  ///< watch, record
  double speed = 1;                                 ///< replay; 0: without pauses
  std::int32_t to = 0;                              ///< send: destination
  std::string sender;                               ///< send
  bool pack = false;                                ///< send
};

/// Reads the command line. Options and arguments may come in any order; "--" ends the options, and
/// what looks like a negative number is an argument.
/// @throws Failure kUsage, which names what is wrong
Options parse_options(int argc, char* const* argv);

/// @param verb  null: help for the whole
std::string help_text(const Syntax* verb);

/// "ppctl 1.2.3"
std::string version_text();

/// A component id, decimal or (after 0x) hexadecimal, 1 to 0x7fffffff. @throws Failure kUsage
std::int32_t parse_id(const std::string& text);

}  // namespace ppctl

#endif
