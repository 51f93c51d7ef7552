#include "platform/linux/RandomBytes.h"

#include <sys/random.h>

#include <cerrno>

namespace platform::sys {

int fillRandomBytes(void* buffer, std::size_t size) {
  auto* bytes = static_cast<unsigned char*>(buffer);
  std::size_t filled = 0;
  while (filled < size) {
    const ssize_t got = ::getrandom(bytes + filled, size - filled, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    filled += static_cast<std::size_t>(got);
  }
  return 0;
}

}  // namespace platform::sys
