// What ppctl says: documents on stdout, messages on stderr.
#ifndef TOOLS_PPCTL_OUTPUT_H
#define TOOLS_PPCTL_OUTPUT_H

#include <string>

#include "tools/ppctl/documents.h"
#include "tools/ppctl/events.h"

namespace ppctl {

/// Writes all of `text`; a descriptor that takes nothing for the moment is waited for.
/// @param what  what is written to, for the message
/// @throws Interrupted, by SIGPIPE when nobody reads it any more; Failure kOwnTrouble
void write_all(const Events& events, int fd, const std::string& text, const std::string& what);

class Output {
 public:
  /// @param json   compact documents also on a terminal   @param quiet  no notes
  /// @param events must outlive the output
  Output(const Events& events, bool json, bool quiet);

  void document(const Json& value) const;      ///< one, in the layout that fits stdout
  void text(const std::string& text) const;    ///< on stdout, as it is
  void note(const std::string& text) const;    ///< on stderr, unless quiet
  static void error(const std::string& text);  ///< on stderr, always one line

 private:
  const Events& events_;
  Layout layout_;
  bool quiet_;
};

}  // namespace ppctl

#endif
