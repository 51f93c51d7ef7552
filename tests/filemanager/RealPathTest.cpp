// CVFileManager::realPathForURL and its helpers, on real trees: links that
// stay inside the base or leave it, "..", missing components, and the
// "/private" form of the device's top-level directories.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "shared/filemanager/CVFileManager.h"
#include "tests/support/TestSupport.h"

namespace {

using testing_support::CapturedLog;
using testing_support::makeDirectories;
using testing_support::makeSymlink;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

constexpr const char* kFunction = "-[CVFileManager realPathForURL:ifChildOfURL:]";

CVURL fileURL(const std::string& path) {
  return CVURL::fileURLWithPath(path, false);
}

class RealPathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeDirectories(temp_ / "c/a");
    makeDirectories(temp_ / "c/b");
    writeFile(temp_ / "c/file", "x");
    base_ = temp_ / "c";
    real_ = std::filesystem::canonical(temp_.path()).string();
  }

  // The resolved form of a path inside the temporary directory.
  std::string real(const std::string& relative) const { return real_ + "/" + relative; }

  CVURL check(const std::string& relative) {
    return manager_.realPathForURL(fileURL(temp_ / relative), fileURL(base_));
  }

  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
  std::string base_;
  std::string real_;
};

// --- The depth walk ---

TEST_F(RealPathTest, DepthWalkCountsComponentsAndRefusesToClimbBelowTheStart) {
  std::int32_t depth = -1;
  const std::string down = "/a/../b/./c/";
  EXPECT_TRUE(manager_._validateSymlink(&down, 2, &depth));
  EXPECT_EQ(depth, 4);

  const std::string back = "/a/..";
  EXPECT_TRUE(manager_._validateSymlink(&back, 2, &depth));
  EXPECT_EQ(depth, 2);  // back at the start is allowed

  const std::string below = "/a/../../b/c";
  depth = -1;
  EXPECT_FALSE(manager_._validateSymlink(&below, 2, &depth));
  EXPECT_EQ(depth, -1);  // untouched on failure

  EXPECT_FALSE(manager_._validateSymlink(nullptr, 0, &depth));
  const std::string plain = "x";
  EXPECT_TRUE(manager_._validateSymlink(&plain, 0, nullptr));
}

// --- Ordinary items ---

