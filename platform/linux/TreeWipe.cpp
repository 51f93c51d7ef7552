#include "platform/linux/TreeWipe.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <deque>
#include <new>
#include <string>
#include <string_view>

#include "platform/linux/DirectoryStream.h"
#include "platform/linux/DirentRecords.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/MountPoints.h"

namespace platform::sys {

struct TreeWipeState {
  TreeWipeErrorCallback callback = nullptr;
  void* context = nullptr;
  int errorNumber = 0;
};

void TreeWipeStateDeleter::operator()(TreeWipeState* state) const {
  delete state;
}

TreeWipeStatePtr treeWipeStateAlloc() {
  TreeWipeStatePtr state(new (std::nothrow) TreeWipeState());
  if (!state) errno = ENOMEM;
  return state;
}

int treeWipeStateSetErrorCallback(TreeWipeState* state, TreeWipeErrorCallback callback) {
  if (state == nullptr) {
    errno = EINVAL;
    return -1;
  }
  state->callback = callback;
  return 0;
}

int treeWipeStateSetErrorContext(TreeWipeState* state, void* context) {
  if (state == nullptr) {
    errno = EINVAL;
    return -1;
  }
  state->context = context;
  return 0;
}

int treeWipeStateGetErrorNumber(const TreeWipeState* state, int* errorNumber) {
  if (state == nullptr || errorNumber == nullptr) {
    errno = EINVAL;
    return -1;
  }
  *errorNumber = state->errorNumber;
  return 0;
}

int treeWipeStateSetErrorNumber(TreeWipeState* state, int errorNumber) {
  if (state == nullptr) {
    errno = EINVAL;
    return -1;
  }
  state->errorNumber = errorNumber;
  return 0;
}

namespace {

// Directory entries are read in chunks of this size, into one buffer that
// serves the whole walk: a directory is read completely before the walk
// descends into any of its subdirectories.
constexpr std::size_t kReadBufferSize = 64 * 1024;

struct Identity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const Identity&) const = default;
};

bool identify(int fd, Identity& identity) {
  struct stat status;
  if (::fstat(fd, &status) != 0) return false;
  identity = Identity{status.st_dev, status.st_ino};
  return true;
}

// One directory of the branch being removed.
struct Frame {
  UniqueFd fd;             // closed while the frame is outside the open window
  Identity identity;       // recorded when the directory was opened on the way down
  std::string name;        // its name in the parent directory (empty for the root)
  std::string pending;     // subdirectories still to remove, each name ending in NUL
  std::size_t cursor = 0;  // where the next pending name starts
};

class Walk {
 public:
  Walk(const char* root, TreeWipeState* state) : root_(root), state_(state) {}
  int run(unsigned flags);

 private:
  int removeRootNonDirectory();
  int removeRootAlone();
  void readDirectory(std::size_t level);
  void descend(const char* name);
  void ascend();
  bool reopenParentOf(std::size_t level);
  bool reopenFromRoot(std::size_t target);
  void abandonFrom(std::size_t level, int errorNumber);
  bool closeOldestOpen();
  Frame& push();
  bool matches(int fd, std::size_t level) const;
  // False, after reporting it, when the directory open as `fd` (the entry
  // `name` at `level`, or the directory at `level` itself) is a mount point
  // or cannot be told from one: it is left in place, unentered.
  bool outsideAnyMount(int fd, std::size_t level, std::string_view name = {});
  bool report(const std::string& path, int errorNumber);
  // Reports the failed call's errno for the entry `name` at `level`. errno is
  // read before the path is built, since building it may allocate.
  bool reportErrno(std::size_t level, std::string_view name = {});
  std::string pathOf(std::size_t level, std::string_view name = {}) const;
  int finish() const;

  const char* root_;
  TreeWipeState* state_;
  // frames_[0, depth_) is the current branch; frames beyond are kept for reuse.
  std::deque<Frame> frames_;
  std::size_t depth_ = 0;
  std::size_t firstOpen_ = 0;  // frames below this level have their descriptor closed
  std::unique_ptr<char[]> buffer_;
  int firstError_ = 0;  // without a callback: the first error other than ENOENT
  bool stopped_ = false;
  int stopError_ = 0;
};

