// _traverseDirectory:error:withBlock: and the ownership walk built on it.
#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/Log.h"
#include "platform/Value.h"
#include "platform/linux/Paths.h"
#include "platform/linux/PrivateCopy.h"
#include "platform/linux/TreeWalker.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"

namespace sys = platform::sys;

namespace {

constexpr std::string_view kStandardizeFunction =
    "-[CVFileManager standardizeOwnershipAndValidateSymlinksAtURL:toUID:GID:error:]";
// The per-entry block logs and raises under the name the compiler gives a
// block of the method above.
constexpr std::string_view kStandardizeBlockFunction =
    "__78-[CVFileManager standardizeOwnershipAndValidateSymlinksAtURL:toUID:GID:error:]_block_"
    "invoke";

void changeOwnerOrLog(std::string_view function, const char* path, std::uint32_t uid,
                      std::uint32_t gid) {
  if (sys::changeOwnerNoFollow(path, uid, gid) != 0) {
    platform::logInstaller(platform::kLogLevelError, function, "Could not chown %s: %s", path,
                           std::strerror(errno));
  }
}

}  // namespace

bool CVFileManager::_traverseDirectory(const CVURL& url, CVError* error,
                                       const TraversalBlock& block) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager _traverseDirectory:error:withBlock:]";
  const char* rootPath = url.fileSystemRepresentation();

  sys::TreeWalker walker = sys::TreeWalker::open(rootPath);
  if (!walker.valid()) {
    const int code = errno;
    CVSetError(error, CreatePOSIXError(kFunction, code, "fts_open failed for %s with error %s",
                                       rootPath, std::strerror(code)));
    return false;
  }

  bool succeeded = true;
  CVError walkError;
  sys::WalkEntry entry;
  while (walker.next(entry)) {
    // A mount point inside the tree is an error too: what lies beyond belongs
    // elsewhere, and the walker does not enter it.
    if (entry.kind == sys::WalkKind::NoStat || entry.kind == sys::WalkKind::MountPoint) {
      // The text names the root, not the entry; callers have always seen it so.
      walkError = CreatePOSIXError(kFunction, entry.errorNumber, "Error for path %s: %s", rootPath,
                                   std::strerror(entry.errorNumber));
      succeeded = false;
      break;
    }
    // The block gets a place for an error only when the caller gave one, so
    // that it can skip building (and logging) a record nobody will read.
    if (!block(entry, error != nullptr ? &walkError : nullptr)) {
      succeeded = false;
      break;
    }
  }

  if (walker.close() != 0) {
    const int code = errno;
    if (walkError.isNil()) {
      walkError = CreatePOSIXError(kFunction, code, "fts_close failed for %s with error %s",
                                   rootPath, std::strerror(code));
    }
    succeeded = false;
  }
  if (!succeeded && !walkError.isNil()) CVSetError(error, walkError);
  return succeeded;
}

bool CVFileManager::standardizeOwnershipAndValidateSymlinksAtURL(const CVURL& url,
                                                                 std::uint32_t uid,
                                                                 std::uint32_t gid,
                                                                 CVError* error) {
  const bool traversed =
      _traverseDirectory(url, error, [&](const sys::WalkEntry& entry, CVError* blockError) {
        if (entry.status->st_uid != uid || entry.status->st_gid != gid) {
          // Another name of a multiply linked file may lie outside the tree:
          // only a copy of its own is given away.
          if (entry.kind == sys::WalkKind::File && entry.status->st_nlink > 1 &&
              sys::replaceWithPrivateCopy(entry.path) != 0) {
            const int code = errno;
            if (blockError != nullptr) {
              *blockError =
                  CreatePOSIXError(kStandardizeBlockFunction, code,
                                   "Could not give the hard-linked file %s a copy of its own: %s",
                                   entry.path, std::strerror(code));
            }
            return false;
          }
          changeOwnerOrLog(kStandardizeBlockFunction, entry.path, uid, gid);
        }
        if (entry.kind != sys::WalkKind::Symlink) return true;
        const CVURL link = CVURL::fileURLWithPath(entry.path, false);
        if (!realPathForURL(link, url).isNil()) return true;
        if (blockError != nullptr) {
          CVDictionary userInfo;
          userInfo.set(std::string(CVLegacyErrorStringKey), kCVErrorInvalidSymlink);
          *blockError = CreateAndLogError(kStandardizeBlockFunction, CVInstallerErrorDomain,
                                          kCVErrorInvalidSymlink, CVError(), &userInfo,
                                          "invalid symlink at %s", entry.path);
        }
        return false;
      });

  struct stat status;
  const char* rootPath = url.fileSystemRepresentation();
  if (sys::lstatPath(rootPath, &status) != 0) {
    const int code = errno;
    CVSetError(error, CreatePOSIXError(kStandardizeFunction, code, "Could not stat %s: %s",
                                       rootPath, std::strerror(code)));
    return false;
  }
  // Only the owner is compared for the root; both ids are set when it differs.
  if (status.st_uid != uid) changeOwnerOrLog(kStandardizeFunction, rootPath, uid, gid);
  return traversed;
}
