// Migration of one classified legacy container: placeholder, user data,
// install, group containers, missed-items check and removal.
#include "AppMigrator/AppMigrator.h"
#include "platform/Log.h"
#include "shared/filemanager/CVFileManager.h"

namespace {

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using platform::logMigration;

constexpr std::string_view kMigrateFunction = "-[CVAppMigrator _migrateContainerWithInfo:]";
constexpr std::string_view kMissedItemsFunction =
    "-[CVAppMigrator _containerHasMissedItems:withIdentifier:]";

CVURL fileURLOfRecordPath(const CVDictionary& info, std::string_view key, bool isDirectory) {
  const std::string* path = info.findString(key);
  return path ? CVURL::fileURLWithPath(*path, isDirectory) : CVURL();
}

bool isMarkerFileName(const std::string& name) {
  return name == kMigrationMarkerFileName || name == kLegacyMigrationMarkerFileName ||
         name == kLegacyPlaceholderFileName;
}

// Says what the registry knew of an application whose data container is missing.
void logRecordWithoutDataContainer(const platform::BundleRecord& record,
                                   const std::string& identifier) {
  logMigration(kLogLevelError, kMigrateFunction,
               "CVAppMigrator: Failed to get data container URL for %@", identifier);
  logMigration(kLogLevelError, kMigrateFunction, "CVAppMigrator: Proxy had bundle identifier %@",
               record.bundleIdentifier);
  logMigration(kLogLevelError, kMigrateFunction, "CVAppMigrator: Proxy had bundle type %@",
               record.bundleType);
  logMigration(kLogLevelError, kMigrateFunction, "CVAppMigrator: Proxy had bundle URL %@",
               record.bundleURL);
  logMigration(kLogLevelError, kMigrateFunction, "CVAppMigrator: Proxy had bundle container URL %@",
               record.bundleContainerURL);
  logMigration(kLogLevelError, kMigrateFunction, "CVAppMigrator: Proxy %s have backing bundle",
               record.foundBackingBundle ? "did" : "did not");
}

}  // namespace

