// The migration host's plug-in interface.
//
// A plug-in is a shared module exporting one C entry point,
// MavrelCreateMigrator, which sets a migrator up (its `init`) and returns it,
// or returns null when set-up failed. The host polls estimatedDuration() and
// migrationProgress() from any thread, and calls performMigration() once on
// one thread.
#pragma once

#include <string>
#include <string_view>

#include "platform/URL.h"

namespace platform {
class ApplicationRegistry;
class InstallerService;
class SystemVersionSource;
}  // namespace platform

class MavrelMigrator {
 public:
  virtual ~MavrelMigrator() = default;
  virtual std::string dataClassName() const = 0;
  virtual bool performMigration() = 0;
  virtual float estimatedDuration() const = 0;
  virtual float migrationProgress() const = 0;
};

// The steps a migrator reports for one legacy entry, in the order it takes them.
enum class MavrelEntryStep {
  Examining,        // classifying the entry
  Marker,           // writing the migration marker
  Placeholder,      // installing a placeholder for an unknown application
  BundleRecord,     // asking the registry for the application's record and data container
  DataMove,         // moving the user data into the data container
  Install,          // staging and installing the bundle
  GroupContainers,  // moving group-container contents
  MissedItems,      // checking that nothing was left behind
  Removal,          // removing the legacy container
};

enum class MavrelEntryOutcome {
  Migrated,          // installed, its data in its data container
  PlaceholderOnly,   // its bundle was a placeholder: data moved, nothing installed
  RefusedAsBuiltIn,  // data moved; the install was refused because the system carries it
  Failed,            // a step failed (see failedStep)
  Removed,           // not an application container: removed without migrating anything
  Left,              // not migratable as it stands: left in place
};

struct MavrelEntryResult {
  MavrelEntryOutcome outcome = MavrelEntryOutcome::Migrated;
  MavrelEntryStep failedStep = MavrelEntryStep::Examining;  // meaningful for Failed
  bool containerRemoved = false;  // the legacy entry is gone from the legacy directory
};

// Told, on the migrating thread, what happens to each legacy entry: an entry
// that is migrated gets began, its steps and finished; an entry discarded while
// classifying gets finished only. Every entry found at set-up is finished
// exactly once. `entryPath` is the entry's absolute path.
class MavrelMigrationObserver {
 public:
  virtual ~MavrelMigrationObserver() = default;
  virtual void migrationEntryBegan(std::string_view entryPath, std::string_view identifier) = 0;
  virtual void migrationEntryStep(std::string_view entryPath, MavrelEntryStep step) = 0;
  virtual void migrationEntryFinished(std::string_view entryPath,
                                      const MavrelEntryResult& result) = 0;
};

// The platform services the host hands to a plug-in. They outlive the migrator.
struct MavrelHostServices {
  platform::InstallerService* installer = nullptr;
  platform::ApplicationRegistry* registry = nullptr;
  const platform::SystemVersionSource* systemVersion = nullptr;
  // The process's temporary directory for staging.
  CVURL temporaryDirectory;
  // Optional: told what happens to each legacy entry.
  MavrelMigrationObserver* observer = nullptr;
};

// Signature and name of the entry point every plug-in exports.
using MavrelCreateMigratorFunction = MavrelMigrator* (*)(const MavrelHostServices* services);
inline constexpr const char* kMavrelCreateMigratorSymbol = "MavrelCreateMigrator";
