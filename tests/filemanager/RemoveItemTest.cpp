// CVFileManager::removeItemAtURL: files, links, whole trees and the errors of
// entries that cannot be removed.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <set>
#include <string>

#include "platform/Value.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/filemanager/FileManagerTestHelpers.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace filemanager_test;
using namespace testing_support;

constexpr const char* kRemoveFunction = "-[CVFileManager removeItemAtURL:error:]";
constexpr const char* kCallbackFunction = "_treewipe_error_callback";

class RemoveItemTest : public ::testing::Test {
 protected:
  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

TEST_F(RemoveItemTest, MissingPathIsSuccessAndLeavesTheErrorUntouched) {
  CapturedLog log(platform::installerLog());
  CVError error = sentinelError();

  EXPECT_TRUE(manager_.removeItemAtURL(temp_.directoryURL("absent"), &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(RemoveItemTest, NilURLFailsWithBadAddress) {
  CVError error;
  EXPECT_FALSE(manager_.removeItemAtURL(CVURL(), &error));
  EXPECT_TRUE(error.isPOSIX(EFAULT));
  EXPECT_EQ(error.localizedDescription(), "nil url passed to -removeItemAtURL:error:");
  EXPECT_EQ(*error.userInfo().findString("FunctionName"), kRemoveFunction);
  EXPECT_FALSE(manager_.removeItemAtURL(CVURL(), nullptr));
}

TEST_F(RemoveItemTest, RemovesASingleFile) {
  writeFile(temp_ / "file", "contents");
  EXPECT_TRUE(manager_.removeItemAtURL(temp_.fileURL("file"), nullptr));
  EXPECT_FALSE(pathExists(temp_ / "file"));
}

TEST_F(RemoveItemTest, RemovesALinkButNotTheDirectoryItPointsTo) {
  makeDirectories(temp_ / "target");
  writeFile(temp_ / "target/keep", "kept");
  makeSymlink(temp_ / "target", temp_ / "link");

  // Marked as a directory URL, as a caller who trusts the link might pass it.
  EXPECT_TRUE(manager_.removeItemAtURL(temp_.directoryURL("link"), nullptr));

  EXPECT_FALSE(pathExists(temp_ / "link"));
  EXPECT_EQ(readFile(temp_ / "target/keep"), "kept");
}

TEST_F(RemoveItemTest, RemovesAWholeTreeWithoutFollowingLinksOutOfIt) {
  makeDirectories(temp_ / "outside");
  writeFile(temp_ / "outside/file", "outside");
  makeDirectories(temp_ / "root/a/b/c");
  makeDirectories(temp_ / "root/a/empty");
  writeFile(temp_ / "root/a/b/c/file", "x");
  for (int i = 0; i < 500; ++i)
    writeFile(temp_ / ("root/a/many-" + std::to_string(i)), "");
  ASSERT_EQ(::mkfifo((temp_ / "root/a/fifo").c_str(), 0600), 0);
  makeSymlink(temp_ / "outside", temp_ / "root/link-to-directory");
  makeSymlink(temp_ / "outside/file", temp_ / "root/a/b/link-to-file");
  makeSymlink(temp_ / "nowhere", temp_ / "root/dangling");
  CVError error = sentinelError();

  EXPECT_TRUE(manager_.removeItemAtURL(temp_.directoryURL("root"), &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_FALSE(pathExists(temp_ / "root"));
  EXPECT_EQ(readFile(temp_ / "outside/file"), "outside");
}

TEST_F(RemoveItemTest, LinkStandingInForASubdirectoryLeavesItsTargetAlone) {
  makeDirectories(temp_ / "canary");
  writeFile(temp_ / "canary/keep", "kept");
  makeDirectories(temp_ / "root/real");
  writeFile(temp_ / "root/real/file", "");
  makeSymlink(temp_ / "canary", temp_ / "root/sub");

  EXPECT_TRUE(manager_.removeItemAtURL(temp_.directoryURL("root"), nullptr));

  EXPECT_FALSE(pathExists(temp_ / "root"));
  EXPECT_EQ(entryNames(temp_ / "canary"), std::set<std::string>{"keep"});
}

TEST_F(RemoveItemTest, RemovesATreeDeeperThanPathMaxAndTheDescriptorWindow) {
  makeDirectories(temp_ / "deep");
  makeDeepTree(temp_ / "deep", 3000);

  EXPECT_TRUE(manager_.removeItemAtURL(temp_.directoryURL("deep"), nullptr));

  EXPECT_FALSE(pathExists(temp_ / "deep"));
}

TEST_F(RemoveItemTest, UndeletableEntryFailsWithItsErrorAfterRemovingEverythingElse) {
  makeDirectories(temp_ / "root/keep");
  makeDirectories(temp_ / "root/gone/x/y");
  writeFile(temp_ / "root/gone/x/y/z", "");
  writeFile(temp_ / "root/file", "");
  writeFile(temp_ / "root/keep/other", "");
  writeFile(temp_ / "root/keep/locked", "");
  makeImmutable(temp_ / "root/keep/locked");
  const CVURL url = temp_.directoryURL("root");
  CapturedLog log(platform::installerLog());
  CVError error;

  EXPECT_FALSE(manager_.removeItemAtURL(url, &error));

  EXPECT_TRUE(error.isPOSIX(EPERM)) << error.description();
  EXPECT_EQ(error.localizedDescription(),
            "treewipe of " + url.description() + " failed: Operation not permitted");
  EXPECT_EQ(*error.userInfo().findString("FunctionName"), kRemoveFunction);
  // What could go is gone; the locked file keeps its directories.
  EXPECT_EQ(entryNames(temp_ / "root"), std::set<std::string>{"keep"});
  EXPECT_EQ(entryNames(temp_ / "root/keep"), std::set<std::string>{"locked"});

  EXPECT_TRUE(log.contains(
      3, "treewipe hit error for " + (temp_ / "root/keep/locked") + " : Operation not permitted"))
      << log.dump();
  EXPECT_TRUE(
      log.contains(3, "treewipe hit error for " + (temp_ / "root/keep") + " : Directory not empty"))
      << log.dump();
  for (const auto& line : log.lines())
    EXPECT_EQ(line.function, kCallbackFunction);
}

TEST_F(RemoveItemTest, PathThroughAFileFailsWithTheResolutionError) {
  writeFile(temp_ / "file", "");
  const CVURL url = temp_.fileURL("file/below");
  CapturedLog log(platform::installerLog());
  CVError error;

  EXPECT_FALSE(manager_.removeItemAtURL(url, &error));

  EXPECT_TRUE(error.isPOSIX(ENOTDIR)) << error.description();
  EXPECT_EQ(error.localizedDescription(),
            "treewipe of " + url.description() + " failed: Not a directory");
  EXPECT_TRUE(pathExists(temp_ / "file"));
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

}  // namespace
