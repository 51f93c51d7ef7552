// The records one getdents64 call leaves in a buffer: reading a batch,
// decoding a record, visiting every entry but "." and "..".
//
// Records are read field by field, so the buffer needs no alignment.
//
// Error contract: readDirents returns the bytes read, 0 at the end of the
// directory, or -1 with the error number in errno.
#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace platform::sys {

struct DirentRecord {
  const char* name = nullptr;  // points into the buffer
  unsigned char type = DT_UNKNOWN;
  std::uint64_t inode = 0;
};

inline bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

inline ssize_t readDirents(int fd, void* buffer, std::size_t size) {
  return ::getdents64(fd, buffer, size);
}

// Decodes the record at `record` into `*entry` and returns its length; 0
// (never from the kernel) marks a buffer that cannot be walked further.
inline std::size_t decodeDirent(const void* record, DirentRecord* entry) {
  const auto* bytes = static_cast<const char*>(record);
  unsigned short length = 0;
  std::memcpy(&length, bytes + offsetof(struct dirent64, d_reclen), sizeof length);
  std::memcpy(&entry->type, bytes + offsetof(struct dirent64, d_type), sizeof entry->type);
  std::memcpy(&entry->inode, bytes + offsetof(struct dirent64, d_ino), sizeof entry->inode);
  entry->name = bytes + offsetof(struct dirent64, d_name);
  return length;
}

// Calls `visit(const DirentRecord&)` for each entry of a batch of `size`
// bytes, in order, skipping "." and "..". Stops, answering false, as soon as
// `visit` answers false.
template <class Visit>
bool forEachDirent(const void* buffer, std::size_t size, Visit&& visit) {
  const auto* bytes = static_cast<const char*>(buffer);
  for (std::size_t offset = 0; offset < size;) {
    DirentRecord entry;
    const std::size_t length = decodeDirent(bytes + offset, &entry);
    if (length == 0) break;
    offset += length;
    if (isDotOrDotDot(entry.name)) continue;
    if (!visit(entry)) return false;
  }
  return true;
}

}  // namespace platform::sys
