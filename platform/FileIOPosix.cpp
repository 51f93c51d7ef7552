#include "platform/FileIOPosix.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace platform {
namespace {

// strerror_r comes in two flavours; these overloads accept either.
[[maybe_unused]] std::string strerrorResult(int result, const char* buffer) {
  return result == 0 ? std::string(buffer) : std::string("Unknown error");
}
[[maybe_unused]] std::string strerrorResult(const char* result, const char*) {
  return result != nullptr ? std::string(result) : std::string("Unknown error");
}

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

std::string errnoDescription(int errnoValue) {
  char buffer[256] = {};
  return strerrorResult(::strerror_r(errnoValue, buffer, sizeof buffer), buffer);
}

CVError posixCallError(int errnoValue, std::string_view call, std::string_view path) {
  std::string description(call);
  description += " of ";
  description += path;
  description += " failed: ";
  description += errnoDescription(errnoValue);
  return CVError::posix(errnoValue, std::move(description));
}

bool makeDirectoryPath(const std::string& path, mode_t mode, CVError* error) {
  if (path.empty()) {
    CVSetError(error, posixCallError(ENOENT, "mkdir", path));
    return false;
  }
  // Create each prefix in turn; existing directories along the way are fine.
  std::size_t position = path.front() == '/' ? 1 : 0;
  while (position <= path.size()) {
    std::size_t slash = path.find('/', position);
    if (slash == std::string::npos) slash = path.size();
    if (slash > position) {
      const std::string prefix = path.substr(0, slash);
      if (::mkdir(prefix.c_str(), mode) != 0) {
        const int mkdirErrno = errno;
        if (mkdirErrno != EEXIST) {
          CVSetError(error, posixCallError(mkdirErrno, "mkdir", prefix));
          return false;
        }
        if (!isDirectory(prefix)) {
          CVSetError(error, posixCallError(ENOTDIR, "mkdir", prefix));
          return false;
        }
      }
    }
    position = slash + 1;
  }
  return true;
}

}  // namespace platform
