// Applications on mounted disk images: the disk-image controller's drives in
// the I/O registry, mapped to where their media are mounted, and the
// "Applications" directory of each mount point. Nothing here is cached.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/Log.h"
#include "shared/configuration/CVGlobalConfiguration.h"

namespace {

using platform::IOObjectHandle;
using platform::IORegistry;

constexpr std::string_view kControllerClass = "HWVDSKController";
constexpr std::string_view kDriveClass = "HWVDSKHDDrive";
constexpr std::string_view kMediaClass = "HWMedia";
constexpr std::string_view kBSDNameKey = "BSD Name";
constexpr std::string_view kDebugMountPrefix = "/private/var/debug_mount";

// Releases a registry handle when it goes out of scope.
class ScopedHandle {
 public:
  ScopedHandle(IORegistry& registry, IOObjectHandle handle)
      : registry_(registry), handle_(handle) {}
  ~ScopedHandle() {
    if (handle_ != 0) registry_.release(handle_);
  }
  ScopedHandle(const ScopedHandle&) = delete;
  ScopedHandle& operator=(const ScopedHandle&) = delete;
  IOObjectHandle get() const { return handle_; }

 private:
  IORegistry& registry_;
  IOObjectHandle handle_;
};

}  // namespace

std::shared_ptr<IORegistry> CVGlobalConfiguration::ioRegistry() const {
  return services_.ioRegistry();
}

std::optional<std::string> CVGlobalConfiguration::mountPointForDevice(IORegistry& registry,
                                                                      IOObjectHandle device) {
  constexpr std::string_view kFunction = "-[CVGlobalConfiguration mountPointForDevice:]";
  const std::vector<platform::MountEntry> mounts = services_.mountTable->mountedFileSystems();
  if (mounts.empty()) {
    platform::logInstaller(platform::kLogLevelError, kFunction, "getmntinfo failed: %s",
                           std::strerror(errno));
    return std::nullopt;
  }
  IOObjectHandle iteratorHandle = 0;
  if (registry.createIterator(device, platform::kIOServicePlane, /*recursive=*/true,
                              &iteratorHandle) != platform::kIOReturnSuccess) {
    platform::logInstaller(platform::kLogLevelError, kFunction,
                           "HWRegistryEntryCreateIterator failed for deviceObj (%u)", device);
    return std::nullopt;
  }
  const ScopedHandle iterator(registry, iteratorHandle);
  while (const IOObjectHandle next = registry.iteratorNext(iterator.get())) {
    const ScopedHandle descendant(registry, next);
    if (!registry.conformsTo(descendant.get(), kMediaClass)) continue;
    const auto name = registry.createProperty(descendant.get(), kBSDNameKey);
    const std::string* bsdName = name ? name->asString() : nullptr;
    if (bsdName == nullptr) continue;
    // Mounted-from names are compared byte for byte, in the table's order.
    const std::string devicePath = "/dev/" + *bsdName;
    for (const platform::MountEntry& mount : mounts) {
      if (mount.mountedFrom == devicePath) return mount.mountedOn;
    }
  }
  return std::nullopt;
}

std::vector<std::string> CVGlobalConfiguration::diskImageMountPoints() {
  std::vector<std::string> mountPoints;
  const std::shared_ptr<IORegistry> registry = ioRegistry();
  const ScopedHandle controller(*registry, registry->firstMatchingService(kControllerClass));
  if (controller.get() == 0) return mountPoints;

  IOObjectHandle childrenHandle = 0;
  const platform::IOReturn result = registry->createIterator(
      controller.get(), platform::kIOServicePlane, /*recursive=*/false, &childrenHandle);
  if (result != platform::kIOReturnSuccess) {
    platform::logInstaller(platform::kLogLevelError,
                           "-[CVGlobalConfiguration diskImageMountPoints]",
                           "unable to create controller child iterator: error 0x%08X (%d)",
                           static_cast<std::uint32_t>(result), result);
    return mountPoints;
  }
  const ScopedHandle children(*registry, childrenHandle);
  while (const IOObjectHandle next = registry->iteratorNext(children.get())) {
    const ScopedHandle child(*registry, next);
    if (registry->conformsTo(child.get(), kDriveClass)) {
      if (auto mountPoint = mountPointForDevice(*registry, child.get()))
        mountPoints.push_back(std::move(*mountPoint));
      continue;
    }
    // Any other child contributes at most one mount: its first mounted drive.
    IOObjectHandle descendantsHandle = 0;
    if (registry->createIterator(child.get(), platform::kIOServicePlane, /*recursive=*/true,
                                 &descendantsHandle) != platform::kIOReturnSuccess) {
      continue;
    }
    const ScopedHandle descendants(*registry, descendantsHandle);
    while (const IOObjectHandle below = registry->iteratorNext(descendants.get())) {
      const ScopedHandle descendant(*registry, below);
      if (!registry->conformsTo(descendant.get(), kDriveClass)) continue;
      if (auto mountPoint = mountPointForDevice(*registry, descendant.get())) {
        mountPoints.push_back(std::move(*mountPoint));
        break;
      }
    }
  }
  return mountPoints;
}

std::vector<CVURL> CVGlobalConfiguration::diskImageApplicationsDirectories() {
  const CVURL developerApps = developerAppsDirectory();
  std::vector<CVURL> directories;
  for (const std::string& mountPoint : diskImageMountPoints()) {
    // A plain prefix test: /private/var/debug_mount2 is skipped as well.
    if (mountPoint.starts_with(kDebugMountPrefix)) continue;
    directories.push_back(
        CVURL::fileURLWithPath(mountPoint, true).URLByAppendingPathComponent("Applications", true));
  }
  if (std::find(directories.begin(), directories.end(), developerApps) == directories.end()) {
    directories.push_back(developerApps);
  }
  CVArray described;
  for (const CVURL& directory : directories)
    described.append(directory);
  platform::logInstaller(platform::kLogLevelDebug,
                         "-[CVGlobalConfiguration diskImageApplicationsDirectories]",
                         "returning: %@", described);
  return directories;
}

CVDictionary CVGlobalConfiguration::diskImageAppBundleIDToInfoMap() {
  CVDictionary merged;
  for (const CVURL& directory : diskImageApplicationsDirectories()) {
    const auto map = _bundleIDMapForAppsInDirectory(directory);
    if (!map) continue;
    // Entries of a later directory replace those with the same identifier.
    for (std::size_t i = 0; i < map->count(); ++i)
      merged.set(map->keys()[i], map->valueAt(i));
  }
  return merged;
}
