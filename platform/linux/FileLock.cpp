#include "platform/linux/FileLock.h"

#include <sys/file.h>

#include <cerrno>

namespace platform::sys {

int lockExclusiveWithoutWaiting(int fd) {
  while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EINTR) return -1;
  }
  return 0;
}

}  // namespace platform::sys
