// itemExistsAtURL / itemDoesNotExistAtURL: lstat-based, and both false when the
// state cannot be determined.
#include <gtest/gtest.h>

#include "shared/filemanager/CVFileManager.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

class ExistenceTest : public ::testing::Test {
 protected:
  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

TEST_F(ExistenceTest, FilesAndDirectoriesExist) {
  writeFile(temp_ / "file", "");
  makeDirectories(temp_ / "dir");
  for (const CVURL& url : {temp_.fileURL("file"), temp_.directoryURL("dir")}) {
    EXPECT_TRUE(manager_.itemExistsAtURL(url)) << url.path();
    EXPECT_FALSE(manager_.itemDoesNotExistAtURL(url)) << url.path();
  }
}

TEST_F(ExistenceTest, MissingItemDoesNotExistWithoutLogLine) {
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(manager_.itemExistsAtURL(temp_.fileURL("absent")));
  EXPECT_TRUE(manager_.itemDoesNotExistAtURL(temp_.fileURL("absent")));
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(ExistenceTest, DanglingLinkExists) {
  makeSymlink(temp_ / "nowhere", temp_ / "dangling");
  EXPECT_TRUE(manager_.itemExistsAtURL(temp_.fileURL("dangling")));
  EXPECT_FALSE(manager_.itemDoesNotExistAtURL(temp_.fileURL("dangling")));
}

TEST_F(ExistenceTest, UndeterminableStateAnswersFalseTwiceAndLogs) {
  writeFile(temp_ / "file", "");
  const CVURL url = temp_.fileURL("file/below");
  const std::string message =
      "Failed to determine if " + url.description() + " exists: Not a directory";
  CapturedLog log(platform::installerLog());

  EXPECT_FALSE(manager_.itemExistsAtURL(url));
  EXPECT_FALSE(manager_.itemDoesNotExistAtURL(url));

  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u) << log.dump();
  EXPECT_EQ(lines[0].level, 3);
  EXPECT_EQ(lines[0].message, message);
  EXPECT_EQ(lines[0].function, "-[CVFileManager itemExistsAtURL:]");
  EXPECT_EQ(lines[1].message, message);
  EXPECT_EQ(lines[1].function, "-[CVFileManager itemDoesNotExistAtURL:]");
}

}  // namespace