bool CVAppMigrator::_migrateContainerWithInfo(const CVDictionary& info) {
  const CVURL containerURL = fileURLOfRecordPath(info, kContainerPathKey, true);
  const CVURL bundleURL = fileURLOfRecordPath(info, kBundlePathKey, true);
  const CVURL vpnPluginURL = fileURLOfRecordPath(info, kSecondBundlePathKey, true);
  const std::string* identifierValue = info.findString(kBundleIdentifierKey);
  const std::string identifier = identifierValue ? *identifierValue : std::string();
  const std::string* type = info.findString(kContainerTypeKey);
  CVFileManager& fileManager = CVFileManager::defaultManager();
  reportEntryBegan(info);
  PendingMarker marker;
  // A failure that keeps the container.
  const auto failKept = [this, &info, &marker](MavrelEntryStep step) {
    marker.settle();
    reportEntryFinished(info, {MavrelEntryOutcome::Failed, step, false});
    return false;
  };

  const bool bundleIsPlaceholder = fileManager.bundleAtURLIsPlaceholder(bundleURL);
  // The marker lets a pass interrupted from here on resume this container.
  // It is durable before anything leaves the container (settled below).
  reportEntryStep(info, MavrelEntryStep::Marker);
  marker = _beginMigrationMarker(info, containerURL);

  if (type != nullptr && *type == kContainerTypeApp) {
    if (environment_.registry->isApplicationInstalled(identifier)) {
      logMigration(kLogLevelNotice, kMigrateFunction,
                   "CVAppMigrator: App %@ is already installed, so not creating placeholder.",
                   identifier);
    } else {
      reportEntryStep(info, MavrelEntryStep::Placeholder);
      if (!_stageAndInstallPlaceholderForBundleAtURL(bundleURL, identifier, containerURL)) {
        return failKept(MavrelEntryStep::Placeholder);
      }
    }
  }

  reportEntryStep(info, MavrelEntryStep::BundleRecord);
  const std::optional<platform::BundleRecord> record =
      environment_.registry->bundleRecordForIdentifier(identifier);
  if (!record) {
    logMigration(kLogLevelError, kMigrateFunction,
                 "CVAppMigrator: Failed to get bundle proxy for identifier %@", identifier);
    return failKept(MavrelEntryStep::BundleRecord);
  }
  if (!record->dataContainerURL) {
    logRecordWithoutDataContainer(*record, identifier);
    return failKept(MavrelEntryStep::BundleRecord);
  }

  marker.settle();
  logMigration(kLogLevelNotice, kMigrateFunction,
               "CVAppMigrator: Moving data from container %@ to %@", containerURL.path(),
               record->dataContainerURL.path());
  reportEntryStep(info, MavrelEntryStep::DataMove);
  if (!_migrateDataContainerForIdentifier(identifier, containerURL, record->dataContainerURL)) {
    return failKept(MavrelEntryStep::DataMove);
  }

  bool result = true;
  MavrelEntryResult outcome{MavrelEntryOutcome::PlaceholderOnly, MavrelEntryStep::Examining, false};
  if (!bundleIsPlaceholder) {
    logMigration(kLogLevelNotice, kMigrateFunction,
                 "CVAppMigrator: Staging and installing app %@ at %@ (and secondary %@)",
                 identifier, bundleURL.path(),
                 vpnPluginURL ? CVValue(vpnPluginURL.path()) : CVValue());
    reportEntryStep(info, MavrelEntryStep::Install);
    _installRefusedAsBuiltIn = false;
    if (!_stageAndInstallBundleAtURL(bundleURL, identifier, vpnPluginURL, containerURL)) {
      // The user data has already left the container, so the container is
      // not kept for another attempt: it is removed below all the same.
      result = false;
      outcome = {MavrelEntryOutcome::Failed, MavrelEntryStep::Install, false};
    } else {
      outcome.outcome = _installRefusedAsBuiltIn ? MavrelEntryOutcome::RefusedAsBuiltIn
                                                 : MavrelEntryOutcome::Migrated;
      reportEntryStep(info, MavrelEntryStep::GroupContainers);
      if (!_migrateGroupContainersForIdentifier(identifier)) {
        return failKept(MavrelEntryStep::GroupContainers);
      }
      reportEntryStep(info, MavrelEntryStep::MissedItems);
      if (_containerHasMissedItems(containerURL, identifier)) {
        return failKept(MavrelEntryStep::MissedItems);
      }
    }
  }

  logMigration(kLogLevelNotice, kMigrateFunction, "CVAppMigrator: Removing container for %@ at %@",
               identifier, containerURL.path());
  reportEntryStep(info, MavrelEntryStep::Removal);
  CVError error;
  if (fileManager.removeItemAtURL(containerURL, &error)) {
    outcome.containerRemoved = true;
  } else {
    logMigration(kLogLevelError, kMigrateFunction,
                 "CVAppMigrator: Failed to remove container %@ : %@", containerURL.path(), error);
  }
  reportEntryFinished(info, outcome);
  return result;
}

bool CVAppMigrator::_containerHasMissedItems(const CVURL& containerURL,
                                             const std::string& identifier) {
  CVError error;
  const auto entries = CVFileManager::defaultManager().urlsForItemsInDirectoryAtURL(
      containerURL, /*ignoringSymlinks=*/false, &error);
  if (!entries) {
    logMigration(kLogLevelError, kMissedItemsFunction,
                 "CVAppMigrator: Failed to enumerate container %@ for %@ : %@", containerURL.path(),
                 identifier, error);
    return true;
  }
  CVArray missed;
  for (const CVURL& entry : *entries) {
    if (!isMarkerFileName(entry.lastPathComponent())) missed.append(CVValue(entry));
  }
  if (missed.empty()) return false;
  logMigration(kLogLevelError, kMissedItemsFunction,
               "CVAppMigrator: Found missed items in %@ for %@: %@", containerURL.path(),
               identifier, missed);
  return true;
}
