// Fixtures shared by the file manager tests: undeletable items, very deep
// trees, a lowered descriptor limit and directory snapshots.
#pragma once

#include <sys/resource.h>

#include <set>
#include <string>

#include "platform/Error.h"

namespace filemanager_test {

// Sets the immutable flag on `path` (nothing inside can be removed or added).
// TemporaryDirectory clears the flag again when it goes away.
void makeImmutable(const std::string& path);

// Makes `levels` nested directories named `name` below `root` (which must
// exist), and an empty file "leaf" in the deepest one. The full path may be
// far longer than PATH_MAX, so the tree is built level by level through
// directory descriptors.
void makeDeepTree(const std::string& root, int levels, const std::string& name = "d");

// The names in a directory, "." and ".." excluded.
std::set<std::string> entryNames(const std::string& directory);

// What the symbolic link at `path` holds, or "(not a link)".
std::string linkContent(const std::string& path);

// The "FunctionName" of an error record ("" when it has none).
std::string functionOf(const CVError& error);

// Expects a POSIX record with `code` and `description`, made by `function`
// when one is given.
void expectPosixError(const CVError& error, int code, const std::string& description,
                      const std::string& function = "");

// A record that no operation makes, to check that an out-error is untouched.
CVError sentinelError();

// Lowers the soft limit of open descriptors for the lifetime of the object.
class ScopedDescriptorLimit {
 public:
  explicit ScopedDescriptorLimit(rlim_t softLimit);
  ~ScopedDescriptorLimit();
  ScopedDescriptorLimit(const ScopedDescriptorLimit&) = delete;
  ScopedDescriptorLimit& operator=(const ScopedDescriptorLimit&) = delete;

 private:
  rlimit previous_{};
};

}  // namespace filemanager_test
