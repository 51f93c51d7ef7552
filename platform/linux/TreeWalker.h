// A physical walk over a whole tree, as the C library's file-hierarchy walker
// (fts) makes one with FTS_PHYSICAL | FTS_NOCHDIR | FTS_XDEV, owned by an
// RAII object.
//
// The walk never follows a symbolic link (the root included), never changes
// the working directory and never crosses into another mount: an item that is
// the root of a mount (a bind mount of a directory or of a file, another file
// system; the walk's root included) comes as a MountPoint entry, and a
// directory among them is not entered and does not come again after. There
// is no sort function: entries come in the order the directories yield them,
// and every directory comes twice, before its contents and after them (a
// directory that cannot be read comes again as DirectoryUnreadable instead).
// Each entry is looked at with one statx, which also tells a mount root; a
// directory's names are read when it is entered, so one descriptor at most is
// open whatever the depth. A path of PATH_MAX bytes or more is not looked at
// (NoStat, ENAMETOOLONG), as with the C library's walker.
//
// Error contract: TreeWalker::open returns a walker that is not valid, with the
// error number in errno, for an empty path or when memory is short. next()
// returns false at the end of the walk. close() returns 0; the destructor
// closes a walker that was not closed.
#pragma once

#include <sys/stat.h>

#include <memory>

namespace platform::sys {

// The kinds of entries the walker reports.
enum class WalkKind {
  Directory,            // a directory, before its contents
  DirectoryPost,        // a directory, after its contents
  DirectoryUnreadable,  // a directory whose contents could not be read
  File,                 // a regular file
  Symlink,              // a symbolic link (never followed, dangling or not)
  Default,              // any other kind of item (device, FIFO, socket)
  NoStat,               // an item that could not be looked at (errorNumber says why)
  MountPoint,           // the root of another mount, not entered (errorNumber EXDEV)
};

// One entry as the walker gives it. The pointers stay valid until the next
// call of next() or close().
struct WalkEntry {
  const char* path = nullptr;           // the root path with the entry's names appended
  const struct stat* status = nullptr;  // lstat record (meaningless for NoStat)
  WalkKind kind = WalkKind::NoStat;
  int errorNumber = 0;  // for NoStat, DirectoryUnreadable and MountPoint
  int level = 0;        // 0 for the root
};

class TreeWalker {
 public:
  TreeWalker();
  ~TreeWalker();
  TreeWalker(TreeWalker&&) noexcept;
  TreeWalker& operator=(TreeWalker&&) noexcept;
  TreeWalker(const TreeWalker&) = delete;
  TreeWalker& operator=(const TreeWalker&) = delete;

  // Opens a walker on the single root `path`.
  static TreeWalker open(const char* path);

  bool valid() const { return walker_ != nullptr; }

  // Fills `entry` with the next entry; false at the end of the walk.
  bool next(WalkEntry& entry);

  // Closes the walker; the walker is not valid afterwards.
  int close();

 private:
  struct Walker;
  std::unique_ptr<Walker> walker_;
};

}  // namespace platform::sys
