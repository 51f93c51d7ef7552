// Area-averaging scaling of premultiplied images: uniform colour stays,
// patterns average or survive as geometry says, transparency bleeds nothing,
// and edges blend by the area they cover.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <vector>

#include "platform/ImageScaling.h"
#include "tests/platform/PNGTestFiles.h"

namespace {

using platform::Image;
using platform::scaleImageByAreaAveraging;
using namespace png_test;

// A width x height image whose pixel (x, y) is `colour(x, y)`.
Image patterned(std::uint32_t width, std::uint32_t height,
                const std::function<Bytes(std::uint32_t, std::uint32_t)>& colour) {
  Image image{width, height, {}};
  for (std::uint32_t y = 0; y < height; ++y) {
    for (std::uint32_t x = 0; x < width; ++x) {
      const Bytes pixel = colour(x, y);
      image.pixels.insert(image.pixels.end(), pixel.begin(), pixel.end());
    }
  }
  return image;
}

Image randomPremultiplied(std::uint32_t side, unsigned seed) {
  std::mt19937 random(seed);
  return patterned(side, side, [&random](std::uint32_t, std::uint32_t) {
    const auto alpha = static_cast<std::uint8_t>(random());
    return Bytes{static_cast<std::uint8_t>(random() % (alpha + 1u)),
                 static_cast<std::uint8_t>(random() % (alpha + 1u)),
                 static_cast<std::uint8_t>(random() % (alpha + 1u)), alpha};
  });
}

const Bytes kWhite{255, 255, 255, 255}, kBlack{0, 0, 0, 255};

TEST(ImageScalingTest, ScaledImagesKeepWhatTheGeometrySays) {
  for (const auto& [width, height] : std::vector<std::pair<std::uint32_t, std::uint32_t>>{
           {240, 240}, {7, 7}, {121, 121}, {1, 1}, {300, 50}, {119, 241}}) {
    const auto scaled =
        scaleImageByAreaAveraging(uniformImage(width, height, 90, 30, 200, 220), 120, 120);
    ASSERT_TRUE(scaled) << width << " x " << height;
    EXPECT_TRUE(scaled->width == 120 && scaled->height == 120 &&
                isUniform(*scaled, 90, 30, 200, 220))
        << width << " x " << height;
  }
  // A fine checkerboard halves to mid grey (127.5, rounded up).
  const auto fine = scaleImageByAreaAveraging(
      patterned(240, 240, [](auto x, auto y) { return (x + y) % 2 ? kBlack : kWhite; }), 120, 120);
  ASSERT_TRUE(fine);
  EXPECT_TRUE(isUniform(*fine, 128, 128, 128, 255));
  // The same size is the identity.
  const Image source = randomPremultiplied(60, 3);
  EXPECT_TRUE(scaleImageByAreaAveraging(source, 60, 60)->pixels == source.pixels);
  // Red, blue, red to four: pixel 1 spans source [0.75, 1.5), a third red.
  const auto four = scaleImageByAreaAveraging(
      patterned(3, 1,
                [](auto x, auto) {
                  return x == 1 ? Bytes{0, 0, 255, 255} : Bytes{255, 0, 0, 255};
                }),
      4, 1);
  ASSERT_TRUE(four);
  EXPECT_EQ(four->pixels,
            (Bytes{255, 0, 0, 255, 85, 0, 170, 255, 85, 0, 170, 255, 255, 0, 0, 255}));
}

TEST(ImageScalingTest, TransparentPixelsDoNotBleedColour) {
  // Opaque green with transparent pixels between: every result stays pure
  // green (green == alpha), at any ratio.
  const Image image = patterned(240, 240, [](auto x, auto y) {
    return x % 3 == 0 || y % 5 == 0 ? Bytes{0, 0, 0, 0} : Bytes{0, 255, 0, 255};
  });
  for (std::uint32_t side : {120u, 77u, 300u}) {
    const auto scaled = scaleImageByAreaAveraging(image, side, side);
    ASSERT_TRUE(scaled);
    for (std::size_t offset = 0; offset < scaled->pixels.size(); offset += 4) {
      ASSERT_EQ(scaled->pixels[offset] + scaled->pixels[offset + 2], 0) << side;
      ASSERT_EQ(scaled->pixels[offset + 1], scaled->pixels[offset + 3]) << side;
    }
  }
  EXPECT_FALSE(scaleImageByAreaAveraging(Image{}, 120, 120));
  EXPECT_FALSE(scaleImageByAreaAveraging(Image{2, 2, Bytes(15)}, 120, 120));
  EXPECT_FALSE(scaleImageByAreaAveraging(uniformImage(2, 2, 1, 1, 1), 0, 120));
  EXPECT_FALSE(scaleImageByAreaAveraging(uniformImage(2, 2, 1, 1, 1), 120, 0));
}

}  // namespace
