// Requests that a verb is done with once the store has served them.
#ifndef TOOLS_PPCTL_REQUESTS_H
#define TOOLS_PPCTL_REQUESTS_H

#include "tools/ppctl/session.h"
#include "tools/ppctl/verbs.h"

namespace ppctl {

/// Sends a request, and waits until it is served unless the command line says --no-wait. Messages
/// that come meanwhile go to the handler.
/// @throws Failure kTimedOut when the store gives no sign
void carry_out(
    const Context& context, Session& session, const Request& request,
    const Session::Handler& handler = [](const std::string&) { return false; });

}  // namespace ppctl

#endif
