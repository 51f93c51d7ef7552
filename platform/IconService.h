// The icon service: the home-screen icon of an application bundle.
#pragma once

#include <memory>
#include <optional>

#include "platform/Image.h"

namespace platform {

class Bundle;

// Side of the device-appropriate home-screen icon, in pixels.
inline constexpr std::uint32_t kHomeScreenIconSide = 120;

class IconService {
 public:
  virtual ~IconService() = default;
  // The bundle's home-screen icon at kHomeScreenIconSide pixels square, or
  // nullopt when the bundle names no icon that exists and decodes.
  virtual std::optional<Image> homeScreenIconForBundle(const Bundle& bundle) = 0;
};

// The service of this platform: PNG icons found through the bundle's
// Info.plist ("QXBundleIconFile", "QXBundleIconFiles") or "Icon.png".
IconService& defaultIconService();

}  // namespace platform
