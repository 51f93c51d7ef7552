// Making a directory, and every missing one above it, beneath a base
// directory without ever following a symbolic link.
//
// Each component is made (where missing) and opened relative to the
// descriptor of the one before, with O_NOFOLLOW: a link anywhere on the way,
// or any other item that is not a directory, fails the call before anything
// is made beyond it, so nothing can be created or changed outside the base
// through a link the base holds.
//
// Error contract: an invalid UniqueFd with errno set on failure; ENOTDIR (or
// ELOOP) for a link or non-directory on the way, EINVAL for a relative path
// holding "..". `failedPath`, when given, receives the path of the component
// that failed.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "platform/linux/FileDescriptor.h"

namespace platform::sys {

// Whether the umask narrows the modes of the directories made.
enum class MadeModes { Masked, Exact };

// Opens `base/relative`, making what is missing: intermediate directories with
// `intermediateMode`, the last with `mode` (the umask applies to both unless
// `madeModes` is Exact; modes of existing directories are left as they are).
// An empty `relative` opens the base itself, which may be reached through
// links.
UniqueFd makeDirectoriesBeneath(const std::string& base, std::string_view relative, mode_t mode,
                                mode_t intermediateMode, std::string* failedPath = nullptr,
                                MadeModes madeModes = MadeModes::Masked);

}  // namespace platform::sys
