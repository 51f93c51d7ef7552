// The migration marker: a container's info record, saved inside the container
// before its first move so that an interrupted run can resume from it.
#include "AppMigrator/AppMigrator.h"
#include "AppMigrator/ContainerClassification.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"

namespace {

using platform::kLogLevelError;
using platform::logMigration;

constexpr std::string_view kLoadFunction = "-[CVAppMigrator _loadAndValidateMigrationMarkerAtURL:]";
constexpr std::string_view kWriteFunction = "-[CVAppMigrator _migrateContainerWithInfo:]";

}  // namespace

void CVAppMigrator::_writeMigrationMarker(const CVDictionary& info, const CVURL& containerURL) {
  const CVURL markerURL = containerURL.URLByAppendingPathComponent(kMigrationMarkerFileName, false);
  // Durable (contents and directory flushed) before the first move it guards:
  // no file system promises to commit a rename before the renames that follow
  // it, so after a power loss the moves could be on the disk without it.
  if (!platform::writePropertyListAtomically(CVValue(info), markerURL, nullptr)) {
    logMigration(kLogLevelError, kWriteFunction,
                 "CVAppMigrator: Failed to write out container marker dictionary... hopefully we "
                 "don't need it to recover.");
  }
}

std::optional<CVDictionary> CVAppMigrator::_loadAndValidateMigrationMarkerAtURL(
    const CVURL& markerURL) {
  return CVLoadAndValidateMigrationMarker(markerURL);
}

std::optional<CVDictionary> CVLoadAndValidateMigrationMarker(const CVURL& markerURL) {
  auto marker =
      platform::readPropertyListDictionary(markerURL, nullptr, platform::kMigrationMarkerLimits);
  if (!marker) {
    logMigration(kLogLevelError, kLoadFunction,
                 "CVAppMigrator: Failed to load migration marker file from %@", markerURL);
    return std::nullopt;
  }
  // Checks stop at the first failure. Values are not validated further: the
  // record is returned as read, extra keys included.
  if (marker->findString(kBundlePathKey) == nullptr) {
    logMigration(kLogLevelError, kLoadFunction,
                 "CVAppMigrator: Failed to get bundle path from migration marker file %@",
                 markerURL.path());
    return std::nullopt;
  }
  if (marker->findString(kContainerTypeKey) == nullptr) {
    logMigration(kLogLevelError, kLoadFunction,
                 "CVAppMigrator: Failed to get container type from migration marker file %@",
                 markerURL.path());
    return std::nullopt;
  }
  if (marker->findString(kContainerPathKey) == nullptr) {
    logMigration(kLogLevelError, kLoadFunction,
                 "CVAppMigrator: Failed to get container path from migration marker file %@",
                 markerURL.path());
    return std::nullopt;
  }
  if (marker->findString(kBundleIdentifierKey) == nullptr) {
    logMigration(kLogLevelError, kLoadFunction,
                 "CVAppMigrator: Failed to get container bundle ID from migration marker file %@",
                 markerURL.path());
    return std::nullopt;
  }
  if (const CVValue* second = marker->find(kSecondBundlePathKey);
      second != nullptr && second->asString() == nullptr) {
    logMigration(kLogLevelError, kLoadFunction,
                 "CVAppMigrator: Second bundle path was not a string: %@", *second);
    return std::nullopt;
  }
  return marker;
}
