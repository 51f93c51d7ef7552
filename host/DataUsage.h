// What a tree of user data holds: its regular files and their bytes.
//
// Trees are walked physically (a symbolic link is counted as an item of its
// own, never followed, and other file systems are not entered).
//
// Error contract: nothing fails. A missing tree holds nothing; what cannot be
// read is left out and counted in `unreadable`.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace mavrel_host {

struct DataUsage {
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::uint64_t unreadable = 0;  // entries that could not be looked at or listed

  DataUsage& operator+=(const DataUsage& other) {
    files += other.files;
    bytes += other.bytes;
    unreadable += other.unreadable;
    return *this;
  }
};

// Calls `visit` with the path relative to `root` ("a/b.txt"; the root's own
// name when `root` is itself a file) and the size of every regular file
// below `root`, in walk order.
using RegularFileVisitor = std::function<void(std::string_view relativePath, std::uint64_t size)>;
DataUsage walkRegularFiles(const std::string& root, const RegularFileVisitor& visit);

// The files and bytes below `root`.
DataUsage dataUsageBelow(const std::string& root);

// The device of the file system that holds `path`, or of its nearest existing
// ancestor when `path` does not exist yet; nullopt when nothing can be looked at.
std::optional<dev_t> deviceOfNearestExisting(const std::string& path);

// The nearest existing ancestor of `path` (or `path` itself).
std::string nearestExistingPath(const std::string& path);

// "1.2 MB", "512 bytes".
std::string formatBytes(std::uint64_t bytes);

}  // namespace mavrel_host
