// CVFileManager: the process-wide object through which all file-system work
// goes.
//
// Error contract: every operation that takes `CVError* error` returns false
// (or an empty optional) on failure and stores an error record there only on
// failure and only when a place was given; on success the place is untouched.
// Unless an operation says otherwise, nothing follows a final symbolic link.
// Errors of failed system calls are POSIX-domain records with the call's errno
// as code and a description that names the call and the path.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/Error.h"
#include "platform/URL.h"

class CVFileManager {
 public:
  // The shared instance, made once at the first call from any thread.
  static CVFileManager& defaultManager();

  // Removes a file, a symbolic link (not its target) or a whole directory tree,
  // depth-first through directory descriptors, never following a link. A path
  // that does not exist is success, and so is a tree in which entries vanished
  // during the removal. After a failure, whatever could be removed is gone.
  bool removeItemAtURL(const CVURL& url, CVError* error);

  // The direct entries of a directory, in the order the directory yields them,
  // each marked as a directory exactly when it is one. The directory itself
  // must not be a symbolic link. With `ignoringSymlinks`, links are left out
  // (one level-5 line each); otherwise they are listed and not followed.
  std::optional<std::vector<CVURL>> urlsForItemsInDirectoryAtURL(const CVURL& url,
                                                                 bool ignoringSymlinks,
                                                                 CVError* error);

  // lstat-based existence tests. When the state cannot be determined (an error
  // other than ENOENT) both answer false and log a level-3 line.
  bool itemExistsAtURL(const CVURL& url);
  bool itemDoesNotExistAtURL(const CVURL& url);

  // Creates a directory (and its missing parents with
  // `withIntermediateDirectories`). An existing item of any kind at the path is
  // success. A `dataProtectionClass` other than -1 is then set on the directory
  // (only the last component), also when it already existed.
  bool createDirectoryAtURL(const CVURL& url, bool withIntermediateDirectories, mode_t mode,
                            std::int32_t dataProtectionClass, CVError* error);
  bool createDirectoryAtURL(const CVURL& url, bool withIntermediateDirectories, mode_t mode,
                            CVError* error);

 private:
  CVFileManager() = default;
};
