#include "platform/linux/ProtectionClass.h"

#include <sys/xattr.h>

#include <cerrno>

namespace platform::sys {

int getProtectionClass(int fd, std::int32_t* protectionClass) {
  std::int32_t value = 0;
  const ssize_t size = ::fgetxattr(fd, kProtectionClassAttributeName, &value, sizeof value);
  if (size < 0) {
    if (errno != ENODATA && errno != ENOTSUP) return -1;
    value = kDefaultProtectionClass;  // never set, or nowhere to set it
  } else if (size != sizeof value) {
    errno = EINVAL;  // not a value this layer wrote
    return -1;
  }
  *protectionClass = value;
  return 0;
}

int setProtectionClass(int fd, std::int32_t protectionClass) {
  return ::fsetxattr(fd, kProtectionClassAttributeName, &protectionClass, sizeof protectionClass,
                     0);
}

}  // namespace platform::sys
