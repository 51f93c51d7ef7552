// Classification of one legacy entry: an application container (application
// bundle, VPN plug-in bundle or both), a container left by an interrupted run
// (its marker file), or something to remove or leave.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "AppMigrator/AppMigrator.h"
#include "AppMigrator/ContainerClassification.h"
#include "platform/Bundle.h"
#include "platform/Log.h"
#include "shared/filemanager/CVFileManager.h"

namespace {

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using platform::logMigration;

constexpr std::string_view kFunction = "-[CVAppMigrator _introspectContainer:orderResultEarly:]";

}  // namespace

std::optional<std::string> CVBundleIdentifierForBundle(const CVURL& bundleURL) {
  const auto bundle = platform::Bundle::create(bundleURL);
  if (!bundle) return std::nullopt;
  return bundle->bundleIdentifier();
}

std::optional<std::string> CVAppMigrator::_bundleIdentifierForBundle(const CVURL& bundleURL) {
  return CVBundleIdentifierForBundle(bundleURL);
}

LegacyEntryClassification CVClassifyLegacyEntry(const CVURL& entryURL) {
  if (entryURL.lastPathComponent() == kStrayEntryFileName) {
    LegacyEntryClassification classification;
    classification.kind = LegacyEntryKind::StrayNote;
    classification.removeEntry = true;
    return classification;
  }
  return CVClassifyLegacyContainer(entryURL);
}

void CVAddToWorkList(std::deque<CVDictionary>& workList, CVDictionary record,
                     bool orderResultEarly) {
  if (orderResultEarly) {
    workList.push_front(std::move(record));
  } else {
    workList.push_back(std::move(record));
  }
}

std::optional<CVDictionary> CVAppMigrator::_introspectContainer(const CVURL& containerURL,
                                                                bool* orderResultEarly) {
  LegacyEntryClassification classification = CVClassifyLegacyContainer(containerURL);
  *orderResultEarly = classification.orderResultEarly;
  if (classification.record) return std::move(classification.record);
  bool removed = false;
  if (classification.removeEntry) {
    removed = CVFileManager::defaultManager().removeItemAtURL(containerURL, nullptr);
  }
  reportDiscardedEntry(containerURL, classification.removeEntry, removed);
  return std::nullopt;
}

// Reads only: what the pass is to remove is marked, not removed, here.
LegacyEntryClassification CVClassifyLegacyContainer(const CVURL& containerURL) {
  CVFileManager& fileManager = CVFileManager::defaultManager();
  LegacyEntryClassification result;
  bool* const orderResultEarly = &result.orderResultEarly;
  const auto leave = [&result](LegacyEntryKind kind, std::string subject) {
    result.kind = kind;
    result.subject = std::move(subject);
    result.record.reset();
    return result;
  };
  CVDictionary record;

  CVError error;
  const auto entries =
      fileManager.urlsForItemsInDirectoryAtURL(containerURL, /*ignoringSymlinks=*/false, &error);
  if (!entries) {
    if (error.isPOSIX(ENOTDIR)) {
      logMigration(kLogLevelError, kFunction, "CVAppMigrator: Found regular file at %@ ; removing",
                   containerURL.path());
      result.removeEntry = true;
      return leave(LegacyEntryKind::RegularFile, containerURL.path());
    } else if (error.isPOSIX(ENOENT)) {
      // The installer service removed it between listing and introspection.
      logMigration(kLogLevelNotice, kFunction,
                   "CVAppMigrator: Got ENOENT when introspecting %@ ; ignoring (likely raced with "
                   "corvaned)",
                   containerURL.path());
      return leave(LegacyEntryKind::Vanished, containerURL.path());
    }
    logMigration(kLogLevelError, kFunction,
                 "CVAppMigrator: Failed to get URLs in container %@ : %@", containerURL.path(),
                 error);
    return leave(LegacyEntryKind::Unlistable, containerURL.path());
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
      return leave(LegacyEntryKind::Unexaminable, entry.path());
    }
    const bool isSymlink = S_ISLNK(status.st_mode);

    if (extension == "app") {
      if (isSymlink) {
        logMigration(kLogLevelError, kFunction,
                     "CVAppMigrator: Skipping container with app symlink at %@", entry.path());
        return leave(LegacyEntryKind::SymlinkBundle, entry.path());
      }
      logMigration(kLogLevelNotice, kFunction, "CVAppMigrator: Found app %@", entry.path());
      const auto identifier = CVBundleIdentifierForBundle(entry);
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
        return leave(LegacyEntryKind::SymlinkBundle, entry.path());
      }
      const auto identifier = CVBundleIdentifierForBundle(entry);
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
        return leave(LegacyEntryKind::SymlinkMarker, entry.path());
      }
      auto saved = CVLoadAndValidateMigrationMarker(entry);
      std::string problem;
      if (saved && !CVLocateMigrationMarkerPaths(*saved, containerURL, &problem)) {
        // Resuming would move and remove whatever the marker names.
        logMigration(kLogLevelError, kFunction,
                     "CVAppMigrator: Migration marker %@ does not describe its container: %s",
                     entry.path(), problem);
        result.detail = problem;
        saved.reset();
      }
      if (saved) {
        // A marker wins over whatever the scan gathered: the bundles may
        // already have moved away.
        const std::string* type = saved->findString(kContainerTypeKey);
        *orderResultEarly = type != nullptr && *type == kContainerTypeApp;
        result.kind = LegacyEntryKind::Resumed;
        result.record = std::move(saved);
        return result;
      }
      logMigration(kLogLevelError, kFunction,
                   "CVAppMigrator: Failed to load migration marker file from %@", entry);
      discarded = true;
      result.subject = entry.path();
    }
  }

  if (!applicationBundle && !vpnPluginBundle) {
    logMigration(kLogLevelError, kFunction,
                 "CVAppMigrator: No app or vpn bundle found in container %@ ; removing it",
                 containerURL.path());
    result.removeEntry = true;
    return leave(LegacyEntryKind::NoBundle, containerURL.path());
  }
  if (applicationBundle && vpnPluginBundle) {
    record.set(std::string(kSecondBundlePathKey), vpnPluginBundle->path());
  }
  if (discarded) return leave(LegacyEntryKind::UnreadableMarker, result.subject);
  result.kind = applicationBundle ? LegacyEntryKind::Application : LegacyEntryKind::VPNOnly;
  result.record = std::move(record);
  return result;
}
