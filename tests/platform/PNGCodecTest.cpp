// The PNG codec against the PngSuite, hand-built hostile files and the
// independent checker pngcheck.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "platform/PNGCodec.h"
#include "tests/platform/PNGTestFiles.h"
#include "tests/support/TestSupport.h"

namespace {

using platform::decodePNG;
using platform::encodePNG;
using platform::Image;
using platform::PNGDecodeLimits;
using png_test::Bytes;
using png_test::pixelAt;
using png_test::readBytes;

const std::string kSuiteDirectory = MAVREL_TESTDATA_DIR "/png/pngsuite";

std::vector<std::string> suiteFiles() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(kSuiteDirectory)) {
    const std::string name = entry.path().filename().string();
    if (name.ends_with(".png")) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The suite names its images by content; all are 32 x 32 except the size
// tests ("sNN": NN x NN), the pixel-dimension tests and the suite's logo.
std::pair<std::uint32_t, std::uint32_t> expectedSuiteSize(const std::string& name) {
  static const std::map<std::string, std::pair<std::uint32_t, std::uint32_t>> exceptions = {
      {"PngSuite.png", {256, 256}},
      {"cdfn2c08.png", {8, 32}},
      {"cdhn2c08.png", {32, 8}},
      {"cdsn2c08.png", {8, 8}}};
  if (auto found = exceptions.find(name); found != exceptions.end()) return found->second;
  if (name[0] == 's' && std::isdigit(static_cast<unsigned char>(name[1]))) {
    const auto side = static_cast<std::uint32_t>(std::stoi(name.substr(1, 2)));
    return {side, side};
  }
  return {32, 32};
}

std::optional<Image> decodeSuiteFile(const std::string& name, CVError* error = nullptr) {
  return decodePNG(readBytes(kSuiteDirectory + "/" + name), PNGDecodeLimits{}, error);
}

bool isPremultipliedRGBA(const Image& image) {
  for (std::size_t offset = 0; offset < image.pixels.size(); offset += 4) {
    const std::uint8_t alpha = image.pixels[offset + 3];
    if (image.pixels[offset] > alpha || image.pixels[offset + 1] > alpha ||
        image.pixels[offset + 2] > alpha) {
      return false;
    }
  }
  return true;
}

// ---- The PngSuite

TEST(PNGSuiteTest, EveryValidImageDecodesToItsSize) {
  const std::vector<std::string> names = suiteFiles();
  ASSERT_GE(names.size(), 170u);
  int decoded = 0;
  for (const std::string& name : names) {
    if (name[0] == 'x') continue;
    SCOPED_TRACE(name);
    CVError error;
    const std::optional<Image> image = decodeSuiteFile(name, &error);
    ASSERT_TRUE(image) << error.description();
    const auto [width, height] = expectedSuiteSize(name);
    EXPECT_EQ(image->width, width);
    EXPECT_EQ(image->height, height);
    EXPECT_EQ(image->pixels.size(), std::size_t{width} * height * 4);
    EXPECT_TRUE(isPremultipliedRGBA(*image));
    ++decoded;
  }
  EXPECT_EQ(decoded, 162);  // 161 suite images and the suite's logo
}

TEST(PNGSuiteTest, EveryCorruptImageIsRejected) {
  int rejected = 0;
  for (const std::string& name : suiteFiles()) {
    if (name[0] != 'x') continue;
    SCOPED_TRACE(name);
    CVError error;
    EXPECT_FALSE(decodeSuiteFile(name, &error));
    EXPECT_EQ(error.domain(), platform::kPNGErrorDomain);
    EXPECT_FALSE(error.localizedDescription().empty());
    ++rejected;
  }
  EXPECT_EQ(rejected, 14);
}

TEST(PNGSuiteTest, InterlacedImagesMatchTheirSequentialTwins) {
  int pairs = 0;
  for (const std::string& name : suiteFiles()) {
    if (!name.starts_with("basi")) continue;
    const std::string twin = "basn" + name.substr(4);
    SCOPED_TRACE(name + " / " + twin);
    const std::optional<Image> interlaced = decodeSuiteFile(name);
    const std::optional<Image> sequential = decodeSuiteFile(twin);
    ASSERT_TRUE(interlaced && sequential);
    EXPECT_TRUE(interlaced->pixels == sequential->pixels);
    ++pairs;
  }
  EXPECT_EQ(pairs, 15);
}

TEST(PNGSuiteTest, SmallGreyDepthsExpandToFullRange) {
  // 1-bit grey is black or white; 2-bit grey uses the four levels 0, 85, 170, 255.
  const std::map<std::string, std::vector<int>> levels = {{"basn0g01.png", {0, 255}},
                                                          {"basn0g02.png", {0, 85, 170, 255}}};
  for (const auto& [name, allowed] : levels) {
    SCOPED_TRACE(name);
    const std::optional<Image> image = decodeSuiteFile(name);
    ASSERT_TRUE(image);
    std::vector<int> seen;
    for (std::size_t offset = 0; offset < image->pixels.size(); offset += 4) {
      const int grey = image->pixels[offset];
      EXPECT_EQ(image->pixels[offset + 1], grey);
      EXPECT_EQ(image->pixels[offset + 2], grey);
      EXPECT_EQ(image->pixels[offset + 3], 255);
      if (std::find(seen.begin(), seen.end(), grey) == seen.end()) seen.push_back(grey);
    }
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, allowed);
  }
}

