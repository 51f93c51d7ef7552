// What a migration of a device image would do, worked out before anything is
// touched: each legacy entry classified as the pass classifies it (the same
// code), the registry's knowledge of each application, the predicted outcome,
// the user data and group containers concerned, the safe harbors, and whether
// the file systems have room for what has to be copied.
//
// Nothing is written: the registry is opened Immutable (no lock, no companion
// files), the configuration's directory getters that create directories are
// not called, and no log file or temporary directory is made. The caller
// gives the migration and installer logs sinks that drop what the
// classification writes there.
//
// The predictions follow the pass step by step with what can be known
// beforehand: the registry's contents, the built-in applications, the
// bundles' Info.plists and executables, the placeholder marks and the items
// of each container. Failures that only happen while writing (a full disk, an
// unreadable file) are not foreseen.
//
// Error contract: buildMigrationPlan returns nullopt with a one-line reason
// naming the file at fault when the legacy directory exists but cannot be
// listed (the pass would not start) or the registry cannot be read.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "AppMigrator/ContainerClassification.h"
#include "host/DataUsage.h"
#include "host/OutcomeTotals.h"
#include "platform/MavrelMigrator.h"

namespace mavrel_host {

struct PlannedGroup {
  std::string identifier;
  std::string legacyPath;  // where the map's path leads in the image
  bool present = false;    // the legacy group container exists and may be migrated
  std::string problem;     // why it is not migrated, when it is not
  DataUsage usage;
  // Whether this entry's migration moves it (the first application of the
  // group to be installed does; the others find it gone).
  bool movedWithEntry = false;
};

enum class RegistryKnowledge { Unknown, Known, BuiltIn };

struct PlannedEntry {
  std::string path;
  std::string name;
  LegacyEntryKind kind = LegacyEntryKind::NoBundle;
  std::string subject;  // the item at fault for entries that are left
  std::string detail;   // why, where the kind alone does not say
  // From the container info record, for entries that are migrated.
  std::string identifier;
  std::string containerType;
  std::string bundlePath;
  std::string vpnPluginPath;
  std::string vpnPluginIdentifier;  // read from the plug-in's bundle; "" when unreadable
  std::uint64_t order = 0;          // 1-based position in the pass's work list; 0: not migrated
  RegistryKnowledge registry = RegistryKnowledge::Unknown;
  bool bundleIsPlaceholder = false;
  // The prediction.
  MavrelEntryOutcome outcome = MavrelEntryOutcome::Migrated;
  MavrelEntryStep failedStep = MavrelEntryStep::Examining;
  bool containerRemoved = false;
  std::string reason;  // why, for anything but a plain migration
  DataUsage userData;  // below the container's user-data items
  std::vector<std::string> missedItems;
  std::vector<PlannedGroup> groups;
  // Other entries whose data goes to the same place (one identifier in two
  // containers): the later one's data replaces the earlier one's.
  std::vector<std::string> conflictsWith;
};

// One group container entry of the legacy install map and where its path leads.
struct PlannedGroupContainer {
  std::string identifier;
  std::string storedPath;  // as the map has it (a device path)
  std::string hostPath;    // where it leads in the image; "" when it leads nowhere inside it
  bool exists = false;
  std::string problem;  // why it is not migrated; "" when it may be
};

struct PlannedHarbor {
  std::string identifier;
  std::string path;      // as the map has it (a device path)
  std::string hostPath;  // where it leads in the image; "" when nowhere inside it
  bool present = false;  // a directory inside the image
  DataUsage usage;
  std::string problem;  // why registering it will fail or the entry is skipped; "" when fine
};

// One kind of data moved by the pass and where it goes.
struct PlannedMove {
  std::string what;  // "user data", "group containers"
  std::string from;
  std::string to;
  bool sameFileSystem = true;
  std::uint64_t bytes = 0;
};

struct SpaceCheck {
  std::vector<PlannedMove> moves;
  // Bytes that are copied across file systems, and the room where they go.
  std::uint64_t bytesToCopy = 0;
  std::optional<std::uint64_t> available;
  bool enough = true;
};

struct MigrationPlan {
  std::string root;
  std::string legacyDirectory;
  bool legacyDirectoryExists = false;
  std::string installMapPath;
  bool installMapReadable = false;
  std::string registryPath;
  bool registryExists = false;
  // A "-wal" file is beside the registry: an installer is running or was
  // interrupted, and its last changes are not seen here.
  bool registryHasUncheckpointedChanges = false;
  std::uint64_t pendingInstalls = 0;
  std::vector<PlannedEntry> entries;                   // in the legacy directory's listing order
  std::vector<PlannedGroupContainer> groupContainers;  // the install map's, in its order
  std::string harborMapPath;
  bool harborMapPresent = false;
  bool harborMapReadable = false;
  std::vector<PlannedHarbor> harbors;
  SpaceCheck space;

  // Totals over the entries.
  DataUsage userData() const;
  OutcomeTotals totals() const;
  // Whether the pass is predicted to return true.
  bool predictedSuccess() const;
};

// `root` is the resolved device root.
std::optional<MigrationPlan> buildMigrationPlan(const std::string& root, std::string* reason);

// "application", "vpn-only", "resume", "stray-note", "regular-file", "no-bundle",
// "vanished", "unlistable", "unexaminable", "symlink-bundle", "symlink-marker",
// "unreadable-marker".
std::string_view legacyEntryKindName(LegacyEntryKind kind);
// "unknown", "known", "built-in".
std::string_view registryKnowledgeName(RegistryKnowledge knowledge);

}  // namespace mavrel_host
