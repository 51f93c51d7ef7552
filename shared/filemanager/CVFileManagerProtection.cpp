// Reading and setting the data-protection class of one item.
#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/linux/Paths.h"
#include "platform/linux/ProtectionClass.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"

namespace sys = platform::sys;

bool CVFileManager::dataProtectionClassOfItemAtURL(const CVURL& url, std::int32_t* protectionClass,
                                                   CVError* error) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager dataProtectionClassOfItemAtURL:class:error:]";
  const char* path = url.fileSystemRepresentation();
  const sys::UniqueFd item = sys::openItemNoFollow(path);
  if (!item) {
    const int code = errno;
    CVSetError(error, CreatePOSIXError(kFunction, code, "Failed to open %s : %s", path,
                                       std::strerror(code)));
    return false;
  }
  std::int32_t current = 0;
  if (sys::getProtectionClass(item.get(), &current) < 0) {
    const int code = errno;
    CVSetError(error, CreatePOSIXError(kFunction, code, "Failed to getclass of file %s: %s", path,
                                       std::strerror(code)));
    return false;
  }
  if (protectionClass != nullptr) *protectionClass = current;
  return true;
}

bool CVFileManager::setDataProtectionClassOfItemAtURL(
    const CVURL& url, std::int32_t protectionClass,
    const std::function<bool(std::int32_t)>* predicate, CVError* error) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager setDataProtectionClassOfItemAtURL:toClass:ifPredicate:error:]";
  const char* path = url.fileSystemRepresentation();
  const sys::UniqueFd item = sys::openItemNoFollow(path);
  if (!item) {
    const int code = errno;
    CVSetError(error, CreatePOSIXError(kFunction, code, "Failed to open %s : %s", path,
                                       std::strerror(code)));
    return false;
  }
  if (predicate != nullptr && *predicate) {
    std::int32_t current = 0;
    if (sys::getProtectionClass(item.get(), &current) < 0) {
      const int code = errno;
      CVSetError(error, CreatePOSIXError(kFunction, code, "Failed to getclass of file %s: %s", path,
                                         std::strerror(code)));
      return false;
    }
    if (!(*predicate)(current)) return true;
  }
  if (sys::setProtectionClass(item.get(), protectionClass) != 0) {
    const int code = errno;
    CVSetError(error, CreatePOSIXError(kFunction, code, "Failed to setclass(%d) on file %s: %s",
                                       protectionClass, path, std::strerror(code)));
    return false;
  }
  return true;
}
