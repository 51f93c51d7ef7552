#include "platform/ImageScaling.h"

#include <algorithm>
#include <new>
#include <vector>

namespace platform {
namespace {

// Sides beyond this are refused, which keeps every weighted sum below 2^64.
constexpr std::uint32_t kLargestSide = 1u << 24;

// The source pixels one destination pixel covers along one axis, with their
// weights. Positions are measured in units of 1/(source * destination): source
// pixel i spans [i * destination, (i + 1) * destination) and destination pixel
// d spans [d * source, (d + 1) * source), so every weight is a whole number and
// the weights of one destination pixel add up to `source`.
struct AxisWeights {
  std::vector<std::size_t> first;  // per destination pixel: its first entry
  std::vector<std::uint32_t> sourceIndex;
  std::vector<std::uint64_t> weight;
};

AxisWeights weightsForAxis(std::uint32_t sourceCount, std::uint32_t destinationCount) {
  AxisWeights axis;
  axis.first.reserve(destinationCount + 1);
  for (std::uint32_t d = 0; d < destinationCount; ++d) {
    axis.first.push_back(axis.sourceIndex.size());
    const std::uint64_t start = std::uint64_t{d} * sourceCount;
    const std::uint64_t end = start + sourceCount;
    const std::uint64_t firstSource = start / destinationCount;
    const std::uint64_t lastSource = (end - 1) / destinationCount;
    for (std::uint64_t i = firstSource; i <= lastSource; ++i) {
      const std::uint64_t pixelStart = i * destinationCount;
      const std::uint64_t pixelEnd = pixelStart + destinationCount;
      axis.sourceIndex.push_back(static_cast<std::uint32_t>(i));
      axis.weight.push_back(std::min(end, pixelEnd) - std::max(start, pixelStart));
    }
  }
  axis.first.push_back(axis.sourceIndex.size());
  return axis;
}

Image resample(const Image& source, std::uint32_t width, std::uint32_t height) {
  const AxisWeights columns = weightsForAxis(source.width, width);
  const AxisWeights rows = weightsForAxis(source.height, height);

  // Horizontal pass: each source row becomes `width` weighted sums per channel.
  std::vector<std::uint64_t> rowSums(std::size_t{width} * source.height * 4);
  for (std::uint32_t y = 0; y < source.height; ++y) {
    const std::uint8_t* sourceRow = source.pixels.data() + std::size_t{y} * source.width * 4;
    std::uint64_t* sums = rowSums.data() + std::size_t{y} * width * 4;
    for (std::uint32_t x = 0; x < width; ++x) {
      for (std::size_t entry = columns.first[x]; entry < columns.first[x + 1]; ++entry) {
        const std::uint8_t* pixel = sourceRow + std::size_t{columns.sourceIndex[entry]} * 4;
        for (int channel = 0; channel < 4; ++channel) {
          sums[std::size_t{x} * 4 + channel] += pixel[channel] * columns.weight[entry];
        }
      }
    }
  }

  // Vertical pass, then the division by the area (source.width * source.height
  // units) with rounding to nearest.
  const std::uint64_t area = std::uint64_t{source.width} * source.height;
  Image result;
  result.width = width;
  result.height = height;
  result.pixels.resize(std::size_t{width} * height * 4);
  std::vector<std::uint64_t> accumulator(std::size_t{width} * 4);
  for (std::uint32_t y = 0; y < height; ++y) {
    std::fill(accumulator.begin(), accumulator.end(), 0);
    for (std::size_t entry = rows.first[y]; entry < rows.first[y + 1]; ++entry) {
      const std::uint64_t* sums = rowSums.data() + std::size_t{rows.sourceIndex[entry]} * width * 4;
      for (std::size_t i = 0; i < accumulator.size(); ++i)
        accumulator[i] += sums[i] * rows.weight[entry];
    }
    std::uint8_t* out = result.pixels.data() + std::size_t{y} * width * 4;
    for (std::size_t i = 0; i < accumulator.size(); ++i) {
      out[i] = static_cast<std::uint8_t>((accumulator[i] + area / 2) / area);
    }
  }
  return result;
}

}  // namespace

std::optional<Image> scaleImageByAreaAveraging(const Image& source, std::uint32_t width,
                                               std::uint32_t height) {
  if (source.width == 0 || source.height == 0 || width == 0 || height == 0) return std::nullopt;
  if (source.width > kLargestSide || source.height > kLargestSide || width > kLargestSide ||
      height > kLargestSide) {
    return std::nullopt;
  }
  if (source.pixels.size() != std::uint64_t{source.width} * source.height * 4) return std::nullopt;
  try {
    return resample(source, width, height);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace platform
