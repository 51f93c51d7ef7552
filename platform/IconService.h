// The icon service: the home-screen icon of an application bundle.
//
// The icon of this platform is the largest PNG (most pixels, by the header)
// that the bundle's Info.plist names and that decodes: "QXBundleIconFile" (a
// string) and "QXBundleIconFiles" (an array of names), each name tried as
// written and with ".png" added (or, when it ends in ".png", also without
// it). Names are single file names inside the bundle directory. When none of
// them gives an image, "Icon.png" in the bundle is used. The image is then
// resampled by area averaging to kHomeScreenIconSide pixels square.
//
// Icon files are read as regular files only, without following a symbolic
// link, and up to a size cap; decoding is bounded (4096 x 4096 pixels).
//
// Error contract: no error record; nullopt when there is no usable icon (the
// reason for each refused file is traced at level 7 in the installer log).
// Nothing throws. The service is stateless and may be used from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/Image.h"

namespace platform {

class Bundle;

// Side of the device-appropriate home-screen icon, in pixels.
inline constexpr std::uint32_t kHomeScreenIconSide = 120;

// Info.plist keys naming a bundle's icon files.
inline constexpr std::string_view kBundleIconFileKey = "QXBundleIconFile";
inline constexpr std::string_view kBundleIconFilesKey = "QXBundleIconFiles";
// The icon file used when the Info.plist names none that is usable.
inline constexpr std::string_view kBundleDefaultIconFileName = "Icon.png";

class IconService {
 public:
  virtual ~IconService() = default;
  // The bundle's home-screen icon at kHomeScreenIconSide pixels square, or
  // nullopt when the bundle names no icon that exists and decodes.
  virtual std::optional<Image> homeScreenIconForBundle(const Bundle& bundle) = 0;
};

// The service of this platform (see above); lives for the whole process.
IconService& defaultIconService();

}  // namespace platform
