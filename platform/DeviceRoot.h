// The device root: the directory that stands for "/" of the device whose image
// is being migrated. Every absolute device path lives under it: the file-system
// root base is "<root>/" and the mobile user's home "<root>/private/var/mobile/".
// With root "/" these are exactly the device's own paths.
#pragma once

#include <string>
#include <string_view>

#include "platform/URL.h"

namespace platform {

class DeviceRoot {
 public:
  // `path` must be absolute; trailing separators are ignored.
  explicit DeviceRoot(std::string_view path);

  const std::string& path() const { return path_; }
  CVURL rootURL() const;  // "<root>/", a directory URL
  CVURL homeURL() const;  // "<root>/private/var/mobile/", a directory URL
  // Whether `path` (absolute, already resolved) is the root or lies beneath it.
  bool contains(std::string_view path) const;

 private:
  std::string path_;
};

// The process's device root, "/" until the host sets another before any
// subsystem is used.
const DeviceRoot& processDeviceRoot();
void setProcessDeviceRoot(const DeviceRoot& root);

}  // namespace platform
