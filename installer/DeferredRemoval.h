// Removals an install need not wait for.
//
// Once an install is registered, what it replaced (a placeholder's bundle
// container, the emptied Payload directory) only has to leave its place. It
// is renamed into a directory of discarded items in the staging root, which
// takes one rename, and a thread of its own removes it from there. Removing a
// tree frees its blocks, which on a file system that discards freed blocks
// online waits for the device: far longer than the install itself.
//
// A crash leaves the discarded items in the staging root, whose sweep at the
// next opening removes them with every other leftover.
//
// Error contract: discard() either moves the item out of its place (true) or
// leaves it where it was (false, errno set), and the caller then removes it
// itself. A removal that fails on the thread is logged at level 3 and left to
// the next opening's sweep. finish() returns once everything discarded so far
// is removed; it never fails.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace mavrel_installer {

class DeferredRemoval {
 public:
  // `directory` (made on first use) holds the discarded items; it must be on
  // the file system of every item discarded.
  explicit DeferredRemoval(std::string directory);
  ~DeferredRemoval();
  DeferredRemoval(const DeferredRemoval&) = delete;
  DeferredRemoval& operator=(const DeferredRemoval&) = delete;

  // Renames `path` into the directory and queues its removal.
  bool discard(const std::string& path);

  // Removes what is queued, stops the thread and removes the directory.
  void finish();

 private:
  void removeQueued();

  const std::string directory_;
  bool directoryMade_ = false;   // touched by the discarding thread only
  std::uint64_t discarded_ = 0;  // names the items in the directory; idem
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::string> queue_;  // guarded by mutex_
  bool stopping_ = false;          // guarded by mutex_; no more items for the thread
  bool finished_ = false;          // guarded by mutex_
  std::thread remover_;            // started with the first discard
};

}  // namespace mavrel_installer
