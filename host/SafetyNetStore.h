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
#include <string>
#include <string_view>
#include <vector>

#include "platform/Error.h"
#include "platform/linux/FileDescriptor.h"

namespace mavrel_host {

struct SafetyNetResult;

// Opens the directory `relative` ("a/b/c") below the open directory `fd`, one
// component at a time, never following a symbolic link.
platform::sys::UniqueFd openBeneath(int fd, std::string_view relative);
// The same, making missing directories (owner-only).
platform::sys::UniqueFd openOrMakeBeneath(int fd, std::string_view relative);

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
