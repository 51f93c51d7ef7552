// Regular files below a directory, reached relative to open directories: a
// path of any length works (nothing is resolved as one string), no symbolic
// link is followed on the way, and no other mount is entered.
//
// Error contract: walkRegularFilesBeneath never fails as a whole; it returns
// the number of items that could not be looked at or listed (a mount point
// met inside the tree counts as one). openRegularFileBeneath returns an
// invalid descriptor with errno set (ENOTDIR or ELOOP for a link on the way,
// EXDEV for a mount point, EINVAL for anything but a regular file at the end).
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "platform/linux/FileDescriptor.h"

namespace platform::sys {

// Calls `visit` with the path relative to `root` ("a/b.txt") and the size of
// every regular file below the directory `root`. A missing root, or a link or
// file where the root should be, holds nothing.
using BeneathFileVisitor = std::function<void(std::string_view relative, std::uint64_t size)>;
std::uint64_t walkRegularFilesBeneath(const char* root, const BeneathFileVisitor& visit);

// Opens the regular file `relative` ("a/b.txt") below the directory `root`
// for reading.
UniqueFd openRegularFileBeneath(const char* root, std::string_view relative);

}  // namespace platform::sys
