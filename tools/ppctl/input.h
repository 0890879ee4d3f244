// Files and stdin, read whole.
#ifndef TOOLS_PPCTL_INPUT_H
#define TOOLS_PPCTL_INPUT_H

#include <string>

#include "tools/ppctl/events.h"

namespace ppctl {

/// What messages call an input: the file's name, or "stdin" for "-".
std::string input_name(const std::string& file);

/// Reads a file to its end, "-" for stdin.
/// @throws Interrupted; Failure kUsage when it cannot be read
std::string read_input(const Events& events, const std::string& file);

}  // namespace ppctl

#endif
