#include "platform/linux/DirectoryBatch.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "platform/linux/DirentRecords.h"
#include "platform/linux/MountPoints.h"

namespace platform::sys {

namespace {

constexpr unsigned kAttributeMask = STATX_TYPE | STATX_INO | STATX_NLINK | STATX_BLOCKS;
constexpr int kAttributeFlags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;

}  // namespace

DirectoryBatchReader DirectoryBatchReader::open(const char* path) {
  DirectoryBatchReader reader;
  reader.directory_.reset(::open(path, O_RDONLY | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC));
  return reader;
}

ssize_t DirectoryBatchReader::readBatch(std::span<std::byte> buffer) {
  cursor_ = end_ = nullptr;
  const ssize_t length = readDirents(directory_.get(), buffer.data(), buffer.size());
  if (length > 0) {
    cursor_ = buffer.data();
    end_ = cursor_ + length;
  }
  return length;
}

bool DirectoryBatchReader::nextEntry(BatchEntry& entry) {
  while (cursor_ != nullptr && cursor_ < end_) {
    DirentRecord record;
    const std::size_t recordLength = decodeDirent(cursor_, &record);
    if (recordLength == 0) break;  // never from the kernel; guards the loop
    cursor_ += recordLength;
    if (isDotOrDotDot(record.name)) continue;

    const char* name = record.name;
    entry = BatchEntry{};
    entry.name = name;
    if (record.type == DT_DIR) {
      entry.isDirectory = true;
      entry.fileIdentifier = record.inode;
      if (const int mounted = isMountRootAt(directory_.get(), name); mounted != 0) {
        entry.errorNumber = mounted > 0 ? kMountPointErrorNumber : errno;
        errno = entry.errorNumber;
      }
      return true;
    }

    struct statx attributes;
    if (::statx(directory_.get(), name, kAttributeFlags, kAttributeMask, &attributes) != 0) {
      entry.errorNumber = errno;
      return true;
    }
    entry.isDirectory = (attributes.stx_mask & STATX_TYPE) != 0 && S_ISDIR(attributes.stx_mode);
    if ((attributes.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
      entry.errorNumber = errno = kMountPointErrorNumber;
      return true;
    }
    entry.fileIdentifier = attributes.stx_ino;
    entry.linkCount = attributes.stx_nlink;
    entry.allocatedBytes = static_cast<std::uint64_t>(attributes.stx_blocks) * 512;
    return true;
  }
  cursor_ = end_ = nullptr;
  return false;
}

}  // namespace platform::sys
