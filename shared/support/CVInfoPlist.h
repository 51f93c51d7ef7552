// CVLoadInfoPlist: the one function through which the program reads a bundle's
// Info.plist, whole or filtered by keys.
//
// Result: a new dictionary, or nullopt. There is no error argument: every
// failure is written to the installer log under "CVLoadInfoPlist" (level 7 for
// a missing Info.plist, an expected case while scanning; level 3 otherwise).
// Callable from any thread: bundle objects are created, read and released
// under one process-wide lock.
#pragma once

#include <optional>

#include "platform/URL.h"
#include "platform/Value.h"

// `keys` null: the whole dictionary, without the platform's bookkeeping entry
// "QXBundleInfoPlistURL". Otherwise only the named keys the Info.plist has.
std::optional<CVDictionary> CVLoadInfoPlist(const CVURL& bundleURL, const CVSet* keys);
