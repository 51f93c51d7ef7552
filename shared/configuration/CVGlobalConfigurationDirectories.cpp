// The configuration's well-known directories: named under the home or the
// root, cached after the first call, and created on every call where the
// installer writes into them.
//
// The image is someone else's: any component of these paths may be a link
// leading out of it. So they are made one component at a time beneath the
// device root, never following a link (a link on the way fails the creation
// before anything is made or changed beyond it), and the protection class is
// set through the descriptor of the directory so reached.
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/Log.h"
#include "platform/linux/DirectoriesBeneath.h"
#include "platform/linux/ProtectionClass.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "shared/filemanager/CVErrors.h"

namespace {

namespace sys = platform::sys;

constexpr mode_t kDirectoryMode = 0755;
constexpr std::int32_t kNoProtectionClass = -1;
constexpr std::int32_t kDataProtectionClass = 4;

// Makes `url` beneath `root` as above and gives it `protectionClass` (unless -1).
bool makeDirectoryInsideRoot(const CVURL& root, const CVURL& url, std::int32_t protectionClass,
                             std::string_view function, CVError* error) {
  const std::string base = root.path();
  const std::string path = url.path();
  const bool inside = base == "/" || (path.compare(0, base.size(), base) == 0 &&
                                      (path.size() == base.size() || path[base.size()] == '/'));
  if (!inside) {
    CVSetError(error, CreatePOSIXError(function, EXDEV, "%@ is not inside the device root %@", path,
                                       base));
    return false;
  }
  std::string failedPath;
  const sys::UniqueFd directory = sys::makeDirectoriesBeneath(
      base, std::string_view(path).substr(base == "/" ? 0 : base.size()), kDirectoryMode,
      kDirectoryMode | 0300, &failedPath);
  if (!directory) {
    const int code = errno;
    CVSetError(error, CreatePOSIXError(function, code,
                                       "Could not make %@ without following a link at %@: %s", path,
                                       failedPath, std::strerror(code)));
    return false;
  }
  if (protectionClass != kNoProtectionClass &&
      sys::setProtectionClass(directory.get(), protectionClass) != 0) {
    const int code = errno;
    CVSetError(error, CreatePOSIXError(function, code, "Failed to setclass(%d) on directory %@: %s",
                                       protectionClass, path, std::strerror(code)));
    return false;
  }
  return true;
}

}  // namespace

void CVGlobalConfiguration::createDirectory(const CVURL& url, const Creation& creation) {
  CVError error;
  if (!makeDirectoryInsideRoot(_rootPath, url, creation.protectionClass, creation.function,
                               &error)) {
    const std::array<platform::FormatArg, 2> args{platform::makeFormatArg(url),
                                                  platform::makeFormatArg(error)};
    platform::logInstallerV(platform::kLogLevelError, creation.function, creation.failureMessage,
                            args);
  }
}

CVURL CVGlobalConfiguration::cachedDirectory(std::optional<CVURL>& field, const CVURL& base,
                                             std::string_view relative, const Creation* creation) {
  std::lock_guard lock(lock_);
  if (!field) field = base.URLByAppendingPathComponent(relative, true);
  if (creation != nullptr) createDirectory(*field, *creation);
  return *field;
}

CVURL CVGlobalConfiguration::carrierBundlesDirectory() {
  static constexpr Creation kCreation{kNoProtectionClass,
                                      "-[CVGlobalConfiguration carrierBundlesDirectory]",
                                      "Failed to create carrier bundles directory at \"%@\": %@"};
  return cachedDirectory(_carrierBundlesDir, _homePath, "Library/Carrier Bundles", &kCreation);
}

CVURL CVGlobalConfiguration::stagingRoot() {
  static constexpr Creation kCreation{kDataProtectionClass, "-[CVGlobalConfiguration stagingRoot]",
                                      "Failed to create staging root at \"%@\": %@"};
  std::lock_guard lock(lock_);
  // The caches directory is made (or its mode re-applied) first, under the same lock.
  const CVURL caches = cachesDirectory();
  return cachedDirectory(_stagingRoot, caches, "com.zentrel.mobile.corvaned.staging", &kCreation);
}

