// A path as one word of a shell command.
#ifndef LOG_CONSUMER_QV_SHELL_QUOTE_H
#define LOG_CONSUMER_QV_SHELL_QUOTE_H

#include <string>

/// Quotes a path so that every POSIX shell hands it to a command unchanged, as one argument that
/// names the same file and is no option: whoever may name a file must not get a command run.
///
/// A path of letters, digits and "/._-:+,@%=" needs nothing, so that the commands for the files
/// which producers really write read as one would type them. Any other stands in single quotes,
/// where no byte but the single quote has a meaning. A leading dash gets "./" in front. The path
/// ends at its first NUL, as it does for the system's calls.
inline std::string shellQuotePath(const std::string& path) {
  constexpr char kPlain[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-:+,@%=";
  const bool isOption = !path.empty() && path.front() == '-';
  if (!path.empty() && !isOption && path.find_first_not_of(kPlain) == std::string::npos) {
    return path;
  }
  std::string quoted = isOption ? "'./" : "'";
  for (const char* byte = path.c_str(); *byte != '\0'; ++byte) {
    if (*byte == '\'') {
      quoted += R"('\'')";
    } else {
      quoted += *byte;
    }
  }
  return quoted + '\'';
}

#endif
