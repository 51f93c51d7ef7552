// Paths that the device image itself names.
//
// A migration marker, the legacy install map and the harbor map carry absolute
// paths, and a pass moves and removes what they name. They are the image's
// word only. They are device paths ("/private/var/mobile/...", "/var/mobile/...")
// read under the device root, or, from images written by earlier versions,
// host paths already beneath it; either way they must resolve, every link
// followed, to a place inside the root: on an image kept in a directory of
// the host, a hostile one could otherwise name any directory of the host. On a
// device the root is "/" and every path qualifies.
//
// Error contract: answers only; a refusal says why in `*problem`, and the file
// manager's containment check writes its own reason to the installer log. No
// error record is made.
#pragma once

#include <optional>
#include <string>

#include "platform/URL.h"

// Whether `path` (a host path) lies inside the device root once every link is
// followed.
bool CVPathLiesInsideDeviceRoot(const std::string& path);

// The host path that a path stored in the image leads to, when it stays
// inside the device root; nullopt with `*problem` ("has a '..' component",
// "leads outside the device image", ...) otherwise. The result is lexical
// (links inside it are not replaced) and has no trailing separator.
std::optional<std::string> CVHostPathForImagePath(const std::string& stored, std::string* problem);

// The path to store in the image for a host path: its device path when it
// lies beneath the device root, the path itself otherwise.
std::string CVImagePathForHostPath(const std::string& hostPath);

// The resolved form of a host path inside the root (every link that exists
// followed, a missing tail kept as it is); nil when it cannot be resolved.
CVURL CVResolvedPathInsideDeviceRoot(const std::string& hostPath);

// The same, and nil too when the resolved place lies outside the device root:
// the containment check and the resolution in one.
CVURL CVContainedRealPath(const std::string& hostPath);
