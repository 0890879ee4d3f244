// What the verbs do. Each takes the command line's arguments, already counted, and returns the exit
// status; what fails throws Failure.
#ifndef TOOLS_PPCTL_VERBS_H
#define TOOLS_PPCTL_VERBS_H

#include "tools/ppctl/events.h"
#include "tools/ppctl/failure.h"
#include "tools/ppctl/options.h"
#include "tools/ppctl/output.h"

namespace ppctl {

struct Context {
  const Options& options;
  Events& events;
  const Output& output;
};

// Nodes (node_verbs.cpp)
Status run_get(const Context& context);
Status run_set(const Context& context);
Status run_publish(const Context& context);
Status run_clear(const Context& context);
Status run_delete(const Context& context);

// Requests that name no node (request_verbs.cpp)
Status run_save(const Context& context);
Status run_sync(const Context& context);
Status run_send(const Context& context);

// Notifications (listen_verbs.cpp, replay.cpp)
Status run_watch(const Context& context);
Status run_record(const Context& context);
Status run_replay(const Context& context);

// The machine (queues.cpp, doctor.cpp)
Status run_queues(const Context& context);
Status run_doctor(const Context& context);

}  // namespace ppctl

#endif
