// CVFileManager temporary directories, making symbolic links and reading
// their content.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/Value.h"
#include "platform/linux/Links.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/filemanager/FileManagerTestHelpers.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace filemanager_test;
using namespace testing_support;

constexpr const char* kTemporaryFunction =
    "-[CVFileManager createTemporaryDirectoryInDirectoryURL:error:]";

std::string linkContent(const std::string& path) {
  char buffer[4096];
  const ssize_t length = ::readlink(path.c_str(), buffer, sizeof buffer);
  return length < 0 ? std::string("(not a link)") : std::string(buffer, length);
}

std::string functionOf(const CVError& error) {
  const auto* name = error.userInfo().findString("FunctionName");
  return name ? *name : std::string();
}

class LinksAndTemporaryTest : public ::testing::Test {
 protected:
  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

// --- Temporary directories ---

TEST_F(LinksAndTemporaryTest, TemporaryDirectoriesAreFreshPrivateAndNamedTemp) {
  CVError error = sentinelError();
  const CVURL first = manager_.createTemporaryDirectoryInDirectoryURL(temp_.url(), &error);
  EXPECT_TRUE(error.isNil()) << "the error place is cleared first";
  const CVURL second = manager_.createTemporaryDirectoryInDirectoryURL(temp_.url(), nullptr);

  ASSERT_FALSE(first.isNil());
  ASSERT_FALSE(second.isNil());
  EXPECT_NE(first.path(), second.path());
  for (const CVURL& url : {first, second}) {
    EXPECT_TRUE(url.isDirectory());
    EXPECT_EQ(url.URLByDeletingLastPathComponent().path(), temp_.path());
    const std::string name = url.lastPathComponent();
    EXPECT_EQ(name.rfind("temp.", 0), 0u) << name;
    EXPECT_EQ(name.size(), 11u) << name;
    EXPECT_NE(name, "temp.XXXXXX");
    struct stat status {};
    ASSERT_EQ(::lstat(url.fileSystemRepresentation(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0700u);
  }
}

TEST_F(LinksAndTemporaryTest, TemporaryDirectoryFailureIsLoggedWithItsCauseAndTemplate) {
  CapturedLog log(platform::installerLog());
  const CVURL parent = temp_.directoryURL("missing");
  const CVURL templateURL = parent.URLByAppendingPathComponent("temp.XXXXXX", true);

  CVError error = sentinelError();
  EXPECT_TRUE(manager_.createTemporaryDirectoryInDirectoryURL(parent, &error).isNil());

  EXPECT_EQ(error.domain(), "CVInstallerErrorDomain");
  EXPECT_EQ(error.code(), 4);
  EXPECT_EQ(error.localizedDescription(),
            "Failed to create temp dir at path " + templateURL.path());
  EXPECT_EQ(functionOf(error), kTemporaryFunction);
  const CVValue* pathArgument = error.userInfo().find("PathArgument");
  ASSERT_NE(pathArgument, nullptr);
  ASSERT_NE(pathArgument->asURL(), nullptr);
  EXPECT_EQ(*pathArgument->asURL(), templateURL);
  EXPECT_TRUE(error.underlyingError().isPOSIX(ENOENT)) << error.description();

  ASSERT_EQ(log.count(), 1u) << log.dump();
  const auto line = log.lines().front();
  EXPECT_EQ(line.level, 3);
  EXPECT_EQ(line.function, kTemporaryFunction);
  EXPECT_NE(line.message.find("Failed to create temp dir at path " + templateURL.path()),
            std::string::npos)
      << line.message;

  // Without an error place the failure is still logged.
  EXPECT_TRUE(manager_.createTemporaryDirectoryInDirectoryURL(parent, nullptr).isNil());
  EXPECT_EQ(log.count(), 2u) << log.dump();
}

// --- Making links ---

TEST_F(LinksAndTemporaryTest, LinkHoldsTheDestinationPathAsGiven) {
  CVError error = sentinelError();
  const CVURL destination = temp_.directoryURL("not/there/yet");

  EXPECT_TRUE(manager_.createSymbolicLinkAtURL(temp_.fileURL("link"), destination, &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(linkContent(temp_ / "link"), destination.path());
}

TEST_F(LinksAndTemporaryTest, LinkOverAnExistingItemFailsWithEEXIST) {
  writeFile(temp_ / "occupied", "kept");
  const CVURL destination = temp_.fileURL("target");

  CVError error;
  EXPECT_FALSE(manager_.createSymbolicLinkAtURL(temp_.fileURL("occupied"), destination, &error));

  EXPECT_TRUE(error.isPOSIX(EEXIST));
  EXPECT_EQ(error.localizedDescription(), "Could not create symlink containing " +
                                              destination.path() + " at " + (temp_ / "occupied") +
                                              ": File exists");
  EXPECT_EQ(functionOf(error),
            "-[CVFileManager createSymbolicLinkAtURL:withDestinationURL:error:]");
  EXPECT_EQ(readFile(temp_ / "occupied"), "kept");
}

// --- Reading links ---

TEST_F(LinksAndTemporaryTest, ContentOfALinkBecomesAFileURL) {
  makeSymlink("/some/absolute/place", temp_ / "absolute");
  makeSymlink("relative/place", temp_ / "relative");

  CVError error = sentinelError();
  const CVURL absolute = manager_.destinationOfSymbolicLinkAtURL(temp_.fileURL("absolute"), &error);
  EXPECT_EQ(absolute, CVURL::fileURLWithPath("/some/absolute/place", false));
  EXPECT_FALSE(absolute.isDirectory());

  // Relative content is taken relative to the current directory, not the link's.
  const CVURL relative = manager_.destinationOfSymbolicLinkAtURL(temp_.fileURL("relative"), &error);
  char cwd[4096];
  ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
  EXPECT_EQ(relative.path(), std::string(cwd) + "/relative/place");
  EXPECT_EQ(error, sentinelError());
}

TEST_F(LinksAndTemporaryTest, ReadingWhatIsNotALinkFails) {
  writeFile(temp_ / "file", "");
  struct Case {
    const char* name;
    int code;
    const char* text;
  };
  for (const Case& item : {Case{"file", EINVAL, "Invalid argument"},
                           Case{"absent", ENOENT, "No such file or directory"}}) {
    CVError error;
    EXPECT_TRUE(manager_.destinationOfSymbolicLinkAtURL(temp_.fileURL(item.name), &error).isNil());
    EXPECT_TRUE(error.isPOSIX(item.code)) << error.description();
    EXPECT_EQ(error.localizedDescription(),
              "Could not readlink " + (temp_ / item.name) + " : " + item.text);
    EXPECT_EQ(functionOf(error), "-[CVFileManager destinationOfSymbolicLinkAtURL:error:]");
  }
}

TEST_F(LinksAndTemporaryTest, LongLinkContentIsCutAt1024Bytes) {
  const std::string content = "/" + std::string(1500, 'a') + "/tail";
  makeSymlink(content, temp_ / "long");

  const CVURL url = manager_.destinationOfSymbolicLinkAtURL(temp_.fileURL("long"), nullptr);

  EXPECT_EQ(url.path(), content.substr(0, 1024));

  // The platform call itself stores exactly the bytes asked for.
  char buffer[16];
  EXPECT_EQ(platform::sys::readLink((temp_ / "long").c_str(), buffer, sizeof buffer), 16);
  EXPECT_EQ(std::string(buffer, sizeof buffer), content.substr(0, 16));
}

}  // namespace
