// The extended attribute that marks an application bundle as a placeholder.
//
// The attribute is "com.zentrel.corvaned.placeholder" in the user namespace
// that Linux requires for unprivileged attributes. It is set on the item
// itself and never through a final symbolic link (Linux refuses user
// attributes on links with EPERM).
//
// Error contract: both calls return -1 with the error number in errno on
// failure; writePlaceholderAttribute returns 0 on success and
// readPlaceholderAttribute the attribute's size (ERANGE when the value is
// larger than the buffer, ENODATA when the item has no such attribute).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <span>

namespace platform::sys {

inline constexpr const char* kPlaceholderAttributeName = "user.com.zentrel.corvaned.placeholder";

// Sets the attribute on `path` to `value`, replacing an earlier value.
int writePlaceholderAttribute(const char* path, std::span<const std::byte> value);

// Reads the attribute of `path` into `buffer`.
ssize_t readPlaceholderAttribute(const char* path, std::span<std::byte> buffer);

}  // namespace platform::sys
