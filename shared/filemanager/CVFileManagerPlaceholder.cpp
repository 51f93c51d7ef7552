// Marking an application bundle as a placeholder and testing for the mark.
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "platform/linux/PlaceholderAttribute.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"

namespace sys = platform::sys;

bool CVFileManager::markBundleAsPlaceholder(const CVURL& bundleURL, CVError* error) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager markBundleAsPlaceholder:withError:]";
  const char* path = bundleURL.fileSystemRepresentation();
  // The value is the number 1 as a 32-bit integer in the machine's byte order.
  const std::uint32_t value = 1;
  if (sys::writePlaceholderAttribute(path, std::as_bytes(std::span(&value, 1))) == 0) return true;
  const int code = errno;
  CVSetError(error, CreateAndLogError(
                        kFunction, CVInstallerErrorDomain, kCVErrorTemporaryDirectoryOrMark,
                        CVError(std::string(kPOSIXErrorDomain), code), nullptr,
                        "Could't set placeholder EA on \"%s\": %s", path, std::strerror(code)));
  return false;
}

bool CVFileManager::bundleAtURLIsPlaceholder(const CVURL& bundleURL) {
  // Only the size counts: a mark is exactly four bytes, whatever they hold.
  std::array<std::byte, sizeof(std::uint32_t)> value{};
  return sys::readPlaceholderAttribute(bundleURL.fileSystemRepresentation(), value) ==
         static_cast<ssize_t>(value.size());
}
