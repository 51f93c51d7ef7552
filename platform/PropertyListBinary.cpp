#include "platform/PropertyListBinary.h"

#include <algorithm>
#include <bit>

namespace platform::plist_binary {
namespace {

constexpr std::size_t kTrailerSize = 32;
// Dates count from 2001-01-01 00:00:00 UTC.
constexpr double kSecondsFrom1970To2001 = 978307200.0;

std::uint64_t readBigEndian(const std::uint8_t* bytes, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i)
    value = (value << 8) | bytes[i];
  return value;
}

void appendUTF8(std::string& text, std::uint32_t code) {
  if (code < 0x80) {
    text += static_cast<char>(code);
  } else if (code < 0x800) {
    text += static_cast<char>(0xC0 | (code >> 6));
    text += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    text += static_cast<char>(0xE0 | (code >> 12));
    text += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    text += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    text += static_cast<char>(0xF0 | (code >> 18));
    text += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    text += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    text += static_cast<char>(0x80 | (code & 0x3F));
  }
}

class Decoder {
 public:
  explicit Decoder(std::span<const std::uint8_t> bytes) : bytes_(bytes) {
    const std::uint8_t* trailer = bytes.data() + bytes.size() - kTrailerSize;
    offsetSize_ = trailer[6];
    referenceSize_ = trailer[7];
    root_ = readBigEndian(trailer + 16, 8);
    offsetTable_ = static_cast<std::size_t>(readBigEndian(trailer + 24, 8));
    end_ = bytes.size() - kTrailerSize;
  }

  std::optional<CVValue> root(std::string& reason) { return object(root_, reason); }

 private:
  // Whether `length` bytes from `position` lie inside the object area.
  bool fits(std::size_t position, std::uint64_t length) const {
    return position <= end_ && length <= end_ - position;
  }

  // The element count of the object at `offset` and where its contents start.
  bool count(std::size_t offset, std::uint64_t& result, std::size_t& position) const {
    result = bytes_[offset] & 0x0F;
    position = offset + 1;
    if (result != 0x0F) return true;
    if (!fits(position, 1)) return false;
    const std::size_t width = std::size_t{1} << (bytes_[position] & 0x0F);
    if ((bytes_[position] >> 4) != 0x1 || width > 8 || !fits(position + 1, width)) return false;
    result = readBigEndian(bytes_.data() + position + 1, width);
    position += 1 + width;
    return true;
  }

  std::optional<CVValue> object(std::uint64_t index, std::string& reason) {
    const std::size_t entry = offsetTable_ + static_cast<std::size_t>(index) * offsetSize_;
    const auto offset = static_cast<std::size_t>(readBigEndian(bytes_.data() + entry, offsetSize_));
    const std::uint8_t marker = bytes_[offset];
    const std::uint8_t low = marker & 0x0F;
    const std::uint8_t* contents = bytes_.data() + offset + 1;
    switch (marker >> 4) {
      case 0x0:
        if (marker == 0x08 || marker == 0x09) return CVValue(marker == 0x09);
        break;
      case 0x1: {
        const std::size_t width = std::size_t{1} << low;
        if (width > 16 || !fits(offset + 1, width)) break;
        if (width == 16) {
          // 128 bits: what fits 64 bits, as unsigned when the high half is zero.
          const std::uint64_t high = readBigEndian(contents, 8);
          const std::uint64_t value = readBigEndian(contents + 8, 8);
          if (high == 0) return CVValue(CVNumber::unsignedInteger(value));
          return CVValue(CVNumber::integer(static_cast<std::int64_t>(value)));
        }
        // Only 8-byte integers carry a sign; narrower ones are unsigned.
        return CVValue(
            CVNumber::integer(static_cast<std::int64_t>(readBigEndian(contents, width))));
      }
      case 0x2: {
        if (low == 2 && fits(offset + 1, 4)) {
          const auto bits = static_cast<std::uint32_t>(readBigEndian(contents, 4));
          return CVValue(static_cast<double>(std::bit_cast<float>(bits)));
        }
        if (low == 3 && fits(offset + 1, 8))
          return CVValue(std::bit_cast<double>(readBigEndian(contents, 8)));
        break;
      }
      case 0x3:
        if (marker == 0x33 && fits(offset + 1, 8)) {
          const double since2001 = std::bit_cast<double>(readBigEndian(contents, 8));
          return CVValue(CVDate{since2001 + kSecondsFrom1970To2001});
        }
        break;
      case 0x4:
      case 0x5:
      case 0x6: {
        std::uint64_t length = 0;
        std::size_t position = 0;
        const std::uint64_t unit = (marker >> 4) == 0x6 ? 2 : 1;
        if (!count(offset, length, position) || length > (end_ - std::min(position, end_)) / unit ||
            !fits(position, length * unit)) {
          reason = "holds a string or data object outside the data";
          return std::nullopt;
        }
        const std::uint8_t* start = bytes_.data() + position;
        if ((marker >> 4) == 0x4) return CVValue(CVData(start, start + length));
        if ((marker >> 4) == 0x5)
          return CVValue(std::string(reinterpret_cast<const char*>(start), length));
        return CVValue(utf16(start, static_cast<std::size_t>(length)));
      }
      case 0x8:
        if (fits(offset + 1, low + 1u)) {
          return CVValue(CVDictionary{
              {"CF$UID", CVValue(CVNumber::unsignedInteger(readBigEndian(contents, low + 1u)))}});
        }
        break;
      case 0xA:
      case 0xC:
      case 0xD:
        return container(offset, reason);
      default:
        break;
    }
    reason = "holds an object of an unknown kind";
    return std::nullopt;
  }

