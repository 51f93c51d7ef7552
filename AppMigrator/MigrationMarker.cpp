// The migration marker: a container's info record, saved inside the container
// before its first move so that an interrupted run can resume from it.
#include "AppMigrator/AppMigrator.h"
#include "AppMigrator/ContainerClassification.h"
#include "AppMigrator/DeviceRootContainment.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "shared/filemanager/CVFileManager.h"

namespace {

using platform::kLogLevelError;
using platform::logMigration;

constexpr std::string_view kLoadFunction = "-[CVAppMigrator _loadAndValidateMigrationMarkerAtURL:]";
constexpr std::string_view kWriteFunction = "-[CVAppMigrator _migrateContainerWithInfo:]";
constexpr std::string_view kMarkerPathKeys[] = {kContainerPathKey, kBundlePathKey,
                                                kSecondBundlePathKey};

void logWriteFailure() {
  logMigration(kLogLevelError, kWriteFunction,
               "CVAppMigrator: Failed to write out container marker dictionary... hopefully we "
               "don't need it to recover.");
}

}  // namespace

void CVAppMigrator::_writeMigrationMarker(const CVDictionary& info, const CVURL& containerURL) {
  _beginMigrationMarker(info, containerURL).settle();
}

CVAppMigrator::PendingMarker CVAppMigrator::_beginMigrationMarker(const CVDictionary& info,
                                                                  const CVURL& containerURL) {
  const CVURL markerURL = containerURL.URLByAppendingPathComponent(kMigrationMarkerFileName, false);
  // Durable (contents and directory flushed) before the first move it guards:
  // no file system promises to commit a rename before the renames that follow
  // it, so after a power loss the moves could be on the disk without it.
  // The marker stores device paths, so that a copied or moved image resumes.
  CVDictionary marker = info;
  for (const std::string_view key : kMarkerPathKeys) {
    if (const std::string* path = info.findString(key))
      marker.set(std::string(key), CVImagePathForHostPath(*path));
  }
  std::optional<platform::AtomicFileWrite> write =
      platform::beginPropertyListWrite(CVValue(marker), markerURL, nullptr);
  if (!write) {
    logWriteFailure();
    return PendingMarker();
  }
  // The two flushes wait for the disk: they overlap the placeholder's work.
  auto written = std::make_shared<std::promise<bool>>();
  std::future<bool> result = written->get_future();
  auto pending = std::make_shared<platform::AtomicFileWrite>(std::move(*write));
  if (!_markerQueue) _markerQueue = std::make_unique<platform::DispatchQueue>("cv.marker");
  _markerQueue->async([pending, written] {
    written->set_value(pending->finish(platform::WriteDurability::Flushed, nullptr));
  });
  return PendingMarker(std::move(result));
}

void CVAppMigrator::PendingMarker::settle() {
  if (written_.valid() && !written_.get()) logWriteFailure();
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

bool CVLocateMigrationMarkerPaths(CVDictionary& marker, const CVURL& containerURL,
                                  std::string* problem) {
  const std::string container = containerURL.path();
  const std::string* storedContainer = marker.findString(kContainerPathKey);
  std::string why;
  const auto hostContainer =
      storedContainer ? CVHostPathForImagePath(*storedContainer, &why) : std::nullopt;
  if (!hostContainer || *hostContainer != container) {
    *problem = "it names the container " + (storedContainer ? *storedContainer : std::string()) +
               ", not the one it lies in";
    return false;
  }
  marker.set(std::string(kContainerPathKey), container);
  for (const std::string_view key : {kBundlePathKey, kSecondBundlePathKey}) {
    const std::string* stored = marker.findString(key);
    if (stored == nullptr) continue;
    const auto hostPath = CVHostPathForImagePath(*stored, &why);
    // A bundle of the container lies beneath it, and no link of the way
    // leads out of it.
    if (!hostPath || hostPath->size() <= container.size() + 1 ||
        hostPath->compare(0, container.size() + 1, container + "/") != 0 ||
        !CVFileManager::defaultManager().realPathForURL(CVURL::fileURLWithPath(*hostPath, true),
                                                        containerURL)) {
      *problem = "its " + std::string(key) + " " + *stored + " lies outside the container";
      return false;
    }
    marker.set(std::string(key), *hostPath);
  }
  return true;
}
