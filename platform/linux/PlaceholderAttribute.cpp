#include "platform/linux/PlaceholderAttribute.h"

#include <sys/xattr.h>

namespace platform::sys {

int writePlaceholderAttribute(const char* path, std::span<const std::byte> value) {
  return ::lsetxattr(path, kPlaceholderAttributeName, value.data(), value.size(), 0);
}

ssize_t readPlaceholderAttribute(const char* path, std::span<std::byte> buffer) {
  return ::lgetxattr(path, kPlaceholderAttributeName, buffer.data(), buffer.size());
}

}  // namespace platform::sys
