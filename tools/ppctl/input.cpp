#include "tools/ppctl/input.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "tools/ppctl/failure.h"
#include "tools/ppctl/unique_fd.h"

namespace ppctl {

namespace {

std::string read_to_end(const Events& events, int fd, const std::string& name) {
  std::string text;
  std::array<char, 65536> piece = {};
  for (;;) {
    events.wait(fd, POLLIN, TimePoint::max());
    const ssize_t bytes = read(fd, piece.data(), piece.size());
    if (bytes == 0) return text;
    if (bytes > 0) {
      text.append(piece.data(), static_cast<std::size_t>(bytes));
    } else if (errno != EAGAIN && errno != EINTR) {
      throw Failure(Status::kUsage, with_reason("cannot read " + name, errno));
    }
  }
}

}  // namespace

std::string input_name(const std::string& file) {
  return file == "-" ? "stdin" : file;
}

std::string read_input(const Events& events, const std::string& file) {
  if (file == "-") return read_to_end(events, STDIN_FILENO, "stdin");
  // Not to hang in open() on a pipe without a writer.
  const UniqueFd descriptor(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (descriptor.get() == -1) {
    throw Failure(Status::kUsage, with_reason("cannot open " + file, errno));
  }
  return read_to_end(events, descriptor.get(), file);
}

}  // namespace ppctl
