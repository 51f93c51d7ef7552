#include "platform/linux/MountPoints.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

static_assert(platform::sys::kMountPointErrorNumber == EXDEV);

namespace platform::sys {
namespace {

constexpr int kLookFlags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;

int answer(int directory, const char* name, int flags) {
  struct statx status;
  if (::statx(directory, name, flags, STATX_TYPE, &status) != 0) return -1;
  if ((status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0)
    return (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 ? 1 : 0;
  // No mount-root attribute from this kernel: compare with the parent.
  struct stat item;
  struct stat parent;
  if (::fstatat(directory, name, &item, flags | AT_SYMLINK_NOFOLLOW) != 0) return -1;
  if (!S_ISDIR(item.st_mode)) return 0;
  // ".." of the directory itself: its parent in the tree, wherever it was reached from.
  const std::string up =
      (flags & AT_EMPTY_PATH) != 0 ? std::string("..") : std::string(name) + "/..";
  if (::fstatat(directory, up.c_str(), &parent, 0) != 0) return -1;
  return item.st_dev != parent.st_dev ? 1 : 0;
}

}  // namespace

int isMountRoot(int fd) {
  return answer(fd, "", kLookFlags | AT_EMPTY_PATH);
}

int isMountRootAt(int directory, const char* name) {
  return answer(directory, name, kLookFlags);
}

}  // namespace platform::sys
