// An append-only log file. Each line goes out with one write(2) of the whole
// line (retried only for the part a short write left over), so lines of
// concurrent writers never interleave mid-line.
//
// Error contract: open functions return nullopt and a one-line reason; write
// and sync return false and keep the first failure's errno (firstError()).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/FileDescriptor.h"

namespace mavrel_host {

using platform::sys::UniqueFd;

class AppendOnlyFile {
 public:
  // Opens or creates `path` (mode 0644) for appending; a symbolic link at
  // `path` is refused, not followed.
  static std::optional<AppendOnlyFile> open(const std::string& path, std::string* reason);
  // Creates a new file inside the open directory `directory`, named
  // `stem` + `extension`, or `stem` + "-2" + `extension` and so on when the
  // name is taken, so that two runs never share a file. `displayDirectory`
  // names the directory in messages and in path().
  static std::optional<AppendOnlyFile> createUniqueInDirectory(int directory,
                                                               const std::string& stem,
                                                               const std::string& extension,
                                                               const std::string& displayDirectory,
                                                               std::string* reason);
  // Writes to a duplicate of the process's standard output.
  static std::optional<AppendOnlyFile> standardOutput(std::string* reason);

  // Writes `line` as it is (the caller supplies the newline).
  bool write(std::string_view line);
  // Flushes the file to stable storage.
  bool sync();

  const std::string& path() const { return path_; }
  int firstError() const { return firstError_; }

 private:
  AppendOnlyFile(UniqueFd fd, std::string path) : fd_(std::move(fd)), path_(std::move(path)) {}
  bool fail(int code);

  UniqueFd fd_;
  std::string path_;
  int firstError_ = 0;
};

}  // namespace mavrel_host
