#include "shared/support/CVInfoPlist.h"

#include <mutex>

#include "platform/Bundle.h"
#include "platform/Log.h"
#include "shared/filemanager/CVFileManager.h"

namespace {

constexpr std::string_view kFunction = "CVLoadInfoPlist";
// Filtered reads ask the platform for exactly the given keys.
constexpr int kFilteredInfoPlistOptions = 1;

// Serialises every bundle object the program creates.
std::mutex bundleLock;

}  // namespace

std::optional<CVDictionary> CVLoadInfoPlist(const CVURL& bundleURL, const CVSet* keys) {
  using platform::kLogLevelError;
  using platform::logInstaller;

  const CVURL infoPlistURL = bundleURL.URLByAppendingPathComponent("Info.plist", false);
  if (CVFileManager::defaultManager().itemDoesNotExistAtURL(infoPlistURL)) {
    logInstaller(platform::kLogLevelDebug, kFunction, "Missing Info.plist at %@", infoPlistURL);
    return std::nullopt;
  }

  std::lock_guard lock(bundleLock);
  const std::unique_ptr<platform::Bundle> bundle = platform::Bundle::create(bundleURL);
  if (!bundle) {
    logInstaller(kLogLevelError, kFunction, "Failed to create QXBundle from URL %@", bundleURL);
    return std::nullopt;
  }

  if (keys != nullptr) {
    const auto filtered = bundle->filteredInfoPlist(*keys, kFilteredInfoPlistOptions);
    if (!filtered) {
      logInstaller(kLogLevelError, kFunction,
                   "Failed to get filtered Info.plist with keys %@ from bundle %@", *keys,
                   bundleURL);
      return std::nullopt;
    }
    if (const CVDictionary* dictionary = filtered->asDictionary()) return *dictionary;
    logInstaller(kLogLevelError, kFunction,
                 "Object returned from _QXBundleCreateFilteredInfoPlist was not a dictionary, was "
                 "type %@",
                 CVValue::kindName(filtered->kind()));
    return std::nullopt;
  }

  const auto& info = bundle->infoDictionary();
  if (!info) {
    logInstaller(kLogLevelError, kFunction, "QXBundleGetInfoDictionary failed for bundle %@",
                 bundleURL);
    return std::nullopt;
  }
  CVDictionary result = *info;
  result.remove(platform::kBundleInfoPlistURLKey);
  return result;
}
