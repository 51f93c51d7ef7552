// Images: the PNG codec (the transforms we ask for, every form to
// premultiplied RGBA; the corrupt and hostile files we must refuse; the files
// we write, accepted by the independent checker pngcheck), area-averaging
// scaling, and the home-screen icon a bundle gets.
//
// Input PNG files are built chunk by chunk without libpng, so that the
// decoder is checked against input it did not write.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "platform/Bundle.h"
#include "platform/IconService.h"
#include "platform/ImageScaling.h"
#include "platform/PNGCodec.h"
#include "platform/PropertyList.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace platform;
using namespace testing_support;
using Bytes = std::vector<std::uint8_t>;

const std::string kSuite = MAVREL_TESTDATA_DIR "/png/pngsuite/";

void appendBigEndian32(Bytes& out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8)
    out.push_back(static_cast<std::uint8_t>(value >> shift));
}

// Length, type, data, and the CRC-32 of type and data.
void appendChunk(Bytes& out, std::string_view type, const Bytes& data) {
  appendBigEndian32(out, static_cast<std::uint32_t>(data.size()));
  const std::size_t start = out.size();
  out.insert(out.end(), type.begin(), type.end());
  out.insert(out.end(), data.begin(), data.end());
  appendBigEndian32(out, crc32(0, out.data() + start, out.size() - start));
}

// A complete PNG: signature, IHDR, `extraChunks`, one IDAT holding `scanlines`
// (each row already prefixed with its filter byte), IEND.
Bytes buildPNG(std::uint32_t width, std::uint32_t height, std::uint8_t bitDepth,
               std::uint8_t colorType, const Bytes& scanlines,
               const std::vector<std::pair<std::string, Bytes>>& extraChunks = {}) {
  Bytes out = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  Bytes header;
  appendBigEndian32(header, width);
  appendBigEndian32(header, height);
  header.insert(header.end(), {bitDepth, colorType, 0, 0, 0});
  appendChunk(out, "IHDR", header);
  for (const auto& [type, data] : extraChunks)
    appendChunk(out, type, data);
  Bytes zlib(compressBound(scanlines.size()));
  uLongf size = zlib.size();
  EXPECT_EQ(compress(zlib.data(), &size, scanlines.data(), scanlines.size()), Z_OK);
  zlib.resize(size);
  appendChunk(out, "IDAT", zlib);
  appendChunk(out, "IEND", {});
  return out;
}

// A file whose header claims `side` pixels square, with no image data.
Bytes headerOnlyPNG(std::uint32_t side) {
  return buildPNG(side, side, 8, 2, Bytes{});
}

Image uniformImage(std::uint32_t width, std::uint32_t height, std::uint8_t red, std::uint8_t green,
                   std::uint8_t blue, std::uint8_t alpha = 255) {
  Image image{width, height, {}};
  for (std::size_t i = 0; i < std::size_t{width} * height; ++i)
    image.pixels.insert(image.pixels.end(), {red, green, blue, alpha});
  return image;
}

bool isUniform(const Image& image, std::uint8_t red, std::uint8_t green, std::uint8_t blue,
               std::uint8_t alpha) {
  return image.pixels == uniformImage(image.width, image.height, red, green, blue, alpha).pixels;
}

Bytes readBytes(const std::string& path) {
  const std::string text = readFile(path);
  return Bytes(text.begin(), text.end());
}
void writeBytes(const std::string& path, const Bytes& bytes) {
  writeFile(path, std::string(bytes.begin(), bytes.end()));
}

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
  EXPECT_EQ(wide->pixels, (Bytes{255, 128, 1, 255}));
  EXPECT_EQ(half->pixels, (Bytes{128, 0, 0, 128}));
}

