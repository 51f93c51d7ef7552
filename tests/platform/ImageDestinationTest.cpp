// The in-memory image destination as the placeholder icon writer uses it.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "platform/Image.h"
#include "platform/PNGCodec.h"
#include "tests/platform/PNGTestFiles.h"
#include "tests/support/TestSupport.h"

namespace {

using platform::Image;
using platform::kImageTypePNG;
using platform::PVImageDestinationAddImage;
using platform::PVImageDestinationCreateWithData;
using platform::PVImageDestinationFinalize;
using png_test::Bytes;

Image randomPremultipliedImage(std::uint32_t width, std::uint32_t height) {
  std::mt19937 random(width * 131 + height);
  Image image{width, height, {}};
  for (std::size_t i = 0; i < std::size_t{width} * height; ++i) {
    const auto alpha = static_cast<std::uint8_t>(random());
    for (int c = 0; c < 3; ++c)
      image.pixels.push_back(static_cast<std::uint8_t>(random() % (alpha + 1u)));
    image.pixels.push_back(alpha);
  }
  return image;
}

TEST(ImageDestinationTest, OnlyOnePNGImageIsSupported) {
  Bytes data;
  EXPECT_TRUE(PVImageDestinationCreateWithData(&data, kImageTypePNG, 1));
  EXPECT_TRUE(PVImageDestinationCreateWithData(&data, "public.png", 1));
  EXPECT_FALSE(PVImageDestinationCreateWithData(&data, "public.jpeg", 1));
  EXPECT_FALSE(PVImageDestinationCreateWithData(&data, "public.PNG", 1));
  EXPECT_FALSE(PVImageDestinationCreateWithData(&data, "", 1));
  EXPECT_FALSE(PVImageDestinationCreateWithData(&data, kImageTypePNG, 0));
  EXPECT_FALSE(PVImageDestinationCreateWithData(&data, kImageTypePNG, 2));
  EXPECT_FALSE(PVImageDestinationCreateWithData(nullptr, kImageTypePNG, 1));
}

TEST(ImageDestinationTest, EncodesTheAddedImage) {
  testing_support::TemporaryDirectory directory;
  const Image image = randomPremultipliedImage(120, 120);
  Bytes data = {1, 2, 3};  // replaced, not appended to
  auto destination = PVImageDestinationCreateWithData(&data, kImageTypePNG, 1);
  ASSERT_TRUE(destination);
  PVImageDestinationAddImage(*destination, image);
  ASSERT_TRUE(PVImageDestinationFinalize(*destination));

  ASSERT_GE(data.size(), 8u);
  EXPECT_EQ(Bytes(data.begin(), data.begin() + 8),
            (Bytes{0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'}));
  const std::optional<Image> decoded =
      platform::decodePNG(data, platform::PNGDecodeLimits{}, nullptr);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->width, 120u);
  EXPECT_EQ(decoded->height, 120u);
  EXPECT_TRUE(decoded->pixels == image.pixels);

  const std::string path = directory / "Icon.png";
  png_test::writeBytes(path, data);
  EXPECT_EQ(png_test::runPngcheck(path), 0);
}

TEST(ImageDestinationTest, ImagesBeyondTheCountAreIgnored) {
  Bytes data;
  auto destination = PVImageDestinationCreateWithData(&data, kImageTypePNG, 1);
  ASSERT_TRUE(destination);
  PVImageDestinationAddImage(*destination, png_test::uniformImage(4, 4, 9, 9, 9));
  PVImageDestinationAddImage(*destination, png_test::uniformImage(8, 8, 1, 1, 1));
  ASSERT_TRUE(PVImageDestinationFinalize(*destination));
  const std::optional<Image> decoded =
      platform::decodePNG(data, platform::PNGDecodeLimits{}, nullptr);
  ASSERT_TRUE(decoded);
  EXPECT_TRUE(png_test::isUniform(*decoded, 9, 9, 9, 255));
  EXPECT_EQ(decoded->width, 4u);
}

TEST(ImageDestinationTest, FinalisingWithoutAnImageFailsAndEmptiesTheBuffer) {
  Bytes data = {1, 2, 3};
  auto destination = PVImageDestinationCreateWithData(&data, kImageTypePNG, 1);
  ASSERT_TRUE(destination);
  EXPECT_FALSE(PVImageDestinationFinalize(*destination));
  EXPECT_TRUE(data.empty());
}

TEST(ImageDestinationTest, MalformedImageFailsAndEmptiesTheBuffer) {
  Bytes data = {1, 2, 3};
  auto destination = PVImageDestinationCreateWithData(&data, kImageTypePNG, 1);
  ASSERT_TRUE(destination);
  PVImageDestinationAddImage(*destination, Image{10, 10, Bytes(10)});
  EXPECT_FALSE(PVImageDestinationFinalize(*destination));
  EXPECT_TRUE(data.empty());
}

TEST(ImageDestinationTest, FinalisesOnlyOnce) {
  Bytes data;
  auto destination = PVImageDestinationCreateWithData(&data, kImageTypePNG, 1);
  ASSERT_TRUE(destination);
  PVImageDestinationAddImage(*destination, png_test::uniformImage(2, 2, 5, 5, 5));
  ASSERT_TRUE(PVImageDestinationFinalize(*destination));
  const Bytes first = data;
  PVImageDestinationAddImage(*destination, png_test::uniformImage(2, 2, 6, 6, 6));
  EXPECT_FALSE(PVImageDestinationFinalize(*destination));
  EXPECT_EQ(data, first);
}

}  // namespace
