#include "platform/linux/TreeCopy.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/linux/DirentRecords.h"
#include "platform/linux/ExtendedAttributes.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/MountPoints.h"

namespace platform::sys {

namespace {

// Directory entries are read in chunks of this size into one buffer that
// serves the whole walk: a directory is read completely (its non-directories
// copied on the way) before the walk descends into its subdirectories.
constexpr std::size_t kReadBufferSize = 64 * 1024;
// The buffer of the read/write loop, used only where the kernel cannot copy.
constexpr std::size_t kCopyBufferSize = 256 * 1024;

struct Identity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const Identity&) const = default;
};

struct IdentityHash {
  std::size_t operator()(const Identity& identity) const {
    return std::hash<std::uint64_t>()(static_cast<std::uint64_t>(identity.inode) * 1000003u ^
                                      static_cast<std::uint64_t>(identity.device));
  }
};

Identity identityOf(const struct stat& status) {
  return Identity{status.st_dev, status.st_ino};
}

// Closes a descriptor that was written through, so that a late write error
// reported by close is not lost. EINTR still means closed on Linux.
int closeWritten(UniqueFd& fd) {
  const int raw = fd.release();
  if (::close(raw) == 0 || errno == EINTR) return 0;
  return -1;
}

// The errors with which the kernel says a way of copying data is not offered
// for this pair of files, so that the next way is to be tried.
bool notOffered(int error) {
  return error == EOPNOTSUPP || error == ENOTSUP || error == ENOTTY || error == EXDEV ||
         error == EINVAL || error == ENOSYS || error == EBADF;
}

// One directory of the branch being copied: the source and the copy.
struct Frame {
  UniqueFd source;          // closed while the frame is outside the open window
  UniqueFd destination;     // closed together with `source`
  Identity sourceIdentity;  // recorded when the directories were opened
  Identity destinationIdentity;
  struct stat status {};   // the source directory's, given to the copy at the end
  std::string name;        // its name in the parent directory (empty for the root)
  std::string pending;     // subdirectories still to copy, each name ending in NUL
  std::size_t cursor = 0;  // where the next pending name starts
};

class Copy {
 public:
  Copy(const char* source, const char* destination)
      : sourceRoot_(source), destinationRoot_(destination) {}
  int run();

 private:
  bool copyRootDirectory(UniqueFd source, const struct stat& status);
  bool readDirectory(std::size_t level);
  bool copyEntry(std::size_t level, const char* name, unsigned char type);
  bool descend(const char* name);
  bool ascend();
  // `root`: the copy's root, which may have been there before with
  // ACLs of its own.
  bool finishDirectory(Frame& frame, bool root);

  // Copies the non-directory `name` of `sourceDirectory` (open in `source`
  // when it is a regular file already opened) to `destinationDirectory`.
  // `level` is the frame the entry belongs to, or -1 for a lone root item.
  bool copyItem(int sourceDirectory, const char* sourceName, int destinationDirectory,
                const char* destinationName, UniqueFd source, const struct stat& status,
                std::ptrdiff_t level);
  bool copyRegular(int sourceDirectory, const char* sourceName, int destinationDirectory,
                   const char* destinationName, UniqueFd source, const struct stat& status);
  bool copyData(int source, int destination, const struct stat& status);
  bool copyRange(int source, int destination, off_t offset, off_t length);
  bool copyLink(int sourceDirectory, const char* sourceName, int destinationDirectory,
                const char* destinationName, const struct stat& status);
  bool copySpecial(int sourceDirectory, const char* sourceName, int destinationDirectory,
                   const char* destinationName, const struct stat& status);
  bool copyAttributesByPath(int sourceDirectory, const char* sourceName, int destinationDirectory,
                            const char* destinationName, bool dropOtherAcls);
  // Links `destinationName` to the earlier copy of the same source inode.
  // Returns 1 when linked, 0 when the earlier copy cannot be reached (copy
  // the file again instead), -1 on failure.
  int linkToEarlierCopy(const std::string& earlier, int destinationDirectory,
                        const char* destinationName);
  bool replaceExisting(int destinationDirectory, const char* destinationName,
                       const struct stat& status);

