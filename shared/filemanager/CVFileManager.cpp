// The shared instance, the existence tests and directory creation.
#include "shared/filemanager/CVFileManager.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/Log.h"
#include "platform/linux/DirectoryStream.h"
#include "platform/linux/Paths.h"
#include "platform/linux/ProtectionClass.h"
#include "shared/filemanager/CVErrors.h"

namespace sys = platform::sys;

CVFileManager& CVFileManager::defaultManager() {
  // Made once, thread-safely, and kept for the life of the process.
  static CVFileManager* const instance = new CVFileManager();
  return *instance;
}

bool CVFileManager::itemExistsAtURL(const CVURL& url) {
  struct stat status;
  if (sys::lstatPath(url.fileSystemRepresentation(), &status) == 0) return true;
  const int error = errno;
  if (error != ENOENT) {
    platform::logInstaller(platform::kLogLevelError, "-[CVFileManager itemExistsAtURL:]",
                           "Failed to determine if %@ exists: %s", url, std::strerror(error));
  }
  return false;
}

bool CVFileManager::itemDoesNotExistAtURL(const CVURL& url) {
  struct stat status;
  if (sys::lstatPath(url.fileSystemRepresentation(), &status) == 0) return false;
  const int error = errno;
  if (error == ENOENT) return true;
  platform::logInstaller(platform::kLogLevelError, "-[CVFileManager itemDoesNotExistAtURL:]",
                         "Failed to determine if %@ exists: %s", url, std::strerror(error));
  return false;
}

bool CVFileManager::createDirectoryAtURL(const CVURL& url, bool withIntermediateDirectories,
                                         mode_t mode, std::int32_t dataProtectionClass,
                                         CVError* error) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager createDirectoryAtURL:withIntermediateDirectories:mode:class:error:]";
  const char* path = url.fileSystemRepresentation();

  if (withIntermediateDirectories) {
    const int result = sys::spanDirectories(path, mode);
    // The code is errno as it stands after the call while the text is that of
    // the returned number; callers have always seen this pairing.
    const int code = errno;
    if (result != 0 && result != EEXIST) {
      CVSetError(error, CreatePOSIXError(kFunction, code, "spandirs of %@ failed: %s", url.path(),
                                         std::strerror(result)));
      return false;
    }
  } else if (sys::makeDirectory(path, mode) != 0 && errno != EEXIST) {
    const int code = errno;
    CVSetError(error, CreatePOSIXError(kFunction, code, "mkdir of %@ failed: %s", url.path(),
                                       std::strerror(code)));
    return false;
  }

  if (dataProtectionClass == -1) return true;

  // Opened as a directory stream would open it: a final link is followed.
  const sys::UniqueFd directory = sys::openDirectory(path, sys::FinalLink::Followed);
  if (!directory) {
    const int code = errno;
    CVSetError(error, CreatePOSIXError(kFunction, code, "opendir of %@ failed: %s", url.path(),
                                       std::strerror(code)));
    return false;
  }
  if (sys::setProtectionClass(directory.get(), dataProtectionClass) != 0) {
    const int code = errno;
    CVSetError(error,
               CreatePOSIXError(kFunction, code, "Failed to setclass(%d) on directory %@: %s",
                                dataProtectionClass, url.path(), std::strerror(code)));
    return false;
  }
  return true;
}

bool CVFileManager::createDirectoryAtURL(const CVURL& url, bool withIntermediateDirectories,
                                         mode_t mode, CVError* error) {
  return createDirectoryAtURL(url, withIntermediateDirectories, mode, -1, error);
}
