// Opening directories and reading their entries one at a time.
//
// Error contract: the open functions return an invalid UniqueFd and leave the
// call's error number in errno. DirectoryStream::adopt returns a stream that
// is not valid (errno set) when the descriptor is not valid or memory runs
// out; the descriptor is closed then. DirectoryStream::next returns the read's error
// number (0 for success and at the end); a descriptor that is not a
// directory fails there, with ENOTDIR. Nothing here follows a symbolic link
// unless it says so.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "platform/linux/FileDescriptor.h"

namespace platform::sys {

// Whether a final symbolic link in a path is followed when opening.
enum class FinalLink { NotFollowed, Followed };

// Opens `path` read-only as a directory. With FinalLink::NotFollowed a final
// symbolic link fails the open; Linux reports ENOTDIR for it, as for any
// other non-directory.
UniqueFd openDirectory(const char* path, FinalLink finalLink);

// Opens the directory `name` inside the open directory `parent`, never
// following a symbolic link: a link or other non-directory fails with
// ENOTDIR (ELOOP on systems that report links apart). The name is resolved
// relative to the descriptor, so a link swapped in for a directory higher up
// the path cannot redirect the open.
UniqueFd openDirectoryAt(int parent, const char* name);

enum class EntryType { Unknown, Directory, Symlink, Regular, Other };

struct DirectoryEntry {
  std::string_view name;  // valid until the next read from the stream
  EntryType type = EntryType::Unknown;
  std::uint64_t inode = 0;  // as the directory records it (for a mount point, the covered one)
};

// A directory stream over an open directory descriptor, which it owns.
class DirectoryStream {
 public:
  DirectoryStream();
  ~DirectoryStream();
  DirectoryStream(DirectoryStream&&) noexcept;
  DirectoryStream& operator=(DirectoryStream&&) noexcept;

  // Wraps `directory`; on failure the stream is not valid, errno holds the
  // error number and the descriptor has been closed.
  static DirectoryStream adopt(UniqueFd directory);

  bool valid() const { return stream_ != nullptr; }

  // The directory's descriptor, owned by the stream (-1 when not valid): for
  // calls relative to the directory while it is read.
  int descriptor() const;

  // Reads the next entry into `entry` ("." and ".." are passed over). Returns 0 and
  // sets `atEnd` at the end of the directory. An entry whose type the file
  // system does not report is looked at without following a link; a
  // directory, link or regular file gets its type, anything else (and an
  // entry that cannot be looked at) stays Unknown.
  int next(DirectoryEntry& entry, bool& atEnd);

 private:
  struct Stream;
  std::unique_ptr<Stream> stream_;
};

}  // namespace platform::sys
