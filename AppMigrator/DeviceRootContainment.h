// Containment of paths that the device image itself names.
//
// A migration marker and the legacy install map carry absolute paths, and a
// pass moves and removes what they name. They are the image's word only: on
// an image kept in a directory of the host, a hostile one could name any
// directory of the host, directly or through a link on the way. Such paths
// must resolve, every link followed, to a place inside the device root. On a
// device the root is "/" and every path qualifies.
//
// Error contract: a boolean answer; a refusal is written to the installer log
// by the file manager's containment check, no error record is made.
#pragma once

#include <string>

#include "platform/DeviceRoot.h"
#include "shared/filemanager/CVFileManager.h"

inline bool CVPathLiesInsideDeviceRoot(const std::string& path) {
  const platform::DeviceRoot& root = platform::processDeviceRoot();
  if (root.path() == "/") return true;
  return static_cast<bool>(CVFileManager::defaultManager().realPathForURL(
      CVURL::fileURLWithPath(path, false), root.rootURL()));
}
