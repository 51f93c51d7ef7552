#include "platform/linux/TreeWalker.h"

#include <fcntl.h>
#include <fts.h>

#include <cerrno>
#include <new>

#include "platform/linux/MountPoints.h"

namespace platform::sys {

struct TreeWalker::Walker {
  explicit Walker(FTS* opened) : fts(opened) {}
  ~Walker() {
    if (fts != nullptr) {
      const int savedErrno = errno;
      ::fts_close(fts);
      errno = savedErrno;
    }
  }
  Walker(const Walker&) = delete;
  Walker& operator=(const Walker&) = delete;
  FTS* fts;
  // A directory skipped as a mount point, whose post-order visit is dropped.
  const FTSENT* skipped = nullptr;
};

namespace {

WalkKind kindOf(unsigned short info) {
  switch (info) {
    case FTS_D:
      return WalkKind::Directory;
    case FTS_DP:
      return WalkKind::DirectoryPost;
    case FTS_DC:
      return WalkKind::DirectoryCycle;
    case FTS_DNR:
      return WalkKind::DirectoryUnreadable;
    case FTS_F:
      return WalkKind::File;
    case FTS_SL:
      return WalkKind::Symlink;
    case FTS_SLNONE:
      return WalkKind::SymlinkDangling;
    case FTS_DOT:
      return WalkKind::Dot;
    case FTS_DEFAULT:
      return WalkKind::Default;
    case FTS_NS:
      return WalkKind::NoStat;
    case FTS_NSOK:
      return WalkKind::NoStatRequested;
    case FTS_ERR:
    default:
      return WalkKind::Error;
  }
}

}  // namespace

TreeWalker::TreeWalker() = default;
TreeWalker::~TreeWalker() = default;
TreeWalker::TreeWalker(TreeWalker&&) noexcept = default;
TreeWalker& TreeWalker::operator=(TreeWalker&&) noexcept = default;

TreeWalker TreeWalker::open(const char* path) {
  TreeWalker result;
  // fts_open takes a writable array but does not change the strings.
  char* roots[] = {const_cast<char*>(path), nullptr};
  FTS* fts = ::fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR | FTS_XDEV, nullptr);
  if (fts == nullptr) return result;
  result.walker_.reset(new (std::nothrow) Walker(fts));
  if (!result.walker_) {
    ::fts_close(fts);
    errno = ENOMEM;
  }
  return result;
}

bool TreeWalker::next(WalkEntry& entry) {
  if (!walker_) return false;
  FTSENT* current = ::fts_read(walker_->fts);
  if (current != nullptr && current->fts_info == FTS_DP && current == walker_->skipped) {
    walker_->skipped = nullptr;
    current = ::fts_read(walker_->fts);
  }
  if (current == nullptr) return false;
  entry.path = current->fts_path;
  entry.status = current->fts_statp;
  entry.kind = kindOf(current->fts_info);
  entry.errorNumber = current->fts_errno;
  entry.level = current->fts_level;
  // Links and unreadable items need no look: a mount never sits on a link,
  // and what cannot be looked at is reported as it is.
  if (entry.kind == WalkKind::Directory || entry.kind == WalkKind::File ||
      entry.kind == WalkKind::Default) {
    const int mounted = isMountRootAt(AT_FDCWD, current->fts_accpath);
    if (mounted != 0) {
      entry.kind = mounted > 0 ? WalkKind::MountPoint : WalkKind::NoStat;
      entry.errorNumber = mounted > 0 ? kMountPointErrorNumber : errno;
      if (current->fts_info == FTS_D) {
        ::fts_set(walker_->fts, current, FTS_SKIP);
        walker_->skipped = current;
      }
    }
  }
  return true;
}

int TreeWalker::close() {
  if (!walker_) return 0;
  FTS* fts = walker_->fts;
  walker_->fts = nullptr;
  walker_.reset();
  return ::fts_close(fts);
}

}  // namespace platform::sys
