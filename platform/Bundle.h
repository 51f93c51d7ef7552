// Bundles: a directory whose "Info.plist" (XML or binary) describes it.
//
// A Bundle object is fresh and unshared: nothing is cached between objects, so
// a bundle replaced on disk is read anew by the next object. Reading the
// Info.plist never follows a symbolic link, never reads a non-regular file and
// refuses oversize files; a bundle whose Info.plist cannot be read has no
// information dictionary. Nothing is logged here: the reason is kept in
// infoDictionaryError() and the callers write the messages they own.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/URL.h"
#include "platform/Value.h"

namespace platform {

inline constexpr std::string_view kBundleIdentifierKey = "QXBundleIdentifier";
inline constexpr std::string_view kBundleVersionKey = "QXBundleVersion";
inline constexpr std::string_view kBundleExecutableKey = "QXBundleExecutable";
// The bookkeeping entry a whole read adds: the Info.plist's URL.
inline constexpr std::string_view kBundleInfoPlistURLKey = "QXBundleInfoPlistURL";

class Bundle {
 public:
  // Opens the bundle at `url`; null when nothing at that path is a directory
  // (a symbolic link is not followed).
  static std::unique_ptr<Bundle> create(const CVURL& url);

  const CVURL& url() const { return url_; }
  CVURL infoPlistURL() const { return url_.URLByAppendingPathComponent("Info.plist", false); }

  // The whole Info.plist, with kBundleInfoPlistURLKey added; nullopt when it
  // cannot be read as a dictionary.
  const std::optional<CVDictionary>& infoDictionary() const;
  // Why infoDictionary() is nullopt (a record naming the Info.plist); empty
  // while it has not been read or when it was read.
  const CVError& infoDictionaryError() const { return infoError_; }
  // Only the entries of `keys` that the Info.plist has; nullopt when it cannot
  // be read. `options` is reserved (1 is the only value in use).
  std::optional<CVValue> filteredInfoPlist(const CVSet& keys, int options) const;
  // The "QXBundleIdentifier" string, or nullopt.
  std::optional<std::string> bundleIdentifier() const;

 private:
  explicit Bundle(CVURL url) : url_(std::move(url)) {}
  CVURL url_;
  mutable bool loaded_ = false;
  mutable std::optional<CVDictionary> info_;
  mutable CVError infoError_;
};

}  // namespace platform
