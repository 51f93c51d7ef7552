// SampleIcons: PNG icons and artwork for sample bundles, encoded through the
// platform's image destination.
//
// An icon is a rounded square with a vertical gradient and a round glyph, in
// one of a few palettes. Every (palette, side) pair is encoded once and kept,
// so thousands of bundles cost a few dozen encodings.
//
// Thread safety: png() may be called from several threads at once.
//
// Error contract: png() returns null and stores a SampleGen-domain record when
// the platform's encoder refuses the image.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/Error.h"
#include "platform/Image.h"

namespace samplegen {

class SampleIcons {
 public:
  // The PNG bytes of icon `variant` (any number; taken modulo the palettes)
  // at `side` pixels square. The bytes stay valid as long as this object.
  const std::vector<std::uint8_t>* png(std::uint32_t variant, std::uint32_t side, CVError* error);

  // The pixels of icon `variant` at `side` pixels square (premultiplied RGBA).
  static platform::Image draw(std::uint32_t variant, std::uint32_t side);
  static std::uint32_t paletteCount();

 private:
  std::mutex mutex_;
  // Elements of a map never move, so handed-out pointers stay valid.
  std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<std::uint8_t>> cache_;
};

}  // namespace samplegen
