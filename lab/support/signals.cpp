#include "lab/support/signals.h"

#include <sys/signalfd.h>

#include <csignal>
#include <stdexcept>

namespace lab {

UniqueFd block_stop_signals() {
  sigset_t stops;
  sigemptyset(&stops);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP})
    sigaddset(&stops, signal);
  sigset_t blocked = stops;
  sigaddset(&blocked, SIGPIPE);
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  UniqueFd descriptor(signalfd(-1, &stops, SFD_CLOEXEC));
  if (!descriptor) throw std::runtime_error("signalfd failed");
  return descriptor;
}

}  // namespace lab
