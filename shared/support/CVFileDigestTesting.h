// Test seam of the file reader behind CVCreateSHA256Digest. Only tests include
// this header.
//
// An observer sees the reader's steps: right after the file's size was taken
// (so a test can change the file at that exact point) and after every read.
#pragma once

#include <sys/types.h>

#include <cstddef>

class CVReadFileObserver {
 public:
  virtual ~CVReadFileObserver() = default;
  // The file is open and its size known; nothing has been read yet.
  virtual void afterStat(const char* /*path*/) {}
  // A read asked for `requested` bytes and got `got` (-1 on error).
  virtual void afterRead(std::size_t /*requested*/, ssize_t /*got*/) {}
};

// Installs `observer` (nullptr removes it) for every reader in the process and
// returns the previous one. The observer must outlive its installation.
CVReadFileObserver* CVSetReadFileObserverForTesting(CVReadFileObserver* observer);