  UniqueFd openSource(int directory, const char* name, int flags);
  UniqueFd makeDirectory(int parent, const char* name);
  template <class Open>
  UniqueFd openRetrying(Open&& open);
  bool closeOldestOpen();
  bool reopenParentOf(std::size_t level);
  bool reopenFromRoot(std::size_t target);

  Frame& push();
  std::string relativePath(std::size_t level, std::string_view name) const;
  std::string procPath(int directory, const char* name) const;
  bool fail();
  bool failWith(int errorNumber);

  const char* sourceRoot_;
  const char* destinationRoot_;
  // frames_[0, depth_) is the current branch; frames beyond are kept for reuse.
  std::deque<Frame> frames_;
  std::size_t depth_ = 0;
  std::size_t firstOpen_ = 0;  // frames below this level have their descriptors closed
  std::unique_ptr<char[]> readBuffer_;
  std::unique_ptr<char[]> copyBuffer_;
  AttributeCopier attributes_;
  std::string linkContent_;
  // Copies of multiply-linked source files, by source identity, as paths
  // relative to the destination root.
  std::unordered_map<Identity, std::string, IdentityHash> linked_;
  UniqueFd linkBase_;  // the destination root, opened when the first hard link is made
  Identity destinationRootIdentity_;
  // Whether new items may have inherited ACLs (a default ACL where they were
  // made) that the copy must not keep when the source has none.
  bool dropInheritedAcls_ = false;
  int noAtime_ = O_NOATIME;  // dropped when the process may not use it (EPERM)
  bool tryClone_ = true;
  bool tryCopyFileRange_ = true;
  bool procAvailable_ = ::access("/proc/self/fd", X_OK) == 0;
  int error_ = 0;
};