TEST_F(RealPathTest, ItemInsideTheBaseResolvesToItsRealPath) {
  CapturedLog log(platform::installerLog());
  const CVURL resolved = check("c/file");
  EXPECT_EQ(resolved, fileURL(real("c/file")));
  EXPECT_EQ(check("c"), fileURL(real("c")));  // the base itself is accepted
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(RealPathTest, MissingTrailingComponentsResolveThroughTheLongestExistingPrefix) {
  {
    CapturedLog log(platform::installerLog(), 7);
    EXPECT_EQ(check("c/a/new/deeper"), fileURL(real("c/a/new/deeper")));
    EXPECT_TRUE(log.contains(
        7, "Realpathed " + real("c/a") + " ; appending non-existing components new/deeper"))
        << log.dump();
    EXPECT_EQ(log.lines().at(0).function, "-[CVFileManager _realPathWhatExistsInPath:]");
  }
  CapturedLog log(platform::installerLog());  // no handle: the trace line is not written
  EXPECT_EQ(check("c/a/new"), fileURL(real("c/a/new")));
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(RealPathTest, PathThroughALinkLeavingTheBaseIsRejectedAtTheComparison) {
  makeDirectories(temp_ / "elsewhere");
  writeFile(temp_ / "elsewhere/file", "x");
  makeSymlink(temp_ / "elsewhere", temp_ / "c/out");
  CapturedLog log(platform::installerLog());

  EXPECT_TRUE(check("c/out/file").isNil());

  EXPECT_TRUE(log.contains(3, "Rejecting " + (temp_ / "c/out/file") + " with base " + base_ +
                                  " (reals " + real("elsewhere/file") + " ; " + real("c") +
                                  ") because components diverge at c != elsewhere"))
      << log.dump();
  EXPECT_EQ(log.lines().at(0).function, kFunction);
}

TEST_F(RealPathTest, SiblingWithTheBaseAsStringPrefixIsRejectedAtTheComparison) {
  writeFile(temp_ / "cd/x", "x");
  CapturedLog log(platform::installerLog());

  EXPECT_TRUE(check("cd/x").isNil());

  EXPECT_TRUE(log.contains(3, "Rejecting " + (temp_ / "cd/x") + " with base " + base_ + " (reals " +
                                  real("cd/x") + " ; " + real("c") +
                                  ") because components diverge at c != cd"))
      << log.dump();
}

TEST_F(RealPathTest, ItemResolvingAboveTheBaseIsRejectedByItsComponentCount) {
  makeDirectories(temp_ / "c/a/b");
  makeSymlink("../..", temp_ / "c/a/b/up");
  CapturedLog log(platform::installerLog());

  const CVURL resolved =
      manager_.realPathForURL(fileURL(temp_ / "c/a/b/up/file"), fileURL(temp_ / "c/a/b"));

  EXPECT_TRUE(resolved.isNil());
  EXPECT_TRUE(log.contains(3, "Rejecting " + (temp_ / "c/a/b/up/file") + " with base " +
                                  (temp_ / "c/a/b") +
                                  " because base component count is greater than child component "
                                  "count (reals " +
                                  real("c/file") + " ; " + real("c/a/b") + ")"))
      << log.dump();
}

TEST_F(RealPathTest, DotDotIsRejectedEvenWhenItWouldResolveInside) {
  CapturedLog log(platform::installerLog());
  const std::string suspicious = base_ + "/../c/file";

  EXPECT_TRUE(manager_.realPathForURL(fileURL(suspicious), fileURL(base_)).isNil());

  EXPECT_TRUE(log.contains(
      3, "The suspicious path " + suspicious + " contains '..' paths, which are invalid"))
      << log.dump();
}

TEST_F(RealPathTest, PathOutsideTheBaseStringIsRejected) {
  CapturedLog log(platform::installerLog());
  EXPECT_TRUE(check("elsewhere").isNil());
  EXPECT_TRUE(log.contains(3, "supiscious path " + (temp_ / "elsewhere") +
                                  " does not contain base path " + base_ + " as a prefix"))
      << log.dump();
}

TEST_F(RealPathTest, NilURLsAreRejected) {
  CapturedLog log(platform::installerLog());
  EXPECT_TRUE(manager_.realPathForURL(fileURL(base_), CVURL()).isNil());
  EXPECT_TRUE(
      log.contains(3, "The base path (null) and/or suspicious path file://" + base_ + " were nil"))
      << log.dump();
}

TEST_F(RealPathTest, MissingBaseIsRejected) {
  CapturedLog log(platform::installerLog());
  const std::string base = temp_ / "absent";

  EXPECT_TRUE(manager_.realPathForURL(fileURL(base + "/x"), fileURL(base)).isNil());

  EXPECT_TRUE(log.contains(3, "Failed to retrieve realpath for base path " + base + " "))
      << log.dump();
  EXPECT_TRUE(
      log.containsFragment("Failed to realpath " + base + " : No such file or directory at "))
      << log.dump();
}

TEST_F(RealPathTest, RootAsBaseRejectsEveryOrdinaryItem) {
  CapturedLog log(platform::installerLog());
  EXPECT_TRUE(manager_.realPathForURL(fileURL(base_ + "/file"), fileURL("/")).isNil());
  EXPECT_TRUE(log.contains(3, "Rejecting " + base_ +
                                  "/file with base / because real component "
                                  "counts don't make sense (reals " +
                                  real("c/file") + " ; /)"))
      << log.dump();
}

TEST_F(RealPathTest, UnreadableLinkIsRejected) {
  CapturedLog log(platform::installerLog());
  EXPECT_TRUE(check("c/file/x").isNil());
  EXPECT_TRUE(log.contains(3, "Readlink failed: Not a directory")) << log.dump();
}

// --- Links ---

TEST_F(RealPathTest, RelativeLinkStayingInsideIsAcceptedAndResolved) {
  makeSymlink("../b", temp_ / "c/a/l");
  CapturedLog log(platform::installerLog());
  EXPECT_EQ(check("c/a/l"), fileURL(real("c/b")));
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(RealPathTest, RelativeLinkClimbingOutIsRejected) {
  makeSymlink("../../x", temp_ / "c/a/l");
  CapturedLog log(platform::installerLog());

  EXPECT_TRUE(check("c/a/l").isNil());

  EXPECT_TRUE(log.contains(3, "Rejecting " + (temp_ / "c/a/l") +
                                  " -> /a/../../x, as it is points outside or to the base " +
                                  base_))
      << log.dump();
}

TEST_F(RealPathTest, AbsoluteLinkIsRejected) {
  makeSymlink("/etc", temp_ / "c/a/l");
  CapturedLog log(platform::installerLog());
  EXPECT_TRUE(check("c/a/l").isNil());
  EXPECT_TRUE(log.contains(
      3, "Rejecting " + (temp_ / "c/a/l") + " -> /etc, as absolute symlinks are not allowed"))
      << log.dump();
}

TEST_F(RealPathTest, LinkToTheBaseItselfIsAcceptedOneLevelDownOnly) {
  makeSymlink("..", temp_ / "c/a/l");
  makeSymlink("..", temp_ / "c/l");
  CapturedLog log(platform::installerLog());

  EXPECT_EQ(check("c/a/l"), fileURL(real("c")));
  EXPECT_TRUE(check("c/l").isNil());

  EXPECT_TRUE(log.contains(3, "Rejecting " + (temp_ / "c/l") +
                                  " -> /.., as it is points outside or to the base " + base_))
      << log.dump();
}

TEST_F(RealPathTest, DanglingRelativeLinkInsideResolvesThroughItsDirectory) {
  makeSymlink("missing", temp_ / "c/a/dangling");
  CapturedLog log(platform::installerLog());

  EXPECT_EQ(check("c/a/dangling"), fileURL(real("c/a/dangling")));

  // The link exists but does not resolve; the walk passes it over for its
  // directory and says so.
  EXPECT_TRUE(log.contains(3, "Failed to realpath " + (temp_ / "c/a/dangling") +
                                  " : No such file or directory at " + real("c/a/missing")))
      << log.dump();
}

// --- The "/private" form ---
//
// The device's top-level directories are links into "/private". A child
// process changes its root to a tree laid out that way, so that the rule can
// be seen at work on real paths; it reports each check as one bit of its exit
// status.
TEST_F(RealPathTest, PrivatePrefixIsTheSamePlaceAsThePathWithoutIt) {
  makeDirectories(temp_ / "private/var/c");
  writeFile(temp_ / "private/var/c/x", "x");
  makeSymlink("private/var", temp_ / "var");
  // A real "/data" beside "/private/data": the comparison skips "private",
  // so both count as the same place.
  makeDirectories(temp_ / "private/data/c");
  writeFile(temp_ / "data/c/z", "z");
  makeSymlink("/data/c", temp_ / "private/data/c/l");
  makeSymlink("/private/data/c", temp_ / "b");

  const pid_t child = ::fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    if (::chroot(temp_.path().c_str()) != 0 || ::chdir("/") != 0) ::_exit(0x80);
    CVFileManager& manager = CVFileManager::defaultManager();
    int failures = 0;
    if (!(manager.realPathForURL(fileURL("/var/c/x"), fileURL("/private/var/c")) ==
          fileURL("/private/var/c/x")))
      failures |= 1;
    if (!(manager.realPathForURL(fileURL("/private/var/c/x"), fileURL("/var/c")) ==
          fileURL("/private/var/c/x")))
      failures |= 2;
    if (!(manager.realPathForURL(fileURL("/b/l/z"), fileURL("/b")) == fileURL("/data/c/z")))
      failures |= 4;
    if (!manager.realPathForURL(fileURL("/var/c/x"), fileURL("/private/var/d")).isNil())
      failures |= 8;
    ::_exit(failures);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "failed checks (bits): " << WEXITSTATUS(status);
}

}  // namespace
