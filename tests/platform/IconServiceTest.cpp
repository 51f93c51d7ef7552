// The home-screen icon of a bundle: which file is chosen, what is refused, and
// that the result is a 120 x 120 premultiplied image.
#include <gtest/gtest.h>

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
  // A bundle icon of one colour and the given side.
  void writeIcon(const std::string& name, std::uint32_t side, std::uint8_t red, std::uint8_t green,
                 std::uint8_t blue) {
    writeIcon(name, uniformPNG(side, side, red, green, blue));
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
  bool iconIs(std::uint8_t red, std::uint8_t green, std::uint8_t blue) {
    const std::optional<Image> image = icon();
    return image && isUniform(*image, red, green, blue, 255);
  }

  TemporaryDirectory directory_;
  std::string bundlePath_;
};

// A file with a PNG header claiming `side` pixels square and no image data.
Bytes headerOnlyPNG(std::uint32_t side) {
  return png_test::buildPNG(side, side, 8, 2, Bytes{});
}

// ---- Which file

TEST_F(IconServiceTest, StringKeyNamesTheIcon) {
  writeInfoPlist({{"QXBundleIconFile", "AppIcon.png"}});
  writeIcon("AppIcon.png", 120, 200, 10, 10);
  writeIcon("Icon.png", 120, 10, 200, 10);
  EXPECT_TRUE(iconIs(200, 10, 10));
}

TEST_F(IconServiceTest, NamesAreTriedWithAndWithoutThePNGSuffix) {
  writeInfoPlist({{"QXBundleIconFile", "AppIcon"}});
  writeIcon("AppIcon.png", 120, 200, 10, 10);
  EXPECT_TRUE(iconIs(200, 10, 10));

  writeInfoPlist({{"QXBundleIconFile", "Plain.png"}});
  writeIcon("Plain", 120, 10, 10, 200);
  EXPECT_TRUE(iconIs(10, 10, 200));
}

TEST_F(IconServiceTest, ArrayKeyNamesTheIcons) {
  writeInfoPlist({{"QXBundleIconFiles", CVArray{"Missing", 42, "Second"}}});
  writeIcon("Second.png", 120, 10, 200, 10);
  EXPECT_TRUE(iconIs(10, 200, 10));
}

TEST_F(IconServiceTest, LargestOfAllNamedIconsWins) {
  writeInfoPlist({{"QXBundleIconFile", "Small"},
                  {"QXBundleIconFiles", CVArray{"Medium.png", "Large", "Small.png"}}});
  writeIcon("Small.png", 57, 200, 0, 0);
  writeIcon("Medium.png", 120, 0, 200, 0);
  writeIcon("Large.png", 180, 0, 0, 200);
  writeIcon("Icon.png", 512, 9, 9, 9);  // not named: not a candidate
  EXPECT_TRUE(iconIs(0, 0, 200));
}

TEST_F(IconServiceTest, LargestHeaderThatDoesNotDecodeGivesWayToTheNext) {
  writeInfoPlist({{"QXBundleIconFiles", CVArray{"Broken", "Good"}}});
  writeIcon("Broken.png", headerOnlyPNG(1024));
  writeIcon("Good.png", 60, 40, 50, 60);
  EXPECT_TRUE(iconIs(40, 50, 60));
}

TEST_F(IconServiceTest, FallsBackToIconPNG) {
  writeIcon("Icon.png", 120, 7, 8, 9);
  EXPECT_TRUE(iconIs(7, 8, 9)) << "no Info.plist at all";

  writeInfoPlist({{"QXBundleIdentifier", "com.example.app"}});
  EXPECT_TRUE(iconIs(7, 8, 9)) << "no icon keys";

  writeInfoPlist({{"QXBundleIconFile", "Gone"}, {"QXBundleIconFiles", CVArray{"AlsoGone"}}});
  EXPECT_TRUE(iconIs(7, 8, 9)) << "named icons missing";

  writeInfoPlist({{"QXBundleIconFile", "Broken"}});
  writeIcon("Broken.png", headerOnlyPNG(120));
  EXPECT_TRUE(iconIs(7, 8, 9)) << "named icon undecodable";
}

