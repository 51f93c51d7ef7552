// Telling a mount point met inside a tree: a directory that is the root of a
// mount (a bind mount of any directory, another file system mounted there).
// The walks of this layer never cross into one: what lies beyond may be
// anything on the host, outside the tree the walk was asked to change.
//
// The kernel reports the mount-root attribute through statx since Linux 5.8;
// where it does not, a directory whose device differs from its parent's is
// taken for one (a bind mount of the same file system then goes unseen).
//
// Error contract: each returns 1 for a mount root, 0 otherwise, or -1 with the
// error number in errno when the item cannot be looked at.
#pragma once

namespace platform::sys {

// The error number a walk reports for a mount point it leaves in place.
inline constexpr int kMountPointErrorNumber = 18;  // EXDEV

// The directory open as `fd`.
int isMountRoot(int fd);

// The item `name` of the open directory `directory` (AT_FDCWD for a path),
// never following a final link nor triggering an automount.
int isMountRootAt(int directory, const char* name);

}  // namespace platform::sys
