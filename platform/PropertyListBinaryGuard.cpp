#include <algorithm>
#include <optional>
#include <vector>

#include "platform/PropertyListGuard.h"

namespace platform::plist_guard {
namespace {

constexpr std::size_t kHeaderSize = 8;  // "bplist00"
constexpr std::size_t kTrailerSize = 32;

// Object markers (high nibble) of the container kinds.
constexpr std::uint8_t kArrayMarker = 0xA;
constexpr std::uint8_t kSetMarker = 0xC;
constexpr std::uint8_t kDictionaryMarker = 0xD;

std::uint64_t readBigEndian(std::span<const std::uint8_t> bytes, std::size_t offset,
                            std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i)
    value = (value << 8) | bytes[offset + i];
  return value;
}

struct Trailer {
  std::size_t offsetSize = 0;
  std::size_t referenceSize = 0;
  std::uint64_t objectCount = 0;
  std::uint64_t rootObject = 0;
  std::uint64_t offsetTable = 0;
};

// Where a container's references are.
struct References {
  std::size_t start = 0;
  std::uint64_t count = 0;  // dictionaries: keys and values together
};

class BinaryScan {
 public:
  BinaryScan(std::span<const std::uint8_t> bytes, const Trailer& trailer)
      : bytes_(bytes), trailer_(trailer) {}

  // The offset of object `index`, or nullopt when it lies outside the data.
  std::optional<std::size_t> objectOffset(std::uint64_t index) const {
    const std::size_t entry = static_cast<std::size_t>(trailer_.offsetTable) +
                              static_cast<std::size_t>(index) * trailer_.offsetSize;
    const std::uint64_t offset = readBigEndian(bytes_, entry, trailer_.offsetSize);
    if (offset < kHeaderSize || offset >= bytes_.size() - kTrailerSize) return std::nullopt;
    return static_cast<std::size_t>(offset);
  }

  // The count of the object at `offset` (elements, characters or UTF-16
  // units): the marker's low nibble, or the integer object that follows it.
  // `position` is left just after the count.
  std::optional<std::string> readCount(std::size_t offset, std::uint64_t& count,
                                       std::size_t& position) const {
    count = bytes_[offset] & 0x0F;
    position = offset + 1;
    if (count != 0x0F) return std::nullopt;
    // The count follows as an integer object of 1, 2, 4 or 8 bytes.
    const std::size_t end = bytes_.size() - kTrailerSize;
    if (position >= end) return "count outside the data";
    const std::uint8_t countMarker = bytes_[position];
    const std::size_t width = std::size_t{1} << (countMarker & 0x0F);
    if ((countMarker >> 4) != 0x1 || width > 8) return "invalid count";
    if (end - position - 1 < width) return "count outside the data";
    count = readBigEndian(bytes_, position + 1, width);
    position += 1 + width;
    return std::nullopt;
  }

  // The references of the object at `offset` (none for a scalar), or a reason.
  std::optional<std::string> references(std::size_t offset, References& result) const {
    result = References{};
    const std::uint8_t kind = bytes_[offset] >> 4;
    if (kind != kArrayMarker && kind != kSetMarker && kind != kDictionaryMarker)
      return std::nullopt;
    std::uint64_t count = 0;
    std::size_t position = 0;
    if (auto reason = readCount(offset, count, position)) return "container " + *reason;
    const std::size_t end = bytes_.size() - kTrailerSize;
    if (kind == kDictionaryMarker) {
      if (count > (end / 2)) return "container references outside the data";
      count *= 2;
    }
    if (position > end || count > (end - position) / trailer_.referenceSize)
      return "container references outside the data";
    result = References{position, count};
    return std::nullopt;
  }

  std::uint64_t reference(const References& references, std::uint64_t index) const {
    return readBigEndian(
        bytes_, references.start + static_cast<std::size_t>(index) * trailer_.referenceSize,
        trailer_.referenceSize);
  }

