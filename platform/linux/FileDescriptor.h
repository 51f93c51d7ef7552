// UniqueFd: sole owner of one open file descriptor, closed when the owner goes
// away or is reset.
//
// Error contract: nothing here fails. Closing keeps errno as it was, so that a
// caller can read the error number of the call that failed even after the
// descriptor of an earlier step has been released on the way out.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace platform::sys {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }

  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }

  // Gives up ownership without closing.
  int release() { return std::exchange(fd_, -1); }

  // Closes the descriptor held, if any, and takes `fd`.
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      const int savedErrno = errno;
      ::close(fd_);
      errno = savedErrno;
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace platform::sys
