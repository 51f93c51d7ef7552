// The device root: resolving --root, and making directories inside the image
// without ever leaving it.
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

// Sets the process umask for the lifetime of the object.
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : previous_(::umask(mask)) {}
  ~ScopedUmask() { ::umask(previous_); }

 private:
  mode_t previous_;
};

TEST(RootDirectoryTest, ResolvesLinksAndDotsToTheCanonicalDirectory) {
  TemporaryDirectory directory;
  makeDirectories(directory / "image/private");
  makeSymlink(directory / "image", directory / "link");
  std::string reason;
  const auto expected = resolveRootDirectory(directory.path() + "/image", &reason);
  ASSERT_TRUE(expected) << reason;
  EXPECT_EQ(resolveRootDirectory(directory / "link", &reason), expected);
  EXPECT_EQ(resolveRootDirectory(directory / "image/private/..", &reason), expected);
  EXPECT_EQ(resolveRootDirectory(directory / "image/", &reason), expected);
}

TEST(RootDirectoryTest, RefusesWhatIsNotAnExistingDirectory) {
  TemporaryDirectory directory;
  writeFile(directory / "file", "x");
  makeSymlink(directory / "nowhere", directory / "dangling");
  std::string reason;
  EXPECT_FALSE(resolveRootDirectory(directory / "file", &reason));
  EXPECT_EQ(reason, "the root '" + (directory / "file") + "' is not a directory");
  EXPECT_FALSE(resolveRootDirectory(directory / "missing", &reason));
  EXPECT_EQ(reason, "the root '" + (directory / "missing") + "' does not exist");
  EXPECT_FALSE(resolveRootDirectory(directory / "dangling", &reason));
  EXPECT_EQ(reason, "the root '" + (directory / "dangling") + "' does not exist");
  EXPECT_FALSE(resolveRootDirectory(directory / "file/below", &reason));
  EXPECT_NE(reason.find("Not a directory"), std::string::npos) << reason;
}

TEST(RootDirectoryTest, MakesMissingDirectoriesWithExactModes) {
  TemporaryDirectory directory;
  const ScopedUmask mask(077);  // must not narrow the modes asked for
  std::string reason;
  const UniqueFd made =
      makeDirectoryInsideRoot(directory.path(), "private/var/tmp/mavrel", 0700, &reason);
  ASSERT_TRUE(made.valid()) << reason;
  EXPECT_EQ(modeOf(directory / "private"), 0755u);
  EXPECT_EQ(modeOf(directory / "private/var/tmp"), 0755u);
  EXPECT_EQ(modeOf(directory / "private/var/tmp/mavrel"), 0700u);

  // Existing directories are used as they are, modes untouched.
  ASSERT_EQ(::chmod((directory / "private/var").c_str(), 0711), 0);
  const UniqueFd again = makeDirectoryInsideRoot(directory.path(), "private/var/x", 0755, &reason);
  ASSERT_TRUE(again.valid()) << reason;
  EXPECT_EQ(modeOf(directory / "private/var"), 0711u);
  EXPECT_EQ(modeOf(directory / "private/var/tmp/mavrel"), 0700u);
}

TEST(RootDirectoryTest, NeverFollowsALinkOutOfTheImage) {
  TemporaryDirectory directory;
  makeDirectories(directory / "image/private/var");
  makeDirectories(directory / "outside");
  makeSymlink(directory / "outside", directory / "image/private/var/mobile");
  std::string reason;
  const UniqueFd made = makeDirectoryInsideRoot(directory / "image",
                                                "private/var/mobile/Library/Logs", 0755, &reason);
  EXPECT_FALSE(made.valid());
  EXPECT_EQ(reason, "cannot use '" + (directory / "image/private/var/mobile") +
                        "': it is not a directory inside the root");
  EXPECT_FALSE(pathExists(directory / "outside/Library"));
}

TEST(RootDirectoryTest, AFileInThePathIsReported) {
  TemporaryDirectory directory;
  makeDirectories(directory / "private/var");
  writeFile(directory / "private/var/mobile", "not a directory");
  std::string reason;
  EXPECT_FALSE(
      makeDirectoryInsideRoot(directory.path(), "private/var/mobile/Library", 0755, &reason)
          .valid());
  EXPECT_EQ(reason, "cannot use '" + (directory / "private/var/mobile") +
                        "': it is not a directory inside the root");
}

}  // namespace
}  // namespace mavrel_host
