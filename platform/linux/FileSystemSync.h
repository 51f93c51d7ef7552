// Flushing a whole file system to stable storage.
//
// Error contract: syncFileSystemOf returns 0 once everything written to the
// file system holding the open descriptor `fd` is on stable storage, or -1
// with the error number in errno.
#pragma once

namespace platform::sys {

int syncFileSystemOf(int fd);

}  // namespace platform::sys
