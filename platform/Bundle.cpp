#include "platform/Bundle.h"

#include <sys/stat.h>

#include "platform/PropertyList.h"

namespace platform {

std::unique_ptr<Bundle> Bundle::create(const CVURL& url) {
  if (url.isNil()) return nullptr;
  struct stat status;
  if (::lstat(url.fileSystemRepresentation(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return nullptr;
  }
  return std::unique_ptr<Bundle>(new Bundle(CVURL::fileURLWithPath(url.path(), true)));
}

const std::optional<CVDictionary>& Bundle::infoDictionary() const {
  if (loaded_) return info_;
  loaded_ = true;
  const CVURL plistURL = infoPlistURL();
  // The reason stays with the object: the callers write their own messages.
  info_ = readPropertyListDictionary(plistURL, &infoError_, kInfoPlistLimits);
  if (!info_) return info_;
  info_->set(std::string(kBundleInfoPlistURLKey), plistURL);
  return info_;
}

std::optional<CVValue> Bundle::filteredInfoPlist(const CVSet& keys, int options) const {
  (void)options;
  const auto& info = infoDictionary();
  if (!info) return std::nullopt;
  CVDictionary filtered;
  for (const CVValue& key : keys) {
    const std::string* name = key.asString();
    if (name == nullptr || *name == kBundleInfoPlistURLKey) continue;
    if (const CVValue* value = info->find(*name)) filtered.set(*name, *value);
  }
  return CVValue(std::move(filtered));
}

std::optional<std::string> Bundle::bundleIdentifier() const {
  const auto& info = infoDictionary();
  if (!info) return std::nullopt;
  const std::string* identifier = info->findString(kBundleIdentifierKey);
  return identifier ? std::optional<std::string>(*identifier) : std::nullopt;
}

}  // namespace platform
