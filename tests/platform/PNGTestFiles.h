// PNG files for the image tests, built byte by byte without libpng (stored
// deflate blocks, hand-made CRCs), so that the decoder is checked against
// input it did not write; and the independent checker pngcheck.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Image.h"

namespace png_test {

using Bytes = std::vector<std::uint8_t>;

struct Chunk {
  std::string type;  // four letters
  Bytes data;
};

// A complete PNG: signature, IHDR, `extraChunks`, one IDAT holding `scanlines`
// (each row already prefixed with its filter byte) in a zlib stream of stored
// blocks, IEND.
Bytes buildPNG(std::uint32_t width, std::uint32_t height, std::uint8_t bitDepth,
               std::uint8_t colorType, const Bytes& scanlines,
               const std::vector<Chunk>& extraChunks = {});

// A PNG of one opaque colour.
Bytes uniformPNG(std::uint32_t width, std::uint32_t height, std::uint8_t red, std::uint8_t green,
                 std::uint8_t blue);

// A premultiplied image of one colour.
platform::Image uniformImage(std::uint32_t width, std::uint32_t height, std::uint8_t red,
                             std::uint8_t green, std::uint8_t blue, std::uint8_t alpha = 255);

// The pixel at (x, y) of `image`, as four bytes.
std::vector<int> pixelAt(const platform::Image& image, std::uint32_t x, std::uint32_t y);

// Whether every pixel of `image` equals {red, green, blue, alpha}.
bool isUniform(const platform::Image& image, std::uint8_t red, std::uint8_t green,
               std::uint8_t blue, std::uint8_t alpha);

Bytes readBytes(const std::string& path);
void writeBytes(const std::string& path, std::span<const std::uint8_t> bytes);

// Runs `pngcheck -q <path>` and returns its exit status (-1 when it could not run).
int runPngcheck(const std::string& path);

}  // namespace png_test
