#include "installer/RandomUUID.h"

#include <array>
#include <cstdint>

#include "platform/linux/RandomBytes.h"

namespace mavrel_installer {

std::optional<std::string> makeRandomUUIDString() {
  std::array<std::uint8_t, 16> bytes{};
  if (platform::sys::fillRandomBytes(bytes.data(), bytes.size()) != 0) return std::nullopt;
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text.push_back(kDigits[bytes[i] >> 4]);
    text.push_back(kDigits[bytes[i] & 0x0F]);
  }
  return text;
}

}  // namespace mavrel_installer
