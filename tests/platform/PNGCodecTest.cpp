// The PNG codec: the transforms we ask for (every form to premultiplied RGBA),
// the corrupt and hostile files we must refuse, and the files we write (round
// trip, straight alpha, accepted by the independent checker pngcheck).
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/PNGCodec.h"
#include "tests/platform/PNGTestFiles.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace platform;
using namespace png_test;

const std::string kSuite = MAVREL_TESTDATA_DIR "/png/pngsuite/";

std::optional<Image> decode(std::span<const std::uint8_t> bytes, CVError* error = nullptr,
                            PNGDecodeLimits limits = {}) {
  return decodePNG(bytes, limits, error);
}

TEST(PNGDecodeTest, FormsBecomePremultipliedRGBA) {
  // tRNS becomes premultiplied alpha; 16-bit samples round to nearest
  // (0x00ff -> 1) and alpha 0x8000 -> 128 premultiplies the colour.
  const auto transparent = decode(readBytes(kSuite + "tbrn2c08.png"));
  const auto wide =
      decode(buildPNG(1, 1, 16, 6, Bytes{0, 0xff, 0xff, 0x80, 0x80, 0, 0xff, 0xff, 0xff}));
  const auto half = decode(buildPNG(1, 1, 16, 6, Bytes{0, 0xff, 0xff, 0, 0, 0, 0, 0x80, 0}));
  ASSERT_TRUE(transparent && wide && half);
  std::size_t clear = 0;
  for (std::size_t offset = 0; offset < transparent->pixels.size(); offset += 4) {
    const auto* pixel = &transparent->pixels[offset];
    EXPECT_LE(std::max({pixel[0], pixel[1], pixel[2]}), pixel[3]);
    clear += pixel[3] == 0;
  }
  EXPECT_GT(clear, 0u);
  EXPECT_EQ(pixelAt(*wide, 0, 0), (std::vector<int>{255, 128, 1, 255}));
  EXPECT_EQ(pixelAt(*half, 0, 0), (std::vector<int>{128, 0, 0, 128}));
}

TEST(PNGDecodeTest, CorruptAndHostileFilesAreRefusedByKind) {
  const Bytes whole = readBytes(kSuite + "basn2c08.png");
  Bytes damaged = whole;
  const auto idat =
      std::search(damaged.begin(), damaged.end(), std::begin("IDAT"), std::end("IDAT") - 1);
  ASSERT_NE(idat, damaged.end());
  idat[20] ^= 0x40;  // breaks the chunk's CRC
  PNGDecodeLimits narrow;
  narrow.maxWidth = 16;
  narrow.maxHeight = 64;
  struct Case {
    const char* name;
    Bytes bytes;
    long code;
    PNGDecodeLimits limits = {};
  };
  const std::vector<Case> cases = {
      {"empty", Bytes{}, kPNGNotPNGError},
      {"signature cut", Bytes{0x89, 'P', 'N', 'G'}, kPNGNotPNGError},
      {"text", Bytes(100, 'a'), kPNGNotPNGError},
      {"cut in the data", Bytes(whole.begin(), whole.begin() + whole.size() / 2), kPNGCorruptError},
      {"cut before the end", Bytes(whole.begin(), whole.end() - 1), kPNGCorruptError},
      {"damaged data", damaged, kPNGCorruptError},
      {"suite: bad CRC", readBytes(kSuite + "xcsn0g01.png"), kPNGCorruptError},
      {"beyond the limits", readBytes(kSuite + "basn6a08.png"), kPNGTooLargeError, narrow},
      {"largest legal size", buildPNG(0x7fffffff, 0x7fffffff, 8, 6, Bytes{0, 1, 2, 3}),
       kPNGTooLargeError},
      {"too little data", buildPNG(4096, 4096, 8, 6, Bytes{0, 1, 2, 3}), kPNGCorruptError},
  };
  for (const Case& each : cases) {
    CVError error;
    EXPECT_FALSE(decode(each.bytes, &error, each.limits)) << each.name;
    EXPECT_EQ(error.domain(), kPNGErrorDomain) << each.name;
    EXPECT_EQ(error.code(), each.code) << each.name;
    EXPECT_FALSE(error.localizedDescription().empty()) << each.name;
  }
  // Huge and numerous ancillary chunks are dropped, not a failure.
  Bytes text{'C', 'o', 'm', 'm', 'e', 'n', 't', 0};
  text.resize(text.size() + 3 * 1024 * 1024, 'x');
  std::vector<Chunk> chunks{{"tEXt", text}, {"prVt", Bytes(1000, 7)}};
  for (int i = 0; i < 500; ++i)
    chunks.push_back({"tEXt", Bytes{'k', 0, 'v'}});
  const auto image = decode(buildPNG(1, 1, 8, 6, {0, 10, 20, 30, 255}, chunks));
  ASSERT_TRUE(image);
  EXPECT_EQ(pixelAt(*image, 0, 0), (std::vector<int>{10, 20, 30, 255}));

  // The header peek reads the header alone and refuses illegal ones.
  Bytes headerOnly = readBytes(kSuite + "basi4a16.png");
  headerOnly.resize(33);
  const auto header = peekPNGHeader(headerOnly, nullptr);
  ASSERT_TRUE(header);
  EXPECT_EQ(std::tuple(header->width, header->height, header->bitDepth, header->colorType,
                       header->interlaced, header->pixelCount()),
            std::tuple(32u, 32u, 16, 4, true, std::uint64_t{1024}));
  EXPECT_FALSE(peekPNGHeader(buildPNG(0, 5, 8, 6, {}), nullptr));
  EXPECT_FALSE(peekPNGHeader(buildPNG(5, 5, 16, 3, {}), nullptr));
}

