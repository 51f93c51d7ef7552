// A small memo of recent results keyed by the exact bytes they were made
// from: a few entries, the least recently used one replaced first, guarded
// by a lock so that any thread may use it.
//
// Used where the same input comes back again and again within one run (the
// icons of applications made from one template, encoded to the same PNG), so
// that the work is done once per distinct input. A key is compared whole, never
// by its hash alone, so a result is only ever given back for identical bytes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace platform {

template <typename Result>
class RecentResults {
 public:
  explicit RecentResults(std::size_t capacity) : capacity_(capacity) {}

  // The result stored for `key`, made now by `make` (and kept, when it gave
  // one) if there is none.
  std::optional<Result> findOrMake(std::span<const std::uint8_t> key,
                                   const std::function<std::optional<Result>()>& make) {
    const std::size_t hash = hashOf(key);
    {
      std::lock_guard lock(mutex_);
      for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
        if (entry->hash != hash || entry->key.size() != key.size() ||
            !std::equal(entry->key.begin(), entry->key.end(), key.begin()))
          continue;
        entries_.splice(entries_.begin(), entries_, entry);
        return entries_.front().result;
      }
    }
    std::optional<Result> made = make();
    if (!made || capacity_ == 0) return made;
    std::lock_guard lock(mutex_);
    entries_.push_front(Entry{hash, std::vector<std::uint8_t>(key.begin(), key.end()), *made});
    if (entries_.size() > capacity_) entries_.pop_back();
    return made;
  }

 private:
  struct Entry {
    std::size_t hash;
    std::vector<std::uint8_t> key;
    Result result;
  };

  static std::size_t hashOf(std::span<const std::uint8_t> key) {
    return std::hash<std::string_view>{}(
        std::string_view(reinterpret_cast<const char*>(key.data()), key.size()));
  }

  const std::size_t capacity_;
  std::mutex mutex_;
  std::list<Entry> entries_;  // most recently used first
};

}  // namespace platform
