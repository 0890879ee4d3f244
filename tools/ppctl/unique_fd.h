// Owner of one file descriptor.
#ifndef TOOLS_PPCTL_UNIQUE_FD_H
#define TOOLS_PPCTL_UNIQUE_FD_H

#include <unistd.h>

namespace ppctl {

class UniqueFd {
 public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ != -1) close(fd_);
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }  ///< -1 when it owns none

 private:
  int fd_;
};

}  // namespace ppctl

#endif
