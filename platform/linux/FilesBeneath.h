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

// Walks from the open directory `base` down the directories of `relative`
// ("a/b/c"; empty and "." components are skipped), each reached by
// `openChild(parent, name)` relative to the one before; ".." fails with
// EINVAL. Returns the last directory (a new descriptor of `base` for an empty
// `relative`), or an invalid descriptor with errno from the step that failed.
using ChildOpener = std::function<UniqueFd(int parent, const char* name)>;
UniqueFd walkDirectoriesBeneath(int base, std::string_view relative, const ChildOpener& openChild);

}  // namespace platform::sys
