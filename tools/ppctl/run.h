#ifndef TOOLS_PPCTL_RUN_H
#define TOOLS_PPCTL_RUN_H

namespace ppctl {

/// The whole program: reads the command line, runs the verb, reports what failed in one line.
/// @return the exit status; does not return when a signal ended the run.
int run(int argc, char** argv);

}  // namespace ppctl

#endif