TEST(PNGSuiteTest, TransparencyChunksBecomePremultipliedAlpha) {
  // tbbn3p08: palette with tRNS; tbrn2c08 / tbbn0g04: single transparent colour.
  for (const std::string name : {"tbbn3p08.png", "tbrn2c08.png", "tbbn0g04.png", "tp1n3p08.png"}) {
    SCOPED_TRACE(name);
    const std::optional<Image> image = decodeSuiteFile(name);
    ASSERT_TRUE(image);
    std::size_t transparent = 0, opaque = 0;
    for (std::size_t offset = 0; offset < image->pixels.size(); offset += 4) {
      if (image->pixels[offset + 3] == 0) {
        ++transparent;
        EXPECT_EQ(image->pixels[offset] | image->pixels[offset + 1] | image->pixels[offset + 2], 0);
      } else if (image->pixels[offset + 3] == 255) {
        ++opaque;
      }
    }
    EXPECT_GT(transparent, 0u);
    EXPECT_GT(opaque, 0u);
  }
  // An opaque image without tRNS gets alpha 255 everywhere.
  const std::optional<Image> rgb = decodeSuiteFile("basn2c08.png");
  ASSERT_TRUE(rgb);
  for (std::size_t offset = 3; offset < rgb->pixels.size(); offset += 4) {
    ASSERT_EQ(rgb->pixels[offset], 255);
  }
}

TEST(PNGSuiteTest, SixteenBitSamplesScaleToEightBits) {
  // One RGBA pixel of 16-bit samples: scaling rounds to nearest (0x00ff -> 1,
  // where dropping the low byte would give 0); alpha 0x8000 -> 128, which then
  // premultiplies the colour.
  const Bytes opaque =
      png_test::buildPNG(1, 1, 16, 6, Bytes{0, 0xff, 0xff, 0x80, 0x80, 0x00, 0xff, 0xff, 0xff});
  const std::optional<Image> image = decodePNG(opaque, PNGDecodeLimits{}, nullptr);
  ASSERT_TRUE(image);
  EXPECT_EQ(pixelAt(*image, 0, 0), (std::vector<int>{255, 128, 1, 255}));

  const Bytes half =
      png_test::buildPNG(1, 1, 16, 6, Bytes{0, 0xff, 0xff, 0x00, 0x00, 0x00, 0x00, 0x80, 0x00});
  const std::optional<Image> halfImage = decodePNG(half, PNGDecodeLimits{}, nullptr);
  ASSERT_TRUE(halfImage);
  EXPECT_EQ(pixelAt(*halfImage, 0, 0), (std::vector<int>{128, 0, 0, 128}));
}

// ---- Hostile input

TEST(PNGHostileInputTest, NotAPNG) {
  for (const Bytes& bytes : {Bytes{}, Bytes{0x89, 'P', 'N', 'G'}, Bytes(100, 'a')}) {
    CVError error;
    EXPECT_FALSE(decodePNG(bytes, PNGDecodeLimits{}, &error));
    EXPECT_EQ(error.domain(), platform::kPNGErrorDomain);
    EXPECT_EQ(error.code(), platform::kPNGNotPNGError);
  }
}

TEST(PNGHostileInputTest, EveryTruncationIsRejected) {
  for (const std::string name : {"basn6a08.png", "basi3p02.png", "basn0g16.png"}) {
    const Bytes whole = readBytes(kSuiteDirectory + "/" + name);
    ASSERT_TRUE(decodePNG(whole, PNGDecodeLimits{}, nullptr)) << name;
    for (std::size_t length = 0; length < whole.size(); ++length) {
      const std::span<const std::uint8_t> prefix(whole.data(), length);
      ASSERT_FALSE(decodePNG(prefix, PNGDecodeLimits{}, nullptr)) << name << " cut at " << length;
    }
  }
}

