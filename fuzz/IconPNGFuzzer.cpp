// A bundle's icon file, read by the icon service (header ranking, full decode,
// resampling to the home-screen size) and written by the placeholder builder
// as a new PNG. An icon that was written must decode again at that size.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "fuzz/MigratorHarness.h"
#include "platform/Bundle.h"
#include "platform/FileIO.h"
#include "platform/IconService.h"
#include "platform/PNGCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static mavrel_fuzz::MigratorHarness harness("icon_png");
  static const std::unique_ptr<CVAppMigrator> migrator = harness.makeMigrator();
  static const std::string bundlePath = harness.image().home("Applications/0A1B2C3D/Fuzz.app");
  static const bool prepared = [] {
    mavrel_fuzz::writeText(bundlePath + "/Info.plist",
                           "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                           "<plist version=\"1.0\"><dict>"
                           "<key>QXBundleIdentifier</key><string>com.example.fuzz</string>"
                           "<key>QXBundleIconFile</key><string>AppIcon</string>"
                           "</dict></plist>\n");
    return true;
  }();
  (void)prepared;
  mavrel_fuzz::writeBytes(bundlePath + "/AppIcon.png", std::span(data, size));

  const std::unique_ptr<platform::Bundle> bundle =
      platform::Bundle::create(CVURL::fileURLWithPath(bundlePath, true));
  if (!bundle) std::abort();
  const std::optional<platform::Image> icon =
      platform::defaultIconService().homeScreenIconForBundle(*bundle);
  if (icon && (icon->width != platform::kHomeScreenIconSide ||
               icon->height != platform::kHomeScreenIconSide)) {
    std::abort();
  }

  const CVURL written = CVURL::fileURLWithPath(harness.image().rootPath() + "/tmp/Icon.png", false);
  if (migrator->_writeIconForBundle(*bundle, written)) {
    const auto bytes = platform::readFileContents(written, 64u << 20, nullptr);
    if (!bytes) std::abort();
    const auto decoded = platform::decodePNG(*bytes, platform::PNGDecodeLimits{}, nullptr);
    if (!decoded || decoded->width != platform::kHomeScreenIconSide ||
        decoded->height != platform::kHomeScreenIconSide) {
      std::abort();
    }
  }
  return 0;
}
