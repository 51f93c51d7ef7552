// Helpers shared by the test suites: scoped temporary directories, captured log
// lines and small file builders.
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
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

}  // namespace testing_support
