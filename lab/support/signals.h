// Ending a program in an orderly way.
#ifndef LAB_SUPPORT_SIGNALS_H
#define LAB_SUPPORT_SIGNALS_H

#include "lab/support/unique_fd.h"

namespace lab {

/// Blocks SIGINT, SIGTERM and SIGHUP in this thread and those it starts, and SIGPIPE too.
/// @return a descriptor that is readable when one of the first three came. Before any thread.
/// @throws std::runtime_error
UniqueFd block_stop_signals();

}  // namespace lab

#endif