TEST(PNGDecodeTest, CorruptAndHostileFilesAreRefusedByKind) {
  const Bytes whole = readBytes(kSuite + "basn2c08.png");
  const PNGDecodeLimits narrow{.maxWidth = 16, .maxHeight = 64};
  const std::vector<std::tuple<const char*, Bytes, long, PNGDecodeLimits>> cases = {
      {"empty", Bytes{}, kPNGNotPNGError, {}},
      {"signature cut", Bytes{0x89, 'P', 'N', 'G'}, kPNGNotPNGError, {}},
      {"text", Bytes(100, 'a'), kPNGNotPNGError, {}},
      {"cut in the data",
       Bytes(whole.begin(), whole.begin() + whole.size() / 2),
       kPNGCorruptError,
       {}},
      {"cut before the end", Bytes(whole.begin(), whole.end() - 1), kPNGCorruptError, {}},
      {"beyond the limits", readBytes(kSuite + "basn6a08.png"), kPNGTooLargeError, narrow},
      {"largest legal size",
       buildPNG(0x7fffffff, 0x7fffffff, 8, 6, Bytes{0, 1, 2, 3}),
       kPNGTooLargeError,
       {}},
      {"too little data", buildPNG(4096, 4096, 8, 6, Bytes{0, 1, 2, 3}), kPNGCorruptError, {}},
  };
  for (const auto& [name, bytes, code, limits] : cases) {
    CVError error;
    EXPECT_FALSE(decode(bytes, &error, limits)) << name;
    EXPECT_EQ(error.domain(), kPNGErrorDomain) << name;
    EXPECT_EQ(error.code(), code) << name;
    // The description gives the reason after the kind, libpng's words included.
    EXPECT_FALSE(error.localizedDescription().ends_with(": ")) << error.localizedDescription();
  }
  // Huge and numerous ancillary chunks are dropped, not a failure.
  Bytes text{'C', 'o', 'm', 'm', 'e', 'n', 't', 0};
  text.resize(text.size() + 3 * 1024 * 1024, 'x');
  std::vector<std::pair<std::string, Bytes>> chunks{{"tEXt", text}, {"prVt", Bytes(1000, 7)}};
  chunks.resize(chunks.size() + 500, {"tEXt", Bytes{'k', 0, 'v'}});
  const auto image = decode(buildPNG(1, 1, 8, 6, {0, 10, 20, 30, 255}, chunks));
  ASSERT_TRUE(image);
  EXPECT_EQ(image->pixels, (Bytes{10, 20, 30, 255}));

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

// Every premultiplied value goes through the in-memory destination and back
// (decoding premultiplies, so the file holds straight samples); pngcheck
// accepts the file.
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
  TemporaryDirectory directory;
  writeBytes(directory / "Icon.png", data);
  EXPECT_EQ(runProgram("pngcheck", {"-q", directory / "Icon.png"}).exitCode, 0);

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

// Uniform colour stays, patterns average or survive as geometry says, and
// edges blend by the area they cover.
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
  const Bytes white{255, 255, 255, 255}, black{0, 0, 0, 255};
  const auto fine = scaleImageByAreaAveraging(
      patterned(240, 240, [&](auto x, auto y) { return (x + y) % 2 ? black : white; }), 120, 120);
  ASSERT_TRUE(fine);
  EXPECT_TRUE(isUniform(*fine, 128, 128, 128, 255));
  // The same size is the identity.
  std::mt19937 random(3);
  const Image source = patterned(60, 60, [&random](std::uint32_t, std::uint32_t) {
    const auto alpha = static_cast<std::uint8_t>(random());
    return Bytes{static_cast<std::uint8_t>(random() % (alpha + 1u)),
                 static_cast<std::uint8_t>(random() % (alpha + 1u)),
                 static_cast<std::uint8_t>(random() % (alpha + 1u)), alpha};
  });
  EXPECT_TRUE(scaleImageByAreaAveraging(source, 60, 60)->pixels == source.pixels);
  // Red, blue, red to four: pixel 1 spans source [0.75, 1.5), a third red.
  const auto four = scaleImageByAreaAveraging(
      Image{3, 1, {255, 0, 0, 255, 0, 0, 255, 255, 255, 0, 0, 255}}, 4, 1);
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

// The home-screen icon of a bundle: which file is chosen, what is refused, and
// that the result is a 120 x 120 premultiplied image.
class IconServiceTest : public ::testing::Test {
 protected:
  void writeInfoPlist(const CVDictionary& info) {
    writeFile(bundlePath_ + "/Info.plist", encodeXMLPropertyList(CVValue(info)));
  }
  std::optional<Image> icon() {
    const auto bundle = Bundle::create(CVURL::fileURLWithPath(bundlePath_, true));
    EXPECT_TRUE(bundle);
    if (!bundle) return std::nullopt;
    std::optional<Image> image = defaultIconService().homeScreenIconForBundle(*bundle);
    if (image) {
      EXPECT_EQ(std::pair(image->width, image->height),
                std::pair(kHomeScreenIconSide, kHomeScreenIconSide));
    }
    return image;
  }
  TemporaryDirectory directory_;
  std::string bundlePath_ = directory_ / "App.app";
};

// A square PNG of one grey level.
Bytes grey(std::uint32_t width, std::uint8_t level, std::uint32_t height = 0) {
  return *encodePNG(uniformImage(width, height == 0 ? width : height, level, level, level),
                    nullptr);
}

TEST_F(IconServiceTest, EachBundleGetsTheIconItNamesOrTheFallback) {
  Bytes padded = grey(120, 1);  // decoders ignore bytes after IEND
  padded.resize(9 * 1024 * 1024, 0);
  const CVDictionary none;  // no Info.plist
  const auto file = [](CVValue name) { return CVDictionary{{"QXBundleIconFile", name}}; };
  const auto files = [](CVArray names) { return CVDictionary{{"QXBundleIconFiles", names}}; };
  // (case, Info.plist, files, the grey level of the icon chosen or 0 for none)
  using Case =
      std::tuple<const char*, CVDictionary, std::vector<std::pair<std::string, Bytes>>, int>;
  const std::vector<Case> cases = {
      {"string key", file("App"), {{"App.png", grey(120, 1)}, {"Icon.png", grey(120, 2)}}, 1},
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
      {"fallback for missing named icons", file("Gone"), {{"Icon.png", grey(120, 11)}}, 11},
      {"fallback when the named icon does not decode",
       file("Broken"),
       {{"Broken.png", headerOnlyPNG(120)}, {"Icon.png", grey(120, 12)}},
       12},
      {"scaled down", file("Big"), {{"Big.png", grey(300, 13, 200)}}, 13},
      {"no icon", none, {}, 0},
      {"not a PNG", none, {{"Icon.png", Bytes(500, 'x')}}, 0},
      {"corrupt PNG", none, {{"Icon.png", readBytes(kSuite + "xcsn0g01.png")}}, 0},
      {"oversized file", file("Padded.png"), {{"Padded.png", padded}}, 0},
      {"dimensions beyond the icon limit", none, {{"Icon.png", headerOnlyPNG(5000)}}, 0},
  };
  for (const auto& [name, info, icons, level] : cases) {
    SCOPED_TRACE(name);
    std::filesystem::remove_all(bundlePath_);
    makeDirectories(bundlePath_);
    if (!info.empty()) writeInfoPlist(info);
    for (const auto& [iconName, bytes] : icons)
      writeBytes(bundlePath_ + "/" + iconName, bytes);
    const std::optional<Image> image = icon();
    EXPECT_EQ(image.has_value(), level != 0);
    if (image) {
      const auto value = static_cast<std::uint8_t>(level);
      EXPECT_TRUE(isUniform(*image, value, value, value, 255));
    }
  }
}

TEST_F(IconServiceTest, UndecodableIconsAreLoggedAndNothingOutsideTheBundleIsRead) {
  CapturedLog log(installerLog(), kLogLevelDebug);
  writeBytes(bundlePath_ + "/Icon.png", headerOnlyPNG(120));
  EXPECT_FALSE(icon());
  EXPECT_TRUE(log.containsFragment(bundlePath_ + "/Icon.png not decoded: corrupt PNG"))
      << log.dump();
  std::filesystem::remove(bundlePath_ + "/Icon.png");
  makeDirectories(bundlePath_ + "/Icon.png");
  EXPECT_FALSE(icon()) << "directory";
  // Links are refused, and names cannot leave the bundle.
  const std::string outside = directory_ / "outside.png";
  writeBytes(outside, grey(120, 200));
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
