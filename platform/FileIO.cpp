#include "platform/FileIO.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <utility>

#include "platform/FileIOPosix.h"
#include "platform/linux/DirectoryStream.h"

namespace platform {
namespace {

using sys::UniqueFd;

std::string displayPath(const CVURL& url) {
  return url.isNil() ? "(null)" : url.path();
}

// The aside file's name: hidden, unique, and short enough for NAME_MAX even
// when the target's own name is long.
std::string asideName(const std::string& targetName) {
  thread_local std::mt19937_64 generator{std::random_device{}()};
  char suffix[24];
  std::snprintf(suffix, sizeof suffix, ".%016llx", static_cast<unsigned long long>(generator()));
  // Built by appending: GCC 12 at -O3 misreports `"." + std::string` as an
  // overlapping copy.
  std::string name(1, '.');
  name.append(targetName, 0, 200).append(suffix).append(".tmp");
  return name;
}

// When this process began (library load time): aside files older than that
// were left by a process that was killed between writing and renaming.
const struct timespec kProcessStart = [] {
  struct timespec now {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return now;
}();

bool isAsideNameOf(std::string_view name, std::string_view targetName) {
  const std::string_view stem = targetName.substr(0, 200);
  constexpr std::size_t kSuffixLength = 1 + 16 + 4;  // ".<16 hex>.tmp"
  if (name.size() != 1 + stem.size() + kSuffixLength || name[0] != '.' ||
      name.substr(1, stem.size()) != stem || !name.ends_with(".tmp") ||
      name[1 + stem.size()] != '.')
    return false;
  const std::string_view hex = name.substr(2 + stem.size(), 16);
  return std::all_of(hex.begin(), hex.end(),
                     [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

// Removes aside files of `targetName` that an earlier, interrupted process
// left in `directoryPath`, so that they do not linger beside the target
// forever. Best effort: what cannot be listed or removed stays.
void removeStaleAsideFiles(const std::string& directoryPath, const std::string& targetName) {
  auto stream = sys::DirectoryStream::adopt(
      sys::openDirectory(directoryPath.c_str(), sys::FinalLink::NotFollowed));
  if (!stream.valid()) return;
  sys::DirectoryEntry entry;
  bool atEnd = false;
  while (stream.next(entry, atEnd) == 0 && !atEnd) {
    if (!isAsideNameOf(entry.name, targetName)) continue;
    const std::string path =
        directoryPath + (directoryPath == "/" ? "" : "/") + std::string(entry.name);
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
    const bool older = status.st_mtim.tv_sec < kProcessStart.tv_sec ||
                       (status.st_mtim.tv_sec == kProcessStart.tv_sec &&
                        status.st_mtim.tv_nsec < kProcessStart.tv_nsec);
    if (older) ::unlink(path.c_str());
  }
}

bool writeAll(int fd, std::span<const std::uint8_t> bytes, int& failedErrno) {
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t result = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (result < 0) {
      if (errno == EINTR) continue;
      failedErrno = errno;
      return false;
    }
    written += static_cast<std::size_t>(result);
  }
  return true;
}

int fsyncRetrying(int fd) {
  while (::fsync(fd) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

}  // namespace

std::optional<std::vector<std::uint8_t>> readFileContents(const CVURL& url, std::size_t maxSize,
                                                          CVError* error) {
  const std::string path = displayPath(url);
  if (url.isNil()) {
    CVSetError(error, posixCallError(EINVAL, "open", path));
    return std::nullopt;
  }
  // O_NONBLOCK: opening a FIFO must not wait for a writer; the type check
  // below refuses it anyway. It has no effect on regular files.
  int openErrno = 0;
  UniqueFd fd;
  do {
    fd = UniqueFd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    openErrno = fd.valid() ? 0 : errno;
  } while (openErrno == EINTR);
  if (!fd.valid()) {
    CVSetError(error, posixCallError(openErrno, "open", path));
    return std::nullopt;
  }
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0) {
    CVSetError(error, posixCallError(errno, "fstat", path));
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    CVSetError(error, CVError::posix(EINVAL, "read of " + path + " refused: not a regular file"));
    return std::nullopt;
  }
  const auto tooLarge = [&] {
    CVSetError(error, CVError::posix(EFBIG, "read of " + path + " refused: larger than " +
                                                std::to_string(maxSize) + " bytes"));
  };
  if (status.st_size < 0 || static_cast<std::uint64_t>(status.st_size) > maxSize) {
    tooLarge();
    return std::nullopt;
  }

  // Read to the end rather than trusting st_size: the file may change while
  // it is read. One byte more than the cap is let in so that growth past the
  // cap is noticed.
  const std::size_t bufferLimit =
      maxSize == std::numeric_limits<std::size_t>::max() ? maxSize : maxSize + 1;
  std::vector<std::uint8_t> bytes(
      std::min(bufferLimit, static_cast<std::size_t>(status.st_size) + 1));
  std::size_t filled = 0;
  while (true) {
    if (filled == bytes.size()) {
      if (filled > maxSize) {
        tooLarge();
        return std::nullopt;
      }
      bytes.resize(std::min(bufferLimit, std::max<std::size_t>(bytes.size() * 2, 4096)));
    }
    const ssize_t result = ::read(fd.get(), bytes.data() + filled, bytes.size() - filled);
    if (result < 0) {
      if (errno == EINTR) continue;
      CVSetError(error, posixCallError(errno, "read", path));
      return std::nullopt;
    }
    if (result == 0) break;
    filled += static_cast<std::size_t>(result);
  }
  if (filled > maxSize) {
    tooLarge();
    return std::nullopt;
  }
  bytes.resize(filled);
  return bytes;
}

bool writeFileAtomically(const CVURL& url, std::span<const std::uint8_t> bytes, CVError* error,
                         WriteDurability durability) {
  const std::string_view whole(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return writeFileAtomically(url, std::span<const std::string_view>(&whole, 1), error, durability);
}

bool writeFileAtomically(const CVURL& url, std::span<const std::string_view> parts, CVError* error,
                         WriteDurability durability) {
  std::optional<AtomicFileWrite> write = AtomicFileWrite::begin(url, parts, error);
  return write && write->finish(durability, error);
}

AtomicFileWrite::AtomicFileWrite(sys::UniqueFd fd, std::string asidePath, std::string targetPath,
                                 std::string directoryPath, std::string targetName)
    : fd_(std::move(fd)),
      asidePath_(std::move(asidePath)),
      targetPath_(std::move(targetPath)),
      directoryPath_(std::move(directoryPath)),
      targetName_(std::move(targetName)) {}

AtomicFileWrite::AtomicFileWrite(AtomicFileWrite&& other) noexcept
    : fd_(std::move(other.fd_)),
      asidePath_(std::exchange(other.asidePath_, {})),
      targetPath_(std::move(other.targetPath_)),
      directoryPath_(std::move(other.directoryPath_)),
      targetName_(std::move(other.targetName_)) {}

AtomicFileWrite::~AtomicFileWrite() {
  abandon();
}

void AtomicFileWrite::abandon() {
  fd_.reset();
  if (!asidePath_.empty()) ::unlink(std::exchange(asidePath_, {}).c_str());
}

std::optional<AtomicFileWrite> AtomicFileWrite::begin(const CVURL& url,
                                                      std::span<const std::string_view> parts,
                                                      CVError* error) {
  if (url.isNil() || url.path() == "/") {
    CVSetError(error, posixCallError(EINVAL, "open", displayPath(url)));
    return std::nullopt;
  }
  std::string directoryPath = url.URLByDeletingLastPathComponent().path();
  std::string targetName = url.lastPathComponent();
  const std::string separator = directoryPath == "/" ? "" : "/";

  // A fresh name in the same directory, so that the rename stays within one
  // file system. O_EXCL makes a name collision (or a planted link) fail
  // rather than be reused; then another name is tried.
  UniqueFd fd;
  std::string asidePath;
  int openErrno = 0;
  for (int attempt = 0; attempt < 16 && !fd.valid(); ++attempt) {
    asidePath = directoryPath + separator + asideName(targetName);
    fd = UniqueFd(::open(asidePath.c_str(),
                         O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0644));
    openErrno = fd.valid() ? 0 : errno;
    if (openErrno != 0 && openErrno != EEXIST && openErrno != EINTR) break;
  }
  if (!fd.valid()) {
    CVSetError(error, posixCallError(openErrno, "open", asidePath));
    return std::nullopt;
  }
  AtomicFileWrite write(std::move(fd), std::move(asidePath), url.path(), std::move(directoryPath),
                        std::move(targetName));
  int failedErrno = 0;
  for (const std::string_view part : parts) {
    const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(part.data()),
                                              part.size());
    if (!writeAll(write.fd_.get(), bytes, failedErrno)) {
      CVSetError(error, posixCallError(failedErrno, "write", write.asidePath_));
      return std::nullopt;
    }
  }
  return write;
}

bool AtomicFileWrite::finish(WriteDurability durability, CVError* error) {
  const bool flushed = durability == WriteDurability::Flushed;
  if (const int syncErrno = flushed ? fsyncRetrying(fd_.get()) : 0; syncErrno != 0) {
    CVSetError(error, posixCallError(syncErrno, "fsync", asidePath_));
    abandon();
    return false;
  }
  // The errno of close matters for writes.
  if (const int closeErrno = ::close(fd_.release()) == 0 ? 0 : errno; closeErrno != 0) {
    CVSetError(error, posixCallError(closeErrno, "close", asidePath_));
    abandon();
    return false;
  }
  if (::rename(asidePath_.c_str(), targetPath_.c_str()) != 0) {
    const int renameErrno = errno;
    CVSetError(error, CVError::posix(renameErrno, "rename of " + asidePath_ + " to " + targetPath_ +
                                                      " failed: " + errnoDescription(renameErrno)));
    abandon();
    return false;
  }
  asidePath_.clear();
  if (!flushed) {
    removeStaleAsideFiles(directoryPath_, targetName_);
    return true;
  }

  // Flush the directory so that the rename itself survives a crash.
  UniqueFd directory(::open(directoryPath_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid()) {
    CVSetError(error, posixCallError(errno, "open", directoryPath_));
    return false;
  }
  // EINVAL: the file system cannot flush directories; the rename stands.
  if (const int syncErrno = fsyncRetrying(directory.get()); syncErrno != 0 && syncErrno != EINVAL) {
    CVSetError(error, posixCallError(syncErrno, "fsync", directoryPath_));
    return false;
  }
  // Only once the rename is durable: a crash in between keeps the leftovers.
  removeStaleAsideFiles(directoryPath_, targetName_);
  return true;
}

}  // namespace platform
