// Staged installation of a legacy application bundle through the installer
// service.
//
// The staging directory is built inside the legacy container itself, so every
// step is a rename within one file system and the container stays the single
// place that holds the application until the installer takes it.
#include <atomic>

#include "AppMigrator/AppMigrator.h"
#include "platform/InstallOptions.h"
#include "platform/Log.h"
#include "shared/filemanager/CVFileManager.h"

namespace {

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using platform::logMigration;

constexpr std::string_view kFunction =
    "-[CVAppMigrator _stageAndInstallBundleAtURL:withIdentifier:andVPNPluginAtURL:inContainerURL:]";

}  // namespace

bool CVAppMigrator::_stageAndInstallBundleAtURL(const CVURL& bundleURL,
                                                const std::string& identifier,
                                                const CVURL& vpnPluginURL,
                                                const CVURL& containerURL) {
  CVFileManager& fileManager = CVFileManager::defaultManager();
  const CVURL stagingURL = containerURL.URLByAppendingPathComponent(kStagingDirectoryName, true);
  const CVURL payloadURL = stagingURL.URLByAppendingPathComponent(kPayloadDirectoryName, true);

  CVError error;
  if (!fileManager.createDirectoryAtURL(payloadURL, /*withIntermediateDirectories=*/true, 0755,
                                        &error)) {
    logMigration(kLogLevelError, kFunction, "CVAppMigrator: Failed to create %@ : %@", payloadURL,
                 error);
    return false;
  }

  const CVURL stagedBundleURL =
      payloadURL.URLByAppendingPathComponent(bundleURL.lastPathComponent(), true);
  if (!fileManager.moveItemIfExistsAtURL(bundleURL, stagedBundleURL, &error)) {
    logMigration(kLogLevelError, kFunction,
                 "CVAppMigrator: Failed to move bundle from %@ to %@: %@", bundleURL,
                 stagedBundleURL, error);
    return false;
  }

  if (vpnPluginURL) {
    const CVURL stagedPluginURL =
        payloadURL.URLByAppendingPathComponent(vpnPluginURL.lastPathComponent(), true);
    if (!fileManager.moveItemIfExistsAtURL(vpnPluginURL, stagedPluginURL, &error)) {
      logMigration(kLogLevelError, kFunction,
                   "CVAppMigrator: Failed to move vpn bundle from %@ to %@: %@", vpnPluginURL,
                   stagedPluginURL, error);
      return false;
    }
  }

  if (!fileManager.captureStoreDataFromDirectory(containerURL, stagingURL, /*doCopy=*/false,
                                                 /*failureIsFatal=*/false, &error)) {
    logMigration(kLogLevelError, kFunction,
                 "CVAppMigrator: Failed to move app metadata from %@ to %@: %@", containerURL,
                 stagingURL, error);
    return false;
  }

  // Written by the progress callback, which the service may run on another
  // thread; read once the install call has returned.
  std::atomic<bool> alreadyInstalled{false};
  const std::string bundlePath = bundleURL.path();
  const platform::InstallProgressCallback progress = [&](const CVDictionary& status) {
    const std::string* errorName = status.findString(platform::kProgressErrorKey);
    if (errorName == nullptr) return;
    if (*errorName == platform::kApplicationAlreadyInstalledError) {
      logMigration(kLogLevelNotice, kFunction,
                   "CVAppMigrator: Installation of %@ failed because it's older than what's built "
                   "into the system. Data migration already happened so we're done here.",
                   bundlePath);
      alreadyInstalled.store(true);
      return;
    }
    logMigration(kLogLevelError, kFunction,
                 "CVAppMigrator: Installation of %@ failed with Corvane error %@ (%@ : %@)",
                 bundlePath, status.find(platform::kProgressErrorDescriptionKey), *errorName,
                 status.find(platform::kProgressErrorDetailKey));
  };

  CVError installError;
  if (environment_.installer->installApplication(
          stagingURL, platform::migrationCustomerInstallOptions(identifier), &installError,
          progress)) {
    return true;
  }
  if (alreadyInstalled.load()) {
    _installRefusedAsBuiltIn = true;
    return true;
  }
  logMigration(kLogLevelError, kFunction, "CVAppMigrator: Failed to install %@ : %@", stagingURL,
               installError);
  return false;
}
