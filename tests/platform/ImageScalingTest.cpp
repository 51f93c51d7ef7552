// Area-averaging resampling of premultiplied images.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "platform/ImageScaling.h"
#include "tests/platform/PNGTestFiles.h"

namespace {

using platform::Image;
using platform::scaleImageByAreaAveraging;
using namespace png_test;

void setPixel(Image& image, std::uint32_t x, std::uint32_t y, std::vector<std::uint8_t> rgba) {
  std::copy(
      rgba.begin(), rgba.end(),
      image.pixels.begin() + static_cast<std::ptrdiff_t>((std::size_t{y} * image.width + x) * 4));
}

TEST(ImageScalingTest, UniformColourStaysUniformAtAnyRatio) {
  const std::vector<std::pair<std::uint32_t, std::uint32_t>> sources = {
      {240, 240}, {100, 100}, {7, 7}, {121, 121}, {1, 1}, {300, 50}, {119, 241}};
  for (const auto& [width, height] : sources) {
    SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height));
    const std::optional<Image> scaled =
        scaleImageByAreaAveraging(uniformImage(width, height, 90, 30, 200, 220), 120, 120);
    ASSERT_TRUE(scaled);
    EXPECT_EQ(scaled->width, 120u);
    EXPECT_EQ(scaled->height, 120u);
    EXPECT_TRUE(isUniform(*scaled, 90, 30, 200, 220));
  }
}

TEST(ImageScalingTest, FinePatternAveragesToMidGrey) {
  // 240 x 240, every 2 x 2 block holding two black and two white pixels:
  // each destination pixel covers one block and becomes 127.5, rounded up.
  Image checker = uniformImage(240, 240, 0, 0, 0);
  for (std::uint32_t y = 0; y < 240; ++y) {
    for (std::uint32_t x = 0; x < 240; ++x) {
      if ((x + y) % 2 == 0) setPixel(checker, x, y, {255, 255, 255, 255});
    }
  }
  const std::optional<Image> scaled = scaleImageByAreaAveraging(checker, 120, 120);
  ASSERT_TRUE(scaled);
  EXPECT_TRUE(isUniform(*scaled, 128, 128, 128, 255));
}

TEST(ImageScalingTest, CoarsePatternSurvivesHalving) {
  // Blocks of 4 x 4 become blocks of 2 x 2, unblurred.
  Image checker = uniformImage(240, 240, 0, 0, 0);
  for (std::uint32_t y = 0; y < 240; ++y) {
    for (std::uint32_t x = 0; x < 240; ++x) {
      if ((x / 4 + y / 4) % 2 == 0) setPixel(checker, x, y, {255, 255, 255, 255});
    }
  }
  const std::optional<Image> scaled = scaleImageByAreaAveraging(checker, 120, 120);
  ASSERT_TRUE(scaled);
  for (std::uint32_t y = 0; y < 120; ++y) {
    for (std::uint32_t x = 0; x < 120; ++x) {
      const int expected = (x / 2 + y / 2) % 2 == 0 ? 255 : 0;
      ASSERT_EQ(pixelAt(*scaled, x, y), (std::vector<int>{expected, expected, expected, 255}))
          << x << ", " << y;
    }
  }
}

TEST(ImageScalingTest, AverageColourIsKeptAtOddRatios) {
  // Area averaging preserves the image's mean (up to rounding per pixel).
  std::mt19937 random(42);
  Image noise{173, 91, {}};
  for (std::size_t i = 0; i < std::size_t{173} * 91 * 4; ++i) {
    noise.pixels.push_back(static_cast<std::uint8_t>(random()));
  }
  const std::optional<Image> scaled = scaleImageByAreaAveraging(noise, 120, 120);
  ASSERT_TRUE(scaled);
  for (int channel = 0; channel < 4; ++channel) {
    double sourceMean = 0, scaledMean = 0;
    for (std::size_t i = channel; i < noise.pixels.size(); i += 4)
      sourceMean += noise.pixels[i];
    for (std::size_t i = channel; i < scaled->pixels.size(); i += 4)
      scaledMean += scaled->pixels[i];
    sourceMean /= 173.0 * 91;
    scaledMean /= 120.0 * 120;
    EXPECT_NEAR(sourceMean, scaledMean, 0.5) << "channel " << channel;
  }
}