TEST(PNGHostileInputTest, DamagedImageDataIsRejected) {
  // Flipping any byte of the IDAT chunk (its data or its CRC) breaks the CRC.
  Bytes file = readBytes(kSuiteDirectory + "/basn2c08.png");
  const auto idat = std::search(file.begin(), file.end(), std::begin("IDAT"), std::end("IDAT") - 1);
  ASSERT_NE(idat, file.end());
  for (std::ptrdiff_t offset = 4; offset < 64; offset += 7) {
    Bytes damaged = file;
    damaged[static_cast<std::size_t>(idat - file.begin() + offset)] ^= 0x40;
    CVError error;
    EXPECT_FALSE(decodePNG(damaged, PNGDecodeLimits{}, &error)) << "offset " << offset;
    EXPECT_EQ(error.code(), platform::kPNGCorruptError);
  }
}

TEST(PNGHostileInputTest, DimensionsBeyondTheLimitsAreRefusedBeforeDecoding) {
  PNGDecodeLimits limits;
  limits.maxWidth = 16;
  limits.maxHeight = 64;
  CVError error;
  ASSERT_TRUE(decodeSuiteFile("basn6a08.png"));  // 32 x 32 under the default limits
  EXPECT_FALSE(decodePNG(readBytes(kSuiteDirectory + "/basn6a08.png"), limits, &error));
  EXPECT_EQ(error.code(), platform::kPNGTooLargeError);

  // A header that claims the largest legal size with almost no data behind it.
  const Bytes huge = png_test::buildPNG(0x7fffffff, 0x7fffffff, 8, 6, Bytes{0, 1, 2, 3});
  EXPECT_FALSE(decodePNG(huge, PNGDecodeLimits{}, &error));
  EXPECT_EQ(error.code(), platform::kPNGTooLargeError);

  // Within the limits but with too little image data: corrupt, not a crash.
  const Bytes shortData = png_test::buildPNG(4096, 4096, 8, 6, Bytes{0, 1, 2, 3});
  EXPECT_FALSE(decodePNG(shortData, PNGDecodeLimits{}, &error));
  EXPECT_EQ(error.code(), platform::kPNGCorruptError);
}

TEST(PNGHostileInputTest, OversizedAndNumerousAncillaryChunksAreDropped) {
  const Bytes scanline = {0, 10, 20, 30, 255};
  std::vector<png_test::Chunk> chunks;
  Bytes bigText(std::string_view("Comment").begin(), std::string_view("Comment").end());
  bigText.push_back(0);
  bigText.resize(bigText.size() + 3 * 1024 * 1024, 'x');
  chunks.push_back({"tEXt", bigText});
  for (int i = 0; i < 500; ++i)
    chunks.push_back({"tEXt", Bytes{'k', 0, 'v'}});
  chunks.push_back({"prVt", Bytes(1000, 7)});  // an unknown private chunk
  const Bytes file = png_test::buildPNG(1, 1, 8, 6, scanline, chunks);
  CVError error;
  const std::optional<Image> image = decodePNG(file, PNGDecodeLimits{}, &error);
  ASSERT_TRUE(image) << error.description();
  EXPECT_EQ(pixelAt(*image, 0, 0), (std::vector<int>{10, 20, 30, 255}));
}

TEST(PNGHostileInputTest, RandomlyMutatedFilesNeverCrash) {
  std::mt19937 random(20240519);
  const std::vector<std::string> seeds = {"basn6a08.png", "basi3p04.png", "tbbn3p08.png",
                                          "basn4a16.png", "s09i3p02.png"};
  for (int round = 0; round < 600; ++round) {
    Bytes file = readBytes(kSuiteDirectory + "/" + seeds[round % seeds.size()]);
    const int mutations = 1 + static_cast<int>(random() % 8);
    for (int m = 0; m < mutations; ++m)
      file[random() % file.size()] = static_cast<std::uint8_t>(random());
    if (const std::optional<Image> image = decodePNG(file, PNGDecodeLimits{}, nullptr)) {
      EXPECT_EQ(image->pixels.size(), std::size_t{image->width} * image->height * 4);
    }
  }
}

// ---- Header peek

TEST(PNGHeaderTest, ReadsTheHeaderOnly) {
  Bytes file = readBytes(kSuiteDirectory + "/basi4a16.png");
  file.resize(33);  // nothing after IHDR
  const std::optional<platform::PNGHeader> header = platform::peekPNGHeader(file, nullptr);
  ASSERT_TRUE(header);
  EXPECT_EQ(header->width, 32u);
  EXPECT_EQ(header->height, 32u);
  EXPECT_EQ(header->bitDepth, 16);
  EXPECT_EQ(header->colorType, 4);
  EXPECT_TRUE(header->interlaced);
  EXPECT_EQ(header->pixelCount(), 1024u);
}

