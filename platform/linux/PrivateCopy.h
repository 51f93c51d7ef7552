// Giving a regular file that has other hard links a copy of its own.
//
// A hard link joins two names to one inode, and the other name may lie
// anywhere on the same file system, outside the tree being worked on. Before
// the owner, mode, times or attributes of such a file change, the file is
// copied beside itself (content, owner, mode, times and extended attributes
// kept; the source is read without changing its access time) and the copy is
// renamed over the name, so that the change reaches only the copy and the
// other names keep the inode as it was.
//
// Error contract: replaceWithPrivateCopy returns 0, or -1 with the error
// number of the failing call in errno; on failure the name still holds the
// shared inode and no copy is left behind.
#pragma once

namespace platform::sys {

// Names of copies in progress begin with this, in the file's own directory.
inline constexpr const char* kPrivateCopyPrefix = ".mavrel-private-copy.";

int replaceWithPrivateCopy(const char* path);

}  // namespace platform::sys
