// Whole-file reads and atomic writes on a real disk: what is refused, what is
// left behind on failure, and that no descriptor leaks.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

#include "platform/FileIO.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

bool makeImmutable(const std::string& path) {
  return runProgram("chattr", {"+i", path}).exitCode == 0;
}

TEST(FileIOReadTest, ReadsExactBytesUpToAnInclusiveCap) {
  TemporaryDirectory directory;
  const std::string contents("with\0nul\nand more", 17);
  std::string large;
  for (int i = 0; large.size() < 3 * 1024 * 1024; ++i)
    large += std::to_string(i) + ",";
  for (const auto& [name, text, cap] :
       {std::tuple{"file", contents, 1024}, std::tuple{"large", large, 8 << 20},
        std::tuple{"ten", std::string("0123456789"), 10}}) {
    writeFile(directory / name, text);
    CVError error;
    const auto bytes = platform::readFileContents(directory.fileURL(name), cap, &error);
    ASSERT_TRUE(bytes) << name << ": " << error.description();
    EXPECT_TRUE(std::string(bytes->begin(), bytes->end()) == text) << name;
  }
  // The refusals by kind are checked through the property-list reader, which
  // names them; here the cap: inclusive, and one byte over is EFBIG.
  CVError error;
  EXPECT_FALSE(platform::readFileContents(directory.fileURL("ten"), 9, &error));
  EXPECT_TRUE(error.isPOSIX(EFBIG)) << error.description();
  platform::readFileContents(directory.fileURL("absent"), 10, &error);
  EXPECT_EQ(error.localizedDescription(),
            "open of " + (directory / "absent") + " failed: No such file or directory");
}

TEST(FileIOAtomicWriteTest, CreatesAndReplacesReadableByAllWithoutLeftovers) {
  TemporaryDirectory directory;
  const CVURL target = directory.fileURL("file.plist");
  // What a process killed between writing and renaming leaves, older than this
  // process; and look-alikes that are not aside files of this target.
  for (const char* name : {".file.plist.0123456789abcdef.tmp", ".other.plist.0123456789abcdef.tmp",
                           ".file.plist.tmp"}) {
    writeFile(directory / name, "left behind");
    const struct timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (directory / name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }
  const mode_t previous = ::umask(022);
  for (const std::string text : {"first", "second, longer", ""}) {
    ASSERT_TRUE(platform::writeFileAtomically(target, bytesOf(text), nullptr));
    EXPECT_EQ(readFile(target.path()), text);
  }
  ::umask(previous);
  struct stat status {};
  ASSERT_EQ(::stat(target.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  EXPECT_EQ(entriesOf(directory.path()),
            (std::vector<std::string>{".file.plist.tmp", ".other.plist.0123456789abcdef.tmp",
                                      "file.plist"}));
  // A link is replaced, not followed.
  writeFile(directory / "elsewhere", "keep me");
  makeSymlink(directory / "elsewhere", directory / "link");
  ASSERT_TRUE(platform::writeFileAtomically(directory.fileURL("link"), bytesOf("new"), nullptr));
  EXPECT_EQ(readFile(directory / "elsewhere"), "keep me");
  ASSERT_EQ(::lstat((directory / "link").c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(readFile(directory / "link"), "new");
}

TEST(FileIOAtomicWriteTest, FailedWritesLeaveTheTargetAndNoAsideFile) {
  TemporaryDirectory directory;
  writeFile(directory / "target", "old");
  writeFile(directory / "locked/target", "old");
  // A missing directory and a directory in the way: PropertyListWriteTest.
  // A child with a tiny file-size limit: the write stops short, then fails
  // with EFBIG.
  const CVURL target = directory.fileURL("target");
  EXPECT_EQ(runInChild([&target] {
              ::signal(SIGXFSZ, SIG_IGN);
              const rlimit limit{16, 16};
              ::setrlimit(RLIMIT_FSIZE, &limit);
              CVError childError;
              const bool written = platform::writeFileAtomically(
                  target, bytesOf(std::string(4096, 'x')), &childError);
              return written ? 1 : childError.isPOSIX(EFBIG) ? 0 : 2;
            }),
            0)
      << "1: the write succeeded; 2: another error";
  if (makeImmutable(directory / "target") && makeImmutable(directory / "locked")) {
    CVError error;
    EXPECT_FALSE(platform::writeFileAtomically(target, bytesOf("new"), &error));
    EXPECT_TRUE(error.isPOSIX(EPERM)) << error.description();
    EXPECT_FALSE(
        platform::writeFileAtomically(directory.fileURL("locked/target"), bytesOf("new"), nullptr));
  }
  EXPECT_EQ(readFile(directory / "target"), "old");
  EXPECT_EQ(readFile(directory / "locked/target"), "old");
  EXPECT_EQ(entriesOf(directory / "locked"), std::vector<std::string>{"target"});
  EXPECT_EQ(entriesOf(directory.path()), (std::vector<std::string>{"locked", "target"}));
}

TEST(FileIODescriptorTest, NoDescriptorLeaksOnAnyPath) {
  TemporaryDirectory directory;
  writeFile(directory / "file", "0123456789");
  makeDirectories(directory / "subdirectory");
  makeDirectories(directory / "target-directory");
  ASSERT_EQ(::mkfifo((directory / "fifo").c_str(), 0644), 0);
  const std::size_t before = entriesOf("/proc/self/fd").size();
  for (int i = 0; i < 5; ++i) {
    platform::readFileContents(directory.fileURL("file"), 100, nullptr);
    platform::readFileContents(directory.fileURL("file"), 5, nullptr);
    platform::readFileContents(directory.directoryURL("subdirectory"), 100, nullptr);
    platform::readFileContents(directory.fileURL("fifo"), 100, nullptr);
    platform::writeFileAtomically(directory.fileURL("written"), bytesOf("x"), nullptr);
    platform::writeFileAtomically(directory.fileURL("target-directory"), bytesOf("x"), nullptr);
  }
  EXPECT_EQ(entriesOf("/proc/self/fd").size(), before);
}

}  // namespace
