// The home-screen icon of a bundle: which file is chosen, what is refused, and
// that the result is a 120 x 120 premultiplied image.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/Bundle.h"
#include "platform/IconService.h"
#include "platform/PropertyList.h"
#include "tests/platform/PNGTestFiles.h"
#include "tests/support/TestSupport.h"

namespace {

using platform::Image;
using namespace png_test;
using namespace testing_support;

class IconServiceTest : public ::testing::Test {
 protected:
  IconServiceTest() : bundlePath_(directory_ / "App.app") { makeDirectories(bundlePath_); }

  void writeInfoPlist(CVDictionary info) {
    CVError error;
    ASSERT_TRUE(platform::writePropertyListAtomically(
        CVValue(std::move(info)), CVURL::fileURLWithPath(bundlePath_ + "/Info.plist", false),
        &error))
        << error.description();
  }
  void writeIcon(const std::string& name, const Bytes& bytes) {
    png_test::writeBytes(bundlePath_ + "/" + name, bytes);
  }
  std::optional<Image> icon() {
    const std::unique_ptr<platform::Bundle> bundle =
        platform::Bundle::create(CVURL::fileURLWithPath(bundlePath_, true));
    EXPECT_TRUE(bundle);
    if (!bundle) return std::nullopt;
    std::optional<Image> image = platform::defaultIconService().homeScreenIconForBundle(*bundle);
    if (image) {
      EXPECT_EQ(image->width, platform::kHomeScreenIconSide);
      EXPECT_EQ(image->height, platform::kHomeScreenIconSide);
    }
    return image;
  }
  TemporaryDirectory directory_;
  std::string bundlePath_;
};

// A file with a PNG header claiming `side` pixels square and no image data.
Bytes headerOnlyPNG(std::uint32_t side) {
  return png_test::buildPNG(side, side, 8, 2, Bytes{});
}

// One bundle per case: its Info.plist (none when null), the icon files it
// holds, and the colour of the icon chosen, or none.
struct IconCase {
  const char* name;
  std::optional<CVDictionary> info;
  std::vector<std::pair<std::string, Bytes>> files;
  std::optional<std::array<std::uint8_t, 3>> colour;
};

TEST_F(IconServiceTest, EachBundleGetsTheIconItNamesOrTheFallback) {
  const Bytes red = uniformPNG(120, 120, 200, 10, 10), green = uniformPNG(120, 120, 10, 200, 10);
  Bytes padded = uniformPNG(120, 120, 200, 0, 0);  // decoders ignore bytes after IEND
  padded.resize(9 * 1024 * 1024, 0);
  const std::vector<IconCase> cases = {
      {"string key",
       CVDictionary{{"QXBundleIconFile", "AppIcon"}},
       {{"AppIcon.png", red}, {"Icon.png", green}},
       std::array<std::uint8_t, 3>{200, 10, 10}},
      {"name with a suffix the file lacks",
       CVDictionary{{"QXBundleIconFile", "Plain.png"}},
       {{"Plain", green}},
       std::array<std::uint8_t, 3>{10, 200, 10}},
      {"array key",
       CVDictionary{{"QXBundleIconFiles", CVArray{"Missing", 42, "Second"}}},
       {{"Second.png", green}},
       std::array<std::uint8_t, 3>{10, 200, 10}},
      {"largest named icon",
       CVDictionary{{"QXBundleIconFile", "Small"},
                    {"QXBundleIconFiles", CVArray{"Medium.png", "Large", "Small.png"}}},
       {{"Small.png", uniformPNG(57, 57, 200, 0, 0)},
        {"Medium.png", uniformPNG(120, 120, 0, 200, 0)},
        {"Large.png", uniformPNG(180, 180, 0, 0, 200)},
        {"Icon.png", uniformPNG(512, 512, 9, 9, 9)}},  // not named: not a candidate
       std::array<std::uint8_t, 3>{0, 0, 200}},
      {"largest header that does not decode",
       CVDictionary{{"QXBundleIconFiles", CVArray{"Broken", "Good"}}},
       {{"Broken.png", headerOnlyPNG(1024)}, {"Good.png", uniformPNG(60, 60, 40, 50, 60)}},
       std::array<std::uint8_t, 3>{40, 50, 60}},
      {"fallback without Info.plist",
       std::nullopt,
       {{"Icon.png", green}},
       std::array<std::uint8_t, 3>{10, 200, 10}},
      {"fallback when the named icons are missing",
       CVDictionary{{"QXBundleIconFile", "Gone"}, {"QXBundleIconFiles", CVArray{"AlsoGone"}}},
       {{"Icon.png", green}},
       std::array<std::uint8_t, 3>{10, 200, 10}},
      {"fallback when the named icon does not decode",
       CVDictionary{{"QXBundleIconFile", "Broken"}},
       {{"Broken.png", headerOnlyPNG(120)}, {"Icon.png", green}},
       std::array<std::uint8_t, 3>{10, 200, 10}},
      {"scaled down",
       CVDictionary{{"QXBundleIconFile", "Big"}},
       {{"Big.png", uniformPNG(300, 200, 1, 2, 3)}},
       std::array<std::uint8_t, 3>{1, 2, 3}},
      {"no icon", std::nullopt, {}, std::nullopt},
      {"named icon missing", CVDictionary{{"QXBundleIconFile", "Missing"}}, {}, std::nullopt},
      {"not a PNG", std::nullopt, {{"Icon.png", Bytes(500, 'x')}}, std::nullopt},
      {"corrupt PNG",
       std::nullopt,
       {{"Icon.png", png_test::readBytes(MAVREL_TESTDATA_DIR "/png/pngsuite/xcsn0g01.png")}},
       std::nullopt},
      {"oversized file",
       CVDictionary{{"QXBundleIconFile", "Padded.png"}},
       {{"Padded.png", padded}},
       std::nullopt},
      {"dimensions beyond the icon limit",
       std::nullopt,
       {{"Icon.png", headerOnlyPNG(5000)}},
       std::nullopt},
  };
  for (const IconCase& each : cases) {
    SCOPED_TRACE(each.name);
    std::filesystem::remove_all(bundlePath_);
    makeDirectories(bundlePath_);
    if (each.info) writeInfoPlist(*each.info);
    for (const auto& [name, bytes] : each.files)
      writeIcon(name, bytes);
    const std::optional<Image> image = icon();
    if (each.colour) {
      ASSERT_TRUE(image);
      EXPECT_TRUE(isUniform(*image, (*each.colour)[0], (*each.colour)[1], (*each.colour)[2], 255));
    } else {
      EXPECT_FALSE(image);
    }
  }
}

TEST_F(IconServiceTest, UndecodableIconsAreLoggedAndNothingOutsideTheBundleIsRead) {
  {
    testing_support::CapturedLog log(platform::installerLog(), platform::kLogLevelDebug);
    writeIcon("Icon.png", headerOnlyPNG(120));
    EXPECT_FALSE(icon());
    EXPECT_TRUE(log.containsFragment(bundlePath_ + "/Icon.png not decoded: corrupt PNG"))
        << log.dump();
  }
  std::filesystem::remove(bundlePath_ + "/Icon.png");
  makeDirectories(bundlePath_ + "/Icon.png");
  EXPECT_FALSE(icon()) << "directory";
  // Links are refused, and names cannot leave the bundle.
  const std::string outside = directory_ / "outside.png";
  png_test::writeBytes(outside, uniformPNG(120, 120, 200, 0, 0));
  std::filesystem::remove(bundlePath_ + "/Icon.png");
  makeSymlink(outside, bundlePath_ + "/Icon.png");
  EXPECT_FALSE(icon()) << "fallback icon is a link";
  makeSymlink(outside, bundlePath_ + "/Linked.png");
  writeInfoPlist({{"QXBundleIconFile", "Linked.png"}});
  EXPECT_FALSE(icon()) << "named icon is a link";
  writeInfoPlist({{"QXBundleIconFile", "../outside.png"},
                  {"QXBundleIconFiles", CVArray{"..", "/" + outside}}});
  EXPECT_FALSE(icon()) << "names leaving the bundle";
}

}  // namespace
