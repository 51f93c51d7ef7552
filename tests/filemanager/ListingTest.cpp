// CVFileManager::urlsForItemsInDirectoryAtURL: the flat listing of one
// directory and its failures.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "platform/Value.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/filemanager/FileManagerTestHelpers.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace filemanager_test;
using namespace testing_support;

constexpr const char* kListFunction =
    "-[CVFileManager urlsForItemsInDirectoryAtURL:ignoringSymlinks:error:]";

std::vector<std::string> sortedStrings(const std::vector<CVURL>& urls) {
  std::vector<std::string> strings;
  for (const CVURL& url : urls)
    strings.push_back(url.absoluteString());
  std::sort(strings.begin(), strings.end());
  return strings;
}

class ListingTest : public ::testing::Test {
 protected:
  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

TEST_F(ListingTest, ListsEveryKindOnceMarkingOnlyDirectoriesAndNotFollowingLinks) {
  makeDirectories(temp_ / "dir/sub");
  writeFile(temp_ / "dir/file", "");
  ASSERT_EQ(::mkfifo((temp_ / "dir/fifo").c_str(), 0600), 0);
  makeSymlink(temp_ / "dir/sub", temp_ / "dir/link-to-sub");
  const std::string base = "file://" + temp_.path() + "/dir/";
  CVError error = sentinelError();

  const auto urls = manager_.urlsForItemsInDirectoryAtURL(temp_.directoryURL("dir"), false, &error);

  ASSERT_TRUE(urls.has_value());
  EXPECT_EQ(sortedStrings(*urls), (std::vector<std::string>{base + "fifo", base + "file",
                                                            base + "link-to-sub", base + "sub/"}));
  EXPECT_EQ(error, sentinelError());
}

TEST_F(ListingTest, ListsALargeDirectoryCompletely) {
  makeDirectories(temp_ / "dir");
  std::vector<std::string> expected;
  for (int i = 0; i < 2000; ++i) {
    const std::string name = "entry-with-a-longer-name-" + std::to_string(i);
    writeFile(temp_ / ("dir/" + name), "");
    expected.push_back("file://" + temp_.path() + "/dir/" + name);
  }
  std::sort(expected.begin(), expected.end());

  const auto urls = manager_.urlsForItemsInDirectoryAtURL(temp_.directoryURL("dir"), true, nullptr);

  ASSERT_TRUE(urls.has_value());
  EXPECT_EQ(sortedStrings(*urls), expected);
}

TEST_F(ListingTest, EmptyDirectoryGivesAnEmptyList) {
  makeDirectories(temp_ / "empty");
  const auto urls =
      manager_.urlsForItemsInDirectoryAtURL(temp_.directoryURL("empty"), false, nullptr);
  ASSERT_TRUE(urls.has_value());
  EXPECT_TRUE(urls->empty());
}

TEST_F(ListingTest, IgnoredLinksAreLeftOutWithOneNoticeEach) {
  makeDirectories(temp_ / "links");
  makeSymlink(temp_.path(), temp_ / "links/up");
  makeSymlink(temp_ / "nowhere", temp_ / "links/dangling");
  CapturedLog log(platform::installerLog());

  const auto urls =
      manager_.urlsForItemsInDirectoryAtURL(temp_.directoryURL("links"), true, nullptr);

  ASSERT_TRUE(urls.has_value());
  EXPECT_TRUE(urls->empty());
  ASSERT_EQ(log.count(), 2u) << log.dump();
  EXPECT_TRUE(log.contains(5, "Ignoring symlink at " + (temp_ / "links") + "/up"));
  EXPECT_TRUE(log.contains(5, "Ignoring symlink at " + (temp_ / "links") + "/dangling"));
  EXPECT_EQ(
      log.lines()[0].function,
      "__69-[CVFileManager urlsForItemsInDirectoryAtURL:ignoringSymlinks:error:]_block_invoke");
}

TEST_F(ListingTest, MissingDirectoryFailsWithENOENTAndLogsNothing) {
  CapturedLog log(platform::installerLog());
  CVError error;

  const auto urls =
      manager_.urlsForItemsInDirectoryAtURL(temp_.directoryURL("absent"), false, &error);

  EXPECT_FALSE(urls.has_value());
  EXPECT_TRUE(error.isPOSIX(ENOENT)) << error.description();
  EXPECT_EQ(error.localizedDescription(),
            "_IterateDirectory for " + (temp_ / "absent") + " returned No such file or directory");
  EXPECT_EQ(*error.userInfo().findString("FunctionName"), kListFunction);
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

// The open refuses a final link; on Linux a link opened as a directory
// without following it fails with ENOTDIR.
TEST_F(ListingTest, LinkToADirectoryIsNotListedThroughWhateverTheFlag) {
  makeDirectories(temp_ / "real");
  writeFile(temp_ / "real/file", "");
  makeSymlink(temp_ / "real", temp_ / "link");
  for (const bool ignoringSymlinks : {false, true}) {
    CapturedLog log(platform::installerLog());
    CVError error;

    const auto urls =
        manager_.urlsForItemsInDirectoryAtURL(temp_.directoryURL("link"), ignoringSymlinks, &error);

    EXPECT_FALSE(urls.has_value());
    EXPECT_TRUE(error.isPOSIX(ENOTDIR)) << error.description();
    EXPECT_TRUE(log.contains(3, "open of " + (temp_ / "link") + " failed: Not a directory"))
        << log.dump();
    EXPECT_EQ(log.lines().at(0).function, "_IterateDirectory");
  }
}

TEST_F(ListingTest, RegularFileFailsWithENOTDIRAndALogLine) {
  writeFile(temp_ / "file", "");
  CapturedLog log(platform::installerLog());
  CVError error;

  EXPECT_FALSE(manager_.urlsForItemsInDirectoryAtURL(temp_.fileURL("file"), false, &error));

  EXPECT_TRUE(error.isPOSIX(ENOTDIR)) << error.description();
  EXPECT_EQ(error.localizedDescription(),
            "_IterateDirectory for " + (temp_ / "file") + " returned Not a directory");
  EXPECT_TRUE(log.contains(3, "open of " + (temp_ / "file") + " failed: Not a directory"))
      << log.dump();
}

}  // namespace
