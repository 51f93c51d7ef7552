// Advisory whole-file locks that belong to one open file description: two
// descriptors opened separately on the same file exclude each other, also
// inside one process, and the lock goes away when the descriptor is closed or
// the process dies.
//
// Error contract: lockExclusiveWithoutWaiting returns 0 when the lock is now
// held, or -1 with the error number in errno; EWOULDBLOCK means someone else
// holds it.
#pragma once

namespace platform::sys {

int lockExclusiveWithoutWaiting(int fd);

}  // namespace platform::sys
