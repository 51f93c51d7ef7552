#include "platform/linux/ExtendedAttributes.h"

#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace platform::sys {

namespace {

constexpr const char* kAccessAcl = "system.posix_acl_access";
constexpr const char* kDefaultAcl = "system.posix_acl_default";

bool unsupported(int error) {
  return error == ENOTSUP || error == EOPNOTSUPP;
}

ssize_t listInto(AttributeItem item, char* buffer, std::size_t size) {
  return item.fd >= 0 ? ::flistxattr(item.fd, buffer, size) : ::llistxattr(item.path, buffer, size);
}

ssize_t getInto(AttributeItem item, const char* name, void* buffer, std::size_t size) {
  return item.fd >= 0 ? ::fgetxattr(item.fd, name, buffer, size)
                      : ::lgetxattr(item.path, name, buffer, size);
}

// Fills `buffer` by calling `read` (a list or get call), growing the buffer
// while the item's data outgrows it. Returns the size read or -1.
template <class Read>
ssize_t readGrowing(std::vector<char>& buffer, Read&& read) {
  if (buffer.empty()) buffer.resize(1024);
  for (;;) {
    const ssize_t size = read(buffer.data(), buffer.size());
    if (size >= 0 || errno != ERANGE) return size;
    // Ask for the size it has now; it may change again before the next read.
    const ssize_t needed = read(nullptr, 0);
    if (needed < 0) return needed;
    buffer.resize(static_cast<std::size_t>(needed) > buffer.size()
                      ? static_cast<std::size_t>(needed)
                      : buffer.size() * 2);
  }
}

ssize_t listNames(AttributeItem item, std::vector<char>& buffer) {
  const ssize_t size = readGrowing(
      buffer, [item](char* data, std::size_t capacity) { return listInto(item, data, capacity); });
  if (size < 0 && unsupported(errno)) return 0;
  return size;
}

ssize_t readValue(AttributeItem item, const char* name, std::vector<char>& buffer) {
  return readGrowing(buffer, [item, name](char* data, std::size_t capacity) {
    return getInto(item, name, data, capacity);
  });
}

}  // namespace

int listAttributes(AttributeItem item, std::vector<std::string>& names) {
  names.clear();
  std::vector<char> buffer;
  const ssize_t size = listNames(item, buffer);
  if (size < 0) return -1;
  for (ssize_t offset = 0; offset < size;) {
    const char* name = buffer.data() + offset;
    const std::size_t length = ::strnlen(name, static_cast<std::size_t>(size - offset));
    if (length > 0) names.emplace_back(name, length);
    offset += static_cast<ssize_t>(length) + 1;
  }
  return 0;
}

int getAttribute(AttributeItem item, const char* name, std::vector<char>& value) {
  const ssize_t size = readValue(item, name, value);
  if (size < 0) return -1;
  value.resize(static_cast<std::size_t>(size));
  return 0;
}

int setAttribute(AttributeItem item, const char* name, std::string_view value) {
  return item.fd >= 0 ? ::fsetxattr(item.fd, name, value.data(), value.size(), 0)
                      : ::lsetxattr(item.path, name, value.data(), value.size(), 0);
}

int removeAttribute(AttributeItem item, const char* name) {
  return item.fd >= 0 ? ::fremovexattr(item.fd, name) : ::lremovexattr(item.path, name);
}

int AttributeCopier::copy(AttributeItem from, AttributeItem to, bool dropOtherAcls) {
  const ssize_t listed = listNames(from, names_);
  if (listed < 0) return -1;
  bool hasAccessAcl = false;
  bool hasDefaultAcl = false;
  for (ssize_t offset = 0; offset < listed;) {
    const char* name = names_.data() + offset;
    const std::size_t length = ::strnlen(name, static_cast<std::size_t>(listed - offset));
    offset += static_cast<ssize_t>(length) + 1;
    if (length == 0 || offset > listed) continue;
    hasAccessAcl = hasAccessAcl || std::strcmp(name, kAccessAcl) == 0;
    hasDefaultAcl = hasDefaultAcl || std::strcmp(name, kDefaultAcl) == 0;

    const ssize_t size = readValue(from, name, value_);
    if (size < 0) {
      const int error = errno;
      // Gone since the listing, or not readable by this process.
      if (error == ENODATA || error == EPERM || error == EACCES || unsupported(error)) continue;
      return -1;
    }
    if (setAttribute(to, name, std::string_view(value_.data(), static_cast<std::size_t>(size))) !=
        0) {
      const int error = errno;
      const bool securityLabel = std::strncmp(name, "security.", 9) == 0;
      if (securityLabel && (error == EPERM || error == EACCES || unsupported(error))) continue;
      errno = error;
      return -1;
    }
  }
  if (dropOtherAcls) {
    for (const auto& [name, kept] :
         {std::pair{kAccessAcl, hasAccessAcl}, std::pair{kDefaultAcl, hasDefaultAcl}}) {
      if (kept || removeAttribute(to, name) == 0 || errno == ENODATA || unsupported(errno))
        continue;
      return -1;
    }
  }
  return 0;
}

}  // namespace platform::sys
