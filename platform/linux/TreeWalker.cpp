#include "platform/linux/TreeWalker.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <new>
#include <string>
#include <vector>

#include "platform/linux/DirectoryStream.h"
#include "platform/linux/MountPoints.h"

namespace platform::sys {

struct TreeWalker::Walker {
  // A directory being walked: the names it held when it was entered, as a
  // file-hierarchy walker reads them, so that one descriptor at most is open
  // whatever the depth.
  struct Level {
    std::vector<std::string> names;
    std::size_t next = 0;
    std::size_t pathLength = 0;  // of the directory's own path
    struct stat status {};       // the directory's, for its visit after its contents
  };

  explicit Walker(const char* root) : path(root) {}

  std::string path;  // of the entry handed out last
  struct stat status {};
  std::vector<Level> levels;
  bool started = false;
  bool enterNext = false;  // the directory handed out last is entered at the next call
};

namespace {

constexpr int kLookFlags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;

void copyStatus(const struct statx& from, struct stat& to) {
  to = {};
  to.st_dev = makedev(from.stx_dev_major, from.stx_dev_minor);
  to.st_ino = from.stx_ino;
  to.st_mode = from.stx_mode;
  to.st_nlink = from.stx_nlink;
  to.st_uid = from.stx_uid;
  to.st_gid = from.stx_gid;
  to.st_rdev = makedev(from.stx_rdev_major, from.stx_rdev_minor);
  to.st_size = static_cast<off_t>(from.stx_size);
  to.st_blksize = static_cast<blksize_t>(from.stx_blksize);
  to.st_blocks = static_cast<blkcnt_t>(from.stx_blocks);
  to.st_atim = {from.stx_atime.tv_sec, from.stx_atime.tv_nsec};
  to.st_mtim = {from.stx_mtime.tv_sec, from.stx_mtime.tv_nsec};
  to.st_ctim = {from.stx_ctime.tv_sec, from.stx_ctime.tv_nsec};
}

// Reads the names of the directory at `path`; the error number of the open or read that failed, or
// 0.
int readNames(const std::string& path, std::vector<std::string>& names) {
  DirectoryStream stream =
      DirectoryStream::adopt(openDirectory(path.c_str(), FinalLink::NotFollowed));
  if (!stream.valid()) return errno;
  DirectoryEntry entry;
  bool atEnd = false;
  for (;;) {
    if (const int failure = stream.next(entry, atEnd); failure != 0) return failure;
    if (atEnd) return 0;
    names.emplace_back(entry.name);
  }
}

}  // namespace

TreeWalker::TreeWalker() = default;
TreeWalker::~TreeWalker() = default;
TreeWalker::TreeWalker(TreeWalker&&) noexcept = default;
TreeWalker& TreeWalker::operator=(TreeWalker&&) noexcept = default;

TreeWalker TreeWalker::open(const char* path) {
  TreeWalker result;
  if (path == nullptr || *path == '\0') {
    errno = ENOENT;
    return result;
  }
  result.walker_.reset(new (std::nothrow) Walker(path));
  if (!result.walker_) errno = ENOMEM;
  return result;
}

bool TreeWalker::next(WalkEntry& entry) {
  if (!walker_) return false;
  Walker& walker = *walker_;
  entry.path = walker.path.c_str();
  entry.status = &walker.status;
  entry.errorNumber = 0;

  if (walker.enterNext) {
    walker.enterNext = false;
    Walker::Level level;
    level.pathLength = walker.path.size();
    level.status = walker.status;
    if (const int failure = readNames(walker.path, level.names); failure != 0) {
      // Handed out again as unreadable, with no visit after its contents.
      entry.kind = WalkKind::DirectoryUnreadable;
      entry.errorNumber = failure;
      entry.level = static_cast<int>(walker.levels.size());
      return true;
    }
    walker.levels.push_back(std::move(level));
  }

  if (!walker.started) {
    walker.started = true;
  } else {
    for (;;) {
      if (walker.levels.empty()) return false;
      Walker::Level& top = walker.levels.back();
      walker.path.resize(top.pathLength);
      if (top.next < top.names.size()) {
        if (walker.path.empty() || walker.path.back() != '/') walker.path.push_back('/');
        walker.path += top.names[top.next++];
        break;
      }
      walker.status = top.status;
      walker.levels.pop_back();
      entry.path = walker.path.c_str();
      entry.kind = WalkKind::DirectoryPost;
      entry.level = static_cast<int>(walker.levels.size());
      return true;
    }
  }

  // One look per entry gives its kind, its status and whether it is the root
  // of a mount.
  entry.path = walker.path.c_str();
  entry.level = static_cast<int>(walker.levels.size());
  struct statx look;
  if (walker.path.size() >= PATH_MAX) {
    entry.kind = WalkKind::NoStat;
    entry.errorNumber = ENAMETOOLONG;
    return true;
  }
  if (::statx(AT_FDCWD, walker.path.c_str(), kLookFlags, STATX_BASIC_STATS, &look) != 0) {
    entry.kind = WalkKind::NoStat;
    entry.errorNumber = errno;
    return true;
  }
  copyStatus(look, walker.status);
  const mode_t mode = walker.status.st_mode;
  if (S_ISLNK(mode)) {  // a mount never sits on a link
    entry.kind = WalkKind::Symlink;
    return true;
  }
  int mounted = 0;
  if ((look.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0) {
    mounted = (look.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 ? 1 : 0;
  } else {
    mounted = isMountRootAt(AT_FDCWD, walker.path.c_str());
  }
  if (mounted != 0) {
    entry.kind = mounted > 0 ? WalkKind::MountPoint : WalkKind::NoStat;
    entry.errorNumber = mounted > 0 ? kMountPointErrorNumber : errno;
    return true;
  }
  if (S_ISDIR(mode)) {
    entry.kind = WalkKind::Directory;
    walker.enterNext = true;
  } else {
    entry.kind = S_ISREG(mode) ? WalkKind::File : WalkKind::Default;
  }
  return true;
}

int TreeWalker::close() {
  walker_.reset();
  return 0;
}

}  // namespace platform::sys
