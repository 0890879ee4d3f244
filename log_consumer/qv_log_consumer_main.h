// Start-up of the service: options, order of starting, end. Also brings what start-up puts
// together: the shared record and the table of log kinds, the engine with its connections, the
// configuration thread.
#ifndef LOG_CONSUMER_QV_LOG_CONSUMER_MAIN_H
#define LOG_CONSUMER_QV_LOG_CONSUMER_MAIN_H

#include <string>

#include "log_consumer/qv_log_consumer_pushpull_thread.h"
#include "log_consumer/qv_log_consumer_shared.h"
#include "log_consumer/qv_log_consumer_socket_thread.h"

/// What the command line gives to the engine.
struct LogConsumerOptions {
  int sleepSeconds = 5;  ///< -d: pause while not connected and before the end, seconds
  std::string server;    ///< -s: host of both servers; empty: never connect
  int port = 0;          ///< -p: port of both servers; 443 means TLS
};

/// Reads the options, first to last; the last of a kind wins.
///
/// An argument is one letter behind any first character, with its value joined to it: -d10,
/// -s10.0.0.5, -r0. Each is first echoed to standard output on a line of its own. `r` and `f` with
/// value 0 set their bypass flag in the shared record, `l` with value 1 switches the activity log
/// on; a value that is no number reads as 0. Other letters are ignored. A null argument fails
/// standard output and is otherwise passed over.
LogConsumerOptions readOptions(int argc, const char* const* argv);

/// Runs the service on the calling thread until the engine stops. Once per process.
/// @return 0.
/// @throws std::system_error when a lock or the configuration thread cannot be had.
int log_consumer_main(int argc, const char* const* argv);

#endif
