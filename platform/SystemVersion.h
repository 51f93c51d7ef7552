// The system version dictionary of a device image, read from
// "<root>/System/Library/CoreServices/SystemBuild.plist". Its build version is
// under "SystemBuildVersion"; other keys ("SystemName", "SystemVersion", ...)
// are carried as they are.
#pragma once

#include <string_view>

#include "platform/URL.h"
#include "platform/Value.h"

namespace platform {

inline constexpr std::string_view kSystemBuildVersionKey = "SystemBuildVersion";

class SystemVersionSource {
 public:
  virtual ~SystemVersionSource() = default;
  // A copy of the system version dictionary; empty when it cannot be read.
  virtual CVDictionary copySystemVersionDictionary() const = 0;
};

// Reads SystemBuild.plist under a device root on every call. An absent or
// unreadable file gives an empty dictionary and one installer-log line.
class DeviceSystemVersion final : public SystemVersionSource {
 public:
  explicit DeviceSystemVersion(CVURL root);
  CVDictionary copySystemVersionDictionary() const override;
  CVURL fileURL() const;

 private:
  CVURL root_;
};

}  // namespace platform
