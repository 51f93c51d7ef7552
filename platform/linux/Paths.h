// Path-level calls: looking at, opening and changing the owner of an item
// without following a final link, and making directories.
//
// Error contract: lstatPath and makeDirectory return 0, or -1 with the call's
// error number in errno; so does changeOwnerNoFollow, and openItemNoFollow
// returns an invalid UniqueFd with errno set. spanDirectories returns an
// error number (0 when it made the directory, EEXIST when an item of any kind
// is already at the path) and leaves the error number of its last failing
// call in errno.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include "platform/linux/FileDescriptor.h"

namespace platform::sys {

// lstat: a symbolic link is looked at, not followed.
int lstatPath(const char* path, struct stat* status);

// Opens `path` read-only without following a final symbolic link (a link
// fails with ELOOP). Invalid UniqueFd with errno set on failure.
UniqueFd openItemNoFollow(const char* path);

// lchown: the owner and group of a symbolic link itself change, not its target's.
int changeOwnerNoFollow(const char* path, uid_t owner, gid_t group);

// mkdir with `mode` (the process umask applies).
int makeDirectory(const char* path, mode_t mode);

// Makes `path` and every missing directory above it. The last component gets
// `mode`; intermediate directories get `mode` with owner write and search
// added (mode | 0300), so that the next level can always be made inside them.
// A component that exists as a non-directory fails the call with ENOTDIR;
// directories made concurrently by someone else count as made.
int spanDirectories(const char* path, mode_t mode);

}  // namespace platform::sys
