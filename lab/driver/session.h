// One run of the lab: everything that a device and its servers are, and the service in the middle.
#ifndef LAB_DRIVER_SESSION_H
#define LAB_DRIVER_SESSION_H

#include <string>
#include <vector>

#include "lab/driver/seed.h"

namespace lab {

struct SessionSettings {
  SeedSettings seed;
  std::string programs;                      ///< folder of the store and of the service
  std::string service;                       ///< the program; empty: log_consumer in `programs`
  std::vector<std::string> service_options;  ///< besides server, port and a pause of 2 s
  std::vector<std::string> commands;         ///< for the upload server, before the start
  std::string record;                        ///< existing folder for what happened
  bool gnu_find = false;                     ///< leave the system's find on the service's PATH
  long seconds = 170;                        ///< give up then
  bool terminal = false;
};

/// Runs it; inside the sandbox. Ends as soon as all that is to be sent is sent and marked.
/// Leaves in the record folder: syslog.jsonl, notify.jsonl, uploads.jsonl, store.jsonl, service.out
/// and files/ with what the server received.
/// @return whether everything is as it is to be.
/// @throws std::runtime_error saying what could not be set up
bool run_session(const SessionSettings& settings);

}  // namespace lab

#endif