 private:
  std::span<const std::uint8_t> bytes_;
  Trailer trailer_;
};

std::optional<std::string> readTrailer(std::span<const std::uint8_t> bytes, Trailer& trailer) {
  if (bytes.size() < kHeaderSize + kTrailerSize) return "truncated binary property list";
  const std::size_t at = bytes.size() - kTrailerSize;
  trailer.offsetSize = bytes[at + 6];
  trailer.referenceSize = bytes[at + 7];
  trailer.objectCount = readBigEndian(bytes, at + 8, 8);
  trailer.rootObject = readBigEndian(bytes, at + 16, 8);
  trailer.offsetTable = readBigEndian(bytes, at + 24, 8);
  if (trailer.offsetSize < 1 || trailer.offsetSize > 8 || trailer.referenceSize < 1 ||
      trailer.referenceSize > 8)
    return "invalid binary property list trailer";
  if (trailer.objectCount == 0 || trailer.rootObject >= trailer.objectCount)
    return "invalid binary property list trailer";
  if (trailer.offsetTable < kHeaderSize || trailer.offsetTable > at ||
      trailer.objectCount > (at - trailer.offsetTable) / trailer.offsetSize)
    return "offset table outside the data";
  return std::nullopt;
}

std::string tooMany(std::uint64_t maxNodes) {
  return "holds more than " + std::to_string(maxNodes) + " objects";
}

enum class Visit : std::uint8_t { New, Open, Done };

struct Frame {
  std::uint64_t object = 0;
  References references;
  std::uint64_t nextReference = 0;
  std::uint64_t nodes = 1;  // this object plus the children finished so far
  std::size_t height = 1;   // containers on the longest chain below and including it
};

}  // namespace

std::optional<std::string> checkBinary(std::span<const std::uint8_t> bytes,
                                       std::size_t maxContainerDepth, std::uint64_t maxNodes) {
  Trailer trailer;
  if (auto reason = readTrailer(bytes, trailer)) return reason;
  // Every node of the expanded tree is an object, so more objects than nodes
  // allowed means a list too large to accept anyway; the limit also bounds the
  // bookkeeping below.
  if (trailer.objectCount > maxNodes) return tooMany(maxNodes);
  const BinaryScan scan(bytes, trailer);

  // Depth-first walk without recursion. Each object is walked once; its
  // expanded size and height are remembered for further references to it.
  const auto count = static_cast<std::size_t>(trailer.objectCount);
  std::vector<Visit> state(count, Visit::New);
  std::vector<std::uint64_t> nodes(count, 0);
  std::vector<std::uint32_t> heights(count, 0);
  std::vector<Frame> stack;

  const auto enter = [&](std::uint64_t object) -> std::optional<std::string> {
    const auto offset = scan.objectOffset(object);
    if (!offset) return "object offset outside the data";
    Frame frame;
    frame.object = object;
    if (auto reason = scan.references(*offset, frame.references)) return reason;
    const bool isContainer = (bytes[*offset] >> 4) == kArrayMarker ||
                             (bytes[*offset] >> 4) == kSetMarker ||
                             (bytes[*offset] >> 4) == kDictionaryMarker;
    frame.height = isContainer ? 1 : 0;
    if (isContainer && stack.size() + 1 > maxContainerDepth) return "nested too deeply";
    state[static_cast<std::size_t>(object)] = Visit::Open;
    stack.push_back(frame);
    return std::nullopt;
  };

  if (auto reason = enter(trailer.rootObject)) return reason;
  while (!stack.empty()) {
    Frame& frame = stack.back();
    if (frame.nextReference == frame.references.count) {
      const auto index = static_cast<std::size_t>(frame.object);
      state[index] = Visit::Done;
      nodes[index] = frame.nodes;
      heights[index] = static_cast<std::uint32_t>(frame.height);
      const Frame finished = frame;
      stack.pop_back();
      if (!stack.empty()) {
        Frame& parent = stack.back();
        parent.nodes += finished.nodes;
        if (parent.nodes > maxNodes) return tooMany(maxNodes);
        parent.height = std::max(parent.height, finished.height + 1);
      }
      continue;
    }
    // Keys are walked like values: a key of any kind is carried.
    const std::uint64_t child = scan.reference(frame.references, frame.nextReference++);
    if (child >= trailer.objectCount) return "object reference outside the object table";
    switch (state[static_cast<std::size_t>(child)]) {
      case Visit::Open:
        return "contains a reference cycle";
      case Visit::Done: {
        const auto index = static_cast<std::size_t>(child);
        if (stack.size() + heights[index] > maxContainerDepth) return "nested too deeply";
        frame.nodes += nodes[index];
        if (frame.nodes > maxNodes) return tooMany(maxNodes);
        frame.height = std::max<std::size_t>(frame.height, heights[index] + 1u);
        break;
      }
      case Visit::New:
        if (auto reason = enter(child)) return reason;
        break;
    }
  }
  return std::nullopt;
}

}  // namespace platform::plist_guard
