// CVFileManager copy and move: the "IfExists" pre-check, error records, items in
// the way, trees deeper than the descriptor window, a copy equal to its source
// item by item (and to cp -a), moves across file systems, and mounts never crossed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>

#include "platform/Value.h"
#include "platform/linux/ExtendedAttributes.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/LinksTesting.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/filemanager/CopyTestTrees.h"
#include "tests/filemanager/FileManagerTestHelpers.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"
#include "tests/support/TreeSnapshot.h"

namespace {

namespace sys = platform::sys;
using namespace filemanager_test;
using namespace testing_support;

// ---- Copy and move: the "IfExists" pre-check, error records, items in the way.
namespace copyMove {

constexpr const char* kCopyFunction =
    "-[CVFileManager _copyItemAtURL:toURL:failIfSrcMissing:error:]";
constexpr const char* kMoveFunction =
    "-[CVFileManager _moveItemAtURL:toURL:failIfSrcMissing:error:]";

// The depth of the chain of directories named `name` below `root`, counted
// through descriptors (the chain may be longer than PATH_MAX), and whether
// its deepest directory holds "leaf".
std::pair<int, bool> chainDepth(const std::string& root, const std::string& name) {
  sys::UniqueFd current(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  int depth = 0;
  for (;;) {
    sys::UniqueFd next(::openat(current.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!next) break;
    current = std::move(next);
    ++depth;
  }
  struct stat status {};
  return {depth, ::fstatat(current.get(), "leaf", &status, AT_SYMLINK_NOFOLLOW) == 0};
}

class CopyMoveTest : public ::testing::Test {
 protected:
  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

// --- The "IfExists" pre-check and the error records ---

TEST_F(CopyMoveTest, MissingSourceOfIfExistsFormsIsSuccessAndTouchesNothing) {
  CapturedLog log(platform::installerLog());
  CVError error = sentinelError();

  EXPECT_TRUE(
      manager_.copyItemIfExistsAtURL(temp_.fileURL("absent"), temp_.fileURL("copy"), &error));
  EXPECT_TRUE(
      manager_.moveItemIfExistsAtURL(temp_.fileURL("absent"), temp_.fileURL("moved"), &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(entryNames(temp_.path()), std::set<std::string>{});
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(CopyMoveTest, MissingSourceFailsInTheCopyOrTheRenameWithENOENT) {
  const CVURL source = temp_.fileURL("absent");
  const CVURL destination = temp_.fileURL("target");

  CVError error;
  EXPECT_FALSE(manager_.copyItemAtURL(source, destination, &error));
  EXPECT_TRUE(error.isPOSIX(ENOENT));
  EXPECT_EQ(error.localizedDescription(), "mirrorit of " + source.description() + " to " +
                                              destination.description() +
                                              " failed: No such file or directory");
  EXPECT_EQ(functionOf(error), kCopyFunction);

  error = CVError();
  EXPECT_FALSE(manager_.moveItemAtURL(source, destination, &error));
  EXPECT_TRUE(error.isPOSIX(ENOENT));
  EXPECT_EQ(error.localizedDescription(), "rename of " + source.description() + " to " +
                                              destination.description() +
                                              " failed: No such file or directory");
  EXPECT_EQ(functionOf(error), kMoveFunction);
  EXPECT_FALSE(pathExists(temp_ / "target"));
}

TEST_F(CopyMoveTest, SourceThatCannotBeLookedAtFailsThePreCheck) {
  writeFile(temp_ / "file", "not a directory");
  const CVURL source = temp_.fileURL("file/child");

  for (const bool move : {false, true}) {
    CVError error;
    const bool result = move ? manager_.moveItemIfExistsAtURL(source, temp_.fileURL("x"), &error)
                             : manager_.copyItemIfExistsAtURL(source, temp_.fileURL("x"), &error);
    EXPECT_FALSE(result);
    EXPECT_TRUE(error.isPOSIX(ENOTDIR)) << error.description();
    EXPECT_EQ(error.localizedDescription(),
              "stat of " + source.description() + " failed: Not a directory");
    EXPECT_EQ(functionOf(error), move ? kMoveFunction : kCopyFunction);
  }
  EXPECT_FALSE(pathExists(temp_ / "x"));
}

TEST_F(CopyMoveTest, DanglingLinkCountsAsPresentAndTravelsAsALink) {
  makeSymlink("nowhere/at/all", temp_ / "dangling");

  EXPECT_TRUE(
      manager_.copyItemIfExistsAtURL(temp_.fileURL("dangling"), temp_.fileURL("copy"), nullptr));
  EXPECT_EQ(linkContent(temp_ / "copy"), "nowhere/at/all");

  EXPECT_TRUE(
      manager_.moveItemIfExistsAtURL(temp_.fileURL("dangling"), temp_.fileURL("moved"), nullptr));
  EXPECT_EQ(linkContent(temp_ / "moved"), "nowhere/at/all");
  EXPECT_FALSE(pathExists(temp_ / "dangling"));
}

// --- What the copy makes ---

TEST_F(CopyMoveTest, LoneItemsAreCopiedAsTheyAre) {
  makeDirectories(temp_ / "source");
  writeFile(temp_ / "source/file", "data", 0640);
  makeSymlink("../elsewhere", temp_ / "source/link");
  makeDirectories(temp_ / "target-directory");
  makeSymlink(temp_ / "target-directory", temp_ / "source/directory-link");
  ASSERT_EQ(::mkfifo((temp_ / "source/fifo").c_str(), 0604), 0);
  ASSERT_EQ(::lchown((temp_ / "source/link").c_str(), 501, 502), 0);
  makeDirectories(temp_ / "copies");

  for (const char* name : {"file", "link", "directory-link", "fifo"}) {
    // A link to a directory, even named by a directory URL, stays a link.
    CVError error;
    EXPECT_TRUE(manager_.copyItemAtURL(temp_.directoryURL(std::string("source/") + name),
                                       temp_.fileURL(std::string("copies/") + name), &error))
        << name << ": " << error.description();
  }
  ASSERT_EQ(::rmdir((temp_ / "target-directory").c_str()), 0) << "nothing was copied into it";
  // Item by item; the two directories holding them are not compared.
  auto items = [](const std::string& directory) {
    auto snapshot = snapshotTree(directory);
    snapshot.erase("");
    return snapshot;
  };
  EXPECT_EQ(listed(differences(items(temp_ / "source"), items(temp_ / "copies"),
                               AccessTimes::IgnoredOnLinks)),
            "");
}

TEST_F(CopyMoveTest, NonDirectoryInTheWayIsReplacedWithoutFollowingIt) {
  writeFile(temp_ / "outside", "must stay");
  writeFile(temp_ / "source", "new contents");
  makeSymlink(temp_ / "outside", temp_ / "destination");

  CVError error;
  ASSERT_TRUE(manager_.copyItemAtURL(temp_.fileURL("source"), temp_.fileURL("destination"), &error))
      << error.description();

  EXPECT_EQ(readFile(temp_ / "outside"), "must stay");
  EXPECT_EQ(linkContent(temp_ / "destination"), "(not a link)");
  EXPECT_EQ(readFile(temp_ / "destination"), "new contents");
}

TEST_F(CopyMoveTest, TreeIsMergedIntoAnExistingDirectoryButNeverThroughALink) {
  writeFile(temp_ / "source/keep/file", "from the source");
  writeFile(temp_ / "destination/keep/existing", "already there");
  ASSERT_TRUE(manager_.copyItemAtURL(temp_.directoryURL("source"),
                                     temp_.directoryURL("destination"), nullptr));
  EXPECT_EQ(entryNames(temp_ / "destination/keep"), (std::set<std::string>{"existing", "file"}));

  // A link where the copy needs a directory fails the copy; nothing is
  // written where the link points.
  makeDirectories(temp_ / "outside");
  makeDirectories(temp_ / "second");
  makeSymlink(temp_ / "outside", temp_ / "second/keep");
  CVError error;
  EXPECT_FALSE(
      manager_.copyItemAtURL(temp_.directoryURL("source"), temp_.directoryURL("second"), &error));
  EXPECT_TRUE(error.isPOSIX(EEXIST)) << error.description();
  EXPECT_EQ(entryNames(temp_ / "outside"), std::set<std::string>{});
}

TEST_F(CopyMoveTest, AclsInheritedWhereTheCopyIsMadeAreNotKept) {
  writeFile(temp_ / "source/sub/file", "plain");
  writeFile(temp_ / "source/top", "plain");
  ASSERT_EQ(::mkfifo((temp_ / "source/sub/fifo").c_str(), 0600), 0);
  makeDirectories(temp_ / "inheriting");
  ASSERT_EQ(sys::setAttribute(sys::AttributeItem::link((temp_ / "inheriting").c_str()),
                              "system.posix_acl_default", posixAclValue(true)),
            0);

  ASSERT_TRUE(manager_.copyItemAtURL(temp_.directoryURL("source"),
                                     temp_.directoryURL("inheriting/copy"), nullptr));
  ASSERT_TRUE(manager_.copyItemAtURL(temp_.fileURL("source/top"), temp_.fileURL("inheriting/top"),
                                     nullptr));

  EXPECT_EQ(
      listed(differences(snapshotTree(temp_ / "source"), snapshotTree(temp_ / "inheriting/copy"))),
      "");
  std::vector<std::string> names;
  ASSERT_EQ(
      sys::listAttributes(sys::AttributeItem::link((temp_ / "inheriting/top").c_str()), names), 0);
  EXPECT_EQ(names, std::vector<std::string>{});
}

TEST_F(CopyMoveTest, CopyIntoItselfFailsAndKeepsTheSource) {
  writeFile(temp_ / "tree/sub/file", "kept");

  CVError error;
  EXPECT_FALSE(manager_.copyItemAtURL(temp_.directoryURL("tree"),
                                      temp_.directoryURL("tree/sub/copy"), &error));
  EXPECT_TRUE(error.isPOSIX(EINVAL)) << error.description();

  error = CVError();
  EXPECT_FALSE(manager_.copyItemAtURL(temp_.fileURL("tree/sub/file"),
                                      temp_.fileURL("tree/sub/file"), &error));
  EXPECT_TRUE(error.isPOSIX(EINVAL)) << error.description();
  EXPECT_EQ(readFile(temp_ / "tree/sub/file"), "kept");

  error = CVError();
  EXPECT_FALSE(
      manager_.copyItemAtURL(temp_.directoryURL("tree"), temp_.directoryURL("tree"), &error));
  EXPECT_TRUE(error.isPOSIX(EINVAL)) << error.description();
  EXPECT_EQ(readFile(temp_ / "tree/sub/file"), "kept");
}

TEST_F(CopyMoveTest, FailedCopyReportsTheCallAndLeavesWhatItMade) {
  writeFile(temp_ / "source/a/file", "a");
  writeFile(temp_ / "source/b/file", "b");
  makeDirectories(temp_ / "destination/b");
  makeImmutable(temp_ / "destination/b");
  const CVURL source = temp_.directoryURL("source");
  const CVURL destination = temp_.directoryURL("destination");

  CVError error;
  EXPECT_FALSE(manager_.copyItemAtURL(source, destination, &error));

  EXPECT_TRUE(error.isPOSIX(EPERM)) << error.description();
  EXPECT_EQ(error.localizedDescription(), "mirrorit of " + source.description() + " to " +
                                              destination.description() +
                                              " failed: Operation not permitted");
  EXPECT_EQ(functionOf(error), kCopyFunction);
}

TEST_F(CopyMoveTest, TreeDeeperThanPathMaxAndTheDescriptorWindowIsCopiedWhole) {
  const std::string name = "a-directory-level";  // 300 of them: about 5400 bytes of path
  makeDirectories(temp_ / "deep");
  makeDeepTree(temp_ / "deep", 300, name);

  EXPECT_TRUE(
      manager_.copyItemAtURL(temp_.directoryURL("deep"), temp_.directoryURL("copy"), nullptr));
  EXPECT_EQ(chainDepth(temp_ / "copy", name), std::make_pair(300, true));

  // With few descriptors to spare the window shrinks and the copy still ends.
  {
    ScopedDescriptorLimit limit(48);
    EXPECT_TRUE(
        manager_.copyItemAtURL(temp_.directoryURL("deep"), temp_.directoryURL("copy2"), nullptr));
  }
  EXPECT_EQ(chainDepth(temp_ / "copy2", name), std::make_pair(300, true));

  for (const char* tree : {"deep", "copy", "copy2"})
    EXPECT_TRUE(manager_.removeItemAtURL(temp_.directoryURL(tree), nullptr));
}

TEST_F(CopyMoveTest, UnprivilegedCopyBelongsToTheCaller) {
  writeFile(temp_ / "source/file", "readable by all", 0644);
  ASSERT_EQ(::chmod((temp_ / "source").c_str(), 0755), 0);
  makeDirectories(temp_ / "mine");
  ASSERT_EQ(::chown((temp_ / "mine").c_str(), 65534, 65534), 0);
  ASSERT_EQ(::chmod(temp_.path().c_str(), 0755), 0);

  const int exitCode = runInChild([this] {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 3;
    CVError error;
    return CVFileManager::defaultManager().copyItemAtURL(temp_.directoryURL("source"),
                                                         temp_.directoryURL("mine/copy"), &error)
               ? 0
               : 1;
  });
  ASSERT_EQ(exitCode, 0) << "1: the copy failed; 3: could not drop privileges";

  struct stat copy {};
  ASSERT_EQ(::lstat((temp_ / "mine/copy/file").c_str(), &copy), 0);
  EXPECT_EQ(copy.st_uid, 65534u);
  EXPECT_EQ(copy.st_mode & 07777, 0644u);
  EXPECT_EQ(readFile(temp_ / "mine/copy/file"), "readable by all");
}

// --- Moves ---

TEST_F(CopyMoveTest, MoveRenamesOnOneFileSystem) {
  writeFile(temp_ / "tree/file", "moved");
  CVError error = sentinelError();
  EXPECT_TRUE(
      manager_.moveItemAtURL(temp_.directoryURL("tree"), temp_.directoryURL("moved"), &error));
  EXPECT_EQ(error, sentinelError());
  EXPECT_FALSE(pathExists(temp_ / "tree"));
  EXPECT_EQ(readFile(temp_ / "moved/file"), "moved");
}

TEST_F(CopyMoveTest, FailedRenameReportsTheRename) {
  writeFile(temp_ / "source/file", "");
  writeFile(temp_ / "occupied/other", "");
  const CVURL source = temp_.directoryURL("source");
  const CVURL destination = temp_.directoryURL("occupied");

  CVError error;
  EXPECT_FALSE(manager_.moveItemIfExistsAtURL(source, destination, &error));

  EXPECT_TRUE(error.isPOSIX(ENOTEMPTY)) << error.description();
  EXPECT_EQ(error.localizedDescription(), "rename of " + source.description() + " to " +
                                              destination.description() +
                                              " failed: Directory not empty");
  EXPECT_TRUE(pathExists(temp_ / "source/file"));
}

TEST_F(CopyMoveTest, CrossDeviceMoveWhoseCopySucceedsAnswersFalseAndKeepsBoth) {
  writeFile(temp_ / "source/file", "both");
  CapturedLog log(platform::installerLog());
  CVError error = sentinelError();
  {
    const sys::ScopedRenameFault fault(EXDEV);
    EXPECT_FALSE(manager_.moveItemAtURL(temp_.directoryURL("source"),
                                        temp_.directoryURL("destination"), &error));
  }
  EXPECT_TRUE(error.isNil()) << error.description();
  EXPECT_EQ(readFile(temp_ / "source/file"), "both");
  EXPECT_EQ(readFile(temp_ / "destination/file"), "both");
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(CopyMoveTest, CrossDeviceMoveWhoseCopyFailsRemovesTheSourceAndAnswersTrue) {
  writeFile(temp_ / "source/file", "lost");
  CapturedLog log(platform::installerLog());
  CVError error = sentinelError();
  {
    const sys::ScopedRenameFault fault(EXDEV);
    EXPECT_TRUE(manager_.moveItemAtURL(temp_.directoryURL("source"),
                                       temp_.directoryURL("missing/destination"), &error));
  }
  EXPECT_EQ(error, sentinelError());
  EXPECT_FALSE(pathExists(temp_ / "source"));
  EXPECT_FALSE(pathExists(temp_ / "missing"));
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(CopyMoveTest, CrossDeviceMoveLogsASourceItCannotRemove) {
  writeFile(temp_ / "source/locked", "stays");
  writeFile(temp_ / "source/other", "goes");
  makeImmutable(temp_ / "source/locked");
  CapturedLog log(platform::installerLog());
  {
    const sys::ScopedRenameFault fault(EXDEV);
    EXPECT_TRUE(manager_.moveItemAtURL(temp_.directoryURL("source"),
                                       temp_.directoryURL("missing/destination"), nullptr));
  }
  const std::string prefix = "Failed to remove source " + (temp_ / "source") + " : Error Domain=";
  bool found = false;
  for (const auto& line : log.lines()) {
    if (line.level == 3 && line.function == kMoveFunction && line.message.rfind(prefix, 0) == 0) {
      found = true;
      EXPECT_NE(line.message.find("Operation not permitted"), std::string::npos) << line.message;
    }
  }
  EXPECT_TRUE(found) << log.dump();
  EXPECT_EQ(entryNames(temp_ / "source"), std::set<std::string>{"locked"});
}

TEST_F(CopyMoveTest, MoveToAnotherFileSystemCopiesAndKeepsTheSource) {
  const OtherDeviceDirectory other(temp_.path());
  if (!other.available()) GTEST_SKIP() << "no second file system (/dev/shm) to move to";
  writeFile(temp_ / "source/file", "on two file systems");
  const CVURL destination = CVURL::fileURLWithPath(other / "moved", true);

  CVError error = sentinelError();
  EXPECT_FALSE(manager_.moveItemAtURL(temp_.directoryURL("source"), destination, &error));

  EXPECT_TRUE(error.isNil()) << error.description();
  EXPECT_EQ(listed(differences(snapshotTree(temp_ / "source"), snapshotTree(other / "moved"))), "");
  EXPECT_EQ(readFile(temp_ / "source/file"), "on two file systems");
}

}  // namespace copyMove

// ---- A copy of a tree with every kind of item equals its source, and cp -a.
namespace copyOracle {

class CopyOracleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeDirectories(temp_ / "outside");
    ASSERT_NO_FATAL_FAILURE(makeRichTree(source(), temp_ / "outside"));
  }

  std::string source() const { return temp_ / "source"; }
  CVURL sourceURL() const { return temp_.directoryURL("source"); }

  // The copy's sparse file keeps its holes: it takes about as many blocks
  // as the source's, far fewer than its size.
  static void expectHolesKept(const TreeSnapshot& original, const TreeSnapshot& copy) {
    const auto& want = original.at(kSparseFile);
    const auto& got = copy.at(kSparseFile);
    EXPECT_LT(got.blocks * 512, kSparseFileSize / 8) << "the holes were filled";
    EXPECT_LE(got.blocks, want.blocks + 64);
  }

  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

TEST_F(CopyOracleTest, CopyEqualsTheSourceItemByItemAndLeavesTheSourceAsItWas) {
  const TreeSnapshot before = snapshotTree(source());

  CVError error;
  ASSERT_TRUE(manager_.copyItemAtURL(sourceURL(), temp_.directoryURL("copy"), &error))
      << error.description();

  const TreeSnapshot copy = snapshotTree(temp_ / "copy");
  EXPECT_EQ(listed(differences(before, copy)), "");
  expectHolesKept(before, copy);
  // The source was read without touching its access times, except those of
  // links, whose content cannot be read any other way.
  EXPECT_EQ(listed(differences(before, snapshotTree(source()), AccessTimes::IgnoredOnLinks)), "");

  // The file with a name outside the tree is a file of its own in the copy,
  // and the three names inside it stay one file.
  struct stat status {};
  ASSERT_EQ(::lstat((temp_ / "copy/shared-outside").c_str(), &status), 0);
  EXPECT_EQ(status.st_nlink, 1u);
  ASSERT_EQ(::lstat((temp_ / "copy/nested/one").c_str(), &status), 0);
  EXPECT_EQ(status.st_nlink, 3u);
}

TEST_F(CopyOracleTest, CopyAgreesWithCpArchive) {
  ASSERT_TRUE(manager_.copyItemAtURL(sourceURL(), temp_.directoryURL("ours"), nullptr));
  ASSERT_EQ(runProgram("cp", {"-a", source(), temp_ / "oracle"}).exitCode, 0);

  const TreeSnapshot ours = snapshotTree(temp_ / "ours");
  const TreeSnapshot oracle = snapshotTree(temp_ / "oracle");
  // cp ran after our copy had read the links.
  EXPECT_EQ(listed(differences(oracle, ours, AccessTimes::IgnoredOnLinks)), "");
  EXPECT_LE(ours.at(kSparseFile).blocks, oracle.at(kSparseFile).blocks + 64);
}

TEST_F(CopyOracleTest, CopyToAnotherFileSystemEqualsTheSource) {
  const OtherDeviceDirectory other(temp_.path());
  if (!other.available()) GTEST_SKIP() << "no second file system (/dev/shm) to copy to";
  const TreeSnapshot before = snapshotTree(source());

  CVError error;
  ASSERT_TRUE(
      manager_.copyItemAtURL(sourceURL(), CVURL::fileURLWithPath(other / "copy", true), &error))
      << error.description();

  const TreeSnapshot copy = snapshotTree(other / "copy");
  EXPECT_EQ(listed(differences(before, copy)), "");
  expectHolesKept(before, copy);
}

}  // namespace copyOracle

// ---- Mounts inside a tree are never crossed.
namespace mountPoint {

constexpr std::uint32_t kNewOwner = 501;

struct Operation {
  const char* name;
  // Runs on the tree; true when it reported the failure it must.
  std::function<bool(const TemporaryDirectory& place)> run;
};

void PrintTo(const Operation& operation, std::ostream* out) {
  *out << operation.name;
}

class MountPointTest : public ::testing::TestWithParam<Operation> {
 protected:
  void SetUp() override {
    writeFile(place_ / "outside/canary.txt", "outside the tree");
    writeFile(place_ / "tree/file.txt", "inside");
    makeDirectories(place_ / "tree/sub/mounted");
    if (::mount((place_ / "outside").c_str(), (place_ / "tree/sub/mounted").c_str(), nullptr,
                MS_BIND, nullptr) != 0) {
      GTEST_SKIP() << "no bind mount here: " << std::strerror(errno);
    }
    mounted_ = true;
  }

  void TearDown() override {
    if (mounted_) {
      EXPECT_EQ(::umount2((place_ / "tree/sub/mounted").c_str(), MNT_DETACH), 0)
          << std::strerror(errno);
    }
  }

  // Declared first: the directory goes away after the mount is undone.
  TemporaryDirectory place_;
  bool mounted_ = false;
};

TEST_P(MountPointTest, TheMountIsNotCrossedAndStaysInPlace) {
  EXPECT_TRUE(GetParam().run(place_));
  EXPECT_EQ(readFile(place_ / "outside/canary.txt"), "outside the tree");
  struct stat status {};
  ASSERT_EQ(::stat((place_ / "outside/canary.txt").c_str(), &status), 0);
  EXPECT_NE(status.st_uid, kNewOwner);
  EXPECT_TRUE(pathExists(place_ / "tree/sub/mounted/canary.txt"));
}

CVFileManager& fileManager() {
  return CVFileManager::defaultManager();
}

INSTANTIATE_TEST_SUITE_P(
    Operations, MountPointTest,
    ::testing::Values(
        Operation{"Removal",
                  [](const TemporaryDirectory& place) {
                    CVError error;
                    return !fileManager().removeItemAtURL(place.directoryURL("tree"), &error) &&
                           error.code() == EXDEV && !pathExists(place / "tree/file.txt");
                  }},
        Operation{"Copy",
                  [](const TemporaryDirectory& place) {
                    CVError error;
                    return !fileManager().copyItemAtURL(place.directoryURL("tree"),
                                                        place.directoryURL("copy"), &error) &&
                           error.code() == EXDEV && !pathExists(place / "copy/sub/mounted");
                  }},
        Operation{"Ownership",
                  [](const TemporaryDirectory& place) {
                    CVError error;
                    return !fileManager().standardizeOwnershipAndValidateSymlinksAtURL(
                               place.directoryURL("tree"), kNewOwner, kNewOwner, &error) &&
                           error.code() == EXDEV;
                  }},
        Operation{"DiskUsage",
                  [](const TemporaryDirectory& place) {
                    // The canary is far larger than the tree's own file.
                    writeFile(place / "outside/large.bin", std::string(1 << 20, 'x'));
                    return fileManager().diskUsageForURL(place.directoryURL("tree")) < (1 << 20);
                  }}),
    [](const ::testing::TestParamInfo<Operation>& parameter) {
      return std::string(parameter.param.name);
    });

}  // namespace mountPoint

}  // namespace