// Every premultiplied value goes through the in-memory destination and back;
// half-transparent red (128, 0, 0, 128) is stored as straight (255, 0, 0, 128)
// and decodes as a hand-built file of those samples does; pngcheck accepts it.
TEST(PNGEncodeTest, TheDestinationWritesOnePNGThatRoundTripsAndPngcheckAccepts) {
  Image image{256, 256, {}};
  for (int alpha = 0; alpha < 256; ++alpha) {
    for (int value = 0; value < 256; ++value) {
      const auto v = static_cast<std::uint8_t>(std::min(value, alpha));
      image.pixels.insert(image.pixels.end(),
                          {v, static_cast<std::uint8_t>(alpha - v),
                           static_cast<std::uint8_t>(v / 2), static_cast<std::uint8_t>(alpha)});
    }
  }
  Bytes data;
  EXPECT_FALSE(PVImageDestinationCreateWithData(&data, "public.jpeg", 1));
  EXPECT_FALSE(PVImageDestinationCreateWithData(&data, kImageTypePNG, 2));
  data = {1, 2, 3};  // replaced, not appended to
  auto destination = PVImageDestinationCreateWithData(&data, kImageTypePNG, 1);
  ASSERT_TRUE(destination);
  PVImageDestinationAddImage(*destination, image);
  PVImageDestinationAddImage(*destination, uniformImage(8, 8, 1, 1, 1));  // beyond the count
  ASSERT_TRUE(PVImageDestinationFinalize(*destination));
  const Bytes first = data;
  EXPECT_FALSE(PVImageDestinationFinalize(*destination));  // once only
  EXPECT_EQ(data, first);
  const auto decoded = decode(data);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(std::tuple(decoded->width, decoded->height), std::tuple(256u, 256u));
  EXPECT_TRUE(decoded->pixels == image.pixels);
  testing_support::TemporaryDirectory directory;
  writeBytes(directory / "Icon.png", data);
  EXPECT_EQ(runPngcheck(directory / "Icon.png"), 0);
  data[data.size() / 2] ^= 0x01;  // the checker notices damage, so its approval means something
  writeBytes(directory / "damaged.png", data);
  EXPECT_NE(runPngcheck(directory / "damaged.png"), 0);

  const auto ours = decode(*encodePNG(Image{1, 1, {128, 0, 0, 128}}, nullptr));
  const auto reference = decode(buildPNG(1, 1, 8, 6, {0, 255, 0, 0, 128}));
  ASSERT_TRUE(ours && reference);
  EXPECT_EQ(ours->pixels, reference->pixels);
  for (const Image& malformed : {Image{0, 0, {}}, Image{2, 2, Bytes(15, 0)}, Image{0, 4, Bytes{}},
                                 Image{1, 1, Bytes(8, 0)}}) {
    CVError error;
    EXPECT_FALSE(encodePNG(malformed, &error));
    EXPECT_EQ(std::pair(error.domain(), error.code()),
              std::pair(std::string(kPNGErrorDomain), kPNGEncodeError));
  }
  // Without an image, or with a malformed one, finalising fails and empties
  // the buffer.
  for (const bool withImage : {false, true}) {
    Bytes buffer = {1, 2, 3};
    auto failing = PVImageDestinationCreateWithData(&buffer, kImageTypePNG, 1);
    ASSERT_TRUE(failing);
    if (withImage) PVImageDestinationAddImage(*failing, Image{10, 10, Bytes(10)});
    EXPECT_FALSE(PVImageDestinationFinalize(*failing));
    EXPECT_TRUE(buffer.empty());
  }
}

}  // namespace
