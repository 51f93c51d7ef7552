// Reading and setting the data-protection class of one item.
#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/linux/Paths.h"
#include "platform/linux/ProtectionClass.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"

namespace sys = platform::sys;

namespace {

// Opens the item itself (a final link fails to open); an invalid descriptor
// after storing the error.
sys::UniqueFd openItem(std::string_view function, const char* path, CVError* error) {
  sys::UniqueFd item = sys::openItemNoFollow(path);
  if (!item) {
    const int code = errno;
    CVSetError(error, CreatePOSIXError(function, code, "Failed to open %s : %s", path,
                                       std::strerror(code)));
  }
  return item;
}

bool readClass(std::string_view function, const sys::UniqueFd& item, const char* path,
               std::int32_t* current, CVError* error) {
  if (sys::getProtectionClass(item.get(), current) >= 0) return true;
  const int code = errno;
  CVSetError(error, CreatePOSIXError(function, code, "Failed to getclass of file %s: %s", path,
                                     std::strerror(code)));
  return false;
}

}  // namespace

bool CVFileManager::dataProtectionClassOfItemAtURL(const CVURL& url, std::int32_t* protectionClass,
                                                   CVError* error) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager dataProtectionClassOfItemAtURL:class:error:]";
  const char* path = url.fileSystemRepresentation();
  const sys::UniqueFd item = openItem(kFunction, path, error);
  std::int32_t current = 0;
  if (!item || !readClass(kFunction, item, path, &current, error)) return false;
  if (protectionClass != nullptr) *protectionClass = current;
  return true;
}

bool CVFileManager::setDataProtectionClassOfItemAtURL(
    const CVURL& url, std::int32_t protectionClass,
    const std::function<bool(std::int32_t)>* predicate, CVError* error) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager setDataProtectionClassOfItemAtURL:toClass:ifPredicate:error:]";
  const char* path = url.fileSystemRepresentation();
  const sys::UniqueFd item = openItem(kFunction, path, error);
  if (!item) return false;
  if (predicate != nullptr && *predicate) {
    std::int32_t current = 0;
    if (!readClass(kFunction, item, path, &current, error)) return false;
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
