// Resampling of premultiplied RGBA images by area averaging.
//
// Each destination pixel is the mean of the source area it covers, every
// source pixel weighted by how much of it lies inside. Shrinking averages;
// enlarging spreads each source pixel over the destination pixels it covers
// (an exact multiple replicates it). Because the samples are premultiplied, a
// transparent pixel adds nothing to its neighbours' colour.
//
// Error contract: nullopt when the source is empty or malformed (a pixel
// buffer that is not width * height * 4 bytes), when a target side is zero,
// or when memory for the result cannot be had. Nothing throws.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/Image.h"

namespace platform {

std::optional<Image> scaleImageByAreaAveraging(const Image& source, std::uint32_t width,
                                               std::uint32_t height);

}  // namespace platform