CVURL CVGlobalConfiguration::logDirectory() {
  static constexpr Creation kCreation{kDataProtectionClass, "-[CVGlobalConfiguration logDirectory]",
                                      "Failed to create log directory at \"%@\": %@"};
  // Neither locked nor cached: two threads may both create it, and both succeed.
  const CVURL url = _homePath.URLByAppendingPathComponent("Library/Logs/Corvane", true);
  createDirectory(url, kCreation);
  return url;
}

CVURL CVGlobalConfiguration::coreServicesDirectory() {
  return cachedDirectory(_coreServicesDir, _rootPath, "System/Library/CoreServices", nullptr);
}

CVURL CVGlobalConfiguration::systemAppsDirectory() {
  return cachedDirectory(_systemAppsDir, _rootPath, "Applications", nullptr);
}

CVURL CVGlobalConfiguration::internalAppsDirectory() {
  return cachedDirectory(_internalAppsDir, _rootPath, "ZentrelInternal/Applications", nullptr);
}

CVURL CVGlobalConfiguration::developerAppsDirectory() {
  return cachedDirectory(_developerAppsDir, _rootPath, "Developer/Applications", nullptr);
}

CVURL CVGlobalConfiguration::factoryMountDirectory() {
  return cachedDirectory(_factoryMountDir, _rootPath, "var/factory_mount/", nullptr);
}

CVURL CVGlobalConfiguration::systemFrameworksRootDirectory() {
  return cachedDirectory(_systemFrameworksRootDirectory, _rootPath, "System/Library", nullptr);
}

CVURL CVGlobalConfiguration::internalFrameworksRootDirectory() {
  return cachedDirectory(_internalFrameworksRootDirectory, _rootPath, "ZentrelInternal", nullptr);
}

CVURL CVGlobalConfiguration::developerFrameworksRootDirectory() {
  return cachedDirectory(_developerFrameworksRootDirectory, _rootPath, "Developer", nullptr);
}

CVSet CVGlobalConfiguration::allFrameworksDirectories() {
  std::lock_guard lock(lock_);
  if (!_allFrameworksDirectories) {
    // The developer frameworks root is deliberately not part of the set.
    const CVURL system = systemFrameworksRootDirectory();
    const CVURL internal = internalFrameworksRootDirectory();
    _allFrameworksDirectories =
        CVSet{system.URLByAppendingPathComponent("Frameworks", true),
              system.URLByAppendingPathComponent("PrivateFrameworks", true),
              internal.URLByAppendingPathComponent("Frameworks", true),
              internal.URLByAppendingPathComponent("PrivateFrameworks", true)};
  }
  return *_allFrameworksDirectories;
}

CVURL CVGlobalConfiguration::dataDirectory() {
  static constexpr Creation kCreation{kDataProtectionClass,
                                      "-[CVGlobalConfiguration dataDirectory]",
                                      "Failed to create data dir at \"%@\": %@"};
  return cachedDirectory(_dataDir, _homePath, "Library/Corvane", &kCreation);
}

CVURL CVGlobalConfiguration::cachesDirectory() {
  // The same text as the data directory's message: the reuse is the program's own.
  static constexpr Creation kCreation{kNoProtectionClass,
                                      "-[CVGlobalConfiguration cachesDirectory]",
                                      "Failed to create data dir at \"%@\": %@"};
  return cachedDirectory(_cachesDir, _homePath, "Library/Caches", &kCreation);
}

CVURL CVGlobalConfiguration::archiveDirectory() {
  static constexpr Creation kCreation{kDataProtectionClass,
                                      "-[CVGlobalConfiguration archiveDirectory]",
                                      "Failed to create archive dir at \"%@\": %@"};
  return cachedDirectory(_archiveDir, _homePath, "Media/ApplicationArchives", &kCreation);
}