TEST_F(IconServiceTest, ScalesEveryIconTo120) {
  writeInfoPlist({{"QXBundleIconFile", "Big"}});
  writeIcon("Big.png", uniformPNG(300, 200, 1, 2, 3));
  EXPECT_TRUE(iconIs(1, 2, 3));
  writeIcon("Big.png", 60, 4, 5, 6);  // upscaled
  EXPECT_TRUE(iconIs(4, 5, 6));
}

TEST_F(IconServiceTest, TransparentRedDoesNotBleedIntoTheIcon) {
  // Straight-alpha file: opaque blue, and fully transparent pixels whose
  // colour is red. Premultiplied averaging must leave no trace of the red.
  Bytes pixels;
  for (int y = 0; y < 240; ++y) {
    for (int x = 0; x < 240; ++x) {
      const bool transparent = (x + y) % 2 == 0;
      const Bytes pixel = transparent ? Bytes{255, 0, 0, 0} : Bytes{0, 0, 255, 255};
      pixels.insert(pixels.end(), pixel.begin(), pixel.end());
    }
  }
  writeIcon("Icon.png", png_test::straightRGBAPNG(240, 240, pixels));
  const std::optional<Image> image = icon();
  ASSERT_TRUE(image);
  EXPECT_TRUE(isUniform(*image, 0, 0, 128, 128));
}

// ---- Nothing usable

TEST_F(IconServiceTest, NoIconGivesNothing) {
  EXPECT_FALSE(icon());
  writeInfoPlist({{"QXBundleIconFile", "Missing"}});
  EXPECT_FALSE(icon());
}

TEST_F(IconServiceTest, UndecodableIconGivesNothing) {
  testing_support::CapturedLog log(platform::installerLog(), platform::kLogLevelDebug);
  writeIcon("Icon.png", headerOnlyPNG(120));
  EXPECT_FALSE(icon());
  EXPECT_TRUE(log.containsFragment(bundlePath_ + "/Icon.png not decoded: corrupt PNG"))
      << log.dump();
  writeIcon("Icon.png", Bytes(500, 'x'));
  EXPECT_FALSE(icon());
  writeIcon("Icon.png", png_test::readBytes(MAVREL_TESTDATA_DIR "/png/pngsuite/xcsn0g01.png"));
  EXPECT_FALSE(icon());
}

TEST_F(IconServiceTest, SymbolicLinkIconsAreRefused) {
  const std::string outside = directory_ / "outside.png";
  png_test::writeBytes(outside, uniformPNG(120, 120, 200, 0, 0));
  makeSymlink(outside, bundlePath_ + "/Icon.png");
  EXPECT_FALSE(icon()) << "fallback icon is a link";

  writeInfoPlist({{"QXBundleIconFile", "Linked.png"}});
  makeSymlink(outside, bundlePath_ + "/Linked.png");
  EXPECT_FALSE(icon()) << "named icon is a link";
}

TEST_F(IconServiceTest, NamesCannotLeaveTheBundle) {
  png_test::writeBytes(directory_ / "outside.png", uniformPNG(120, 120, 200, 0, 0));
  writeInfoPlist({{"QXBundleIconFile", "../outside.png"},
                  {"QXBundleIconFiles", CVArray{"..", "/" + (directory_ / "outside.png")}}});
  EXPECT_FALSE(icon());
}

TEST_F(IconServiceTest, NonRegularAndOversizedFilesAreRefused) {
  makeDirectories(bundlePath_ + "/Icon.png");
  EXPECT_FALSE(icon()) << "directory";

  // A valid icon padded past the size cap (decoders ignore bytes after IEND).
  Bytes padded = uniformPNG(120, 120, 200, 0, 0);
  padded.resize(9 * 1024 * 1024, 0);
  writeInfoPlist({{"QXBundleIconFile", "Padded.png"}});
  writeIcon("Padded.png", padded);
  EXPECT_FALSE(icon()) << "oversized";
}

TEST_F(IconServiceTest, DimensionsBeyondTheIconLimitAreRefused) {
  writeIcon("Icon.png", headerOnlyPNG(5000));
  EXPECT_FALSE(icon());
}

}  // namespace
