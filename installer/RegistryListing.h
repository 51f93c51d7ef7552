// A read-only look at a device image's application registry, for
// `mavrel apps`: what is installed, where its containers are, the safe
// harbors, and whether interrupted installs wait for recovery.
//
// Nothing is written: the database is opened read-only (SQLite may create its
// "-wal" and "-shm" companions, as any reader of a WAL database needs them),
// the registry's lock is not taken and no recovery runs, so the listing works
// while a migration is running (it shows the last committed state). Built-in applications of
// the image that the registry has not needed yet are listed as system
// applications without containers.
//
// Error contract: nullopt with a "CVInstallerErrorDomain" record naming the
// database when it exists but cannot be read (a damaged one included). An
// image without a registry gives an empty listing with registryExists false.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Error.h"

class CVGlobalConfiguration;

namespace mavrel_installer {

struct ListedApplication {
  std::string identifier;
  std::string kind;  // "application", "placeholder" or "system"
  std::string version;
  std::string shortVersion;
  // Absolute paths; "" when there is none.
  std::string bundleContainer;
  std::string bundlePath;
  std::string vpnPluginPath;
  std::string vpnPluginIdentifier;     // when the registry knows the plug-in by it
  std::string vpnPluginDataContainer;  // "" until the plug-in needed one
  std::string dataContainer;
  std::vector<std::pair<std::string, std::string>> groupContainers;  // group, path
};

struct ListedHarbor {
  std::string identifier;
  std::string path;  // absolute
  std::int64_t containerType = 0;
};

struct RegistryListing {
  std::string registryPath;
  bool registryExists = false;
  std::vector<ListedApplication> applications;  // by identifier
  std::vector<ListedHarbor> harbors;
  std::size_t pendingInstalls = 0;  // journal entries awaiting recovery
};

// The registry's location under the configuration's home.
std::string registryPathForConfiguration(const CVGlobalConfiguration& configuration);

// With `writeNothing` the database is opened Immutable (RegistryDatabase.h):
// no companion file is made, and changes still in a "-wal" file are not seen.
std::optional<RegistryListing> readRegistryListing(CVGlobalConfiguration& configuration,
                                                   CVError* error, bool writeNothing = false);

}  // namespace mavrel_installer
