// CVFileManager's smaller operations: existence, listing, links and temporary
// directories, making directories, the error builders, disk usage, storing data,
// protection classes and placeholders.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Value.h"
#include "platform/linux/DirectoryStream.h"
#include "platform/linux/Links.h"
#include "platform/linux/PlaceholderAttribute.h"
#include "platform/linux/ProtectionClass.h"
#include "platform/linux/ProtectionClassTesting.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/filemanager/FileManagerTestHelpers.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;
using namespace filemanager_test;
namespace sys = platform::sys;

// ---- itemExistsAtURL / itemDoesNotExistAtURL.
namespace existence {

// (item, exists, does not exist, the level-3 line for both calls or "").
TEST(ExistenceTest, EachKindOfItemAnswersBothQuestions) {
  TemporaryDirectory temp;
  CVFileManager& manager = CVFileManager::defaultManager();
  writeFile(temp / "file", "");
  makeDirectories(temp / "dir");
  makeSymlink(temp / "nowhere", temp / "dangling");
  const std::string undeterminable = "Failed to determine if " +
                                     temp.fileURL("file/below").description() +
                                     " exists: Not a directory";
  const std::vector<std::tuple<CVURL, bool, bool, std::string>> cases = {
      {temp.fileURL("file"), true, false, ""},
      {temp.directoryURL("dir"), true, false, ""},
      {temp.fileURL("dangling"), true, false, ""},
      {temp.fileURL("absent"), false, true, ""},
      // A state that cannot be determined answers false twice, and says so.
      {temp.fileURL("file/below"), false, false, undeterminable}};
  for (const auto& [url, exists, doesNotExist, message] : cases) {
    CapturedLog log(platform::installerLog());
    EXPECT_EQ(manager.itemExistsAtURL(url), exists) << url.path();
    EXPECT_EQ(manager.itemDoesNotExistAtURL(url), doesNotExist) << url.path();
    if (message.empty()) {
      EXPECT_EQ(log.count(), 0u) << log.dump();
      continue;
    }
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u) << log.dump();
    EXPECT_EQ(std::tuple(lines[0].level, lines[0].message, lines[0].function),
              std::tuple(3, message, std::string("-[CVFileManager itemExistsAtURL:]")));
    EXPECT_EQ(std::tuple(lines[1].level, lines[1].message, lines[1].function),
              std::tuple(3, message, std::string("-[CVFileManager itemDoesNotExistAtURL:]")));
  }
}

}  // namespace existence

// ---- urlsForItemsInDirectoryAtURL: the flat listing of one directory.
namespace listing {

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

}  // namespace listing

// ---- Temporary directories, making symbolic links and reading them.
namespace linksAndTemporary {

constexpr const char* kTemporaryFunction =
    "-[CVFileManager createTemporaryDirectoryInDirectoryURL:error:]";

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

}  // namespace linksAndTemporary

// ---- createDirectoryAtURL with and without intermediate directories.
namespace createDirectory {

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

}  // namespace createDirectory

