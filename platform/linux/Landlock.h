// Write confinement with the kernel's Landlock sandbox.
//
// confineWritesBeneath() restricts the calling thread, and every thread and
// process it starts afterwards, so that files may be written, created,
// truncated, removed, renamed or linked only beneath the given directories
// (and in the given files). Reading stays allowed everywhere, and descriptors
// opened before the call keep working. The restriction cannot be lifted: call
// it before the program starts threads of its own.
//
// Renames between directories need Landlock ABI 2 (Linux 5.19); an older
// Landlock would refuse them even inside the allowed directories, so it is
// treated as absent.
//
// Error contract: false with a POSIX-domain record when the kernel offers no
// usable Landlock (code ENOSYS or EOPNOTSUPP: the caller may go on unconfined
// with a warning) or when a rule cannot be made (a path that does not exist,
// say): then nothing is confined.
#pragma once

#include <span>
#include <string>

#include "platform/Error.h"

namespace platform::sys {

// The kernel's Landlock ABI version, 0 when it has none or it is disabled.
int landlockABIVersion();

// Whether an error from confineWritesBeneath only means "no Landlock here".
bool isConfinementUnavailable(const CVError& error);

bool confineWritesBeneath(std::span<const std::string> writablePaths, CVError* error);

}  // namespace platform::sys
