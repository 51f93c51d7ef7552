// The safety nets kept in an image (SafetyNet.h): finding them, reading and
// writing the state file that marks one complete, and the descriptor walks
// the net and `mavrel recover` share.
//
// Error contract: the open functions return an invalid descriptor with errno
// set; listing never fails (what cannot be read is left out);
// writeNetState returns false with a POSIX-domain record naming the file.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Error.h"
#include "platform/linux/FileDescriptor.h"

namespace mavrel_host {

struct SafetyNetResult;
using platform::sys::UniqueFd;

// Opens the directory `relative` ("a/b/c") below the open directory `fd`, one
// component at a time, never following a symbolic link.
platform::sys::UniqueFd openBeneath(int fd, std::string_view relative);
// The same, making missing directories (owner-only).
platform::sys::UniqueFd openOrMakeBeneath(int fd, std::string_view relative);

// The links directory of a run's net while its run is in progress. A link's
// name is its path in it, "s<shard>/<number>": the shards are the
// directories "s0" to "s15", one picked per container laid, so that the
// threads laying and settling a net seldom wait for the same directory. A
// net laid by an older version holds "<number>" links at the top; they are
// found as well.
class NetLinks {
 public:
  static constexpr std::size_t kShards = 16;

  // Opens the links directory of the open run directory `run` and its
  // shards, making what is missing when `make` is true. Invalid, with errno
  // set, when the links directory (or, when making, a shard) cannot be had.
  static NetLinks open(int run, bool make);

  bool valid() const { return valid_; }
  // The shard the links of the `index`th container laid go to.
  static std::size_t shardFor(std::size_t index) { return index % kShards; }
  int shard(std::size_t shard) const { return shards_[shard].get(); }
  static std::string shardDirectoryName(std::size_t shard);
  static std::string linkName(std::size_t shard, std::uint64_t number);
  // The number a link's name ends with, or nullopt when it has none.
  static std::optional<std::uint64_t> linkNumber(std::string_view name);

  // The open directory holding the link `name` and the link's name in it;
  // -1 when that directory is not there.
  std::pair<int, std::string> locate(std::string_view name) const;
  // Calls `visit(directory, nameInDirectory, linkName)` for every link.
  void forEachLink(
      const std::function<void(int, const std::string&, const std::string&)>& visit) const;
  // fsync of the shards and of the links directory.
  bool flush() const;
  // Removes the empty shards, then the links directory if it is empty.
  void removeIfEmpty(int run);

 private:
  bool valid_ = false;
  UniqueFd top_;
  std::vector<UniqueFd> shards_;
};

// A file kept in a net: its path relative to the device root (the legacy
// layout), its size and where it is in the run's directory (its legacy path
// in a settled net, a numbered link in one whose run was interrupted).
struct StoredFile {
  std::string relative;
  std::uint64_t size = 0;
  std::string inNet;
};

// What a net's state file says of one container or group container.
struct StoredEntry {
  std::string devicePath;
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::string reason;
};

struct StoredNet {
  std::string runId;
  bool complete = false;  // the state file is there: its run settled it
  std::vector<StoredEntry> entries;
  std::vector<StoredFile> files;  // only when listed with contents
  std::uint64_t bytes = 0;
};

// The nets in the open base directory (whose path is `baseHostPath`, where
// the state files are read), by run id (oldest first).
std::vector<StoredNet> listStoredNets(int base, const std::string& baseHostPath,
                                      bool withContents = false);

// Writes the state file of `result`'s run into its directory, atomically
// (aside, flushed, renamed, directory flushed).
bool writeNetState(const SafetyNetResult& result, const std::string& baseHostPath,
                   const std::string& root, CVError* error);

// Removes the base directory and its parent ("Mavrel") when they are empty.
void removeEmptyNetBase(int rootFd, std::string_view baseRelative);

}  // namespace mavrel_host
