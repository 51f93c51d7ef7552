// The device root: resolving --root, and making directories inside the image
// with exact modes without ever leaving it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "host/RootDirectory.h"
#include "tests/support/TestSupport.h"

namespace mavrel_host {
namespace {

using namespace testing_support;

mode_t modeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

TEST(RootDirectoryTest, ResolvesTheCanonicalDirectoryOrSaysWhyNot) {
  TemporaryDirectory directory;
  makeDirectories(directory / "image/private");
  makeSymlink(directory / "image", directory / "link");
  writeFile(directory / "file", "x");
  makeSymlink(directory / "nowhere", directory / "dangling");
  std::string reason;
  const auto expected = resolveRootDirectory(directory.path() + "/image", &reason);
  ASSERT_TRUE(expected) << reason;
  for (const char* alias : {"link", "image/private/..", "image/"})
    EXPECT_EQ(resolveRootDirectory(directory / alias, &reason), expected) << alias;

  for (const auto& [given, message] : std::vector<std::pair<std::string, std::string>>{
           {directory / "file", "the root '" + (directory / "file") + "' is not a directory"},
           {directory / "missing", "the root '" + (directory / "missing") + "' does not exist"},
           {directory / "dangling", "the root '" + (directory / "dangling") + "' does not exist"},
           {directory / "file/below",
            "cannot resolve the root '" + (directory / "file/below") + "': Not a directory"}}) {
    EXPECT_FALSE(resolveRootDirectory(given, &reason)) << given;
    EXPECT_EQ(reason.substr(0, message.size()), message);
  }
}

TEST(RootDirectoryTest, MakesDirectoriesWithExactModesAndNeverLeavesTheRoot) {
  TemporaryDirectory directory;
  const mode_t previousMask = ::umask(077);  // must not narrow the modes asked for
  std::string reason;
  const UniqueFd made =
      makeDirectoryInsideRoot(directory.path(), "private/var/tmp/mavrel", 0700, &reason);
  ASSERT_TRUE(made.valid()) << reason;
  EXPECT_EQ(modeOf(directory / "private"), 0755u);
  EXPECT_EQ(modeOf(directory / "private/var/tmp"), 0755u);
  EXPECT_EQ(modeOf(directory / "private/var/tmp/mavrel"), 0700u);
  // Existing directories are used as they are, modes untouched.
  ASSERT_EQ(::chmod((directory / "private/var").c_str(), 0711), 0);
  EXPECT_TRUE(makeDirectoryInsideRoot(directory.path(), "private/var/x", 0755, &reason).valid());
  EXPECT_EQ(modeOf(directory / "private/var"), 0711u);
  ::umask(previousMask);

  // A link out of the image, or a file, where a directory should be.
  makeDirectories(directory / "outside");
  makeSymlink(directory / "outside", directory / "private/var/mobile");
  writeFile(directory / "private/var/file", "not a directory");
  for (const std::string name : {"mobile", "file"}) {
    EXPECT_FALSE(makeDirectoryInsideRoot(directory.path(), "private/var/" + name + "/Library/Logs",
                                         0755, &reason)
                     .valid());
    EXPECT_EQ(reason, "cannot use '" + (directory / "private/var/") + name +
                          "': it is not a directory inside the root");
  }
  EXPECT_FALSE(pathExists(directory / "outside/Library"));
}

}  // namespace
}  // namespace mavrel_host
