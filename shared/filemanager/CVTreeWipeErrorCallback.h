// The error callback that removeItemAtURL installs in the recursive removal.
// Declared here, rather than kept file-local, so that its handling of error
// numbers can be driven directly by tests.
//
// For each entry that could not be removed: reads the state's error number
// (taking ENOENT when it cannot be read, with a level-3 line), logs every
// number other than ENOENT at level 3, stores the number in `*context` (an
// int) when that still holds 0 (so only the first error is kept, even when it
// is ENOENT), and tells the removal to proceed.
#pragma once

#include "platform/linux/TreeWipe.h"

namespace filemanager_detail {

int treewipe_error_callback(platform::sys::TreeWipeState* state, const char* path, void* context);

}  // namespace filemanager_detail
