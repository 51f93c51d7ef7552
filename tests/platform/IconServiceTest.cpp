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

// A square PNG of one grey level.
Bytes grey(std::uint32_t side, std::uint8_t level) {
  return uniformPNG(side, side, level, level, level);
}

TEST_F(IconServiceTest, EachBundleGetsTheIconItNamesOrTheFallback) {
  Bytes padded = grey(120, 1);  // decoders ignore bytes after IEND
  padded.resize(9 * 1024 * 1024, 0);
  const CVDictionary none;  // no Info.plist
  const auto file = [](CVValue name) { return CVDictionary{{"QXBundleIconFile", name}}; };
  const auto files = [](CVArray names) { return CVDictionary{{"QXBundleIconFiles", names}}; };
  // (case, Info.plist, files, the grey level of the icon chosen or 0 for none)
  const std::vector<
      std::tuple<const char*, CVDictionary, std::vector<std::pair<std::string, Bytes>>, int>>
      cases = {
          {"string key",
           file("AppIcon"),
           {{"AppIcon.png", grey(120, 1)}, {"Icon.png", grey(120, 2)}},
           1},
          {"name with a suffix the file lacks", file("Plain.png"), {{"Plain", grey(120, 3)}}, 3},
          {"array key", files({"Missing", 42, "Second"}), {{"Second.png", grey(120, 4)}}, 4},
          {"largest named icon",
           CVDictionary{{"QXBundleIconFile", "Small"},
                        {"QXBundleIconFiles", CVArray{"Medium.png", "Large", "Small.png"}}},
           {{"Small.png", grey(57, 5)},
            {"Medium.png", grey(120, 6)},
            {"Large.png", grey(180, 7)},
            {"Icon.png", grey(512, 8)}},  // not named: not a candidate
           7},
          {"largest header that does not decode",
           files({"Broken", "Good"}),
           {{"Broken.png", headerOnlyPNG(1024)}, {"Good.png", grey(60, 9)}},
           9},
          {"fallback without Info.plist", none, {{"Icon.png", grey(120, 10)}}, 10},
          {"fallback when the named icons are missing",
           file("Gone"),
           {{"Icon.png", grey(120, 11)}},
           11},
          {"fallback when the named icon does not decode",
           file("Broken"),
           {{"Broken.png", headerOnlyPNG(120)}, {"Icon.png", grey(120, 12)}},
           12},
          {"scaled down", file("Big"), {{"Big.png", uniformPNG(300, 200, 13, 13, 13)}}, 13},
          {"no icon", none, {}, 0},
          {"not a PNG", none, {{"Icon.png", Bytes(500, 'x')}}, 0},
          {"corrupt PNG",
           none,
           {{"Icon.png", png_test::readBytes(MAVREL_TESTDATA_DIR "/png/pngsuite/xcsn0g01.png")}},
           0},
          {"oversized file", file("Padded.png"), {{"Padded.png", padded}}, 0},
          {"dimensions beyond the icon limit", none, {{"Icon.png", headerOnlyPNG(5000)}}, 0},
      };
  for (const auto& [name, info, icons, level] : cases) {
    SCOPED_TRACE(name);
    std::filesystem::remove_all(bundlePath_);
    makeDirectories(bundlePath_);
    if (!info.empty()) writeInfoPlist(info);
    for (const auto& [iconName, bytes] : icons)
      writeIcon(iconName, bytes);
    const std::optional<Image> image = icon();
    EXPECT_EQ(image.has_value(), level != 0);
    if (image) {
      const auto value = static_cast<std::uint8_t>(level);
      EXPECT_TRUE(isUniform(*image, value, value, value, 255));
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
