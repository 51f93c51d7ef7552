// Reading a directory's entries together with the attributes that disk-usage
// accounting needs: name, kind, file identifier, link count and allocated
// size.
//
// Linux has no bulk directory-attribute call: names come in batches from
// getdents64 into a buffer that the caller owns, and the attributes of each
// entry that is not a directory come from one statx relative to the open
// directory (never following a link, never triggering an automount, asking
// only for type, inode, link count and blocks). A directory's kind and
// identifier come from the batch itself; a directory costs one statx only to
// tell whether it is a mount point. An entry that is the root of a mount (a
// bind mount, another file system) carries EXDEV as its error number, so that
// accounting never crosses into another mount.
//
// Error contract: DirectoryBatchReader::open returns a reader that is not
// valid, with the error number in errno, when the directory cannot be opened.
// readBatch returns the number of bytes read (> 0), 0 at the end of the
// directory, or -1 with the error number in errno. An entry whose attributes
// could not be read carries that error number in `errorNumber`, and errno
// holds it too when nextEntry returns.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/linux/FileDescriptor.h"

namespace platform::sys {

struct BatchEntry {
  const char* name = nullptr;  // NUL-terminated, valid until the next readBatch
  bool isDirectory = false;
  std::uint64_t fileIdentifier = 0;
  std::uint32_t linkCount = 0;       // not read for directories
  std::uint64_t allocatedBytes = 0;  // not read for directories
  int errorNumber = 0;               // 0, or why the attributes could not be read
};

class DirectoryBatchReader {
 public:
  DirectoryBatchReader() = default;

  // Opens `path` read-only as a directory, not following a final link (a link
  // fails with ENOTDIR, a file that is not a directory too).
  static DirectoryBatchReader open(const char* path);

  bool valid() const { return directory_.valid(); }

  // Reads the next batch of entries into `buffer`, which must stay untouched
  // while the batch's entries are read. The reader keeps no other memory.
  ssize_t readBatch(std::span<std::byte> buffer);

  // Fills `entry` with the next entry of the last batch ("." and ".." are
  // left out) and its attributes. False when the batch is used up.
  bool nextEntry(BatchEntry& entry);

 private:
  UniqueFd directory_;
  const std::byte* cursor_ = nullptr;
  const std::byte* end_ = nullptr;
};

}  // namespace platform::sys