int Walk::run(unsigned flags) {
  if ((flags & kTreeWipeRecursive) == 0) return removeRootAlone();

  // An empty directory (common: a staging directory emptied by renames) goes
  // with one call. rmdir never follows a final link and refuses a mount point
  // (EBUSY); everything but success, a missing root or a non-directory takes
  // the walk below, which reports it as it always has.
  if (::rmdir(root_) == 0) return 0;
  if (const int error = errno; error == ENOENT) {
    return -1;
  } else if (error == ENOTDIR) {
    return removeRootNonDirectory();
  }

  UniqueFd root = openDirectory(root_, FinalLink::NotFollowed);
  if (!root) {
    const int error = errno;
    if (error == ENOTDIR || error == ELOOP) return removeRootNonDirectory();
    errno = error;
    return -1;
  }
  Identity identity;
  if (!identify(root.get(), identity)) return -1;
  if (!outsideAnyMount(root.get(), 0)) return finish();
  Frame& frame = push();
  frame.fd = std::move(root);
  frame.identity = identity;
  frame.name.clear();
  readDirectory(0);

  while (depth_ > 0 && !stopped_) {
    Frame& top = frames_[depth_ - 1];
    if (top.cursor < top.pending.size()) {
      // The name stays in place while the child is visited: the child is a
      // different frame, and the deque never moves frames.
      const char* name = top.pending.c_str() + top.cursor;
      top.cursor += std::strlen(name) + 1;
      descend(name);
    } else {
      ascend();
    }
  }
  return finish();
}

// The root could not be opened as a directory: it is a file, a link or
// another non-directory, or its path cannot be resolved at all.
int Walk::removeRootNonDirectory() {
  struct stat status;
  if (::lstat(root_, &status) != 0) return -1;  // missing, or a component is not a directory
  if (::unlink(root_) == 0) return 0;
  const int error = errno;
  if (error == ENOENT) return -1;  // gone meanwhile: as if it never existed
  report(root_, error);
  return finish();
}

// Without the recursive flag only an empty directory or a non-directory goes.
int Walk::removeRootAlone() {
  if (::rmdir(root_) == 0) return 0;
  const int error = errno;
  if (error == ENOTDIR) return removeRootNonDirectory();
  if (error == ENOENT) return -1;
  report(root_, error);
  return finish();
}

// Removes every non-directory of the directory at `level` while reading it and
// records its subdirectories as pending.
void Walk::readDirectory(std::size_t level) {
  Frame& frame = frames_[level];
  frame.pending.clear();
  frame.cursor = 0;
  if (!buffer_) buffer_.reset(new char[kReadBufferSize]);
  const int fd = frame.fd.get();
  for (;;) {
    const ssize_t size = readDirents(fd, buffer_.get(), kReadBufferSize);
    if (size == 0) return;
    if (size < 0) {
      reportErrno(level);
      return;
    }
    const bool goOn = forEachDirent(buffer_.get(), static_cast<std::size_t>(size),
                                    [&](const DirentRecord& entry) {
                                      if (entry.type != DT_DIR) {
                                        if (::unlinkat(fd, entry.name, 0) == 0) return true;
                                        const int error = errno;
                                        // EISDIR: the type was not reported, or a directory took
                                        // the entry's place.
                                        if (error != EISDIR)
                                          return report(pathOf(level, entry.name), error);
                                      }
                                      frame.pending.append(entry.name);
                                      frame.pending.push_back('\0');
                                      return true;
                                    });
    if (!goOn) return;
  }
}

// Opens the pending subdirectory `name` of the top frame and makes it the top.
void Walk::descend(const char* name) {
  const std::size_t parent = depth_ - 1;
  UniqueFd child;
  for (;;) {
    child = openDirectoryAt(frames_[parent].fd.get(), name);
    if (child) break;
    const int error = errno;
    if ((error == EMFILE || error == ENFILE) && closeOldestOpen()) continue;
    if (error == ENOTDIR || error == ELOOP) {
      // A link or a file took the directory's place: remove it, never follow it.
      if (::unlinkat(frames_[parent].fd.get(), name, 0) != 0) reportErrno(parent, name);
    } else {
      report(pathOf(parent, name), error);
    }
    return;
  }
  Identity identity;
  if (!identify(child.get(), identity)) {
    reportErrno(parent, name);
    return;
  }
  if (!outsideAnyMount(child.get(), parent, name)) return;
  Frame& frame = push();
  frame.fd = std::move(child);
  frame.identity = identity;
  frame.name.assign(name);
  if (depth_ - firstOpen_ > kTreeWipeOpenDirectories) closeOldestOpen();
  readDirectory(depth_ - 1);
}

// The top directory has been emptied as far as possible: remove it from its
// parent, which becomes the top.
void Walk::ascend() {
  const std::size_t level = depth_ - 1;
  if (level == 0) {
    frames_[0].fd.reset();
    depth_ = 0;
    if (::rmdir(root_) != 0) {
      const int error = errno;
      report(root_, error);
    }
    return;
  }
  const std::size_t parent = level - 1;
  if (parent < firstOpen_ && !reopenParentOf(level)) return;
  Frame& frame = frames_[level];
  frame.fd.reset();
  depth_ = level;
  if (::unlinkat(frames_[parent].fd.get(), frame.name.c_str(), AT_REMOVEDIR) != 0) {
    reportErrno(parent, frame.name);
  }
}

