#include "platform/linux/PathResolution.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>

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

}  // namespace platform::sys
