#include "tests/filemanager/FileManagerTestHelpers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "platform/Value.h"
#include "platform/linux/FileDescriptor.h"
#include "tests/support/ChildProgram.h"

namespace filemanager_test {

void makeImmutable(const std::string& path) {
  ASSERT_EQ(testing_support::runProgram("chattr", {"+i", path}).exitCode, 0)
      << "chattr +i " << path;
}

void makeDeepTree(const std::string& root, int levels, const std::string& name) {
  platform::sys::UniqueFd current(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(current) << root;
  for (int level = 0; level < levels; ++level) {
    ASSERT_EQ(::mkdirat(current.get(), name.c_str(), 0755), 0) << "level " << level;
    current.reset(::openat(current.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(current) << "level " << level;
  }
  const platform::sys::UniqueFd leaf(
      ::openat(current.get(), "leaf", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  ASSERT_TRUE(leaf);
}

std::set<std::string> entryNames(const std::string& directory) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    names.insert(entry.path().filename().string());
  return names;
}

void expectPosixError(const CVError& error, int code, const std::string& description,
                      const std::string& function) {
  EXPECT_TRUE(error.isPOSIX(code)) << error.description();
  EXPECT_EQ(error.localizedDescription(), description);
  if (!function.empty()) {
    EXPECT_EQ(functionOf(error), function);
  }
}

CVError sentinelError() {
  return CVError("SentinelDomain", 12345);
}

ScopedDescriptorLimit::ScopedDescriptorLimit(rlim_t softLimit) {
  EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &previous_), 0);
  rlimit lowered = previous_;
  lowered.rlim_cur = softLimit;
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
}

ScopedDescriptorLimit::~ScopedDescriptorLimit() {
  ::setrlimit(RLIMIT_NOFILE, &previous_);
}

std::string linkContent(const std::string& path) {
  char buffer[4096];
  const ssize_t length = ::readlink(path.c_str(), buffer, sizeof buffer);
  return length < 0 ? std::string("(not a link)") : std::string(buffer, length);
}

std::string functionOf(const CVError& error) {
  const auto* name = error.userInfo().findString("FunctionName");
  return name ? *name : std::string();
}

}  // namespace filemanager_test
