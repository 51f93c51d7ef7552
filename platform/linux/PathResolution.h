// Resolving a path to its canonical form, with every symbolic link, "." and
// ".." resolved.
//
// Error contract: resolveRealPath returns 0 and the resolved path, or -1 with
// the error number in errno; on failure the out string holds whatever part of
// the path had been resolved before the failing step (possibly nothing).
#pragma once

#include <string>

namespace platform::sys {

// realpath(3) of `path`. The resolved path may be as long as the system allows.
int resolveRealPath(const char* path, std::string* resolved);

// The canonical path of an existing item, as realpath(3) gives it, found with
// one open (which resolves every link at once) and a look at what the open
// descriptor names, instead of a lookup per component. Falls back to
// realpath when the descriptor cannot be named. 0, or -1 with errno set (the
// out string is then unspecified).
int resolveExistingPath(const char* path, std::string* resolved);

}  // namespace platform::sys
