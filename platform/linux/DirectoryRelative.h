// Descriptor-relative calls: hard links made and removed, files and
// directories made and opened, items looked at, all relative to an open
// directory and never following a symbolic link.
//
// Error contract: each function returns what the system call returns (0 on
// success, a valid descriptor) and, on failure, -1 or an invalid descriptor
// with the call's error number in errno.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include "platform/linux/FileDescriptor.h"

namespace platform::sys {

// Gives the file `fromName` in the directory `fromDirectory` the new name
// `toName` in `toDirectory` (linkat without AT_SYMLINK_FOLLOW: a symbolic
// link is linked as itself). EEXIST when `toName` exists, EXDEV across file
// systems, EPERM or EMLINK where the file system refuses another link.
int linkAt(int fromDirectory, const char* fromName, int toDirectory, const char* toName);

// renameat2 with RENAME_NOREPLACE: moves `fromName` to `toName` in one step,
// EEXIST when `toName` exists (nothing is replaced).
int renameNoReplaceAt(int fromDirectory, const char* fromName, int toDirectory, const char* toName);

// fsync of an open directory, so that the names made in it survive a crash. A
// file system that cannot flush directories (EINVAL) counts as flushed.
int flushDirectory(int fd);

// mkdirat: makes the directory `name` in `directory` with `mode` (the umask
// applies); EEXIST when anything of that name exists.
int makeDirectoryAt(int directory, const char* name, mode_t mode);

// Opens the directory `name` in `directory`, making it with `mode` when it is
// missing. A symbolic link or other non-directory of that name fails (ENOTDIR
// or ELOOP).
UniqueFd openOrMakeDirectoryAt(int directory, const char* name, mode_t mode);

// Makes and opens the new file `name` in `directory` (O_CREAT | O_EXCL, so
// EEXIST when anything of that name exists, a link included), with
// `accessFlags` (O_WRONLY, O_APPEND, ...) and `mode` (the umask applies).
UniqueFd createNewFileAt(int directory, const char* name, int accessFlags, mode_t mode);

// fstatat without following a final symbolic link.
int statAt(int directory, const char* name, struct stat* status);

// fstat of an open descriptor.
int statOpen(int fd, struct stat* status);

// unlinkat of a non-directory.
int removeFileAt(int directory, const char* name);

// unlinkat of an empty directory (ENOTEMPTY when it holds anything).
int removeEmptyDirectoryAt(int directory, const char* name);

// A second descriptor for the same open directory, closed on exec.
UniqueFd duplicateDescriptor(int fd);

}  // namespace platform::sys
