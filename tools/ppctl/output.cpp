#include "tools/ppctl/output.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <iostream>

#include "tools/ppctl/failure.h"

namespace ppctl {

namespace {

bool is_regular_file(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

void write_all(const Events& events, int fd, const std::string& text, const std::string& what) {
  // A pipe that is ready takes PIPE_BUF without blocking. A file takes everything at once, so that
  // a signal leaves no half of it.
  const std::size_t most = is_regular_file(fd) ? text.size() : PIPE_BUF;
  for (std::size_t done = 0; done < text.size();) {
    events.wait(fd, POLLOUT, TimePoint::max());
    const std::size_t piece = std::min(text.size() - done, most);
    const ssize_t written = write(fd, text.data() + done, piece);
    if (written >= 0) {
      done += static_cast<std::size_t>(written);
    } else if (errno == EPIPE) {
      throw Interrupted(SIGPIPE);
    } else if (errno != EAGAIN && errno != EINTR) {
      throw Failure(Status::kOwnTrouble, with_reason("cannot write " + what, errno));
    }
  }
}

Output::Output(const Events& events, bool json, bool quiet)
    : events_(events),
      layout_(!json && isatty(STDOUT_FILENO) != 0 ? Layout::kPretty : Layout::kCompact),
      quiet_(quiet) {}

void Output::document(const Json& value) const {
  text(write_json(value, layout_) + "\n");
}

void Output::text(const std::string& text) const {
  write_all(events_, STDOUT_FILENO, text, "stdout");
}

void Output::note(const std::string& text) const {
  if (!quiet_) error(text);
}

void Output::error(const std::string& text) {
  std::string line = "ppctl: " + text;
  std::replace_if(
      line.begin(), line.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
  std::cerr << line + "\n";
}

}  // namespace ppctl