int Copy::run() {
  struct stat status;
  if (::fstatat(AT_FDCWD, sourceRoot_, &status, AT_SYMLINK_NOFOLLOW) != 0) return -1;
  if (S_ISDIR(status.st_mode)) {
    UniqueFd source = openSource(AT_FDCWD, sourceRoot_, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (!source || ::fstat(source.get(), &status) != 0) return -1;
    if (const int mounted = isMountRoot(source.get()); mounted != 0) {
      if (mounted > 0) errno = kMountPointErrorNumber;
      return -1;
    }
    copyRootDirectory(std::move(source), status);
  } else {
    dropInheritedAcls_ = true;  // one item: no need to find out first
    copyItem(AT_FDCWD, sourceRoot_, AT_FDCWD, destinationRoot_, UniqueFd(), status, -1);
  }
  if (error_ == 0) return 0;
  errno = error_;
  return -1;
}

bool Copy::copyRootDirectory(UniqueFd source, const struct stat& status) {
  UniqueFd destination = makeDirectory(AT_FDCWD, destinationRoot_);
  if (!destination) return fail();
  struct stat destinationStatus;
  if (::fstat(destination.get(), &destinationStatus) != 0) return fail();
  destinationRootIdentity_ = identityOf(destinationStatus);
  if (destinationRootIdentity_ == identityOf(status)) return failWith(EINVAL);
  // A default ACL on the new root came from its parent and goes on to
  // everything made inside it.
  std::vector<char> acl;
  dropInheritedAcls_ = getAttribute(AttributeItem::descriptor(destination.get()),
                                    "system.posix_acl_default", acl) == 0;

  Frame& frame = push();
  frame.source = std::move(source);
  frame.destination = std::move(destination);
  frame.sourceIdentity = identityOf(status);
  frame.destinationIdentity = destinationRootIdentity_;
  frame.status = status;
  frame.name.clear();
  if (!readDirectory(0)) return false;

  while (depth_ > 0) {
    Frame& top = frames_[depth_ - 1];
    if (top.cursor < top.pending.size()) {
      // The name stays in place while the child is copied: the child is a
      // different frame, and the deque never moves frames.
      const char* name = top.pending.c_str() + top.cursor;
      top.cursor += std::strlen(name) + 1;
      if (!descend(name)) return false;
    } else if (!ascend()) {
      return false;
    }
  }
  return true;
}

// Copies every non-directory of the directory at `level` while reading it
// and records its subdirectories as pending.
bool Copy::readDirectory(std::size_t level) {
  Frame& frame = frames_[level];
  frame.pending.clear();
  frame.cursor = 0;
  if (!readBuffer_) readBuffer_.reset(new char[kReadBufferSize]);
  const int fd = frame.source.get();
  for (;;) {
    const ssize_t size = readDirents(fd, readBuffer_.get(), kReadBufferSize);
    if (size == 0) return true;
    if (size < 0) return fail();
    const bool copied = forEachDirent(readBuffer_.get(), static_cast<std::size_t>(size),
                                      [&](const DirentRecord& entry) {
                                        if (entry.type == DT_DIR) {
                                          frame.pending.append(entry.name);
                                          frame.pending.push_back('\0');
                                          return true;
                                        }
                                        return copyEntry(level, entry.name, entry.type);
                                      });
    if (!copied) return false;
  }
}

bool Copy::copyEntry(std::size_t level, const char* name, unsigned char type) {
  Frame& frame = frames_[level];
  const int sourceDirectory = frame.source.get();
  struct stat status;
  UniqueFd source;
  if (type == DT_REG) {
    // Opened straight away: its status then comes from the descriptor. Not
    // blocking, in case a FIFO has taken the file's place meanwhile.
    source = openSource(sourceDirectory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (!source && errno != ELOOP) return fail();  // ELOOP: a link took its place
    if (source) {
      if (::fstat(source.get(), &status) != 0) return fail();
      if (!S_ISREG(status.st_mode)) source.reset();
    }
  }
  if (!source && ::fstatat(sourceDirectory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return fail();
  if (S_ISDIR(status.st_mode)) {
    frame.pending.append(name);
    frame.pending.push_back('\0');
    return true;
  }
  return copyItem(sourceDirectory, name, frame.destination.get(), name, std::move(source), status,
                  static_cast<std::ptrdiff_t>(level));
}

// Opens the pending subdirectory `name` of the top frame and its copy, which
// becomes the top.
bool Copy::descend(const char* name) {
  const std::size_t parent = depth_ - 1;
  UniqueFd source =
      openSource(frames_[parent].source.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
  if (!source) return fail();
  struct stat status;
  if (::fstat(source.get(), &status) != 0) return fail();
  // The destination lies inside the source: copying it would never end.
  if (identityOf(status) == destinationRootIdentity_) return failWith(EINVAL);
  // Another mount: what lies beyond is not the tree's.
  if (const int mounted = isMountRoot(source.get()); mounted != 0)
    return mounted > 0 ? failWith(kMountPointErrorNumber) : fail();

  UniqueFd destination = makeDirectory(frames_[parent].destination.get(), name);
  if (!destination) return fail();
  struct stat destinationStatus;
  if (::fstat(destination.get(), &destinationStatus) != 0) return fail();

  Frame& frame = push();
  frame.source = std::move(source);
  frame.destination = std::move(destination);
  frame.sourceIdentity = identityOf(status);
  frame.destinationIdentity = identityOf(destinationStatus);
  frame.status = status;
  frame.name.assign(name);
  if (depth_ - firstOpen_ > kTreeCopyOpenDirectories) closeOldestOpen();
  return readDirectory(depth_ - 1);
}

// The top directory's contents are copied: finish its copy and make its
// parent the top.
bool Copy::ascend() {
  const std::size_t level = depth_ - 1;
  Frame& frame = frames_[level];
  if (!finishDirectory(frame, level == 0)) return false;
  if (level > 0 && level - 1 < firstOpen_ && !reopenParentOf(level)) return false;
  frame.source.reset();
  frame.destination.reset();
  depth_ = level;
  return true;
}

// Attributes, owner, mode and times of a directory's copy, once its contents
// are in place (the times last, since everything before changes them).
bool Copy::finishDirectory(Frame& frame, bool root) {
  const int destination = frame.destination.get();
  const struct stat& status = frame.status;
  if (attributes_.copy(AttributeItem::descriptor(frame.source.get()),
                       AttributeItem::descriptor(destination), root || dropInheritedAcls_) != 0)
    return fail();
  if (::fchown(destination, status.st_uid, status.st_gid) != 0 && errno != EPERM && errno != EINVAL)
    return fail();
  if (::fchmod(destination, status.st_mode & 07777) != 0) return fail();
  const struct timespec times[2] = {status.st_atim, status.st_mtim};
  if (::futimens(destination, times) != 0) return fail();
  return true;
}

bool Copy::copyItem(int sourceDirectory, const char* sourceName, int destinationDirectory,
                    const char* destinationName, UniqueFd source, const struct stat& status,
                    std::ptrdiff_t level) {
  const bool tracked = level >= 0 && status.st_nlink > 1;
  if (tracked) {
    if (const auto found = linked_.find(identityOf(status)); found != linked_.end()) {
      const int linked = linkToEarlierCopy(found->second, destinationDirectory, destinationName);
      if (linked != 0) return linked > 0;
    }
  }
  bool copied = false;
  if (S_ISREG(status.st_mode)) {
    copied = copyRegular(sourceDirectory, sourceName, destinationDirectory, destinationName,
                         std::move(source), status);
  } else if (S_ISLNK(status.st_mode)) {
    copied = copyLink(sourceDirectory, sourceName, destinationDirectory, destinationName, status);
  } else {
    copied =
        copySpecial(sourceDirectory, sourceName, destinationDirectory, destinationName, status);
  }
  if (copied && tracked) {
    linked_.try_emplace(identityOf(status),
                        relativePath(static_cast<std::size_t>(level), destinationName));
  }
  return copied;
}

bool Copy::copyRegular(int sourceDirectory, const char* sourceName, int destinationDirectory,
                       const char* destinationName, UniqueFd source, const struct stat& status) {
  struct stat current = status;
  if (!source) {
    source = openSource(sourceDirectory, sourceName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (!source || ::fstat(source.get(), &current) != 0) return fail();
    if (!S_ISREG(current.st_mode)) return failWith(EAGAIN);  // replaced while copying
  }
  const int createFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  UniqueFd destination = openRetrying(
      [&] { return ::openat(destinationDirectory, destinationName, createFlags, 0600); });
  if (!destination && errno == EEXIST) {
    if (!replaceExisting(destinationDirectory, destinationName, current)) return false;
    destination = openRetrying(
        [&] { return ::openat(destinationDirectory, destinationName, createFlags, 0600); });
  }
  if (!destination) return fail();

  if (!copyData(source.get(), destination.get(), current)) return false;
  if (attributes_.copy(AttributeItem::descriptor(source.get()),
                       AttributeItem::descriptor(destination.get()), dropInheritedAcls_) != 0)
    return fail();
  // Owner before mode: a change of owner clears the set-id bits.
  if (::fchown(destination.get(), current.st_uid, current.st_gid) != 0 && errno != EPERM &&
      errno != EINVAL)
    return fail();
  if (::fchmod(destination.get(), current.st_mode & 07777) != 0) return fail();
  const struct timespec times[2] = {current.st_atim, current.st_mtim};
  if (::futimens(destination.get(), times) != 0) return fail();
  if (closeWritten(destination) != 0) return fail();
  return true;
}

bool Copy::copyData(int source, int destination, const struct stat& status) {
  if (status.st_size == 0) return true;
  if (tryClone_) {
    if (::ioctl(destination, FICLONE, source) == 0) return true;
    // Not offered here: every later file goes to the same place.
    if (notOffered(errno)) tryClone_ = false;
  }
  const bool sparse = static_cast<long long>(status.st_blocks) * 512 < status.st_size;
  if (!sparse) return copyRange(source, destination, 0, status.st_size);

  off_t position = 0;
  while (position < status.st_size) {
    const off_t data = ::lseek(source, position, SEEK_DATA);
    if (data < 0) {
      if (errno == ENXIO) break;  // only a hole is left
      if (errno != EINVAL) return fail();
      // No hole search on this file system: everything left is data.
      if (!copyRange(source, destination, position, status.st_size - position)) return false;
      position = status.st_size;
      break;
    }
    off_t hole = ::lseek(source, data, SEEK_HOLE);
    if (hole < 0) return fail();
    if (hole > status.st_size) hole = status.st_size;
    if (hole > data && !copyRange(source, destination, data, hole - data)) return false;
    position = hole;
  }
  // The size, with the trailing hole if there is one.
  if (::ftruncate(destination, status.st_size) != 0) return fail();
  return true;
}

// Copies [offset, offset + length) to the same place of `destination`; a
// source that ends earlier ends the copy there.
bool Copy::copyRange(int source, int destination, off_t offset, off_t length) {
  off_t in = offset;
  off_t out = offset;
  while (length > 0 && tryCopyFileRange_) {
    const ssize_t copied =
        ::copy_file_range(source, &in, destination, &out, static_cast<std::size_t>(length), 0);
    if (copied == 0) return true;
    if (copied > 0) {
      length -= copied;
      continue;
    }
    if (!notOffered(errno)) return fail();
    tryCopyFileRange_ = false;
  }
  if (length > 0 && !copyBuffer_) copyBuffer_.reset(new char[kCopyBufferSize]);
  while (length > 0) {
    const std::size_t chunk = static_cast<std::size_t>(length) < kCopyBufferSize
                                  ? static_cast<std::size_t>(length)
                                  : kCopyBufferSize;
    const ssize_t got = ::pread(source, copyBuffer_.get(), chunk, in);
    if (got == 0) return true;
    if (got < 0) {
      if (errno == EINTR) continue;
      return fail();
    }
    for (ssize_t written = 0; written < got;) {
      const ssize_t put = ::pwrite(destination, copyBuffer_.get() + written,
                                   static_cast<std::size_t>(got - written), out);
      if (put < 0) {
        if (errno == EINTR) continue;
        return fail();
      }
      written += put;
      out += put;
    }
    in += got;
    length -= got;
  }
  return true;
}

bool Copy::copyLink(int sourceDirectory, const char* sourceName, int destinationDirectory,
                    const char* destinationName, const struct stat& status) {
  // The size lstat gives is the content's length; some file systems give 0.
  std::size_t capacity = status.st_size > 0 ? static_cast<std::size_t>(status.st_size) + 1 : 256;
  for (;;) {
    linkContent_.resize(capacity);
    const ssize_t length = ::readlinkat(sourceDirectory, sourceName, linkContent_.data(), capacity);
    if (length < 0) return fail();
    if (static_cast<std::size_t>(length) < capacity) {
      linkContent_.resize(static_cast<std::size_t>(length));
      break;
    }
    capacity *= 2;  // possibly cut: the link grew since it was looked at
  }
  if (::symlinkat(linkContent_.c_str(), destinationDirectory, destinationName) != 0) {
    if (errno != EEXIST || !replaceExisting(destinationDirectory, destinationName, status))
      return fail();
    if (::symlinkat(linkContent_.c_str(), destinationDirectory, destinationName) != 0)
      return fail();
  }
  // Links have no ACLs.
  if (!copyAttributesByPath(sourceDirectory, sourceName, destinationDirectory, destinationName,
                            false))
    return false;
  if (::fchownat(destinationDirectory, destinationName, status.st_uid, status.st_gid,
                 AT_SYMLINK_NOFOLLOW) != 0 &&
      errno != EPERM && errno != EINVAL)
    return fail();
  const struct timespec times[2] = {status.st_atim, status.st_mtim};
  if (::utimensat(destinationDirectory, destinationName, times, AT_SYMLINK_NOFOLLOW) != 0)
    return fail();
  return true;
}

// FIFOs, sockets and devices: made anew, never opened.
bool Copy::copySpecial(int sourceDirectory, const char* sourceName, int destinationDirectory,
                       const char* destinationName, const struct stat& status) {
  const mode_t mode = (status.st_mode & S_IFMT) | 0600;
  if (::mknodat(destinationDirectory, destinationName, mode, status.st_rdev) != 0) {
    if (errno != EEXIST || !replaceExisting(destinationDirectory, destinationName, status))
      return fail();
    if (::mknodat(destinationDirectory, destinationName, mode, status.st_rdev) != 0) return fail();
  }
  if (!copyAttributesByPath(sourceDirectory, sourceName, destinationDirectory, destinationName,
                            dropInheritedAcls_))
    return false;
  if (::fchownat(destinationDirectory, destinationName, status.st_uid, status.st_gid,
                 AT_SYMLINK_NOFOLLOW) != 0 &&
      errno != EPERM && errno != EINVAL)
    return fail();
  if (::fchmodat(destinationDirectory, destinationName, status.st_mode & 07777, 0) != 0)
    return fail();
  const struct timespec times[2] = {status.st_atim, status.st_mtim};
  if (::utimensat(destinationDirectory, destinationName, times, AT_SYMLINK_NOFOLLOW) != 0)
    return fail();
  return true;
}

// Items that cannot be opened without following them are named through the
// descriptor of their directory. Without /proc there is no such name, and
// their attributes are left behind.
bool Copy::copyAttributesByPath(int sourceDirectory, const char* sourceName,
                                int destinationDirectory, const char* destinationName,
                                bool dropOtherAcls) {
  if (!procAvailable_ && (sourceDirectory != AT_FDCWD || destinationDirectory != AT_FDCWD))
    return true;
  const std::string from = procPath(sourceDirectory, sourceName);
  const std::string to = procPath(destinationDirectory, destinationName);
  if (attributes_.copy(AttributeItem::link(from.c_str()), AttributeItem::link(to.c_str()),
                       dropOtherAcls) != 0)
    return fail();
  return true;
}

int Copy::linkToEarlierCopy(const std::string& earlier, int destinationDirectory,
                            const char* destinationName) {
  if (!linkBase_) {
    linkBase_ = openRetrying([&] {
      return ::openat(AT_FDCWD, destinationRoot_, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    });
    struct stat status;
    if (!linkBase_ || ::fstat(linkBase_.get(), &status) != 0) {
      fail();
      return -1;
    }
    if (identityOf(status) != destinationRootIdentity_) {
      failWith(ESTALE);
      return -1;
    }
  }
  for (int attempt = 0;; ++attempt) {
    if (::linkat(linkBase_.get(), earlier.c_str(), destinationDirectory, destinationName, 0) == 0)
      return 1;
    const int error = errno;
    if (error == ENAMETOOLONG) return 0;
    // A name already there is replaced once, like any item in the way.
    if (error != EEXIST || attempt > 0 ||
        ::unlinkat(destinationDirectory, destinationName, 0) != 0) {
      failWith(error == EEXIST && attempt == 0 ? errno : error);
      return -1;
    }
  }
}

// Removes the non-directory in the way of a copy. A directory is kept
// (EISDIR), and so is the source itself when the destination names it.
bool Copy::replaceExisting(int destinationDirectory, const char* destinationName,
                           const struct stat& status) {
  struct stat existing;
  if (::fstatat(destinationDirectory, destinationName, &existing, AT_SYMLINK_NOFOLLOW) == 0 &&
      identityOf(existing) == identityOf(status))
    return failWith(EINVAL);
  if (::unlinkat(destinationDirectory, destinationName, 0) != 0) return fail();
  return true;
}

UniqueFd Copy::openSource(int directory, const char* name, int flags) {
  for (;;) {
    UniqueFd fd =
        openRetrying([&] { return ::openat(directory, name, flags | O_CLOEXEC | noAtime_); });
    if (fd || errno != EPERM || noAtime_ == 0) return fd;
    noAtime_ = 0;  // not the owner of the source: read it the ordinary way
  }
}

// Makes the directory `name` for a copy (owner-only until it is finished) or
// takes the directory that is already there.
UniqueFd Copy::makeDirectory(int parent, const char* name) {
  if (::mkdirat(parent, name, 0700) != 0 && errno != EEXIST) return UniqueFd();
  UniqueFd fd = openRetrying(
      [&] { return ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
  if (!fd && (errno == ENOTDIR || errno == ELOOP)) errno = EEXIST;
  return fd;
}

// Runs `open` again after closing the oldest open directories while the
// process is out of descriptors.
template <class Open>
UniqueFd Copy::openRetrying(Open&& open) {
  for (;;) {
    UniqueFd fd(open());
    if (fd || (errno != EMFILE && errno != ENFILE) || !closeOldestOpen()) return fd;
  }
}

// Closes the oldest open pair of the branch, keeping the top one open.
// Returns false when only the top one is open.
bool Copy::closeOldestOpen() {
  if (depth_ <= firstOpen_ + 1) return false;
  frames_[firstOpen_].source.reset();
  frames_[firstOpen_].destination.reset();
  ++firstOpen_;
  return true;
}

// Reopens the closed parent pair of the frame at `level` through "..",
// checking that both are the directories recorded on the way down.
bool Copy::reopenParentOf(std::size_t level) {
  const std::size_t parent = level - 1;
  const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  Frame& child = frames_[level];
  UniqueFd source = openRetrying([&] { return ::openat(child.source.get(), "..", flags); });
  UniqueFd destination =
      source ? openRetrying([&] { return ::openat(child.destination.get(), "..", flags); })
             : UniqueFd();
  struct stat sourceStatus;
  struct stat destinationStatus;
  if (destination && ::fstat(source.get(), &sourceStatus) == 0 &&
      ::fstat(destination.get(), &destinationStatus) == 0 &&
      identityOf(sourceStatus) == frames_[parent].sourceIdentity &&
      identityOf(destinationStatus) == frames_[parent].destinationIdentity) {
    frames_[parent].source = std::move(source);
    frames_[parent].destination = std::move(destination);
    firstOpen_ = parent;
    return true;
  }
  // Moved elsewhere meanwhile: look for the parent where it was.
  return reopenFromRoot(parent);
}

// Reopens the pair at `target` from the root paths through the recorded
// names, checking each directory's identity.
bool Copy::reopenFromRoot(std::size_t target) {
  const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  for (int side = 0; side < 2; ++side) {
    const char* root = side == 0 ? sourceRoot_ : destinationRoot_;
    auto identity = [side](const Frame& frame) {
      return side == 0 ? frame.sourceIdentity : frame.destinationIdentity;
    };
    UniqueFd current = openRetrying([&] { return ::openat(AT_FDCWD, root, flags); });
    for (std::size_t level = 0;; ++level) {
      struct stat status;
      if (!current || ::fstat(current.get(), &status) != 0) return fail();
      if (identityOf(status) != identity(frames_[level])) return failWith(ESTALE);
      if (level == target) break;
      const char* name = frames_[level + 1].name.c_str();
      current = openRetrying([&] { return ::openat(current.get(), name, flags); });
    }
    (side == 0 ? frames_[target].source : frames_[target].destination) = std::move(current);
  }
  firstOpen_ = target;
  return true;
}

Frame& Copy::push() {
  if (depth_ == frames_.size()) frames_.emplace_back();
  return frames_[depth_++];
}

// The path of entry `name` of the directory at `level`, relative to the
// destination root.
std::string Copy::relativePath(std::size_t level, std::string_view name) const {
  std::string path;
  for (std::size_t i = 1; i <= level; ++i) {
    path.append(frames_[i].name);
    path.push_back('/');
  }
  path.append(name);
  return path;
}

std::string Copy::procPath(int directory, const char* name) const {
  if (directory == AT_FDCWD) return name;
  std::string path = "/proc/self/fd/" + std::to_string(directory);
  path.push_back('/');
  path.append(name);
  return path;
}

bool Copy::fail() {
  return failWith(errno);
}

bool Copy::failWith(int errorNumber) {
  if (error_ == 0) error_ = errorNumber;
  return false;
}

}  // namespace

int copyTree(const char* source, const char* destination) {
  if (source == nullptr || destination == nullptr) {
    errno = EFAULT;
    return -1;
  }
  return Copy(source, destination).run();
}

}  // namespace platform::sys
