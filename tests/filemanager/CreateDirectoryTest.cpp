// CVFileManager::createDirectoryAtURL with and without intermediate
// directories and protection classes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <optional>

#include "platform/Value.h"
#include "platform/linux/DirectoryStream.h"
#include "platform/linux/ProtectionClass.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/filemanager/FileManagerTestHelpers.h"
#include "tests/support/TestSupport.h"

namespace {

namespace sys = platform::sys;
using namespace filemanager_test;
using namespace testing_support;

constexpr const char* kCreateFunction =
    "-[CVFileManager createDirectoryAtURL:withIntermediateDirectories:mode:class:error:]";

mode_t permissionsOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  EXPECT_TRUE(S_ISDIR(status.st_mode)) << path;
  return status.st_mode & 07777;
}

std::optional<std::int32_t> protectionClassOf(const std::string& path) {
  const sys::UniqueFd fd = sys::openDirectory(path.c_str(), sys::FinalLink::NotFollowed);
  std::int32_t protectionClass = 0;
  if (!fd || sys::getProtectionClass(fd.get(), &protectionClass) != 0) return std::nullopt;
  return protectionClass;
}

class CreateDirectoryTest : public ::testing::Test {
 protected:
  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

TEST_F(CreateDirectoryTest, MakesOneDirectoryWithTheMode) {
  CVError error = sentinelError();
  EXPECT_TRUE(manager_.createDirectoryAtURL(temp_.directoryURL("new"), false, 0700, &error));
  EXPECT_EQ(permissionsOf(temp_ / "new"), 0700u);
  EXPECT_EQ(error, sentinelError());
}

TEST_F(CreateDirectoryTest, MissingParentWithoutIntermediatesFails) {
  CVError error;
  const CVURL url = temp_.directoryURL("missing/new");

  EXPECT_FALSE(manager_.createDirectoryAtURL(url, false, 0755, &error));

  EXPECT_TRUE(error.isPOSIX(ENOENT)) << error.description();
  EXPECT_EQ(error.localizedDescription(),
            "mkdir of " + url.path() + " failed: No such file or directory");
  EXPECT_EQ(*error.userInfo().findString("FunctionName"), kCreateFunction);
}

TEST_F(CreateDirectoryTest, MakesMissingIntermediatesAndGivesTheClassOnlyToTheLast) {
  CVError error = sentinelError();

  EXPECT_TRUE(manager_.createDirectoryAtURL(temp_.directoryURL("a/b/c"), true, 0750, 4, &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(permissionsOf(temp_ / "a/b/c"), 0750u);
  EXPECT_EQ(permissionsOf(temp_ / "a/b") & 0700, 0700u);
  EXPECT_EQ(protectionClassOf(temp_ / "a/b/c"), 4);
  EXPECT_EQ(protectionClassOf(temp_ / "a/b"), sys::kDefaultProtectionClass);
}

TEST_F(CreateDirectoryTest, ExistingDirectoryIsSuccessAndGetsTheClass) {
  makeDirectories(temp_ / "exists");
  ASSERT_EQ(::chmod((temp_ / "exists").c_str(), 0711), 0);
  for (const bool intermediates : {false, true}) {
    CVError error = sentinelError();
    EXPECT_TRUE(
        manager_.createDirectoryAtURL(temp_.directoryURL("exists"), intermediates, 0700, &error));
    EXPECT_EQ(error, sentinelError());
  }
  EXPECT_EQ(protectionClassOf(temp_ / "exists"), sys::kDefaultProtectionClass);

  EXPECT_TRUE(manager_.createDirectoryAtURL(temp_.directoryURL("exists"), true, 0700, 2, nullptr));
  EXPECT_EQ(protectionClassOf(temp_ / "exists"), 2);
  EXPECT_TRUE(manager_.createDirectoryAtURL(temp_.directoryURL("exists"), false, 0700, 1, nullptr));
  EXPECT_EQ(protectionClassOf(temp_ / "exists"), 1);
  EXPECT_EQ(permissionsOf(temp_ / "exists"), 0711u);  // an existing directory keeps its mode
}

TEST_F(CreateDirectoryTest, ExistingFileCountsAsSuccessWithoutClass) {
  writeFile(temp_ / "file", "");
  EXPECT_TRUE(manager_.createDirectoryAtURL(temp_.fileURL("file"), false, 0755, nullptr));
  EXPECT_TRUE(manager_.createDirectoryAtURL(temp_.fileURL("file"), true, 0755, nullptr));
}

TEST_F(CreateDirectoryTest, ClassOverAnExistingFileFailsToOpenIt) {
  writeFile(temp_ / "file", "");
  const CVURL url = temp_.fileURL("file");
  CapturedLog log(platform::installerLog());
  CVError error;

  EXPECT_FALSE(manager_.createDirectoryAtURL(url, true, 0755, 4, &error));

  EXPECT_TRUE(error.isPOSIX(ENOTDIR)) << error.description();
  EXPECT_EQ(error.localizedDescription(), "opendir of " + url.path() + " failed: Not a directory");
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(CreateDirectoryTest, FileInTheMiddleOfThePathFailsTheIntermediates) {
  writeFile(temp_ / "file", "");
  const CVURL url = temp_.directoryURL("file/sub/leaf");
  CVError error;

  EXPECT_FALSE(manager_.createDirectoryAtURL(url, true, 0755, &error));

  EXPECT_TRUE(error.isPOSIX(ENOTDIR)) << error.description();
  EXPECT_EQ(error.localizedDescription(), "spandirs of " + url.path() + " failed: Not a directory");
  EXPECT_EQ(*error.userInfo().findString("FunctionName"), kCreateFunction);
}

TEST(ProtectionClassTest, ClassesOfFilesReadBackAndDefaultToThree) {
  TemporaryDirectory temp;
  writeFile(temp / "file", "");
  const sys::UniqueFd fd(::open((temp / "file").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(fd);
  std::int32_t protectionClass = 0;

  ASSERT_EQ(sys::getProtectionClass(fd.get(), &protectionClass), 0);
  EXPECT_EQ(protectionClass, 3);
  ASSERT_EQ(sys::setProtectionClass(fd.get(), -7), 0);
  ASSERT_EQ(sys::getProtectionClass(fd.get(), &protectionClass), 0);
  EXPECT_EQ(protectionClass, -7);
}

}  // namespace