TEST(PNGHeaderTest, RefusesIllegalHeaders) {
  for (const std::string name : {"xs1n0g01.png", "xc1n0g08.png", "xd0n2c08.png", "xhdn0g08.png"}) {
    CVError error;
    EXPECT_FALSE(platform::peekPNGHeader(readBytes(kSuiteDirectory + "/" + name), &error)) << name;
    EXPECT_EQ(error.code(), platform::kPNGNotPNGError) << name;
  }
  EXPECT_FALSE(platform::peekPNGHeader(png_test::buildPNG(0, 5, 8, 6, {}), nullptr));
  EXPECT_FALSE(platform::peekPNGHeader(png_test::buildPNG(5, 5, 16, 3, {}), nullptr));
}

// ---- Encoding

TEST(PNGEncodeTest, RoundTripKeepsEveryPremultipliedValue) {
  // Every (value, alpha) pair a premultiplied pixel can hold, value <= alpha.
  Image image{256, 256, {}};
  for (int alpha = 0; alpha < 256; ++alpha) {
    for (int value = 0; value < 256; ++value) {
      const auto v = static_cast<std::uint8_t>(std::min(value, alpha));
      const auto other = static_cast<std::uint8_t>(alpha - v);
      image.pixels.insert(image.pixels.end(), {v, other, static_cast<std::uint8_t>(v / 2),
                                               static_cast<std::uint8_t>(alpha)});
    }
  }
  CVError error;
  const std::optional<Bytes> encoded = encodePNG(image, &error);
  ASSERT_TRUE(encoded) << error.description();
  const std::optional<Image> decoded = decodePNG(*encoded, PNGDecodeLimits{}, &error);
  ASSERT_TRUE(decoded) << error.description();
  EXPECT_EQ(decoded->width, 256u);
  EXPECT_EQ(decoded->height, 256u);
  ASSERT_EQ(decoded->pixels.size(), image.pixels.size());
  for (std::size_t offset = 0; offset < image.pixels.size(); offset += 4) {
    ASSERT_TRUE(std::equal(image.pixels.begin() + static_cast<std::ptrdiff_t>(offset),
                           image.pixels.begin() + static_cast<std::ptrdiff_t>(offset + 4),
                           decoded->pixels.begin() + static_cast<std::ptrdiff_t>(offset)))
        << "pixel " << offset / 4;
  }
}

TEST(PNGEncodeTest, StoresStraightAlpha) {
  // Half-transparent red, premultiplied (128, 0, 0, 128), must be stored as
  // (255, 0, 0, 128): then it decodes exactly as a hand-built file holding
  // those straight samples does. Stored as is, it would decode to (64, 0, 0, 128).
  const Image half{1, 1, {128, 0, 0, 128}};
  const std::optional<Bytes> ours = encodePNG(half, nullptr);
  ASSERT_TRUE(ours);
  const Bytes reference = png_test::straightRGBAPNG(1, 1, {255, 0, 0, 128});
  const std::optional<Image> fromOurs = decodePNG(*ours, PNGDecodeLimits{}, nullptr);
  const std::optional<Image> fromReference = decodePNG(reference, PNGDecodeLimits{}, nullptr);
  ASSERT_TRUE(fromOurs && fromReference);
  EXPECT_EQ(fromOurs->pixels, fromReference->pixels);
  EXPECT_EQ(fromOurs->pixels, (Bytes{128, 0, 0, 128}));
}

TEST(PNGEncodeTest, OutputPassesPngcheck) {
  testing_support::TemporaryDirectory directory;
  Image image{97, 41, {}};
  std::mt19937 random(7);
  for (std::size_t i = 0; i < std::size_t{97} * 41; ++i) {
    const auto alpha = static_cast<std::uint8_t>(random());
    for (int c = 0; c < 3; ++c)
      image.pixels.push_back(static_cast<std::uint8_t>(random() % (alpha + 1u)));
    image.pixels.push_back(alpha);
  }
  const std::optional<Bytes> encoded = encodePNG(image, nullptr);
  ASSERT_TRUE(encoded);
  const std::string path = directory / "encoded.png";
  png_test::writeBytes(path, *encoded);
  EXPECT_EQ(png_test::runPngcheck(path), 0);

  // The checker does notice damage, so its approval means something.
  Bytes damaged = *encoded;
  damaged[damaged.size() / 2] ^= 0x01;
  const std::string damagedPath = directory / "damaged.png";
  png_test::writeBytes(damagedPath, damaged);
  EXPECT_NE(png_test::runPngcheck(damagedPath), 0);
}

TEST(PNGEncodeTest, RefusesMalformedImages) {
  for (const Image& image : {Image{0, 0, {}}, Image{2, 2, Bytes(15, 0)}, Image{0, 4, Bytes{}},
                             Image{1, 1, Bytes(8, 0)}}) {
    CVError error;
    EXPECT_FALSE(encodePNG(image, &error));
    EXPECT_EQ(error.domain(), platform::kPNGErrorDomain);
    EXPECT_EQ(error.code(), platform::kPNGEncodeError);
  }
}

}  // namespace
