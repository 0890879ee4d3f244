// The command line of lctimeline.
#ifndef TOOLS_LCTIMELINE_RUN_H
#define TOOLS_LCTIMELINE_RUN_H

#include <iosfwd>

#include "tools/lctimeline/timeline.h"

namespace lctimeline {

inline constexpr int kDone = 0;
inline constexpr int kNothingFound = 1;  ///< no line of the service, or a file that fails
inline constexpr int kUsage = 2;

/// Reads lines up to the end of the stream. @param written  see parse_line()
void read_log(std::istream& input, Microseconds written, TimelineBuilder& builder);

/// The whole program. @return the exit status.
int run(int argc, char** argv);

}  // namespace lctimeline

#endif
