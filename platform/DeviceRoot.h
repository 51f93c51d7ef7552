// The device root: the directory that stands for "/" of the device whose image
// is being migrated. Every absolute device path lives under it: the file-system
// root base is "<root>/" and the mobile user's home "<root>/private/var/mobile/".
// With root "/" these are exactly the device's own paths.
//
// Paths stored in the image's own files (install map, harbor map, markers) are
// device paths, as the device wrote them: "/private/var/mobile/..." or
// "/var/mobile/..." (the device's "/var", "/etc" and "/tmp" lead into
// "/private"). hostPathForDevicePath() reads one under the root, and
// devicePathForHostPath() gives the form to write back into the image, so an
// image keeps working when it is moved or copied. The mapping is lexical: the
// links of the image are not followed here, so a caller that acts on the
// result still checks that it stays inside the root once links are resolved.
#pragma once

#include <optional>
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

  // The host path of a path stored in the image: "/var/x" and "/private/var/x"
  // both give "<root>/private/var/x". A host path that already lies beneath
  // the root (as images written by earlier versions store) is taken as it is.
  // Nullopt, with `*problem` saying why, for a relative path or one with a
  // ".." component.
  std::optional<std::string> hostPathForDevicePath(std::string_view path,
                                                   std::string* problem) const;
  // The device path of a host path beneath the root ("<root>/private/var/x"
  // gives "/private/var/x", the root itself "/"); nullopt when it is not
  // beneath the root.
  std::optional<std::string> devicePathForHostPath(std::string_view path) const;

 private:
  std::string path_;
};

// The process's device root, "/" until the host sets another before any
// subsystem is used.
const DeviceRoot& processDeviceRoot();
void setProcessDeviceRoot(const DeviceRoot& root);

}  // namespace platform
