// Helpers shared by the test suites: scoped temporary directories, captured log
// lines and small file builders.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Log.h"
#include "platform/URL.h"

namespace testing_support {

// A fresh directory under the system temporary directory (or under `parent`),
// removed with all its contents (immutable flags cleared first) when the
// object goes away.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  explicit TemporaryDirectory(const std::string& parent);
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }
  // The path of `relative` inside the directory.
  std::string operator/(std::string_view relative) const;
  CVURL url() const { return CVURL::fileURLWithPath(path_, true); }
  CVURL fileURL(std::string_view relative) const;
  CVURL directoryURL(std::string_view relative) const;

 private:
  std::string path_;
};

struct CapturedLine {
  int level = 0;
  std::string function;
  std::string message;
  std::string category;
  std::string file;
  int line = 0;
};

// Captures the lines of one log for the lifetime of the object.
class CapturedLog {
 public:
  // `handleLevel` nullopt: no handle set (levels 3 and 5 admitted, 7 not).
  explicit CapturedLog(platform::Log& log, std::optional<int> handleLevel = std::nullopt);
  ~CapturedLog();

  std::vector<CapturedLine> lines() const;
  std::vector<std::string> messages() const;
  // Whether a line with exactly this level and message was written.
  bool contains(int level, std::string_view message) const;
  // Whether any line's message contains `fragment`.
  bool containsFragment(std::string_view fragment) const;
  std::size_t count() const;
  void clear();
  // All lines, one per row, for failure messages.
  std::string dump() const;

 private:
  class Sink;
  std::shared_ptr<Sink> sink_;
  std::unique_ptr<platform::ScopedLogSink> scope_;
};

// File builders; each fails the test on failure. writeFile makes missing parents.
void writeFile(const std::string& path, std::string_view contents, mode_t mode = 0644);
std::string readFile(const std::string& path);
void makeDirectories(const std::string& path);
void makeSymlink(const std::string& target, const std::string& linkPath);
bool pathExists(const std::string& path);  // lstat-based
// The data-protection class kept on `path` (not followed), read straight from
// its extended attribute; none when it has none.
std::optional<std::int32_t> protectionClassOf(const std::string& path);
// The names in a directory, sorted; empty when it does not exist.
std::vector<std::string> entriesOf(const std::string& directory);

// Builds binary property lists object by object: shapes that no writer makes
// (deep chains, shared subtrees, cycles, keys that are not strings). References and offsets are 4
// bytes.
class BinaryPlistBuilder {
 public:
  using Bytes = std::vector<std::uint8_t>;

  std::uint32_t reserve() {
    objects_.emplace_back();
    return static_cast<std::uint32_t>(objects_.size() - 1);
  }
  std::uint32_t addInteger(std::uint8_t value) {  // one byte
    const std::uint32_t index = reserve();
    objects_[index] = {0x10, value};
    return index;
  }
  std::uint32_t addASCIIString(std::string_view text) {
    const std::uint32_t index = reserve();
    objects_[index] = withCount(0x5, text.size());
    objects_[index].insert(objects_[index].end(), text.begin(), text.end());
    return index;
  }
  void setArray(std::uint32_t index, const std::vector<std::uint32_t>& references) {
    objects_[index] = withCount(0xA, references.size());
    for (const std::uint32_t reference : references)
      appendBigEndian(objects_[index], reference);
  }
  void setDictionary(std::uint32_t index, const std::vector<std::uint32_t>& keys,
                     const std::vector<std::uint32_t>& values) {
    objects_[index] = withCount(0xD, keys.size());
    for (const std::uint32_t key : keys)
      appendBigEndian(objects_[index], key);
    for (const std::uint32_t value : values)
      appendBigEndian(objects_[index], value);
  }
  Bytes build(std::uint32_t root) const {
    Bytes bytes = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<std::uint32_t> offsets;
    for (const Bytes& object : objects_) {
      offsets.push_back(static_cast<std::uint32_t>(bytes.size()));
      bytes.insert(bytes.end(), object.begin(), object.end());
    }
    const auto table = static_cast<std::uint32_t>(bytes.size());
    for (const std::uint32_t offset : offsets)
      appendBigEndian(bytes, offset);
    bytes.insert(bytes.end(), 6, 0);
    bytes.push_back(4);  // offset size
    bytes.push_back(4);  // reference size
    for (const std::uint64_t value :
         {std::uint64_t{objects_.size()}, std::uint64_t{root}, std::uint64_t{table}})
      appendBigEndian(bytes, value, 8);
    return bytes;
  }

 private:
  static void appendBigEndian(Bytes& bytes, std::uint64_t value, int width = 4) {
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
      bytes.push_back((value >> shift) & 0xFF);
  }
  static Bytes withCount(std::uint8_t kind, std::size_t count) {
    Bytes bytes;
    if (count < 15) {
      bytes.push_back(static_cast<std::uint8_t>(kind << 4 | count));
    } else {
      bytes.push_back(static_cast<std::uint8_t>(kind << 4 | 0xF));
      bytes.push_back(0x12);  // a 4-byte integer follows
      appendBigEndian(bytes, static_cast<std::uint32_t>(count));
    }
    return bytes;
  }
  std::vector<Bytes> objects_;
};

}  // namespace testing_support
