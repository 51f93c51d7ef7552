// Classification of one legacy entry: an application container (application
// bundle, VPN plug-in bundle or both), a container left by an interrupted run
// (its marker file), or something to remove or leave.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "AppMigrator/AppMigrator.h"
#include "platform/Bundle.h"
#include "platform/Log.h"
#include "shared/filemanager/CVFileManager.h"

namespace {

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using platform::logMigration;

constexpr std::string_view kFunction = "-[CVAppMigrator _introspectContainer:orderResultEarly:]";

}  // namespace

std::optional<std::string> CVAppMigrator::_bundleIdentifierForBundle(const CVURL& bundleURL) {
  const auto bundle = platform::Bundle::create(bundleURL);
  if (!bundle) return std::nullopt;
  return bundle->bundleIdentifier();
}

std::optional<CVDictionary> CVAppMigrator::_introspectContainer(const CVURL& containerURL,
                                                                bool* orderResultEarly) {
  CVFileManager& fileManager = CVFileManager::defaultManager();
  CVDictionary record;

  CVError error;
  const auto entries =
      fileManager.urlsForItemsInDirectoryAtURL(containerURL, /*ignoringSymlinks=*/false, &error);
  if (!entries) {
    if (error.isPOSIX(ENOTDIR)) {
      logMigration(kLogLevelError, kFunction, "CVAppMigrator: Found regular file at %@ ; removing",
                   containerURL.path());
      fileManager.removeItemAtURL(containerURL, nullptr);
    } else if (error.isPOSIX(ENOENT)) {
      // The installer service removed it between listing and introspection.
      logMigration(kLogLevelNotice, kFunction,
                   "CVAppMigrator: Got ENOENT when introspecting %@ ; ignoring (likely raced with "
                   "corvaned)",
                   containerURL.path());
    } else {
      logMigration(kLogLevelError, kFunction,
                   "CVAppMigrator: Failed to get URLs in container %@ : %@", containerURL.path(),
                   error);
    }
    return std::nullopt;
  }

  record.set(std::string(kContainerPathKey), containerURL.path());
  std::optional<CVURL> applicationBundle;
  std::optional<CVURL> vpnPluginBundle;
  bool discarded = false;

  for (const CVURL& entry : *entries) {
    const std::string extension = entry.pathExtension();
    struct stat status;
    if (::lstat(entry.fileSystemRepresentation(), &status) != 0) {
      logMigration(kLogLevelError, kFunction, "CVAppMigrator: Failed to stat path %s : %s",
                   entry.fileSystemRepresentation(), std::strerror(errno));
      return std::nullopt;
    }
    const bool isSymlink = S_ISLNK(status.st_mode);

    if (extension == "app") {
      if (isSymlink) {
        logMigration(kLogLevelError, kFunction,
                     "CVAppMigrator: Skipping container with app symlink at %@", entry.path());
        return std::nullopt;
      }
      logMigration(kLogLevelNotice, kFunction, "CVAppMigrator: Found app %@", entry.path());
      const auto identifier = _bundleIdentifierForBundle(entry);
      if (!identifier) {
        logMigration(kLogLevelError, kFunction,
                     "CVAppMigrator: Could not get identifier for bundle at %@", entry.path());
        continue;
      }
      record.set(std::string(kBundlePathKey), entry.path());
      record.set(std::string(kContainerTypeKey), kContainerTypeApp);
      record.set(std::string(kBundleIdentifierKey), *identifier);
      *orderResultEarly = true;
      applicationBundle = entry;
    } else if (extension == "vpnplugin") {
      logMigration(kLogLevelNotice, kFunction, "CVAppMigrator: Found vpn plugin %@", entry.path());
      if (isSymlink) {
        logMigration(kLogLevelError, kFunction,
                     "CVAppMigrator: VPN plugin was symlink; skipping container %@", entry.path());
        return std::nullopt;
      }
      const auto identifier = _bundleIdentifierForBundle(entry);
      if (!identifier) continue;
      vpnPluginBundle = entry;
      if (!applicationBundle) {
        record.set(std::string(kBundlePathKey), entry.path());
        record.set(std::string(kContainerTypeKey), kContainerTypeVPNBundle);
        record.set(std::string(kBundleIdentifierKey), *identifier);
        *orderResultEarly = false;
      }
    } else if (entry.lastPathComponent() == kMigrationMarkerFileName) {
      logMigration(kLogLevelNotice, kFunction, "CVAppMigrator: Found migration marker %@",
                   entry.path());
      if (isSymlink) {
        logMigration(kLogLevelError, kFunction,
                     "CVAppMigrator: Migration marker was symlink; skipping container %@",
                     entry.path());
        return std::nullopt;
      }
      if (auto saved = _loadAndValidateMigrationMarkerAtURL(entry)) {
        // A marker wins over whatever the scan gathered: the bundles may
        // already have moved away.
        const std::string* type = saved->findString(kContainerTypeKey);
        *orderResultEarly = type != nullptr && *type == kContainerTypeApp;
        return saved;
      }
      logMigration(kLogLevelError, kFunction,
                   "CVAppMigrator: Failed to load migration marker file from %@", entry);
      discarded = true;
    }
  }

  if (!applicationBundle && !vpnPluginBundle) {
    logMigration(kLogLevelError, kFunction,
                 "CVAppMigrator: No app or vpn bundle found in container %@ ; removing it",
                 containerURL.path());
    fileManager.removeItemAtURL(containerURL, nullptr);
    return std::nullopt;
  }
  if (applicationBundle && vpnPluginBundle) {
    record.set(std::string(kSecondBundlePathKey), vpnPluginBundle->path());
  }
  if (discarded) return std::nullopt;
  return record;
}