// Reopens the closed parent of the frame at `level` through "..", checking
// that it is the directory recorded on the way down.
bool Walk::reopenParentOf(std::size_t level) {
  const std::size_t parent = level - 1;
  UniqueFd fd = openDirectoryAt(frames_[level].fd.get(), "..");
  if (fd && matches(fd.get(), parent)) {
    frames_[parent].fd = std::move(fd);
    firstOpen_ = parent;
    return true;
  }
  // The child was moved elsewhere: look for the parent where it was.
  return reopenFromRoot(parent);
}

// Reopens the frame at `target` from the root path through the recorded
// names, checking each directory's identity. When some level cannot be
// reached, the frames from there up are abandoned; returns whether `target`
// was reached.
bool Walk::reopenFromRoot(std::size_t target) {
  UniqueFd current = openDirectory(root_, FinalLink::NotFollowed);
  int error = 0;
  std::size_t level = 0;
  if (!current) {
    error = errno;
  } else if (!matches(current.get(), 0)) {
    error = ESTALE;
  } else {
    for (level = 1; level <= target; ++level) {
      UniqueFd next = openDirectoryAt(current.get(), frames_[level].name.c_str());
      if (!next) {
        error = errno;
        break;
      }
      if (!matches(next.get(), level)) {
        error = ESTALE;
        break;
      }
      current = std::move(next);
    }
  }
  if (error == 0) {
    frames_[target].fd = std::move(current);
    firstOpen_ = target;
    return true;
  }
  abandonFrom(level, error);
  if (level > 0) {
    frames_[level - 1].fd = std::move(current);
    firstOpen_ = level - 1;
  }
  return false;
}

// Gives up the directories from `level` to the top: each is reported and left
// in place with whatever is still inside it.
void Walk::abandonFrom(std::size_t level, int errorNumber) {
  for (std::size_t top = depth_; top > level; --top) {
    report(pathOf(top - 1), errorNumber);
    frames_[top - 1].fd.reset();
  }
  depth_ = level;
  if (firstOpen_ > level) firstOpen_ = level;
}

// Closes the descriptor of the oldest open frame of the branch, keeping the
// top one open. Returns false when only the top one is open.
bool Walk::closeOldestOpen() {
  if (depth_ - firstOpen_ <= 1) return false;
  frames_[firstOpen_].fd.reset();
  ++firstOpen_;
  return true;
}

Frame& Walk::push() {
  if (depth_ == frames_.size()) frames_.emplace_back();
  return frames_[depth_++];
}

bool Walk::matches(int fd, std::size_t level) const {
  Identity identity;
  return identify(fd, identity) && identity == frames_[level].identity;
}

bool Walk::outsideAnyMount(int fd, std::size_t level, std::string_view name) {
  const int mounted = isMountRoot(fd);
  if (mounted == 0) return true;
  const int errorNumber = mounted > 0 ? kMountPointErrorNumber : errno;
  report(pathOf(level, name), errorNumber);
  return false;
}

// Hands one failure to the callback; returns false when the walk must stop.
bool Walk::report(const std::string& path, int errorNumber) {
  if (stopped_) return false;
  if (state_ == nullptr || state_->callback == nullptr) {
    if (firstError_ == 0 && errorNumber != ENOENT) firstError_ = errorNumber;
    return true;
  }
  state_->errorNumber = errorNumber;
  if (state_->callback(state_, path.c_str(), state_->context) == kTreeWipeProceed) return true;
  stopped_ = true;
  stopError_ = errorNumber;
  return false;
}

bool Walk::reportErrno(std::size_t level, std::string_view name) {
  const int errorNumber = errno;
  return report(pathOf(level, name), errorNumber);
}

// The path of the directory at `level`, or of the entry `name` inside it.
std::string Walk::pathOf(std::size_t level, std::string_view name) const {
  std::string path(root_);
  auto append = [&path](std::string_view component) {
    if (path.empty() || path.back() != '/') path.push_back('/');
    path.append(component);
  };
  for (std::size_t i = 1; i <= level; ++i)
    append(frames_[i].name);
  if (!name.empty()) append(name);
  return path;
}

int Walk::finish() const {
  if (stopped_) {
    errno = stopError_;
    return -1;
  }
  if (firstError_ != 0) {
    errno = firstError_;
    return -1;
  }
  return 0;
}

}  // namespace

int treeWipe(const char* path, TreeWipeState* state, unsigned flags) {
  if (path == nullptr) {
    errno = EFAULT;
    return -1;
  }
  return Walk(path, state).run(flags);
}

}  // namespace platform::sys
