// The two renderings of a migration plan (MigrationPlan.h).
//
// Text: a header (image, legacy directory, registry), one block per legacy
// entry in the order the pass deals with them (migrated entries in work-list
// order, then what classification discards), the safe harbors, the space
// check and a one-line prediction.
//
// JSON: one object with "root", "legacyDirectory", "legacyDirectoryExists",
// "installMap", "installMapReadable", "registry" {"path", "exists",
// "uncheckpointedChanges", "pendingInstalls"}, "entries" (in listing order,
// each with "path", "name", "kind", "subject", "identifier", "containerType",
// "bundle", "vpnPlugin", "order", "registry", "bundleIsPlaceholder",
// "outcome", "failedStep", "container", "reason", "userData" {"files",
// "bytes"}, "missedItems" and "groupContainers" [{"identifier", "legacyPath",
// "present", "files", "bytes", "moved"}]), "safeHarbors" {"map", "present",
// "readable", "harbors" [{"identifier", "path", "present", "files", "bytes",
// "problem"}]}, "space" {"moves" [{"what", "from", "to", "sameFileSystem",
// "bytes"}], "bytesToCopy", "available", "enough"}, "totals" and
// "predictedSuccess". A missing string is null.
//
// Nothing here fails.
#pragma once

#include <string>

#include "host/MigrationPlan.h"

namespace mavrel_host {

std::string formatPlanText(const MigrationPlan& plan);
std::string formatPlanJSON(const MigrationPlan& plan);

}  // namespace mavrel_host
