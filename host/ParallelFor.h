// Runs fn(0) ... fn(count - 1) on a small pool of threads (one per core unless
// told otherwise); returns when all are done. Indices are handed out one at a
// time, so uneven work spreads by itself. `fn` must be safe to call from
// several threads at once for different indices.
//
// Nothing here fails; an exception from `fn` ends the program.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <thread>
#include <vector>

namespace mavrel_host {

// The threads for parallel work: the machine's cores, at least one.
inline unsigned defaultWorkerCount() {
  return std::max(1u, std::thread::hardware_concurrency());
}

template <class Fn>
void parallelFor(std::size_t count, unsigned workers, const Fn& fn) {
  std::atomic<std::size_t> next{0};
  const auto work = [&] {
    for (std::size_t i = next.fetch_add(1); i < count; i = next.fetch_add(1))
      fn(i);
  };
  const std::size_t threads = std::min<std::size_t>(std::max(1u, workers), count);
  if (threads <= 1) {
    work();
    return;
  }
  std::vector<std::jthread> pool;
  pool.reserve(threads - 1);
  for (std::size_t t = 1; t < threads; ++t)
    pool.emplace_back(work);
  work();
}

}  // namespace mavrel_host
