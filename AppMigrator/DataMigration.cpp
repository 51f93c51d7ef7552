// Moves of user data: a legacy container's user-data items into the new data
// container, and legacy group containers into the registry's group containers.
//
// Items at a destination are replaced, never merged: the legacy copy is the
// user's data and wins. Removals before a move are silent, since the move that
// follows reports the real problem.
#include "AppMigrator/AppMigrator.h"
#include "platform/Log.h"
#include "shared/filemanager/CVFileManager.h"

namespace {

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using platform::logMigration;

constexpr std::string_view kDataFunction =
    "-[CVAppMigrator _migrateDataContainerForIdentifier:fromURL:toURL:]";
constexpr std::string_view kGroupsFunction =
    "-[CVAppMigrator _migrateGroupContainersForIdentifier:]";
constexpr std::string_view kMoveAllFunction =
    "-[CVAppMigrator _moveAllItemsInGroupContainerURL:toGroupContainerURL:]";
}  // namespace

const std::map<std::string, LegacyGroupLocation, std::less<>>&
CVAppMigrator::legacyGroupLocations() {
  if (!_legacyGroupLocations) {
    const CVDictionary* groups =
        _installMap ? _installMap->findDictionary(kGroupContainersKey) : nullptr;
    _legacyGroupLocations = CVLocateLegacyGroupContainers(groups ? *groups : CVDictionary());
  }
  return *_legacyGroupLocations;
}

bool CVAppMigrator::_migrateDataContainerForIdentifier(const std::string& identifier,
                                                       const CVURL& srcURL, const CVURL& dstURL) {
  CVFileManager& fileManager = CVFileManager::defaultManager();
  for (const std::string& name : environment_.configuration->appUserDataItemNames()) {
    const CVURL source = srcURL.URLByAppendingPathComponent(name, true);
    const CVURL destination = dstURL.URLByAppendingPathComponent(name, true);
    if (!fileManager.itemExistsAtURL(source)) continue;
    fileManager.removeItemAtURL(destination, nullptr);
    CVError error;
    if (!fileManager.moveItemIfExistsAtURL(source, destination, &error)) {
      logMigration(kLogLevelError, kDataFunction,
                   "CVAppMigrator: Failed to move %@ to %@ migrating for %@ : %@", source,
                   destination, identifier, error);
      return false;
    }
  }
  return true;
}

bool CVAppMigrator::_migrateGroupContainersForIdentifier(const std::string& identifier) {
  if (!_groupContainerMap || _groupContainerMap->empty()) return true;

  const std::optional<platform::BundleRecord> record =
      environment_.registry->bundleRecordForIdentifier(identifier);
  if (!record) {
    logMigration(kLogLevelError, kGroupsFunction,
                 "CVAppMigrator: Failed to get bundle proxy for %@", identifier);
    return false;
  }
  if (!record->groupContainerURLs) {
    logMigration(kLogLevelError, kGroupsFunction,
                 "CVAppMigrator: Failed to get group container URLs for installed %@", identifier);
    return false;
  }
  const CVDictionary& groupContainerURLs = *record->groupContainerURLs;
  if (groupContainerURLs.empty()) {
    logMigration(kLogLevelNotice, kGroupsFunction,
                 "CVAppMigrator: No group containers to migrate for %@", identifier);
    return true;
  }

  CVFileManager& fileManager = CVFileManager::defaultManager();
  for (std::size_t i = 0; i < groupContainerURLs.count(); ++i) {
    const std::string& groupIdentifier = groupContainerURLs.keys()[i];
    const CVURL* newURL = groupContainerURLs.valueAt(i).asURL();
    const CVDictionary* entry = _groupContainerMap->findDictionary(groupIdentifier);
    if (entry == nullptr) {
      // Usually a group that an application migrated earlier shared.
      logMigration(kLogLevelNotice, kGroupsFunction,
                   "CVAppMigrator: No group container entry to migrate for %@[%@]", identifier,
                   groupIdentifier);
      continue;
    }
    const std::string* path = entry->findString(kGroupContainerPathKey);
    if (path == nullptr) {
      logMigration(kLogLevelNotice, kGroupsFunction,
                   "CVAppMigrator: Failed to get path to group container for %@[%@]", identifier,
                   groupIdentifier);
      continue;
    }
    // The map holds device paths; the location says where one leads in the
    // image and whether that place may be moved and removed at all.
    const auto located = legacyGroupLocations().find(groupIdentifier);
    const LegacyGroupLocation* location =
        located != legacyGroupLocations().end() && located->second.storedPath == *path
            ? &located->second
            : nullptr;
    if (location == nullptr || location->hostPath.empty()) {
      logMigration(kLogLevelError, kGroupsFunction,
                   "CVAppMigrator: Source group container %@ of %@[%@] %s; not migrating it", *path,
                   identifier, groupIdentifier,
                   location ? location->problem : std::string("cannot be located"));
      continue;
    }
    const std::string legacyPath = location->hostPath;
    const CVURL sourceURL = CVURL::fileURLWithPath(legacyPath, true);
    if (!fileManager.itemExistsAtURL(sourceURL)) {
      logMigration(kLogLevelError, kGroupsFunction,
                   "CVAppMigrator: Missing source group container at %@", legacyPath);
      continue;
    }
    if (!location->problem.empty()) {
      // Moving its items and removing it would reach outside the image, or
      // take what is not a group container with it.
      logMigration(kLogLevelError, kGroupsFunction,
                   "CVAppMigrator: Source group container %@ of %@[%@] %s; not migrating it",
                   legacyPath, identifier, groupIdentifier, location->problem);
      continue;
    }
    if (newURL == nullptr || !*newURL) {
      // The registry reported no place for this group; nothing can be moved.
      logMigration(kLogLevelError, kGroupsFunction,
                   "CVAppMigrator: No group container URL for %@[%@]", identifier, groupIdentifier);
      continue;
    }
    logMigration(kLogLevelNotice, kGroupsFunction,
                 "CVAppMigrator: Migrating group container %@ at %@ to %@", groupIdentifier,
                 sourceURL, *newURL);
    if (!_moveAllItemsInGroupContainerURL(sourceURL, *newURL)) continue;

    _groupContainerMap->remove(groupIdentifier);
    CVError error;
    if (!fileManager.removeItemAtURL(sourceURL, &error)) {
      logMigration(kLogLevelError, kGroupsFunction,
                   "CVAppMigrator: Failed to remove old group container at %@ : %@", legacyPath,
                   error);
    }
  }
  return true;
}

bool CVAppMigrator::_moveAllItemsInGroupContainerURL(const CVURL& srcURL, const CVURL& dstURL) {
  CVFileManager& fileManager = CVFileManager::defaultManager();
  CVError error;
  const auto entries =
      fileManager.urlsForItemsInDirectoryAtURL(srcURL, /*ignoringSymlinks=*/false, &error);
  if (!entries) {
    logMigration(kLogLevelError, kMoveAllFunction,
                 "CVAppMigrator: Failed to get all urls in source group container %@ : %@",
                 srcURL.path(), error);
    return false;
  }
  for (const CVURL& entry : *entries) {
    const CVURL target = dstURL.URLByAppendingPathComponent(entry.lastPathComponent(), false);
    fileManager.removeItemAtURL(target, nullptr);
    CVError moveError;
    if (!fileManager.moveItemIfExistsAtURL(entry, target, &moveError)) {
      logMigration(kLogLevelError, kMoveAllFunction,
                   "CVAppMigrator: Failed to move item %@ to %@ : %@", entry.path(), target.path(),
                   moveError);
    }
  }
  return true;
}
