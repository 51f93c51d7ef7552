// Copying and moving whole items.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/Log.h"
#include "platform/linux/Links.h"
#include "platform/linux/Paths.h"
#include "platform/linux/TreeCopy.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"

namespace sys = platform::sys;

namespace {

// The pre-check of the "IfExists" forms. Returns 1 when the source is there
// (a dangling link counts), 0 when it is missing, -1 when it cannot be told
// (the error is stored).
int SourcePresence(std::string_view function, const CVURL& source, CVError* error) {
  struct stat status;
  if (sys::lstatPath(source.fileSystemRepresentation(), &status) == 0) return 1;
  const int code = errno;
  if (code == ENOENT) return 0;
  CVSetError(error, CreatePOSIXError(function, code, "stat of %@ failed: %s", source,
                                     std::strerror(code)));
  return -1;
}

}  // namespace

bool CVFileManager::_copyItemAtURL(const CVURL& src, const CVURL& dst, bool failIfSrcMissing,
                                   CVError* error) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager _copyItemAtURL:toURL:failIfSrcMissing:error:]";
  if (!failIfSrcMissing) {
    const int presence = SourcePresence(kFunction, src, error);
    if (presence <= 0) return presence == 0;
  }
  if (sys::copyTree(src.fileSystemRepresentation(), dst.fileSystemRepresentation()) != 0) {
    const int code = errno;
    CVSetError(error, CreatePOSIXError(kFunction, code, "mirrorit of %@ to %@ failed: %s", src, dst,
                                       std::strerror(code)));
    return false;
  }
  return true;
}

bool CVFileManager::_moveItemAtURL(const CVURL& src, const CVURL& dst, bool failIfSrcMissing,
                                   CVError* error) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager _moveItemAtURL:toURL:failIfSrcMissing:error:]";
  // A rename that succeeds had a source: the look for a missing one is only
  // made when the rename fails, with the outcome the look first would give.
  if (sys::renamePath(src.fileSystemRepresentation(), dst.fileSystemRepresentation()) == 0)
    return true;
  const int code = errno;
  if (!failIfSrcMissing) {
    const int presence = SourcePresence(kFunction, src, error);
    if (presence <= 0) return presence == 0;
  }
  if (code != EXDEV) {
    CVSetError(error, CreatePOSIXError(kFunction, code, "rename of %@ to %@ failed: %s", src, dst,
                                       std::strerror(code)));
    return false;
  }

  // Across file systems the item is copied. The outcome is settled the way
  // callers have always seen it: a copy that succeeded answers false with the
  // copy's (empty) error and keeps the source; a copy that failed removes the
  // source and answers true.
  CVError copyError;
  if (_copyItemAtURL(src, dst, true, &copyError)) {
    CVSetError(error, copyError);
    return false;
  }
  CVError removeError;
  if (!removeItemAtURL(src, &removeError)) {
    platform::logInstaller(platform::kLogLevelError, kFunction, "Failed to remove source %@ : %@",
                           src.path(), removeError);
  }
  return true;
}

bool CVFileManager::copyItemAtURL(const CVURL& src, const CVURL& dst, CVError* error) {
  return _copyItemAtURL(src, dst, true, error);
}

bool CVFileManager::moveItemAtURL(const CVURL& src, const CVURL& dst, CVError* error) {
  return _moveItemAtURL(src, dst, true, error);
}

bool CVFileManager::copyItemIfExistsAtURL(const CVURL& src, const CVURL& dst, CVError* error) {
  return _copyItemAtURL(src, dst, false, error);
}

bool CVFileManager::moveItemIfExistsAtURL(const CVURL& src, const CVURL& dst, CVError* error) {
  return _moveItemAtURL(src, dst, false, error);
}
