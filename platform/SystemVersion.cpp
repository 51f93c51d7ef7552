#include "platform/SystemVersion.h"

#include "platform/Log.h"
#include "platform/PropertyList.h"

namespace platform {

namespace {
constexpr std::string_view kFunction = "DeviceSystemVersion::copySystemVersionDictionary";
}  // namespace

DeviceSystemVersion::DeviceSystemVersion(CVURL root) : root_(std::move(root)) {}

CVURL DeviceSystemVersion::fileURL() const {
  return root_.URLByAppendingPathComponent("System/Library/CoreServices/SystemBuild.plist", false);
}

CVDictionary DeviceSystemVersion::copySystemVersionDictionary() const {
  const CVURL url = fileURL();
  CVError error;
  if (auto dictionary = readPropertyListDictionary(url, &error, kSystemVersionLimits))
    return std::move(*dictionary);
  if (error.domain() == kPlatformErrorDomain && error.code() == kPlatformFileReadNoSuchFileError) {
    logInstaller(kLogLevelNotice, kFunction, "No system version file at %@", url.path());
  } else {
    logInstaller(kLogLevelError, kFunction, "Failed to read system version from %@ : %@",
                 url.path(), error);
  }
  return CVDictionary();
}

}  // namespace platform
