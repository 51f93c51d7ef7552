// Maps of the bundles that come with the system image, by identifier.
#include "platform/Bundle.h"
#include "platform/Log.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "shared/filemanager/CVFileManager.h"
#include "shared/support/CVInfoPlist.h"

namespace {

constexpr std::string_view kScanFunction =
    "-[CVGlobalConfiguration _bundleIDMapForBundlesInDirectory:withExtension:]";
constexpr std::string_view kBundleURLKey = "com.zentrel.Corvane.bundleURL";

}  // namespace

std::optional<CVDictionary> CVGlobalConfiguration::_bundleIDMapForBundlesInDirectory(
    const CVURL& directory, std::string_view extension) {
  using platform::kLogLevelDebug;
  CVError error;
  const auto entries = CVFileManager::defaultManager().urlsForItemsInDirectoryAtURL(
      directory, /*ignoringSymlinks=*/true, &error);
  if (!entries) {
    // A directory that is simply not there is not worth a line.
    if (!error.isPOSIX(ENOENT)) {
      platform::logInstaller(platform::kLogLevelError, kScanFunction,
                             "Failed to search for apps in %@ : %@", directory, error);
    }
    return std::nullopt;
  }

  CVDictionary map;
  const CVSet keys{platform::kBundleIdentifierKey, platform::kBundleVersionKey};
  for (const CVURL& bundleURL : *entries) {
    if (bundleURL.pathExtension() != extension) continue;
    auto info = CVLoadInfoPlist(bundleURL, &keys);
    if (!info) {
      platform::logInstaller(kLogLevelDebug, kScanFunction,
                             "Failed to load Info.plist from bundle %@", bundleURL);
      continue;
    }
    const std::string* identifier = info->findString(platform::kBundleIdentifierKey);
    if (identifier == nullptr) {
      platform::logInstaller(kLogLevelDebug, kScanFunction,
                             "Failed to get QXBundleIdentifier from bundle %@", bundleURL);
      continue;
    }
    const std::string key = *identifier;
    info->set(std::string(kBundleURLKey), bundleURL);
    // A later bundle with the same identifier replaces an earlier one.
    map.set(key, std::move(*info));
  }
  return map;
}

std::optional<CVDictionary> CVGlobalConfiguration::_bundleIDMapForAppsInDirectory(
    const CVURL& directory) {
  return _bundleIDMapForBundlesInDirectory(directory, "app");
}

// A scan that yields nothing leaves the field empty, so the next call scans
// again; an empty map is a result and is kept.
CVGlobalConfiguration::BundleMap CVGlobalConfiguration::cachedMap(BundleMap& field,
                                                                  const CVURL& directory) {
  if (!field) {
    if (auto map = _bundleIDMapForAppsInDirectory(directory)) {
      field = std::make_shared<const CVDictionary>(std::move(*map));
    }
  }
  return field;
}

CVGlobalConfiguration::BundleMap CVGlobalConfiguration::systemAppBundleIDToInfoMap() {
  std::lock_guard lock(lock_);
  return cachedMap(_systemAppBundleIDToInfoMap, systemAppsDirectory());
}

CVGlobalConfiguration::BundleMap CVGlobalConfiguration::coreServicesAppBundleIDToInfoMap() {
  std::lock_guard lock(lock_);
  return cachedMap(_coreServicesAppBundleIDToInfoMap, coreServicesDirectory());
}

CVGlobalConfiguration::BundleMap CVGlobalConfiguration::internalAppBundleIDToInfoMap() {
  std::lock_guard lock(lock_);
  return cachedMap(_internalAppBundleIDToInfoMap, internalAppsDirectory());
}

std::shared_ptr<const CVSet> CVGlobalConfiguration::builtInFrameworkBundleIDs() {
  std::lock_guard lock(lock_);
  if (!_builtInFrameworkBundleIDs) {
    CVSet identifiers;
    for (const CVValue& directory : allFrameworksDirectories()) {
      if (const auto map = _bundleIDMapForBundlesInDirectory(*directory.asURL(), "framework")) {
        for (const std::string& identifier : map->keys())
          identifiers.add(identifier);
      }
    }
    _builtInFrameworkBundleIDs = std::make_shared<const CVSet>(std::move(identifiers));
  }
  return _builtInFrameworkBundleIDs;
}

CVSet CVGlobalConfiguration::builtInApplicationBundleIDs() {
  // Core-services applications are deliberately not built-in applications.
  CVSet identifiers;
  const auto add = [&identifiers](const CVDictionary& map) {
    for (const std::string& identifier : map.keys())
      identifiers.add(identifier);
  };
  if (const BundleMap system = systemAppBundleIDToInfoMap()) add(*system);
  if (const BundleMap internal = internalAppBundleIDToInfoMap()) add(*internal);
  add(diskImageAppBundleIDToInfoMap());
  return identifiers;
}

void CVGlobalConfiguration::reScanSystemApps() {
  std::lock_guard lock(lock_);
  _systemAppBundleIDToInfoMap = nullptr;
  _builtInFrameworkBundleIDs = nullptr;
}

void CVGlobalConfiguration::reScanCoreServicesApps() {
  std::lock_guard lock(lock_);
  _coreServicesAppBundleIDToInfoMap = nullptr;
}

void CVGlobalConfiguration::reScanInternalApps() {
  std::lock_guard lock(lock_);
  _internalAppBundleIDToInfoMap = nullptr;
  _builtInFrameworkBundleIDs = nullptr;
}
