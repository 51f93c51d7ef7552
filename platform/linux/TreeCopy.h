// Recursive copy of a file, a symbolic link or a whole directory tree, which
// never follows a symbolic link on either side.
//
// What is copied: a link as a link (its content as it stands); a directory as
// a whole tree; regular files, FIFOs, sockets and devices as such. Every item
// keeps its mode (set-id and sticky bits included), owner and group, access
// and modification times to the nanosecond and every extended attribute the
// process can read ("system.posix_acl_*" included). Files that are hard links
// of each other inside the copied tree are hard links of each other in the
// copy. File data moves inside the kernel (a reflink clone where the file
// system offers one, else copy_file_range, else a read/write loop), and holes
// of sparse files stay holes. Source items are read with O_NOATIME where
// allowed, so the copy does not change their access times.
//
// A directory's own attributes, owner, mode and times are set after its
// contents, so a read-only directory can be filled and its times survive.
//
// Existing destination items: a directory copied onto an existing directory
// is merged into it; a non-directory replaces an existing non-directory of
// the same name. Anything else fails (EEXIST for a directory onto a
// non-directory, EISDIR for a non-directory onto a directory). A source
// directory that is the destination directory itself (a copy into its own
// subtree) fails with EINVAL.
//
// The walk goes through directory descriptors: every entry is opened or
// looked at relative to its parent's descriptor with O_NOFOLLOW, so a link
// swapped in for a directory during the copy is never followed. It keeps its
// own stack (no recursion) and holds at most kTreeCopyOpenDirectories
// directory pairs open, fewer when descriptors run out (EMFILE/ENFILE); a
// closed pair is reopened through ".." of its child and accepted only when
// device and inode are the recorded ones, else from the root paths one
// recorded name at a time with the same check (ESTALE when that fails too).
//
// A directory that is the root of a mount (a bind mount, another file
// system; the source root included) is not entered: the copy fails there with
// EXDEV before making its copy.
//
// Error contract: copyTree returns 0, or -1 with errno set to the error
// number of the first call that failed; the copy stops there and leaves what
// it made. A failure to give the copy its owner is ignored when the process
// may not give files away (EPERM, EINVAL), as an unprivileged copy is the
// caller's own.
#pragma once

#include <cstddef>

namespace platform::sys {

inline constexpr std::size_t kTreeCopyOpenDirectories = 128;

int copyTree(const char* source, const char* destination);

}  // namespace platform::sys
