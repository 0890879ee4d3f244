#include "tools/ppctl/events.h"

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "tools/ppctl/failure.h"

namespace ppctl {

namespace {

// Those besides the real-time ones whose default is to end the process, without a crash's own.
constexpr std::array<int, 15> kSignals = {SIGINT,  SIGTERM, SIGHUP,    SIGQUIT, SIGPIPE,
                                          SIGUSR1, SIGUSR2, SIGALRM,   SIGPROF, SIGVTALRM,
                                          SIGXCPU, SIGXFSZ, SIGSTKFLT, SIGIO,   SIGPWR};

bool is_ignored(int signal) {
  struct sigaction action = {};
  sigaction(signal, nullptr, &action);
  return action.sa_handler == SIG_IGN;
}

// A signal that is held back reaches a signalfd even if it would be ignored otherwise.
sigset_t signals_to_take() {
  sigset_t set;
  sigemptyset(&set);
  const auto take = [&set](int signal) {
    if (!is_ignored(signal)) sigaddset(&set, signal);
  };
  std::for_each(kSignals.begin(), kSignals.end(), take);
  for (int signal = SIGRTMIN; signal <= SIGRTMAX; ++signal)
    take(signal);
  return set;
}

// Milliseconds for poll(), rounded up, so that it never returns just before the deadline.
int milliseconds_until(TimePoint deadline) {
  constexpr std::chrono::milliseconds kLongest = std::chrono::hours(1);
  const auto now = Clock::now();
  if (deadline <= now) return 0;
  if (deadline - now > kLongest) return static_cast<int>(kLongest.count());
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count());
}

}  // namespace

Events::Events() {
  const sigset_t set = signals_to_take();
  pthread_sigmask(SIG_BLOCK, &set, &before_);
  signals_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signals_ == -1) {
    const int error = errno;
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    throw Failure(Status::kOwnTrouble, with_reason("cannot watch for signals", error));
  }
}

Events::~Events() {
  close(signals_);
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool Events::wait(int fd, short events, TimePoint deadline) const {
  for (;;) {
    std::array<struct pollfd, 3> watched = {
        {{signals_, POLLIN, 0}, {fd, events, 0}, {watch_output_ ? STDOUT_FILENO : -1, 0, 0}}};
    const int ready = poll(watched.data(), watched.size(), milliseconds_until(deadline));
    if (watched[0].revents != 0) interrupt();
    if ((watched[2].revents & POLLERR) != 0) throw Interrupted(SIGPIPE);
    if (watched[1].revents != 0) return true;
    if (ready <= 0 && Clock::now() >= deadline) return false;
  }
}

void Events::interrupt() const {
  struct signalfd_siginfo info = {};
  if (read(signals_, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
    throw Failure(Status::kOwnTrouble, "a signal came and could not be read");
  }
  throw Interrupted(static_cast<int>(info.ssi_signo));
}

}  // namespace ppctl