// ---- The three error builders: what goes into a record and what is logged.
namespace errorBuilders {

long numberAt(const CVError& error, std::string_view key) {
  const CVNumber* number = error.userInfo().findNumber(key);
  return number ? static_cast<long>(number->int64Value()) : -1;
}

std::string stringAt(const CVError& error, std::string_view key) {
  const std::string* text = error.userInfo().findString(key);
  return text ? *text : std::string("<absent>");
}

TEST(CreateErrorTest, HoldsExactlyDescriptionFunctionAndLineAndLogsNothing) {
  CapturedLog log(platform::installerLog());
  const long line = __LINE__ + 1;
  const CVError error = CreateError("-[X y]", CVInstallerErrorDomain, 4, "made %d of %s", 7, "it");

  EXPECT_EQ(error.domain(), "CVInstallerErrorDomain");
  EXPECT_EQ(error.code(), 4);
  EXPECT_EQ(error.userInfo().count(), 3u);
  EXPECT_EQ(error.localizedDescription(), "made 7 of it");
  EXPECT_EQ(stringAt(error, "FunctionName"), "-[X y]");
  EXPECT_EQ(numberAt(error, "SourceFileLine"), line);
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST(CreateAndLogErrorTest, CallerFunctionNameAndDescriptionWinOverGivenUserInfo) {
  CapturedLog log(platform::installerLog());
  const CVURL url = CVURL::fileURLWithPath("/var/x", false);
  const CVDictionary given{{"FunctionName", "-[Other method]"},
                           {"SourceFileLine", 1},
                           {std::string(kLocalizedDescriptionKey), "old text"},
                           {"PathArgument", url}};

  const long line = __LINE__ + 1;
  const CVError error = CreateAndLogError("-[CVFileManager f]", kPOSIXErrorDomain, EIO, CVError(),
                                          &given, "new text for %@", url);

  EXPECT_TRUE(error.isPOSIX(EIO));
  EXPECT_EQ(stringAt(error, "FunctionName"), "-[CVFileManager f]");
  EXPECT_EQ(numberAt(error, "SourceFileLine"), line);
  EXPECT_EQ(error.localizedDescription(), "new text for file:///var/x");
  const CVValue* path = error.userInfo().find("PathArgument");
  ASSERT_NE(path, nullptr);
  EXPECT_EQ(*path, CVValue(url));
  EXPECT_TRUE(error.underlyingError().isNil());

  ASSERT_EQ(log.count(), 1u) << log.dump();
  const auto lines = log.lines();
  EXPECT_EQ(lines[0].level, 3);
  EXPECT_EQ(lines[0].function, "-[CVFileManager f]");
  EXPECT_EQ(lines[0].message, std::to_string(line) + ": new text for file:///var/x");
}

TEST(CreateAndLogErrorTest, StoresUnderlyingErrorAndNamesItInTheLogLine) {
  CapturedLog log(platform::installerLog());
  const CVError underlying = CreateError("inner", kPOSIXErrorDomain, ENOENT, "inner failed");

  const long line = __LINE__ + 1;
  const CVError error = CreateAndLogError("outer", "D", 24, underlying, nullptr, "outer failed");

  EXPECT_EQ(error.underlyingError(), underlying);
  EXPECT_EQ(error.localizedDescription(), "outer failed");
  EXPECT_EQ(error.userInfo().count(), 4u);  // description, underlying, function, line
  EXPECT_TRUE(
      log.contains(3, std::to_string(line) + ": outer failed (" + underlying.description() + ")"))
      << log.dump();
}

TEST(CreateAndLogErrorTest, WithoutFormatThereIsNeitherDescriptionNorLogLine) {
  CapturedLog log(platform::installerLog());
  const CVError underlying = CVError::posix(EACCES, "denied");
  const CVDictionary given{{"LegacyErrorString", 70}};

  const CVError error = CreateAndLogErrorV("fn", 42, CVInstallerErrorDomain, kCVErrorInvalidSymlink,
                                           underlying, &given, std::nullopt, {});

  EXPECT_EQ(error.code(), 70);
  EXPECT_FALSE(error.userInfo().contains(kLocalizedDescriptionKey));
  EXPECT_EQ(error.underlyingError(), underlying);
  EXPECT_EQ(stringAt(error, "FunctionName"), "fn");
  EXPECT_EQ(numberAt(error, "SourceFileLine"), 42);
  EXPECT_NE(error.userInfo().find("LegacyErrorString"), nullptr);
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

}  // namespace errorBuilders

// ---- diskUsageForURL against an independent count.
namespace diskUsage {

constexpr const char* kFunction = "-[CVFileManager diskUsageForURL:]";

std::uint64_t allocatedBytes(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return static_cast<std::uint64_t>(status.st_blocks) * 512;
}

// What du reports for the tree (every item, hard-linked files once, the
// directories' own blocks included) less the directories' own blocks.
std::uint64_t duWithoutDirectories(const std::string& root) {
  const TemporaryDirectory scratch;
  const std::uint64_t total =
      std::stoull(runProgram("du", {"-s", "-B1", root}, scratch.path()).out);
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

}  // namespace diskUsage

// ---- captureStoreDataFromDirectory: the four store data items.
namespace storeData {

constexpr const char* kFunction =
    "-[CVFileManager captureStoreDataFromDirectory:toDirectory:doCopy:failureIsFatal:withError:]";

class StoreDataTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeDirectories(temp_ / "src");
    makeDirectories(temp_ / "dst");
  }

  // All four items in the source; "SorvikArtwork" is a directory.
  void makeAllItems() {
    writeFile(temp_ / "src/Manifest.plist", "manifest");
    writeFile(temp_ / "src/SorvikArtwork/art.png", "art");
    writeFile(temp_ / "src/SorvikMetadata.plist", "metadata");
    writeFile(temp_ / "src/GeoJSON", "geo");
  }

  // A file where the "SorvikArtwork" directory must go: copying or moving
  // that item fails.
  void blockArtworkDestination() { writeFile(temp_ / "dst/SorvikArtwork", "in the way"); }

  bool capture(bool doCopy, bool failureIsFatal, CVError* error) {
    return manager_.captureStoreDataFromDirectory(
        temp_.directoryURL("src"), temp_.directoryURL("dst"), doCopy, failureIsFatal, error);
  }

  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

TEST_F(StoreDataTest, CopyCarriesEveryItemAndKeepsTheSource) {
  makeAllItems();
  writeFile(temp_ / "src/Other.plist", "not store data");
  CVError error = sentinelError();

  EXPECT_TRUE(capture(true, true, &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(readFile(temp_ / "dst/Manifest.plist"), "manifest");
  EXPECT_EQ(readFile(temp_ / "dst/SorvikArtwork/art.png"), "art");
  EXPECT_EQ(readFile(temp_ / "dst/SorvikMetadata.plist"), "metadata");
  EXPECT_EQ(readFile(temp_ / "dst/GeoJSON"), "geo");
  EXPECT_FALSE(pathExists(temp_ / "dst/Other.plist"));
  EXPECT_EQ(entryNames(temp_ / "src").size(), 5u);
}

TEST_F(StoreDataTest, MoveCarriesEveryItemAndEmptiesTheSource) {
  makeAllItems();
  EXPECT_TRUE(capture(false, true, nullptr));
  EXPECT_EQ(entryNames(temp_ / "dst"),
            (std::set<std::string>{"GeoJSON", "Manifest.plist", "SorvikArtwork",
                                   "SorvikMetadata.plist"}));
  EXPECT_TRUE(entryNames(temp_ / "src").empty());
}

TEST_F(StoreDataTest, SourceWithoutAnyItemSucceedsAndMakesNothing) {
  CapturedLog log(platform::installerLog());
  for (const bool doCopy : {true, false}) {
    CVError error = sentinelError();
    EXPECT_TRUE(capture(doCopy, true, &error));
    EXPECT_EQ(error, sentinelError());
  }
  EXPECT_TRUE(entryNames(temp_ / "dst").empty());
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(StoreDataTest, NonFatalFailureIsLoggedAndTheLaterItemsAreStillCarried) {
  for (const bool doCopy : {true, false}) {
    SCOPED_TRACE(doCopy ? "copy" : "move");
    makeAllItems();
    blockArtworkDestination();
    CapturedLog log(platform::installerLog());
    CVError error = sentinelError();

    EXPECT_TRUE(capture(doCopy, false, &error));

    EXPECT_EQ(error, sentinelError());
    EXPECT_EQ(readFile(temp_ / "dst/Manifest.plist"), "manifest");
    EXPECT_EQ(readFile(temp_ / "dst/SorvikMetadata.plist"), "metadata");
    EXPECT_EQ(readFile(temp_ / "dst/GeoJSON"), "geo");
    EXPECT_EQ(readFile(temp_ / "dst/SorvikArtwork"), "in the way");
    const std::string message = std::string(doCopy ? "Failed to copy " : "Failed to move ") +
                                "file://" + (temp_ / "src/SorvikArtwork") + " to file://" +
                                (temp_ / "dst/SorvikArtwork");
    ASSERT_EQ(log.count(), 1u) << log.dump();
    EXPECT_TRUE(log.containsFragment(message + " (Error Domain=")) << log.dump();
    EXPECT_EQ(log.lines()[0].function, kFunction);

    // The next round starts from empty directories.
    ASSERT_TRUE(manager_.removeItemAtURL(temp_.directoryURL("src"), nullptr));
    ASSERT_TRUE(manager_.removeItemAtURL(temp_.directoryURL("dst"), nullptr));
    SetUp();
  }
}

TEST_F(StoreDataTest, FatalFailureStopsWithCode24AndTheItemsLegacyName) {
  makeAllItems();
  blockArtworkDestination();
  CVError error;

  EXPECT_FALSE(capture(true, true, &error));

  EXPECT_EQ(error.domain(), "CVInstallerErrorDomain");
  EXPECT_EQ(error.code(), 24);
  EXPECT_EQ(error.localizedDescription(), "Failed to copy file://" + (temp_ / "src/SorvikArtwork") +
                                              " to file://" + (temp_ / "dst/SorvikArtwork"));
  ASSERT_NE(error.userInfo().findString("LegacyErrorString"), nullptr);
  EXPECT_EQ(*error.userInfo().findString("LegacyErrorString"), "SorvikArtworkCaptureFailed");
  EXPECT_TRUE(error.underlyingError().isPOSIX(EEXIST)) << error.description();
  EXPECT_TRUE(pathExists(temp_ / "dst/Manifest.plist"));  // carried before the failure
  EXPECT_FALSE(pathExists(temp_ / "dst/SorvikMetadata.plist"));
  EXPECT_FALSE(pathExists(temp_ / "dst/GeoJSON"));
}

TEST_F(StoreDataTest, FatalMoveFailureNamesTheMove) {
  makeAllItems();
  blockArtworkDestination();
  CVError error;

  EXPECT_FALSE(capture(false, true, &error));

  EXPECT_EQ(error.code(), 24);
  EXPECT_EQ(error.localizedDescription(), "Failed to move file://" + (temp_ / "src/SorvikArtwork") +
                                              " to file://" + (temp_ / "dst/SorvikArtwork"));
  EXPECT_TRUE(error.underlyingError().isPOSIX(ENOTDIR)) << error.description();
  EXPECT_TRUE(pathExists(temp_ / "src/SorvikMetadata.plist"));
}

}  // namespace storeData

// ---- CVFileManager's data-protection class operations and placeholder marks.
namespace protectionAndPlaceholder {

constexpr const char* kGetFunction = "-[CVFileManager dataProtectionClassOfItemAtURL:class:error:]";
constexpr const char* kSetFunction =
    "-[CVFileManager setDataProtectionClassOfItemAtURL:toClass:ifPredicate:error:]";
constexpr const char* kMarkFunction = "-[CVFileManager markBundleAsPlaceholder:withError:]";

class ProtectionAndPlaceholderTest : public ::testing::Test {
 protected:
  std::int32_t classOf(const std::string& relative) {
    std::int32_t protectionClass = -100;
    CVError error;
    EXPECT_TRUE(
        manager_.dataProtectionClassOfItemAtURL(temp_.fileURL(relative), &protectionClass, &error))
        << error.description();
    return protectionClass;
  }

  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

// --- Protection classes ---

TEST_F(ProtectionAndPlaceholderTest, ClassSetOnFilesAndDirectoriesReadsBack) {
  writeFile(temp_ / "file", "x");
  makeDirectories(temp_ / "dir");
  EXPECT_EQ(classOf("file"), 3);  // the default class of an item never set
  CVError error = sentinelError();

  EXPECT_TRUE(
      manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 4, nullptr, &error));
  EXPECT_TRUE(manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("dir"), 1, nullptr, &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(classOf("file"), 4);
  EXPECT_EQ(classOf("dir"), 1);
}

TEST_F(ProtectionAndPlaceholderTest, PredicateSeesTheCurrentClassAndDecides) {
  writeFile(temp_ / "file", "x");
  ASSERT_TRUE(
      manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 2, nullptr, nullptr));
  std::int32_t seen = -1;
  const std::function<bool(std::int32_t)> refuse = [&](std::int32_t current) {
    seen = current;
    return false;
  };
  const std::function<bool(std::int32_t)> accept = [](std::int32_t current) {
    return current == 2;
  };
  CVError error = sentinelError();

  EXPECT_TRUE(
      manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 4, &refuse, &error));
  EXPECT_EQ(seen, 2);
  EXPECT_EQ(classOf("file"), 2);

  EXPECT_TRUE(
      manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 4, &accept, &error));
  EXPECT_EQ(classOf("file"), 4);
  EXPECT_EQ(error, sentinelError());
}

TEST_F(ProtectionAndPlaceholderTest, LinksAndMissingItemsFailToOpen) {
  writeFile(temp_ / "file", "x");
  makeSymlink(temp_ / "file", temp_ / "link");
  CapturedLog log(platform::installerLog());
  std::int32_t protectionClass = -100;
  CVError error;

  EXPECT_FALSE(
      manager_.dataProtectionClassOfItemAtURL(temp_.fileURL("link"), &protectionClass, &error));
  EXPECT_TRUE(error.isPOSIX(ELOOP)) << error.description();
  EXPECT_EQ(error.localizedDescription(),
            "Failed to open " + (temp_ / "link") + " : " + std::strerror(ELOOP));
  EXPECT_EQ(*error.userInfo().findString("FunctionName"), kGetFunction);
  EXPECT_EQ(protectionClass, -100);

  EXPECT_FALSE(
      manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("absent"), 2, nullptr, &error));
  EXPECT_TRUE(error.isPOSIX(ENOENT)) << error.description();
  EXPECT_EQ(error.localizedDescription(),
            "Failed to open " + (temp_ / "absent") + " : No such file or directory");
  EXPECT_EQ(*error.userInfo().findString("FunctionName"), kSetFunction);

  EXPECT_EQ(log.count(), 0u) << log.dump();  // the records are not logged
  EXPECT_EQ(classOf("file"), 3);             // the link's target was not touched
}

TEST_F(ProtectionAndPlaceholderTest, ClassThatCannotBeSetFails) {
  writeFile(temp_ / "file", "x");
  makeImmutable(temp_ / "file");
  CVError error;

  EXPECT_FALSE(
      manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 2, nullptr, &error));

  EXPECT_TRUE(error.isPOSIX(EPERM)) << error.description();
  EXPECT_EQ(error.localizedDescription(),
            "Failed to setclass(2) on file " + (temp_ / "file") + ": Operation not permitted");
}

TEST_F(ProtectionAndPlaceholderTest, WithoutUserAttributesAClassIsAcceptedAndKeptNowhere) {
  writeFile(temp_ / "file", "x");
  makeDirectories(temp_ / "dir");
  CapturedLog log(platform::installerLog());
  const platform::sys::ScopedProtectionClassFault unsupported(EOPNOTSUPP);
  CVError error;
  EXPECT_TRUE(manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 4, nullptr, &error))
      << error.description();
  const std::function<bool(std::int32_t)> seen = [](std::int32_t current) { return current == 3; };
  EXPECT_TRUE(manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 1, &seen, &error))
      << error.description();
  EXPECT_TRUE(manager_.createDirectoryAtURL(temp_.fileURL("dir/sub"), true, 0755, 4, &error))
      << error.description();
  EXPECT_EQ(classOf("file"), 3);
  EXPECT_EQ(classOf("dir/sub"), 3);
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

// --- Placeholder marks ---

TEST_F(ProtectionAndPlaceholderTest, MarkingTwiceSucceedsAndTheMarkIsFourBytesOfOne) {
  makeDirectories(temp_ / "App.app");
  EXPECT_FALSE(manager_.bundleAtURLIsPlaceholder(temp_.directoryURL("App.app")));
  CVError error = sentinelError();

  EXPECT_TRUE(manager_.markBundleAsPlaceholder(temp_.directoryURL("App.app"), &error));
  EXPECT_TRUE(manager_.markBundleAsPlaceholder(temp_.directoryURL("App.app"), &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_TRUE(manager_.bundleAtURLIsPlaceholder(temp_.directoryURL("App.app")));
  std::array<std::byte, 8> value{};
  ASSERT_EQ(platform::sys::readPlaceholderAttribute((temp_ / "App.app").c_str(), value), 4);
  std::uint32_t number = 0;
  std::memcpy(&number, value.data(), sizeof number);
  EXPECT_EQ(number, 1u);
}

TEST_F(ProtectionAndPlaceholderTest, OnlyAFourByteAttributeCountsAsAMarkWhateverItHolds) {
  makeDirectories(temp_ / "Long.app");
  makeDirectories(temp_ / "Zero.app");
  const std::array<std::byte, 8> eightBytes{std::byte{1}};
  const std::array<std::byte, 4> zero{};
  ASSERT_EQ(platform::sys::writePlaceholderAttribute((temp_ / "Long.app").c_str(), eightBytes), 0);
  ASSERT_EQ(platform::sys::writePlaceholderAttribute((temp_ / "Zero.app").c_str(), zero), 0);

  EXPECT_FALSE(manager_.bundleAtURLIsPlaceholder(temp_.directoryURL("Long.app")));
  EXPECT_TRUE(manager_.bundleAtURLIsPlaceholder(temp_.directoryURL("Zero.app")));
  EXPECT_FALSE(manager_.bundleAtURLIsPlaceholder(temp_.directoryURL("Missing.app")));
}

TEST_F(ProtectionAndPlaceholderTest, MarkThatCannotBeSetIsCode4AndLogged) {
  makeDirectories(temp_ / "App.app");
  makeSymlink(temp_ / "App.app", temp_ / "Link.app");  // not followed; Linux refuses it
  CapturedLog log(platform::installerLog());
  CVError error;

  EXPECT_FALSE(manager_.markBundleAsPlaceholder(temp_.directoryURL("Link.app"), &error));

  const std::string description =
      "Could't set placeholder EA on \"" + (temp_ / "Link.app") + "\": " + std::strerror(EPERM);
  EXPECT_EQ(error.domain(), "CVInstallerErrorDomain");
  EXPECT_EQ(error.code(), 4);
  EXPECT_EQ(error.localizedDescription(), description);
  EXPECT_TRUE(error.underlyingError().isPOSIX(EPERM)) << error.description();
  EXPECT_EQ(*error.userInfo().findString("FunctionName"), kMarkFunction);
  ASSERT_EQ(log.count(), 1u) << log.dump();
  EXPECT_TRUE(log.containsFragment(": " + description)) << log.dump();
  EXPECT_FALSE(manager_.bundleAtURLIsPlaceholder(temp_.directoryURL("App.app")));

  EXPECT_FALSE(manager_.markBundleAsPlaceholder(temp_.directoryURL("Missing.app"), nullptr));
}

}  // namespace protectionAndPlaceholder

}  // namespace
