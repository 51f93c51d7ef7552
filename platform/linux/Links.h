// Path-level calls on symbolic links, renames and temporary directories.
//
// Error contract: each function returns what the system call returns (0, a
// byte count or a pointer on success) and, on failure, -1 or null with the
// call's error number in errno. Nothing here follows a final symbolic link.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace platform::sys {

// Makes a symbolic link at `linkPath` whose content is `content`, exactly as
// given. An existing item at `linkPath` fails with EEXIST.
int makeSymbolicLink(const char* content, const char* linkPath);

// Reads the content of the link at `path` into `buffer`: at most `size`
// bytes, without a terminator (longer content is cut at `size`). Returns the
// number of bytes stored. An item that is not a link fails with EINVAL.
ssize_t readLink(const char* path, char* buffer, std::size_t size);

// Renames `from` to `to` (rename(2)); EXDEV across file systems.
int renamePath(const char* from, const char* to);

// mkdtemp: replaces the trailing "XXXXXX" of `pathTemplate` in place and
// makes that directory with owner-only permissions. Returns `pathTemplate`.
char* makeTemporaryDirectory(char* pathTemplate);

}  // namespace platform::sys
