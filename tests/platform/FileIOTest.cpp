// Whole-file reads and atomic writes on a real disk: what is refused, what is
// left behind on failure, and that no descriptor leaks.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "platform/FileIO.h"
#include "tests/support/TestSupport.h"

namespace {

using testing_support::makeDirectories;
using testing_support::makeSymlink;
using testing_support::pathExists;
using testing_support::readFile;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string textOf(const std::vector<std::uint8_t>& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

std::vector<std::string> entries(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::size_t openDescriptorCount() {
  return entries("/proc/self/fd").size();
}

bool setImmutable(const std::string& path, bool immutable) {
  const std::string command =
      std::string("chattr ") + (immutable ? "+i" : "-i") + " '" + path + "' 2>/dev/null";
  return std::system(command.c_str()) == 0;
}

// ---- Reading

TEST(FileIOReadTest, ReadsExactBytes) {
  TemporaryDirectory directory;
  const std::string contents("with\0nul\nand more", 17);
  writeFile(directory / "file", contents);
  CVError error;
  const auto bytes = platform::readFileContents(directory.fileURL("file"), 1024, &error);
  ASSERT_TRUE(bytes) << error.description();
  EXPECT_EQ(textOf(*bytes), contents);
}

TEST(FileIOReadTest, ReadsLargeFilesWhole) {
  TemporaryDirectory directory;
  std::string contents;
  for (int i = 0; contents.size() < 3 * 1024 * 1024; ++i)
    contents += std::to_string(i) + ",";
  writeFile(directory / "large", contents);
  const auto bytes = platform::readFileContents(directory.fileURL("large"), 8 << 20, nullptr);
  ASSERT_TRUE(bytes);
  EXPECT_EQ(textOf(*bytes), contents);
}

TEST(FileIOReadTest, EmptyFileIsEmptyNotAFailure) {
  TemporaryDirectory directory;
  writeFile(directory / "empty", "");
  const auto bytes = platform::readFileContents(directory.fileURL("empty"), 10, nullptr);
  ASSERT_TRUE(bytes);
  EXPECT_TRUE(bytes->empty());
}

TEST(FileIOReadTest, SizeCapIsInclusive) {
  TemporaryDirectory directory;
  writeFile(directory / "ten", "0123456789");
  EXPECT_TRUE(platform::readFileContents(directory.fileURL("ten"), 10, nullptr));
  CVError error;
  EXPECT_FALSE(platform::readFileContents(directory.fileURL("ten"), 9, &error));
  EXPECT_TRUE(error.isPOSIX(EFBIG)) << error.description();
}

TEST(FileIOReadTest, MissingFileNamesCallAndPath) {
  TemporaryDirectory directory;
  CVError error;
  EXPECT_FALSE(platform::readFileContents(directory.fileURL("absent"), 10, &error));
  EXPECT_TRUE(error.isPOSIX(ENOENT));
  EXPECT_EQ(error.localizedDescription(),
            "open of " + (directory / "absent") + " failed: No such file or directory");
}

TEST(FileIOReadTest, RefusesWhatIsNotARegularFile) {
  TemporaryDirectory directory;
  writeFile(directory / "target", "contents");
  makeSymlink(directory / "target", directory / "link");
  makeDirectories(directory / "subdirectory");
  ASSERT_EQ(::mkfifo((directory / "fifo").c_str(), 0644), 0);

  CVError error;
  EXPECT_FALSE(platform::readFileContents(directory.fileURL("link"), 100, &error));
  EXPECT_TRUE(error.isPOSIX(ELOOP)) << error.description();
  EXPECT_FALSE(platform::readFileContents(directory.directoryURL("subdirectory"), 100, &error));
  EXPECT_TRUE(error.isPOSIX(EINVAL)) << error.description();
  // A FIFO without a writer would block an ordinary open; it must be refused.
  EXPECT_FALSE(platform::readFileContents(directory.fileURL("fifo"), 100, &error));
  EXPECT_TRUE(error.isPOSIX(EINVAL)) << error.description();
  EXPECT_FALSE(platform::readFileContents(CVURL(), 100, &error));
  EXPECT_TRUE(error.isPOSIX(EINVAL)) << error.description();
}

// ---- Writing

TEST(FileIOAtomicWriteTest, CreatesAndReplacesWithoutLeftovers) {
  TemporaryDirectory directory;
  const CVURL target = directory.fileURL("file.plist");
  ASSERT_TRUE(platform::writeFileAtomically(target, bytesOf("first"), nullptr));
  EXPECT_EQ(readFile(target.path()), "first");
  CVError error;
  ASSERT_TRUE(platform::writeFileAtomically(target, bytesOf("second, longer"), &error))
      << error.description();
  EXPECT_EQ(readFile(target.path()), "second, longer");
  ASSERT_TRUE(platform::writeFileAtomically(target, bytesOf(""), &error));
  EXPECT_EQ(readFile(target.path()), "");
  EXPECT_EQ(entries(directory.path()), std::vector<std::string>{"file.plist"});
}

TEST(FileIOAtomicWriteTest, AsideFilesLeftByAKilledWriterGoWithTheNextWrite) {
  TemporaryDirectory directory;
  // What a process killed between writing and renaming leaves, older than this
  // process; and look-alikes that are not aside files of this target.
  for (const char* name : {".file.plist.0123456789abcdef.tmp", ".other.plist.0123456789abcdef.tmp",
                           ".file.plist.0123456789abcdeg.tmp", ".file.plist.tmp"}) {
    writeFile(directory / name, "left behind");
    const struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (directory / name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }
  ASSERT_TRUE(
      platform::writeFileAtomically(directory.fileURL("file.plist"), bytesOf("new"), nullptr));
  EXPECT_EQ(entries(directory.path()),
            (std::vector<std::string>{".file.plist.0123456789abcdeg.tmp", ".file.plist.tmp",
                                      ".other.plist.0123456789abcdef.tmp", "file.plist"}));
}

TEST(FileIOAtomicWriteTest, NewFilesAreReadableByAll) {
  TemporaryDirectory directory;
  const mode_t previous = ::umask(022);
  const bool written =
      platform::writeFileAtomically(directory.fileURL("file"), bytesOf("x"), nullptr);
  ::umask(previous);
  ASSERT_TRUE(written);
  struct stat status {};
  ASSERT_EQ(::stat((directory / "file").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST(FileIOAtomicWriteTest, ReplacesASymlinkRatherThanItsTarget) {
  TemporaryDirectory directory;
  writeFile(directory / "elsewhere", "keep me");
  makeSymlink(directory / "elsewhere", directory / "link");
  ASSERT_TRUE(platform::writeFileAtomically(directory.fileURL("link"), bytesOf("new"), nullptr));
  EXPECT_EQ(readFile(directory / "elsewhere"), "keep me");
  struct stat status {};
  ASSERT_EQ(::lstat((directory / "link").c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(readFile(directory / "link"), "new");
}

TEST(FileIOAtomicWriteTest, MissingDirectoryFailsAndCreatesNothing) {
  TemporaryDirectory directory;
  CVError error;
  EXPECT_FALSE(
      platform::writeFileAtomically(directory.fileURL("missing/file"), bytesOf("x"), &error));
  EXPECT_TRUE(error.isPOSIX(ENOENT)) << error.description();
  EXPECT_FALSE(pathExists(directory / "missing"));
  EXPECT_TRUE(entries(directory.path()).empty());
}

TEST(FileIOAtomicWriteTest, DirectoryInTheWayIsLeftIntact) {
  TemporaryDirectory directory;
  makeDirectories(directory / "target");
  writeFile(directory / "target/inside", "untouched");
  CVError error;
  EXPECT_FALSE(platform::writeFileAtomically(directory.fileURL("target"), bytesOf("x"), &error));
  EXPECT_EQ(error.domain(), kPOSIXErrorDomain);
  EXPECT_EQ(readFile(directory / "target/inside"), "untouched");
  EXPECT_EQ(entries(directory.path()), std::vector<std::string>{"target"});
}

TEST(FileIOAtomicWriteTest, ImmutableTargetIsLeftAsItWas) {
  TemporaryDirectory directory;
  writeFile(directory / "target", "old");
  if (!setImmutable(directory / "target", true)) GTEST_SKIP() << "chattr +i unsupported here";
  CVError error;
  const bool written =
      platform::writeFileAtomically(directory.fileURL("target"), bytesOf("new"), &error);
  setImmutable(directory / "target", false);
  EXPECT_FALSE(written);
  EXPECT_TRUE(error.isPOSIX(EPERM)) << error.description();
  EXPECT_EQ(readFile(directory / "target"), "old");
  EXPECT_EQ(entries(directory.path()), std::vector<std::string>{"target"});
}

TEST(FileIOAtomicWriteTest, ImmutableDirectoryRefusesTheAsideFile) {
  TemporaryDirectory directory;
  makeDirectories(directory / "locked");
  writeFile(directory / "locked/target", "old");
  if (!setImmutable(directory / "locked", true)) GTEST_SKIP() << "chattr +i unsupported here";
  CVError error;
  const bool written =
      platform::writeFileAtomically(directory.fileURL("locked/target"), bytesOf("new"), &error);
  setImmutable(directory / "locked", false);
  EXPECT_FALSE(written);
  EXPECT_EQ(readFile(directory / "locked/target"), "old");
  EXPECT_EQ(entries(directory / "locked"), std::vector<std::string>{"target"});
}

TEST(FileIOAtomicWriteTest, FailedWriteRemovesTheAsideFile) {
  TemporaryDirectory directory;
  writeFile(directory / "target", "old contents");
  const CVURL target = directory.fileURL("target");
  // A child process with a tiny file-size limit: the write stops short and
  // then fails with EFBIG.
  const pid_t child = ::fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{16, 16};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    const std::string contents(4096, 'x');
    CVError error;
    const bool written = platform::writeFileAtomically(target, bytesOf(contents), &error);
    ::_exit(written ? 1 : error.isPOSIX(EFBIG) ? 0 : 2);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: the write succeeded; 2: another error";
  EXPECT_EQ(readFile(directory / "target"), "old contents");
  EXPECT_EQ(entries(directory.path()), std::vector<std::string>{"target"});
}

TEST(FileIOAtomicWriteTest, LongNamesStillGetAnAsideFile) {
  TemporaryDirectory directory;
  const std::string name(255, 'n');
  CVError error;
  ASSERT_TRUE(platform::writeFileAtomically(directory.fileURL(name), bytesOf("x"), &error))
      << error.description();
  EXPECT_EQ(entries(directory.path()), std::vector<std::string>{name});
}

TEST(FileIODescriptorTest, NoDescriptorLeaksOnAnyPath) {
  TemporaryDirectory directory;
  writeFile(directory / "file", "0123456789");
  makeDirectories(directory / "subdirectory");
  makeDirectories(directory / "target-directory");
  ASSERT_EQ(::mkfifo((directory / "fifo").c_str(), 0644), 0);
  const std::size_t before = openDescriptorCount();
  for (int i = 0; i < 5; ++i) {
    platform::readFileContents(directory.fileURL("file"), 100, nullptr);
    platform::readFileContents(directory.fileURL("file"), 5, nullptr);
    platform::readFileContents(directory.directoryURL("subdirectory"), 100, nullptr);
    platform::readFileContents(directory.fileURL("fifo"), 100, nullptr);
    platform::writeFileAtomically(directory.fileURL("written"), bytesOf("x"), nullptr);
    platform::writeFileAtomically(directory.fileURL("target-directory"), bytesOf("x"), nullptr);
  }
  EXPECT_EQ(openDescriptorCount(), before);
}

}  // namespace
