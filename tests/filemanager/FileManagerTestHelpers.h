// What the file manager tests share.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include "platform/Error.h"
#include "platform/Value.h"
#include "platform/linux/FileDescriptor.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace filemanager_test {

// Sets the immutable flag on `path`; TemporaryDirectory clears it again.
inline void makeImmutable(const std::string& path) {
  ASSERT_EQ(testing_support::runProgram("chattr", {"+i", path}).exitCode, 0) << path;
}

// Makes `levels` nested directories named `name` below `root` and an empty file "leaf" in the
// deepest, through descriptors: the path may exceed PATH_MAX.
inline void makeDeepTree(const std::string& root, int levels, const std::string& name = "d") {
  platform::sys::UniqueFd current(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int level = 0; level < levels && current; ++level) {
    ASSERT_EQ(::mkdirat(current.get(), name.c_str(), 0755), 0) << "level " << level;
    current.reset(::openat(current.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  ASSERT_TRUE(current) << root;
  ASSERT_TRUE(platform::sys::UniqueFd(
      ::openat(current.get(), "leaf", O_WRONLY | O_CREAT | O_CLOEXEC, 0644)));
}

// What the symbolic link at `path` holds, or "(not a link)".
inline std::string linkContent(const std::string& path) {
  char buffer[4096];
  const ssize_t length = ::readlink(path.c_str(), buffer, sizeof buffer);
  return length < 0 ? std::string("(not a link)") : std::string(buffer, length);
}

inline std::string functionOf(const CVError& error) {
  const auto* name = error.userInfo().findString("FunctionName");
  return name ? *name : std::string();
}

// A POSIX record with `code` and `description`, made by `function` if given.
inline void expectPosixError(const CVError& error, int code, const std::string& description,
                             const std::string& function = "") {
  EXPECT_TRUE(error.isPOSIX(code)) << error.description();
  EXPECT_EQ(error.localizedDescription(), description);
  EXPECT_TRUE(function.empty() || functionOf(error) == function) << functionOf(error);
}

// A record that no operation makes, to check that an out-error is untouched.
inline CVError sentinelError() {
  return CVError("SentinelDomain", 12345);
}

// Lowers the soft limit of open descriptors for the lifetime of the object.
class ScopedDescriptorLimit {
 public:
  explicit ScopedDescriptorLimit(rlim_t softLimit) {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &previous_), 0);
    rlimit lowered = previous_;
    lowered.rlim_cur = softLimit;
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
  }
  ~ScopedDescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &previous_); }
  ScopedDescriptorLimit(const ScopedDescriptorLimit&) = delete;
  ScopedDescriptorLimit& operator=(const ScopedDescriptorLimit&) = delete;

 private:
  rlimit previous_{};
};

// The manager and a fresh directory; url("a/b/") is a directory URL, url("a/b") a file URL.
class FileManagerFixture : public ::testing::Test {
 protected:
  CVURL url(const std::string& relative) const {
    return relative.ends_with('/') ? temp_.directoryURL(relative.substr(0, relative.size() - 1))
                                   : temp_.fileURL(relative);
  }

  CVFileManager& manager_ = CVFileManager::defaultManager();
  testing_support::TemporaryDirectory temp_;
};

}  // namespace filemanager_test
