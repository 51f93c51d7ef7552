#include "AppMigrator/DeviceRootContainment.h"

#include "platform/DeviceRoot.h"
#include "shared/filemanager/CVFileManager.h"

bool CVPathLiesInsideDeviceRoot(const std::string& path) {
  // On the device itself every path qualifies, resolvable or not.
  if (platform::processDeviceRoot().path() == "/") return true;
  return static_cast<bool>(CVContainedRealPath(path));
}

std::optional<std::string> CVHostPathForImagePath(const std::string& stored, std::string* problem) {
  const auto hostPath = platform::processDeviceRoot().hostPathForDevicePath(stored, problem);
  if (!hostPath) return std::nullopt;
  const std::string normalized = CVURL::fileURLWithPath(*hostPath, false).path();
  if (!CVPathLiesInsideDeviceRoot(normalized)) {
    *problem = "leads outside the device image";
    return std::nullopt;
  }
  return normalized;
}

std::string CVImagePathForHostPath(const std::string& hostPath) {
  return platform::processDeviceRoot().devicePathForHostPath(hostPath).value_or(hostPath);
}

CVURL CVContainedRealPath(const std::string& hostPath) {
  const platform::DeviceRoot& root = platform::processDeviceRoot();
  if (root.path() == "/") return CVResolvedPathInsideDeviceRoot(hostPath);
  return CVFileManager::defaultManager().realPathForURL(CVURL::fileURLWithPath(hostPath, false),
                                                        root.rootURL());
}

CVURL CVResolvedPathInsideDeviceRoot(const std::string& hostPath) {
  return CVFileManager::defaultManager()._realPathForURL(CVURL::fileURLWithPath(hostPath, false),
                                                         /*allowNonExistentPathComponents=*/true);
}
