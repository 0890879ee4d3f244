// The command lines of the lab's programs.
//
// Every program takes long options only. A wrong one gives one line on stderr that names it, and
// exit status 2; --help describes all of them and --version names the version, both with status 0.
#ifndef LAB_SUPPORT_OPTIONS_H
#define LAB_SUPPORT_OPTIONS_H

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace lab {

inline constexpr int kWrongOption = 2;  ///< exit status

/// Thrown by an option's reader when it cannot use the value; the text says why.
class BadValue : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

class Options {
 public:
  using Reader = std::function<void(const std::string& value)>;  ///< may throw BadValue

  /// @param program  for messages   @param about  one or more lines of --help, without the usage
  Options(std::string program, std::string about);

  /// An option with a value; `placeholder` stands for it in --help. The reader is called each time
  /// the option is given.
  Options& value(std::string name, std::string placeholder, std::string help, Reader reader);
  Options& text(std::string name, std::string placeholder, std::string help, std::string* target);
  Options& number(std::string name, std::string placeholder, std::string help, long least,
                  long greatest, long* target);
  Options& flag(std::string name, std::string help, bool* target);

  /// Reads the command line. Ends the process for --help, --version and a wrong option; a word that
  /// is no option is one.
  void read_or_exit(int argc, char** argv) const;

  std::string help() const;

 private:
  struct Option {
    std::string name;
    std::string placeholder;  // empty: takes no value
    std::string help;
    Reader reader;
  };
  void apply(const Option& option, const char* value) const;
  [[noreturn]] void wrong(const std::string& why) const;

  std::string program_;
  std::string about_;
  std::vector<Option> options_;
};

/// @return the number that is the whole text. @throws BadValue when it is none or out of range.
long parse_number(const std::string& text, long least, long greatest);

}  // namespace lab

#endif
