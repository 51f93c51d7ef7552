#include "platform/linux/Paths.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace platform::sys {

int lstatPath(const char* path, struct stat* status) {
  return ::lstat(path, status);
}

UniqueFd openItemNoFollow(const char* path) {
  return UniqueFd(::open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
}

int changeOwnerNoFollow(const char* path, uid_t owner, gid_t group) {
  return ::lchown(path, owner, group);
}

int makeDirectory(const char* path, mode_t mode) {
  return ::mkdir(path, mode);
}

int spanDirectories(const char* path, mode_t mode) {
  // Usually the parent exists already: one call settles it.
  if (::mkdir(path, mode) == 0) return 0;
  if (errno != ENOENT) return errno;

  // Make each missing ancestor from the top down, then the last component.
  std::string prefix(path);
  while (prefix.size() > 1 && prefix.back() == '/')
    prefix.pop_back();
  const mode_t intermediateMode = mode | S_IWUSR | S_IXUSR;
  for (std::size_t slash = prefix.find('/', 1); slash != std::string::npos;
       slash = prefix.find('/', slash + 1)) {
    if (prefix[slash - 1] == '/') continue;  // a repeated separator
    prefix[slash] = '\0';
    const int made = ::mkdir(prefix.c_str(), intermediateMode);
    prefix[slash] = '/';
    if (made != 0 && errno != EEXIST) return errno;
  }
  if (::mkdir(prefix.c_str(), mode) == 0) return 0;
  return errno;
}

}  // namespace platform::sys
