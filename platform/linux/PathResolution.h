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

}  // namespace platform::sys
