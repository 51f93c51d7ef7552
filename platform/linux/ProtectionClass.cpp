#include "platform/linux/ProtectionClass.h"

#include <sys/xattr.h>

#include <atomic>
#include <cerrno>

#include "platform/linux/ProtectionClassTesting.h"

namespace platform::sys {
namespace {

std::atomic<int> attributeFault{0};

// A file system that keeps no user extended attributes (vfat, tmpfs before
// Linux 6.6, some network file systems).
bool attributesUnsupported(int error) {
  return error == ENOTSUP || error == EOPNOTSUPP;
}

// The injected error number, set in errno, or 0.
int injectedFault() {
  const int fault = attributeFault.load(std::memory_order_relaxed);
  if (fault != 0) errno = fault;
  return fault;
}

}  // namespace

int getProtectionClass(int fd, std::int32_t* protectionClass) {
  std::int32_t value = 0;
  const ssize_t size = injectedFault() != 0
                           ? -1
                           : ::fgetxattr(fd, kProtectionClassAttributeName, &value, sizeof value);
  if (size < 0) {
    if (errno != ENODATA && !attributesUnsupported(errno)) return -1;
    value = kDefaultProtectionClass;  // never set, or nowhere to set it
  } else if (size != sizeof value) {
    errno = EINVAL;  // not a value this layer wrote
    return -1;
  }
  *protectionClass = value;
  return 0;
}

int setProtectionClass(int fd, std::int32_t protectionClass) {
  const int result = injectedFault() != 0
                         ? -1
                         : ::fsetxattr(fd, kProtectionClassAttributeName, &protectionClass,
                                       sizeof protectionClass, 0);
  // Without data protection the class is accepted and kept nowhere; reading
  // answers the default class, as for an item that never had one.
  if (result != 0 && attributesUnsupported(errno)) return 0;
  return result;
}

int setProtectionClassFaultForTesting(int errorNumber) {
  return attributeFault.exchange(errorNumber);
}

}  // namespace platform::sys
