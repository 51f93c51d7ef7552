// CVFileManager::diskUsageForURL against an independent count, hard links
// inside and outside the tree, empty directories and URLs that are not
// directories.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "shared/filemanager/CVFileManager.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

constexpr const char* kFunction = "-[CVFileManager diskUsageForURL:]";

std::uint64_t allocatedBytes(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return static_cast<std::uint64_t>(status.st_blocks) * 512;
}

// What du reports for the tree (every item, hard-linked files once, the
// directories' own blocks included) less the directories' own blocks.
std::uint64_t duWithoutDirectories(const std::string& root) {
  FILE* du = ::popen(("du -s -B1 '" + root + "'").c_str(), "r");
  EXPECT_NE(du, nullptr);
  unsigned long long total = 0;
  EXPECT_EQ(std::fscanf(du, "%llu", &total), 1);
  ::pclose(du);
  std::uint64_t directories = allocatedBytes(root);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    if (entry.symlink_status().type() == std::filesystem::file_type::directory)
      directories += allocatedBytes(entry.path());
  }
  return total - directories;
}

std::string text(std::size_t size) {
  return std::string(size, 'x');
}

class DiskUsageTest : public ::testing::Test {
 protected:
  std::uint64_t usage(const std::string& relative) {
    return manager_.diskUsageForURL(temp_.directoryURL(relative));
  }

  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

TEST_F(DiskUsageTest, MatchesAnIndependentCountOfAMixedTree) {
  writeFile(temp_ / "root/small", text(10));
  writeFile(temp_ / "root/a/medium", text(9000));
  writeFile(temp_ / "root/a/b/c/large", text(200000));
  writeFile(temp_ / "root/a/b/empty-file", "");
  makeSymlink(text(300), temp_ / "root/a/long-link");  // a link with blocks of its own
  makeSymlink(temp_ / "elsewhere", temp_ / "root/a/b/link-to-outside");
  writeFile(temp_ / "elsewhere/big", text(500000));  // reached only through a link
  ASSERT_EQ(::link((temp_ / "root/a/medium").c_str(), (temp_ / "root/a/b/c/medium-2").c_str()), 0);

  const std::uint64_t total = usage("root");

  EXPECT_EQ(total, duWithoutDirectories(temp_ / "root"));
  EXPECT_EQ(total, allocatedBytes(temp_ / "root/small") + allocatedBytes(temp_ / "root/a/medium") +
                       allocatedBytes(temp_ / "root/a/b/c/large") +
                       allocatedBytes(temp_ / "root/a/long-link") +
                       allocatedBytes(temp_ / "root/a/b/link-to-outside"));
}

TEST_F(DiskUsageTest, HardLinksCountOnceInsideAndInFullWhenTheOtherLinkIsOutside) {
  writeFile(temp_ / "root/one/inside", text(20000));
  makeDirectories(temp_ / "root/two");
  ASSERT_EQ(::link((temp_ / "root/one/inside").c_str(), (temp_ / "root/two/inside-2").c_str()), 0);
  writeFile(temp_ / "outside", text(30000));
  ASSERT_EQ(::link((temp_ / "outside").c_str(), (temp_ / "root/shared").c_str()), 0);
  CapturedLog log(platform::installerLog(), 7);

  const std::uint64_t total = usage("root");

  EXPECT_EQ(total, allocatedBytes(temp_ / "root/one/inside") + allocatedBytes(temp_ / "outside"));
  EXPECT_EQ(total, duWithoutDirectories(temp_ / "root"));
  // Breadth-first: "one" and "two" are read in either order; the second
  // name met is the one skipped.
  const bool skippedSecond =
      log.contains(7, "Skipping hardlinked file at " + (temp_ / "root/two") + "/inside-2");
  const bool skippedFirst =
      log.contains(7, "Skipping hardlinked file at " + (temp_ / "root/one") + "/inside");
  EXPECT_NE(skippedFirst, skippedSecond) << log.dump();
  EXPECT_EQ(log.count(), 1u) << log.dump();
  EXPECT_EQ(log.lines().at(0).function, kFunction);
}

TEST_F(DiskUsageTest, EmptyDirectoriesAddNothingAndAreTracedOnlyWithAHandle) {
  writeFile(temp_ / "root/file", text(5000));
  makeDirectories(temp_ / "root/empty");
  makeDirectories(temp_ / "root/nested/empty-too");
  {
    CapturedLog log(platform::installerLog(), 7);
    EXPECT_EQ(usage("root"), allocatedBytes(temp_ / "root/file"));
    EXPECT_TRUE(log.contains(7, "skipping empty directory at " + (temp_ / "root") + "/empty"))
        << log.dump();
    EXPECT_TRUE(
        log.contains(7, "skipping empty directory at " + (temp_ / "root/nested") + "/empty-too"))
        << log.dump();
    EXPECT_EQ(log.count(), 2u) << log.dump();
  }
  CapturedLog quiet(platform::installerLog(), 5);
  EXPECT_EQ(usage("root"), allocatedBytes(temp_ / "root/file"));
  EXPECT_EQ(quiet.count(), 0u) << quiet.dump();
}

TEST_F(DiskUsageTest, EmptyRootIsZeroWithoutTrace) {
  makeDirectories(temp_ / "root");
  CapturedLog log(platform::installerLog(), 7);
  EXPECT_EQ(usage("root"), 0u);
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(DiskUsageTest, DirectoryLargerThanOneBatchIsCountedWhole) {
  std::uint64_t expected = 0;
  for (int i = 0; i < 1500; ++i) {
    const std::string path =
        temp_ / ("root/a-file-name-long-enough-to-fill-several-batches-" + std::to_string(i));
    writeFile(path, text(100));
    expected += allocatedBytes(path);
  }
  EXPECT_EQ(usage("root"), expected);
}

TEST_F(DiskUsageTest, URLsThatAreNotDirectoriesCountZeroWithAFailureLine) {
  writeFile(temp_ / "file", text(5000));
  makeDirectories(temp_ / "dir");
  writeFile(temp_ / "dir/inner", text(5000));
  makeSymlink(temp_ / "dir", temp_ / "link");
  CapturedLog log(platform::installerLog());

  EXPECT_EQ(manager_.diskUsageForURL(temp_.fileURL("file")), 0u);
  EXPECT_EQ(manager_.diskUsageForURL(temp_.fileURL("link")), 0u);  // not followed
  EXPECT_EQ(manager_.diskUsageForURL(temp_.fileURL("absent")), 0u);
  EXPECT_EQ(manager_.diskUsageForURL(CVURL()), 0u);

  EXPECT_TRUE(
      log.contains(3, "Failed to open directory " + (temp_ / "file") + " : Not a directory"))
      << log.dump();
  EXPECT_TRUE(
      log.contains(3, "Failed to open directory " + (temp_ / "link") + " : Not a directory"))
      << log.dump();
  EXPECT_TRUE(log.contains(
      3, "Failed to open directory " + (temp_ / "absent") + " : No such file or directory"))
      << log.dump();
  EXPECT_TRUE(log.contains(3, "Failed to get path to url (null)")) << log.dump();
  EXPECT_EQ(log.count(), 4u) << log.dump();
}

}  // namespace
