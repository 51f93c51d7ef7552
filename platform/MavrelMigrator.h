// The migration host's plug-in interface.
//
// A plug-in is a shared module exporting one C entry point,
// MavrelCreateMigrator, which sets a migrator up (its `init`) and returns it,
// or returns null when set-up failed. The host polls estimatedDuration() and
// migrationProgress() from any thread, and calls performMigration() once on
// one thread.
#pragma once

#include <string>

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

// The platform services the host hands to a plug-in. They outlive the migrator.
struct MavrelHostServices {
  platform::InstallerService* installer = nullptr;
  platform::ApplicationRegistry* registry = nullptr;
  const platform::SystemVersionSource* systemVersion = nullptr;
  // The process's temporary directory for staging.
  CVURL temporaryDirectory;
};

// Signature and name of the entry point every plug-in exports.
using MavrelCreateMigratorFunction = MavrelMigrator* (*)(const MavrelHostServices* services);
inline constexpr const char* kMavrelCreateMigratorSymbol = "MavrelCreateMigrator";
