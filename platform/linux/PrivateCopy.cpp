#include "platform/linux/PrivateCopy.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/linux/RandomBytes.h"
#include "platform/linux/TreeCopy.h"

namespace platform::sys {
namespace {

constexpr int kNameAttempts = 4;

// A name in the directory of `path` that nothing holds yet.
bool unusedNameBeside(const std::string& path, std::string& name) {
  const std::size_t slash = path.find_last_of('/');
  const std::string directory =
      slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
  for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
    std::uint64_t random = 0;
    if (fillRandomBytes(&random, sizeof random) != 0) return false;
    char suffix[17];
    std::snprintf(suffix, sizeof suffix, "%016llx", static_cast<unsigned long long>(random));
    name = directory + kPrivateCopyPrefix + suffix;
    struct stat status;
    if (::lstat(name.c_str(), &status) != 0 && errno == ENOENT) return true;
  }
  errno = EEXIST;
  return false;
}

}  // namespace

int replaceWithPrivateCopy(const char* path) {
  const std::string original(path);
  std::string copy;
  if (!unusedNameBeside(original, copy)) return -1;
  if (copyTree(path, copy.c_str()) != 0 || ::rename(copy.c_str(), path) != 0) {
    const int error = errno;
    ::unlink(copy.c_str());
    errno = error;
    return -1;
  }
  return 0;
}

}  // namespace platform::sys
