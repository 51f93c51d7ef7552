// `mavrel apps --root DIR [--json]`: prints what the device image's
// application registry holds, without changing anything in the image (SQLite
// may add the registry's "-wal" and "-shm" companions to read it safely while
// a migration writes).
//
// Text: one block per application (identifier, kind, version, then its
// bundle container, bundle, VPN plug-in, data container and group containers,
// one per line), then the safe harbors. JSON: one object with "registry",
// "registryExists", "pendingInstalls", "applications" (each with "identifier",
// "kind", "version", "shortVersion", "bundleContainer", "bundle", "vpnPlugin",
// "dataContainer" and "groupContainers", a group-to-path object; a missing
// value is null) and "safeHarbors" (each with "identifier", "path" and
// "containerType").
//
// Exit codes: 0 when the registry was read (an image without one lists its
// built-in applications only), 2 when the root is unusable or the registry
// cannot be read; the reason goes to `err`.
#pragma once

#include <cstdio>

#include "host/CommandLine.h"

namespace mavrel_installer {
struct RegistryListing;
}

namespace mavrel_host {

int runApps(const AppsOptions& options, std::FILE* out, std::FILE* err);

// The two renderings of a listing; each ends with a newline.
std::string formatListingText(const mavrel_installer::RegistryListing& listing);
std::string formatListingJSON(const mavrel_installer::RegistryListing& listing);

}  // namespace mavrel_host