  std::string utf16(const std::uint8_t* start, std::size_t units) const {
    std::string text;
    text.reserve(units);
    for (std::size_t i = 0; i < units; ++i) {
      std::uint32_t code = static_cast<std::uint32_t>(readBigEndian(start + 2 * i, 2));
      if (code >= 0xD800 && code < 0xDC00 && i + 1 < units) {
        const auto next = static_cast<std::uint32_t>(readBigEndian(start + 2 * (i + 1), 2));
        if (next >= 0xDC00 && next < 0xE000) {
          code = 0x10000 + ((code - 0xD800) << 10) + (next - 0xDC00);
          ++i;
        }
      }
      if (code >= 0xD800 && code < 0xE000) code = 0xFFFD;  // a lone surrogate
      appendUTF8(text, code);
    }
    return text;
  }

  // Arrays, sets (read as arrays) and dictionaries. The guard has checked the
  // references, the depth and that there is no cycle, so recursion is bounded.
  std::optional<CVValue> container(std::size_t offset, std::string& reason) {
    std::uint64_t elements = 0;
    std::size_t position = 0;
    count(offset, elements, position);
    const auto reference = [&](std::uint64_t i) {
      return readBigEndian(bytes_.data() + position + static_cast<std::size_t>(i) * referenceSize_,
                           referenceSize_);
    };
    if ((bytes_[offset] >> 4) != 0xD) {
      CVArray array;
      for (std::uint64_t i = 0; i < elements; ++i) {
        auto item = object(reference(i), reason);
        if (!item) return std::nullopt;
        array.append(std::move(*item));
      }
      return CVValue(std::move(array));
    }
    CVDictionary dictionary;
    for (std::uint64_t i = 0; i < elements; ++i) {
      auto key = object(reference(i), reason);
      if (!key) return std::nullopt;
      auto value = object(reference(elements + i), reason);
      if (!value) return std::nullopt;
      if (const std::string* name = key->asString()) {
        dictionary.set(*name, std::move(*value));
      } else {
        dictionary.addEntryWithNonStringKey(std::move(*key), std::move(*value));
      }
    }
    return CVValue(std::move(dictionary));
  }

  std::span<const std::uint8_t> bytes_;
  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::uint64_t root_ = 0;
  std::size_t offsetTable_ = 0;
  std::size_t end_ = 0;
};

}  // namespace

std::optional<CVValue> decode(std::span<const std::uint8_t> bytes, std::string& reason) {
  Decoder decoder(bytes);
  return decoder.root(reason);
}

}  // namespace platform::plist_binary
