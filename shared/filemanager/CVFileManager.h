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
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/URL.h"

namespace platform::sys {
struct WalkEntry;  // one entry of the tree walker: path, stat record, kind, error
}

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

  // --- Copying, moving, temporary directories and symbolic links ---

  // Copies an item, never following a link on either side: a link is copied
  // as a link, a directory as a whole tree, keeping modes, owner, group, times
  // and extended attributes. With `failIfSrcMissing` false a missing source is
  // success with nothing copied. A failed copy leaves what it made.
  bool _copyItemAtURL(const CVURL& src, const CVURL& dst, bool failIfSrcMissing, CVError* error);
  // Renames an item. Across file systems the item is copied instead, with the
  // long-standing outcome: a successful copy answers false with no error and
  // keeps the source; a failed copy removes the source and answers true.
  bool _moveItemAtURL(const CVURL& src, const CVURL& dst, bool failIfSrcMissing, CVError* error);
  bool copyItemAtURL(const CVURL& src, const CVURL& dst, CVError* error);
  bool moveItemAtURL(const CVURL& src, const CVURL& dst, CVError* error);
  bool copyItemIfExistsAtURL(const CVURL& src, const CVURL& dst, CVError* error);
  bool moveItemIfExistsAtURL(const CVURL& src, const CVURL& dst, CVError* error);

  // Makes "<directory>/temp.XXXXXX" with owner-only permissions. Clears the
  // error place first; a failure is logged and gives a nil URL.
  CVURL createTemporaryDirectoryInDirectoryURL(const CVURL& directory, CVError* error);

  // Makes a link at `url` whose content is `destinationURL`'s path as given.
  bool createSymbolicLinkAtURL(const CVURL& url, const CVURL& destinationURL, CVError* error);
  // The content of a link (cut at 1024 bytes) as a file URL; nil on failure.
  CVURL destinationOfSymbolicLinkAtURL(const CVURL& url, CVError* error);

  // --- Tree traversal and ownership ---

  // Walks the tree at `url` physically, on one file system, in directory
  // order, handing every entry (directories before and after their contents)
  // to `block`. The walk stops when the block answers false (with the block's
  // error) or at an entry the walker could not read.
  using TraversalBlock = std::function<bool(const platform::sys::WalkEntry& entry, CVError* error)>;
  bool _traverseDirectory(const CVURL& url, CVError* error, const TraversalBlock& block);

  // Gives every item of the tree (links themselves, not their targets) the
  // owner `uid` and group `gid`, and fails at the first symbolic link that
  // leads outside the tree. Items changed before a failure stay changed.
  bool standardizeOwnershipAndValidateSymlinksAtURL(const CVURL& url, std::uint32_t uid,
                                                    std::uint32_t gid, CVError* error);

  // --- Contained path resolution ---

  // The fully resolved URL of `suspiciousURL` when it lies inside `baseURL`
  // after every link is resolved; nil otherwise (the reason is logged).
  // No error record is ever made.
  CVURL realPathForURL(const CVURL& suspiciousURL, const CVURL& baseURL);
  // realpath of the URL's path; nil (and a level-3 line) on failure. With
  // `allowNonExistentPathComponents`, a missing tail is resolved through the
  // longest existing prefix instead.
  CVURL _realPathForURL(const CVURL& url, bool allowNonExistentPathComponents);
  // The resolved longest existing prefix (the root alone never counts) with
  // the rest of the path appended; nil when no prefix resolves.
  CVURL _realPathWhatExistsInPath(const std::string& path);
  // Walks the components of `path` from `startingDepth` ("." and "" stay,
  // ".." goes up, anything else down). False (and `endingDepth` untouched)
  // for a nil path or as soon as the depth falls below the start.
  bool _validateSymlink(const std::string* path, std::int32_t startingDepth,
                        std::int32_t* endingDepth);

  // --- Protection classes, placeholder marks, store data, disk usage ---

  // Both open the item itself (a symbolic link fails to open) and fail with
  // POSIX-domain records that are not logged.
  bool dataProtectionClassOfItemAtURL(const CVURL& url, std::int32_t* protectionClass,
                                      CVError* error);
  // With a predicate, the class is changed only when the predicate, given the
  // current class, answers true; otherwise the call is a successful no-op.
  bool setDataProtectionClassOfItemAtURL(const CVURL& url, std::int32_t protectionClass,
                                         const std::function<bool(std::int32_t)>* predicate,
                                         CVError* error);

  // Sets the placeholder attribute on the bundle itself (never through a
  // link). Failure: "CVInstallerErrorDomain" code 4 over the POSIX error,
  // logged.
  bool markBundleAsPlaceholder(const CVURL& bundleURL, CVError* error);
  // Whether the bundle carries a four-byte placeholder attribute.
  bool bundleAtURLIsPlaceholder(const CVURL& bundleURL);

  // Copies or moves "Manifest.plist", "SorvikArtwork", "SorvikMetadata.plist"
  // and "GeoJSON" from one directory to another; missing items are skipped.
  // A failing item is logged as "CVInstallerErrorDomain" code 24 with its
  // legacy failure name; it ends the call only when `failureIsFatal`.
  bool captureStoreDataFromDirectory(const CVURL& srcDirectory, const CVURL& dstDirectory,
                                     bool doCopy, bool failureIsFatal, CVError* error);

  // Allocated bytes of the files below a directory, hard-linked files counted
  // once; what cannot be read is left out (and logged).
  std::uint64_t diskUsageForURL(const CVURL& url);

 private:
  CVFileManager() = default;
};
