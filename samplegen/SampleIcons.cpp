#include "samplegen/SampleIcons.h"

#include <array>
#include <string>

#include "samplegen/SampleFileWriter.h"

namespace samplegen {
namespace {

struct Color {
  std::uint8_t r, g, b;
};
struct Palette {
  Color top, bottom, glyph;
};
constexpr std::array<Palette, 12> kPalettes = {{
    {{0x1E, 0x88, 0xE5}, {0x0D, 0x47, 0xA1}, {0xFF, 0xFF, 0xFF}},
    {{0x43, 0xA0, 0x47}, {0x1B, 0x5E, 0x20}, {0xF1, 0xF8, 0xE9}},
    {{0xFB, 0x8C, 0x00}, {0xE6, 0x51, 0x00}, {0xFF, 0xF3, 0xE0}},
    {{0x8E, 0x24, 0xAA}, {0x4A, 0x14, 0x8C}, {0xF3, 0xE5, 0xF5}},
    {{0xE5, 0x39, 0x35}, {0xB7, 0x1C, 0x1C}, {0xFF, 0xEB, 0xEE}},
    {{0x00, 0xAC, 0xC1}, {0x00, 0x60, 0x64}, {0xE0, 0xF7, 0xFA}},
    {{0xFD, 0xD8, 0x35}, {0xF5, 0x7F, 0x17}, {0x3E, 0x27, 0x23}},
    {{0x54, 0x6E, 0x7A}, {0x26, 0x32, 0x38}, {0xEC, 0xEF, 0xF1}},
    {{0xD8, 0x1B, 0x60}, {0x88, 0x0E, 0x4F}, {0xFC, 0xE4, 0xEC}},
    {{0x7C, 0xB3, 0x42}, {0x33, 0x69, 0x1E}, {0xFF, 0xFF, 0xFF}},
    {{0x5C, 0x6B, 0xC0}, {0x1A, 0x23, 0x7E}, {0xFF, 0xD5, 0x4F}},
    {{0x6D, 0x4C, 0x41}, {0x3E, 0x27, 0x23}, {0xFF, 0xCC, 0x80}},
}};

std::uint8_t mix(std::uint8_t from, std::uint8_t to, std::uint32_t step, std::uint32_t steps) {
  return static_cast<std::uint8_t>((from * (steps - step) + to * step) / steps);
}

// Whether (x, y) lies inside a square of `side` with corners of `radius`.
bool insideRoundedSquare(std::int64_t x, std::int64_t y, std::int64_t side, std::int64_t radius) {
  const std::int64_t cx = x < radius ? radius : (x >= side - radius ? side - radius - 1 : x);
  const std::int64_t cy = y < radius ? radius : (y >= side - radius ? side - radius - 1 : y);
  const std::int64_t dx = x - cx;
  const std::int64_t dy = y - cy;
  return dx * dx + dy * dy <= radius * radius;
}

}  // namespace

std::uint32_t SampleIcons::paletteCount() {
  return static_cast<std::uint32_t>(kPalettes.size());
}

platform::Image SampleIcons::draw(std::uint32_t variant, std::uint32_t side) {
  const Palette& palette = kPalettes[variant % kPalettes.size()];
  platform::Image image;
  image.width = side;
  image.height = side;
  image.pixels.assign(std::size_t{side} * side * 4, 0);  // transparent corners
  const std::int64_t size = side;
  const std::int64_t radius = size * 2 / 9;
  const std::int64_t centre2 = size;          // twice the centre, to stay in integers
  const std::int64_t glyph2 = size * 6 / 10;  // twice the glyph's radius
  for (std::uint32_t y = 0; y < side; ++y) {
    const Color row{mix(palette.top.r, palette.bottom.r, y, side),
                    mix(palette.top.g, palette.bottom.g, y, side),
                    mix(palette.top.b, palette.bottom.b, y, side)};
    for (std::uint32_t x = 0; x < side; ++x) {
      if (!insideRoundedSquare(x, y, size, radius)) continue;
      const std::int64_t dx = 2 * std::int64_t{x} + 1 - centre2;
      const std::int64_t dy = 2 * std::int64_t{y} + 1 - centre2;
      const Color color = dx * dx + dy * dy <= glyph2 * glyph2 ? palette.glyph : row;
      std::uint8_t* pixel = &image.pixels[(std::size_t{y} * side + x) * 4];
      pixel[0] = color.r;
      pixel[1] = color.g;
      pixel[2] = color.b;
      pixel[3] = 0xFF;  // opaque: premultiplied equals straight
    }
  }
  return image;
}

const std::vector<std::uint8_t>* SampleIcons::png(std::uint32_t variant, std::uint32_t side,
                                                  CVError* error) {
  const auto key = std::make_pair(variant % paletteCount(), side);
  const std::lock_guard lock(mutex_);
  if (const auto found = cache_.find(key); found != cache_.end()) return &found->second;

  std::vector<std::uint8_t> bytes;
  auto destination = platform::PVImageDestinationCreateWithData(&bytes, platform::kImageTypePNG, 1);
  bool encoded = false;
  if (destination) {
    platform::PVImageDestinationAddImage(*destination, draw(key.first, side));
    encoded = platform::PVImageDestinationFinalize(*destination);
  }
  if (!encoded) {
    CVSetError(error,
               sampleGenError(kSampleGenEncodingError, "The image encoder could not make a " +
                                                           std::to_string(side) + " pixel icon"));
    return nullptr;
  }
  return &cache_.emplace(key, std::move(bytes)).first->second;
}

}  // namespace samplegen
