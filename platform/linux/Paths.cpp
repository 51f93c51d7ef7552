#include "platform/linux/Paths.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

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

  // Climb to the deepest ancestor that exists (or could be made), then make
  // each missing one on the way back down and the last component last: a few
  // calls for a few missing levels instead of one per level of the path.
  std::string prefix(path);
  while (prefix.size() > 1 && prefix.back() == '/')
    prefix.pop_back();
  const mode_t intermediateMode = mode | S_IWUSR | S_IXUSR;
  std::vector<std::size_t> missing;  // ends of the ancestors still to make
  std::size_t end = prefix.size();
  for (;;) {
    std::size_t slash = prefix.rfind('/', end - 1);
    while (slash != std::string::npos && slash > 0 && prefix[slash - 1] == '/')
      --slash;                                            // a repeated separator
    if (slash == std::string::npos || slash == 0) break;  // the top: nothing more to climb
    prefix[slash] = '\0';
    const int made = ::mkdir(prefix.c_str(), intermediateMode);
    const int madeErrno = errno;
    prefix[slash] = '/';
    if (made == 0 || madeErrno == EEXIST) break;
    if (madeErrno != ENOENT) return madeErrno;
    missing.push_back(slash);
    end = slash;
  }
  for (auto ancestor = missing.rbegin(); ancestor != missing.rend(); ++ancestor) {
    prefix[*ancestor] = '\0';
    const int made = ::mkdir(prefix.c_str(), intermediateMode);
    const int madeErrno = errno;
    prefix[*ancestor] = '/';
    if (made != 0 && madeErrno != EEXIST) return madeErrno;
  }
  if (::mkdir(prefix.c_str(), mode) == 0) return 0;
  return errno;
}

}  // namespace platform::sys
