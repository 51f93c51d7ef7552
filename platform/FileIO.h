// Whole-file reads and durable whole-file writes.
//
// Errors: POSIX-domain CVError records whose description names the call and
// the path, with the errno of the failing call as code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Error.h"
#include "platform/URL.h"
#include "platform/linux/FileDescriptor.h"

namespace platform {

// Reads a whole regular file without following a final symbolic link. A file
// larger than `maxSize` fails with EFBIG; a non-regular file with EINVAL (or
// ELOOP for a link). Opening never waits (a FIFO is refused, not waited on).
std::optional<std::vector<std::uint8_t>> readFileContents(const CVURL& url, std::size_t maxSize,
                                                          CVError* error);

// How far an atomic write waits for the disk. Readers see the old contents or
// the new, never a part, whichever is chosen.
//   Flushed: the contents before the rename, the directory after it; the new
//     file is on the disk when the call returns.
//   NotFlushed: neither, for files that need not outlive a crash (a staging
//     directory removed by the same call that fills it).
enum class WriteDurability { Flushed, NotFlushed };

// Writes `bytes` durably: to a uniquely named file beside `url`, flushed,
// renamed over `url`, then the directory is flushed. On failure the old file is
// untouched and the aside file removed. The one exception is a failure to
// flush the directory after the rename: the new contents are then in place,
// but the call still fails because their durability is not assured.
// NotFlushed leaves out both flushes (see WriteDurability).
bool writeFileAtomically(const CVURL& url, std::span<const std::uint8_t> bytes, CVError* error,
                         WriteDurability durability = WriteDurability::Flushed);
// The same, the file's bytes being `parts` one after the other (written as
// they are, never joined in memory).
bool writeFileAtomically(const CVURL& url, std::span<const std::string_view> parts, CVError* error,
                         WriteDurability durability = WriteDurability::Flushed);

// writeFileAtomically in two halves, so that its waits for the disk can run
// on another thread while the caller goes on. begin() writes the bytes to a
// uniquely named file beside `url`, unflushed: failure gives nullopt and
// leaves nothing aside. finish() flushes, renames and flushes the directory
// as writeFileAtomically does, with the same outcome; it may run on any one
// thread. A write destroyed unfinished removes its aside file.
class AtomicFileWrite {
 public:
  static std::optional<AtomicFileWrite> begin(const CVURL& url,
                                              std::span<const std::string_view> parts,
                                              CVError* error);
  AtomicFileWrite(AtomicFileWrite&& other) noexcept;
  AtomicFileWrite& operator=(AtomicFileWrite&&) = delete;
  ~AtomicFileWrite();

  // Once only. False with a POSIX record in `*error` as writeFileAtomically.
  bool finish(WriteDurability durability, CVError* error);

 private:
  AtomicFileWrite(sys::UniqueFd fd, std::string asidePath, std::string targetPath,
                  std::string directoryPath, std::string targetName);
  void abandon();

  sys::UniqueFd fd_;       // the aside file, open for writing until finish()
  std::string asidePath_;  // empty once renamed or removed
  std::string targetPath_;
  std::string directoryPath_;
  std::string targetName_;
};

}  // namespace platform
