// POSIX helpers shared by the storage services (file I/O, property lists,
// preferences): error records for failed system calls, and making a directory
// path.
//
// Errors: POSIX-domain CVError records with the failing call's errno as code
// and a description "<call> of <path> failed: <system error text>".
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "platform/Error.h"

namespace platform {

// The system's text for `errnoValue` (thread-safe, unlike strerror).
std::string errnoDescription(int errnoValue);

// A POSIX-domain record: "<call> of <path> failed: <text of errnoValue>".
CVError posixCallError(int errnoValue, std::string_view call, std::string_view path);

// Creates `path` and any missing parents with `mode` (as mkdir -p does). An
// existing directory counts as success; an existing non-directory is ENOTDIR.
bool makeDirectoryPath(const std::string& path, mode_t mode, CVError* error);

}  // namespace platform
