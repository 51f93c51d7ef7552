#include "platform/linux/PathResolution.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "platform/linux/FileDescriptor.h"

namespace platform::sys {

int resolveRealPath(const char* path, std::string* resolved) {
  // realpath writes up to PATH_MAX bytes into a caller's buffer; on failure
  // the C library leaves the prefix resolved so far in it.
  std::array<char, PATH_MAX> buffer{};
  const char* result = ::realpath(path, buffer.data());
  const int savedErrno = errno;
  buffer.back() = '\0';
  resolved->assign(buffer.data());
  if (result == nullptr) {
    errno = savedErrno;
    return -1;
  }
  return 0;
}

int resolveExistingPath(const char* path, std::string* resolved) {
  const UniqueFd item(::open(path, O_PATH | O_CLOEXEC));
  if (!item) return -1;
  std::array<char, 32> link{};
  std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", item.get());
  std::array<char, PATH_MAX> buffer{};
  const ssize_t length = ::readlink(link.data(), buffer.data(), buffer.size());
  // A name that does not start at the root (an item outside the process's
  // root, an unnamed one) or that fills the buffer is left to realpath.
  if (length <= 0 || static_cast<std::size_t>(length) >= buffer.size() || buffer[0] != '/') {
    return resolveRealPath(path, resolved);
  }
  resolved->assign(buffer.data(), static_cast<std::size_t>(length));
  // The item was removed between the open and the look.
  if (resolved->ends_with(" (deleted)")) return resolveRealPath(path, resolved);
  return 0;
}

}  // namespace platform::sys
