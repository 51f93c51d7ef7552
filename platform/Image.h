// Decoded images and the in-memory image encoder.
//
// An Image is 8-bit RGBA, rows top to bottom, with premultiplied alpha.
//
// The encoder follows the shape the migrator uses: a destination over a
// growable byte buffer for one type and a fixed image count, to which images
// are added before it is finalised. Only "public.png" with a count of one is
// supported; any other type or count gives no destination.
//
// Error contract: creation gives null for an unsupported type, a count other
// than one or a null buffer; finalising gives false (buffer emptied) when the
// image count is short, the image is malformed (empty, or a pixel buffer that
// is not width * height * 4 bytes) or encoding fails, and false (buffer kept)
// on a second call. Nothing throws.
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

// An encoder bound to one output buffer. Made only by
// PVImageDestinationCreateWithData; used through the functions below.
class ImageDestination {
 public:
  ~ImageDestination() = default;
  ImageDestination(const ImageDestination&) = delete;
  ImageDestination& operator=(const ImageDestination&) = delete;

 private:
  ImageDestination(std::vector<std::uint8_t>* data, std::size_t count)
      : data_(data), count_(count) {}

  friend std::unique_ptr<ImageDestination> PVImageDestinationCreateWithData(
      std::vector<std::uint8_t>* data, std::string_view type, std::size_t count);
  friend void PVImageDestinationAddImage(ImageDestination& destination, const Image& image);
  friend bool PVImageDestinationFinalize(ImageDestination& destination);

  std::vector<std::uint8_t>* data_;
  std::size_t count_;
  std::vector<Image> images_;
  bool finalized_ = false;
};

// A destination writing into `data` (which must outlive it); null for an
// unsupported type, a count other than one or a null `data`.
std::unique_ptr<ImageDestination> PVImageDestinationCreateWithData(std::vector<std::uint8_t>* data,
                                                                   std::string_view type,
                                                                   std::size_t count);
// Adds an image (copied); images beyond the destination's count, and images
// added after finalising, are ignored.
void PVImageDestinationAddImage(ImageDestination& destination, const Image& image);
// Encodes the added images into the data buffer, replacing what it held. False
// when the count of added images differs from the destination's count or
// encoding fails, and the buffer is then left empty. A destination finalises
// once: a second call is false and leaves the buffer as the first one left it.
bool PVImageDestinationFinalize(ImageDestination& destination);

}  // namespace platform
