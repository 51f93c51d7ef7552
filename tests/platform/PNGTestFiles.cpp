#include "tests/platform/PNGTestFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <iterator>

#include "tests/support/ChildProgram.h"

namespace png_test {
namespace {

std::uint32_t crc32Of(std::span<const std::uint8_t> bytes, std::uint32_t crc = 0xffffffffu) {
  static const std::array<std::uint32_t, 256> table = [] {
    std::array<std::uint32_t, 256> entries{};
    for (std::uint32_t n = 0; n < 256; ++n) {
      std::uint32_t c = n;
      for (int k = 0; k < 8; ++k)
        c = (c & 1) ? 0xedb88320u ^ (c >> 1) : c >> 1;
      entries[n] = c;
    }
    return entries;
  }();
  for (std::uint8_t byte : bytes)
    crc = table[(crc ^ byte) & 0xff] ^ (crc >> 8);
  return crc;
}

void appendBigEndian32(Bytes& out, std::uint32_t value) {
  out.push_back(static_cast<std::uint8_t>(value >> 24));
  out.push_back(static_cast<std::uint8_t>(value >> 16));
  out.push_back(static_cast<std::uint8_t>(value >> 8));
  out.push_back(static_cast<std::uint8_t>(value));
}

// A zlib stream of stored (uncompressed) deflate blocks.
Bytes storedZlib(const Bytes& data) {
  Bytes out = {0x78, 0x01};
  std::size_t offset = 0;
  do {
    const std::size_t length = std::min<std::size_t>(data.size() - offset, 65535);
    const bool last = offset + length == data.size();
    out.push_back(last ? 1 : 0);
    out.push_back(static_cast<std::uint8_t>(length));
    out.push_back(static_cast<std::uint8_t>(length >> 8));
    out.push_back(static_cast<std::uint8_t>(~length));
    out.push_back(static_cast<std::uint8_t>(~length >> 8));
    out.insert(out.end(), data.begin() + static_cast<std::ptrdiff_t>(offset),
               data.begin() + static_cast<std::ptrdiff_t>(offset + length));
    offset += length;
  } while (offset < data.size());
  std::uint32_t a = 1, b = 0;
  for (std::uint8_t byte : data) {
    a = (a + byte) % 65521;
    b = (b + a) % 65521;
  }
  appendBigEndian32(out, (b << 16) | a);
  return out;
}

Bytes chunkBytes(std::string_view type, std::span<const std::uint8_t> data) {
  Bytes out;
  appendBigEndian32(out, static_cast<std::uint32_t>(data.size()));
  Bytes typed(type.begin(), type.end());
  typed.insert(typed.end(), data.begin(), data.end());
  out.insert(out.end(), typed.begin(), typed.end());
  appendBigEndian32(out, crc32Of(typed) ^ 0xffffffffu);
  return out;
}

}  // namespace

Bytes buildPNG(std::uint32_t width, std::uint32_t height, std::uint8_t bitDepth,
               std::uint8_t colorType, const Bytes& scanlines,
               const std::vector<Chunk>& extraChunks) {
  Bytes out = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  Bytes header;
  appendBigEndian32(header, width);
  appendBigEndian32(header, height);
  header.insert(header.end(), {bitDepth, colorType, 0, 0, 0});
  const auto append = [&out](const Bytes& bytes) {
    out.insert(out.end(), bytes.begin(), bytes.end());
  };
  append(chunkBytes("IHDR", header));
  for (const Chunk& chunk : extraChunks)
    append(chunkBytes(chunk.type, chunk.data));
  append(chunkBytes("IDAT", storedZlib(scanlines)));
  append(chunkBytes("IEND", {}));
  return out;
}

Bytes uniformPNG(std::uint32_t width, std::uint32_t height, std::uint8_t red, std::uint8_t green,
                 std::uint8_t blue) {
  Bytes scanlines;
  for (std::uint32_t y = 0; y < height; ++y) {
    scanlines.push_back(0);
    for (std::uint32_t x = 0; x < width; ++x)
      scanlines.insert(scanlines.end(), {red, green, blue});
  }
  return buildPNG(width, height, 8, 2, scanlines);
}

platform::Image uniformImage(std::uint32_t width, std::uint32_t height, std::uint8_t red,
                             std::uint8_t green, std::uint8_t blue, std::uint8_t alpha) {
  platform::Image image{width, height, {}};
  for (std::size_t i = 0; i < std::size_t{width} * height; ++i) {
    image.pixels.insert(image.pixels.end(), {red, green, blue, alpha});
  }
  return image;
}

std::vector<int> pixelAt(const platform::Image& image, std::uint32_t x, std::uint32_t y) {
  const std::size_t offset = (std::size_t{y} * image.width + x) * 4;
  return {image.pixels[offset], image.pixels[offset + 1], image.pixels[offset + 2],
          image.pixels[offset + 3]};
}

bool isUniform(const platform::Image& image, std::uint8_t red, std::uint8_t green,
               std::uint8_t blue, std::uint8_t alpha) {
  if (image.pixels.size() != std::size_t{image.width} * image.height * 4) return false;
  for (std::size_t offset = 0; offset < image.pixels.size(); offset += 4) {
    if (image.pixels[offset] != red || image.pixels[offset + 1] != green ||
        image.pixels[offset + 2] != blue || image.pixels[offset + 3] != alpha) {
      return false;
    }
  }
  return true;
}

Bytes readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << "cannot read " << path;
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeBytes(const std::string& path, std::span<const std::uint8_t> bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  ASSERT_TRUE(out.good()) << "cannot write " << path;
}

int runPngcheck(const std::string& path) {
  return testing_support::runProgram("pngcheck", {"-q", path}).exitCode;
}

}  // namespace png_test
