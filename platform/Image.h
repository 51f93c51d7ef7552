// Decoded images and the in-memory image encoder.
//
// An Image is 8-bit RGBA, rows top to bottom, with premultiplied alpha.
//
// The encoder follows the shape the migrator uses: a destination over a
// growable byte buffer for one type and a fixed image count, to which images
// are added before it is finalised. Only "public.png" with a count of one is
// supported; any other type or count gives no destination.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace platform {

struct Image {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::vector<std::uint8_t> pixels;  // width * height * 4 bytes, premultiplied RGBA
};

inline constexpr std::string_view kImageTypePNG = "public.png";

class ImageDestination;

// A destination writing into `data` (which must outlive it); null for an
// unsupported type or a count other than one.
std::unique_ptr<ImageDestination> PVImageDestinationCreateWithData(std::vector<std::uint8_t>* data,
                                                                   std::string_view type,
                                                                   std::size_t count);
// Adds an image; images beyond the destination's count are ignored.
void PVImageDestinationAddImage(ImageDestination& destination, const Image& image);
// Encodes the added images into the data buffer. False when the count of
// added images differs from the destination's count or encoding fails; the
// buffer then holds nothing useful.
bool PVImageDestinationFinalize(ImageDestination& destination);

}  // namespace platform
