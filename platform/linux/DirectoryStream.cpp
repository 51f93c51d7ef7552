#include "platform/linux/DirectoryStream.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>

#include "platform/linux/DirentRecords.h"

namespace platform::sys {

// Entries are read with getdents64 straight into a buffer of the stream's
// own: no fstat and no fcntl on the descriptor, as fdopendir would make for
// every directory a walk opens.
struct DirectoryStream::Stream {
  explicit Stream(UniqueFd opened) : fd(std::move(opened)) {}
  UniqueFd fd;
  std::size_t offset = 0;  // of the next record in `buffer`
  std::size_t filled = 0;  // bytes of records in `buffer`
  char buffer[32 * 1024];
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
  if (!directory) {
    errno = EBADF;
    return result;
  }
  result.stream_.reset(new (std::nothrow) Stream(std::move(directory)));
  if (!result.stream_) errno = ENOMEM;  // `directory` was not moved from: it closes
  return result;
}

int DirectoryStream::descriptor() const {
  return stream_ ? stream_->fd.get() : -1;
}

int DirectoryStream::next(DirectoryEntry& entry, bool& atEnd) {
  atEnd = false;
  if (!stream_) return EBADF;
  Stream& stream = *stream_;
  DirentRecord record;
  do {
    if (stream.offset >= stream.filled) {
      const ssize_t read = readDirents(stream.fd.get(), stream.buffer, sizeof stream.buffer);
      if (read < 0) return errno;
      if (read == 0) {
        atEnd = true;
        return 0;
      }
      stream.filled = static_cast<std::size_t>(read);
      stream.offset = 0;
    }
    const std::size_t length = decodeDirent(stream.buffer + stream.offset, &record);
    if (length == 0) return EIO;  // a record the kernel never writes
    stream.offset += length;
  } while (isDotOrDotDot(record.name));
  entry.name = record.name;
  entry.inode = record.inode;
  entry.type = typeFromDirent(record.type);
  if (entry.type == EntryType::Unknown) entry.type = typeFromStat(stream.fd.get(), record.name);
  return 0;
}

}  // namespace platform::sys
