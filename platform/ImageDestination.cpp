#include <new>
#include <utility>

#include "platform/Image.h"
#include "platform/PNGCodec.h"

namespace platform {

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
  std::optional<std::vector<std::uint8_t>> encoded =
      encodePNG(destination.images_.front(), nullptr);
  destination.images_.clear();
  if (!encoded) return false;
  data = std::move(*encoded);
  return true;
}

}  // namespace platform
