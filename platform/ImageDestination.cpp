#include <cstring>
#include <new>
#include <utility>

#include "platform/Image.h"
#include "platform/PNGCodec.h"
#include "platform/RecentResults.h"

namespace platform {
namespace {

// PNG encodings of recent images: the same icon is added again and again
// when applications share it, and is encoded once.
RecentResults<std::vector<std::uint8_t>>& recentEncodings() {
  static RecentResults<std::vector<std::uint8_t>>* const encodings =
      new RecentResults<std::vector<std::uint8_t>>(16);
  return *encodings;
}

// What identifies an image for its encoding: its sides, then its pixels.
std::vector<std::uint8_t> imageKey(const Image& image) {
  std::vector<std::uint8_t> key(8 + image.pixels.size());
  std::memcpy(key.data(), &image.width, 4);
  std::memcpy(key.data() + 4, &image.height, 4);
  if (!image.pixels.empty()) std::memcpy(key.data() + 8, image.pixels.data(), image.pixels.size());
  return key;
}

}  // namespace

std::unique_ptr<ImageDestination> PVImageDestinationCreateWithData(std::vector<std::uint8_t>* data,
                                                                   std::string_view type,
                                                                   std::size_t count) {
  if (data == nullptr || type != kImageTypePNG || count != 1) return nullptr;
  return std::unique_ptr<ImageDestination>(new (std::nothrow) ImageDestination(data, count));
}

void PVImageDestinationAddImage(ImageDestination& destination, const Image& image) {
  if (destination.finalized_ || destination.images_.size() >= destination.count_) return;
  try {
    destination.images_.push_back(image);
  } catch (const std::bad_alloc&) {
    // Not added: finalising then fails for want of an image.
  }
}

bool PVImageDestinationFinalize(ImageDestination& destination) {
  if (destination.finalized_) return false;
  std::vector<std::uint8_t>& data = *destination.data_;
  data.clear();
  if (destination.images_.size() != destination.count_) return false;
  destination.finalized_ = true;
  const Image& image = destination.images_.front();
  std::optional<std::vector<std::uint8_t>> encoded =
      recentEncodings().findOrMake(imageKey(image), [&image] { return encodePNG(image, nullptr); });
  destination.images_.clear();
  if (!encoded) return false;
  data = std::move(*encoded);
  return true;
}

}  // namespace platform
