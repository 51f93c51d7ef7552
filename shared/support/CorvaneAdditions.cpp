#include "shared/support/CorvaneAdditions.h"

#include <cstdint>
#include <cstring>

#include "platform/URL.h"

namespace CorvaneAdditions {
namespace {

// The length of the well-formed UTF-8 sequence at the start of `text`, or 0
// when it is not well formed (the byte ranges of Unicode's table of
// well-formed byte sequences).
std::size_t wellFormedSequenceLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t lead = byte(0);
  std::size_t length = 0;
  std::uint8_t secondLow = 0x80, secondHigh = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) secondLow = 0xA0;   // overlong below U+0800
    if (lead == 0xED) secondHigh = 0x9F;  // surrogates U+D800..U+DFFF
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) secondLow = 0x90;   // overlong below U+10000
    if (lead == 0xF4) secondHigh = 0x8F;  // above U+10FFFF
  } else {
    return 0;  // continuation byte, overlong lead C0/C1, or F5..FF
  }
  if (text.size() < length) return 0;
  if (byte(1) < secondLow || byte(1) > secondHigh) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
  }
  return length;
}

bool isWellFormedPathText(std::string_view text) {
  std::size_t position = 0;
  while (position < text.size()) {
    const auto byte = static_cast<std::uint8_t>(text[position]);
    if (byte == 0) return false;
    if (byte < 0x80) {
      ++position;
      continue;
    }
    const std::size_t length = wellFormedSequenceLength(text.substr(position));
    if (length == 0) return false;
    position += length;
  }
  return true;
}

}  // namespace

std::optional<std::string> stringWithFileSystemRepresentation(const char* bytes,
                                                              std::size_t length) {
  if (length == 0) return std::string();
  if (bytes == nullptr) return std::nullopt;
  const std::string_view text(bytes, length);
  if (!isWellFormedPathText(text)) return std::nullopt;
  return std::string(text);
}

std::optional<std::string> stringWithFileSystemRepresentation(const char* bytes) {
  if (bytes == nullptr) return std::nullopt;
  return stringWithFileSystemRepresentation(bytes, std::strlen(bytes));
}

bool containsDotDotPathComponents(std::string_view path) {
  for (const std::string& component : CVURL::pathComponents(path)) {
    if (component == "..") return true;
  }
  return false;
}

}  // namespace CorvaneAdditions
