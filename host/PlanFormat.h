// The two renderings of a migration plan (MigrationPlan.h).
//
// Text: a header (image, legacy directory, registry), one block per legacy
// entry in the order the pass deals with them (migrated entries in work-list
// order, then what classification discards), the safe harbors, the space
// check and a one-line prediction.
//
// JSON: one object with "tool", "toolVersion", "schemaVersion", "root", "legacyDirectory",
// "legacyDirectoryExists", "installMap", "installMapReadable", "registry" {"path", "exists",
// "uncheckpointedChanges", "pendingInstalls"}, "migrationRunning",
// "lastMigrationInterrupted", "circumstances" (the verdict's sentence about
// them, or null), "entries" (in the order the pass deals with them,
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

#include <cstdint>
#include <string>

#include "host/MigrationPlan.h"

namespace mavrel_host {

inline constexpr std::uint64_t kPlanSchemaVersion = 2;

// What the plan cannot see in the legacy entries alone: a migration running
// now (the registry's lock is held), or the traces of one that was stopped.
struct PlanCircumstances {
  bool migrationRunning = false;
};

// Whether the last migration of the image was interrupted: containers resume
// from their markers, or installs wait to be finished or undone.
bool lastMigrationWasInterrupted(const MigrationPlan& plan);

// The sentences the verdict adds about the circumstances, or "".
std::string describeCircumstances(const MigrationPlan& plan,
                                  const PlanCircumstances& circumstances);

std::string formatPlanText(const MigrationPlan& plan, const PlanCircumstances& circumstances = {});
std::string formatPlanJSON(const MigrationPlan& plan, const PlanCircumstances& circumstances = {});

}  // namespace mavrel_host
