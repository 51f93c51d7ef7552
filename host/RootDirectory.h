// The device image's root directory and the directories the host makes in it.
//
// Error contract: functions return nullopt / an invalid descriptor on failure
// and store a one-line, human-readable reason (naming the path and the system
// error) in `*reason`. Nothing is written outside the root: directories are
// made one component at a time relative to the root's descriptor, and a
// symbolic link met on the way is refused rather than followed.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/FileDescriptor.h"

namespace mavrel_host {

using platform::sys::UniqueFd;

// The canonical absolute path of `path`, which must name an existing directory
// (symbolic links are resolved).
std::optional<std::string> resolveRootDirectory(std::string_view path, std::string* reason);

// Whether the directory `root` (resolved) holds a device image: it has the
// mobile user's home "private/var/mobile" or the system version
// "System/Library/CoreServices/SystemBuild.plist". When it has neither, false
// with a reason naming both; nothing is written either way.
bool holdsDeviceImage(const std::string& root, std::string* reason);

// Whether another process holds the lock of the application registry at
// `lockPath`: tested on a read-only descriptor, without creating the file (an
// absent lock file is not held). A lock that cannot be tested counts as free;
// the installer then says why when it takes it.
bool registryLockIsHeld(const std::string& lockPath);

// Opens (making where missing) the directory `relative` under the directory
// `root`. Missing intermediate directories are made with mode 0755 and a
// missing last component with `mode`, applied exactly (umask notwithstanding).
// `relative` is a "/"-separated path without "." or "..".
UniqueFd makeDirectoryInsideRoot(const std::string& root, std::string_view relative, mode_t mode,
                                 std::string* reason);

}  // namespace mavrel_host
