#include "platform/linux/DirectoryStream.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>

namespace platform::sys {

struct DirectoryStream::Stream {
  explicit Stream(DIR* opened) : dir(opened) {}
  ~Stream() { ::closedir(dir); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  DIR* dir;
};

namespace {

EntryType typeFromDirent(unsigned char type) {
  switch (type) {
    case DT_UNKNOWN:
      return EntryType::Unknown;
    case DT_DIR:
      return EntryType::Directory;
    case DT_LNK:
      return EntryType::Symlink;
    case DT_REG:
      return EntryType::Regular;
    default:
      return EntryType::Other;
  }
}

EntryType typeFromStat(int directory, const char* name) {
  struct stat status;
  if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return EntryType::Unknown;
  if (S_ISDIR(status.st_mode)) return EntryType::Directory;
  if (S_ISLNK(status.st_mode)) return EntryType::Symlink;
  if (S_ISREG(status.st_mode)) return EntryType::Regular;
  return EntryType::Unknown;
}

}  // namespace

UniqueFd openDirectory(const char* path, FinalLink finalLink) {
  int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  if (finalLink == FinalLink::NotFollowed) flags |= O_NOFOLLOW;
  return UniqueFd(::open(path, flags));
}

UniqueFd openDirectoryAt(int parent, const char* name) {
  return UniqueFd(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

DirectoryStream::DirectoryStream() = default;
DirectoryStream::~DirectoryStream() = default;
DirectoryStream::DirectoryStream(DirectoryStream&&) noexcept = default;
DirectoryStream& DirectoryStream::operator=(DirectoryStream&&) noexcept = default;

DirectoryStream DirectoryStream::adopt(UniqueFd directory) {
  DirectoryStream result;
  DIR* dir = ::fdopendir(directory.get());
  if (dir == nullptr) return result;  // `directory` closes the descriptor, keeping errno
  directory.release();                // the stream owns it now
  result.stream_.reset(new (std::nothrow) Stream(dir));
  if (!result.stream_) {
    ::closedir(dir);
    errno = ENOMEM;
  }
  return result;
}

int DirectoryStream::descriptor() const {
  return stream_ ? ::dirfd(stream_->dir) : -1;
}

int DirectoryStream::next(DirectoryEntry& entry, bool& atEnd) {
  atEnd = false;
  if (!stream_) return EBADF;
  errno = 0;
  const struct dirent* record = ::readdir(stream_->dir);
  if (record == nullptr) {
    if (errno != 0) return errno;
    atEnd = true;
    return 0;
  }
  entry.name = record->d_name;
  entry.type = typeFromDirent(record->d_type);
  if (entry.type == EntryType::Unknown)
    entry.type = typeFromStat(::dirfd(stream_->dir), record->d_name);
  return 0;
}

}  // namespace platform::sys
