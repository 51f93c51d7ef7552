#include "platform/linux/FileSystemSync.h"

#include <unistd.h>

namespace platform::sys {

int syncFileSystemOf(int fd) {
  return ::syncfs(fd);
}

}  // namespace platform::sys