TEST(ImageScalingTest, TransparentPixelsDoNotBleedColour) {
  // Opaque green with transparent pixels in between; a transparent red pixel
  // is (0, 0, 0, 0) once premultiplied, so no red may appear anywhere, and
  // every partly covered pixel stays pure green (green == alpha).
  Image image = uniformImage(240, 240, 0, 255, 0);
  for (std::uint32_t y = 0; y < 240; ++y) {
    for (std::uint32_t x = 0; x < 240; ++x) {
      if (x % 3 == 0 || y % 5 == 0) setPixel(image, x, y, {0, 0, 0, 0});
    }
  }
  for (std::uint32_t side : {120u, 77u, 300u}) {
    const std::optional<Image> scaled = scaleImageByAreaAveraging(image, side, side);
    ASSERT_TRUE(scaled);
    for (std::size_t offset = 0; offset < scaled->pixels.size(); offset += 4) {
      ASSERT_EQ(scaled->pixels[offset], 0) << "red at " << offset / 4;
      ASSERT_EQ(scaled->pixels[offset + 2], 0);
      ASSERT_EQ(scaled->pixels[offset + 1], scaled->pixels[offset + 3]);
    }
  }
}

TEST(ImageScalingTest, UpscalingFromSixtyReplicatesEachPixel) {
  std::mt19937 random(3);
  Image source{60, 60, {}};
  for (std::size_t i = 0; i < 60 * 60; ++i) {
    const auto alpha = static_cast<std::uint8_t>(random());
    for (int c = 0; c < 3; ++c)
      source.pixels.push_back(static_cast<std::uint8_t>(random() % (alpha + 1u)));
    source.pixels.push_back(alpha);
  }
  const std::optional<Image> scaled = scaleImageByAreaAveraging(source, 120, 120);
  ASSERT_TRUE(scaled);
  for (std::uint32_t y = 0; y < 120; ++y) {
    for (std::uint32_t x = 0; x < 120; ++x) {
      ASSERT_EQ(pixelAt(*scaled, x, y), pixelAt(source, x / 2, y / 2)) << x << ", " << y;
    }
  }
}

TEST(ImageScalingTest, UpscalingByOddRatioBlendsOnlyAtTheBoundary) {
  // 50 wide, left half red, right half blue, to 120: the edge at 60 falls on a
  // destination pixel boundary, so nothing blends.
  Image source = uniformImage(50, 10, 255, 0, 0);
  for (std::uint32_t y = 0; y < 10; ++y) {
    for (std::uint32_t x = 25; x < 50; ++x)
      setPixel(source, x, y, {0, 0, 255, 255});
  }
  const std::optional<Image> scaled = scaleImageByAreaAveraging(source, 120, 120);
  ASSERT_TRUE(scaled);
  for (std::uint32_t x = 0; x < 120; ++x) {
    const std::vector<int> expected =
        x < 60 ? std::vector<int>{255, 0, 0, 255} : std::vector<int>{0, 0, 255, 255};
    EXPECT_EQ(pixelAt(*scaled, x, 37), expected) << x;
  }
  // 3 wide (red, blue, red) to 4: destination pixel 1 spans source [0.75, 1.5),
  // a third of it red and two thirds blue; pixel 2 mirrors it.
  Image three = uniformImage(3, 1, 255, 0, 0);
  setPixel(three, 1, 0, {0, 0, 255, 255});
  const std::optional<Image> four = scaleImageByAreaAveraging(three, 4, 1);
  ASSERT_TRUE(four);
  EXPECT_EQ(pixelAt(*four, 0, 0), (std::vector<int>{255, 0, 0, 255}));
  EXPECT_EQ(pixelAt(*four, 1, 0), (std::vector<int>{85, 0, 170, 255}));
  EXPECT_EQ(pixelAt(*four, 2, 0), (std::vector<int>{85, 0, 170, 255}));
  EXPECT_EQ(pixelAt(*four, 3, 0), (std::vector<int>{255, 0, 0, 255}));
}

TEST(ImageScalingTest, SameSizeIsIdentity) {
  std::mt19937 random(9);
  Image source{120, 120, {}};
  for (std::size_t i = 0; i < std::size_t{120} * 120 * 4; ++i)
    source.pixels.push_back(static_cast<std::uint8_t>(random()));
  const std::optional<Image> scaled = scaleImageByAreaAveraging(source, 120, 120);
  ASSERT_TRUE(scaled);
  EXPECT_EQ(scaled->pixels, source.pixels);
}

TEST(ImageScalingTest, RefusesMalformedInput) {
  EXPECT_FALSE(scaleImageByAreaAveraging(Image{}, 120, 120));
  EXPECT_FALSE(scaleImageByAreaAveraging(Image{2, 2, std::vector<std::uint8_t>(15)}, 120, 120));
  EXPECT_FALSE(scaleImageByAreaAveraging(uniformImage(2, 2, 1, 1, 1), 0, 120));
  EXPECT_FALSE(scaleImageByAreaAveraging(uniformImage(2, 2, 1, 1, 1), 120, 0));
}

}  // namespace
