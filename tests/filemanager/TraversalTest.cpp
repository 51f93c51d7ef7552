// CVFileManager::_traverseDirectory and
// standardizeOwnershipAndValidateSymlinksAtURL: what the walk hands on, where
// it stops, and the owners it leaves behind.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/Value.h"
#include "platform/linux/TreeWalker.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/filemanager/FileManagerTestHelpers.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace filemanager_test;
using platform::sys::WalkEntry;
using platform::sys::WalkKind;
using namespace testing_support;

constexpr const char* kTraverseFunction = "-[CVFileManager _traverseDirectory:error:withBlock:]";
constexpr const char* kStandardizeFunction =
    "-[CVFileManager standardizeOwnershipAndValidateSymlinksAtURL:toUID:GID:error:]";
constexpr const char* kBlockFunction =
    "__78-[CVFileManager standardizeOwnershipAndValidateSymlinksAtURL:toUID:GID:error:]_block_"
    "invoke";
constexpr uid_t kOwner = 501;
constexpr gid_t kGroup = 501;

struct Owner {
  uid_t uid;
  gid_t gid;
  bool operator==(const Owner&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Owner& owner) {
  return out << owner.uid << ":" << owner.gid;
}

Owner ownerOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return Owner{status.st_uid, status.st_gid};
}

class TraversalTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(::geteuid(), 0u) << "ownership tests run as root"; }

  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

// --- The walk itself ---

TEST_F(TraversalTest, HandsOnEveryEntryWithDirectoriesBeforeAndAfterTheirContents) {
  makeDirectories(temp_ / "root/dir");
  writeFile(temp_ / "root/dir/file", "x");
  writeFile(temp_ / "root/top", "y");
  makeSymlink("dir", temp_ / "root/link");
  ASSERT_EQ(::mkfifo((temp_ / "root/fifo").c_str(), 0600), 0);
  std::vector<std::pair<std::string, WalkKind>> seen;
  CVError error = sentinelError();

  const bool walked = manager_._traverseDirectory(temp_.directoryURL("root"), &error,
                                                  [&](const WalkEntry& entry, CVError*) {
                                                    seen.emplace_back(entry.path, entry.kind);
                                                    return true;
                                                  });

  EXPECT_TRUE(walked);
  EXPECT_EQ(error, sentinelError());
  std::map<std::string, std::vector<WalkKind>> kinds;
  std::map<std::string, std::size_t> firstSeen, lastSeen;
  for (std::size_t index = 0; index < seen.size(); ++index) {
    kinds[seen[index].first].push_back(seen[index].second);
    firstSeen.emplace(seen[index].first, index);
    lastSeen[seen[index].first] = index;
  }
  const std::string root = temp_ / "root";
  EXPECT_EQ(seen.size(), 8u);
  EXPECT_EQ(kinds[root], (std::vector{WalkKind::Directory, WalkKind::DirectoryPost}));
  EXPECT_EQ(kinds[root + "/dir"], (std::vector{WalkKind::Directory, WalkKind::DirectoryPost}));
  EXPECT_EQ(kinds[root + "/dir/file"], std::vector{WalkKind::File});
  EXPECT_EQ(kinds[root + "/top"], std::vector{WalkKind::File});
  EXPECT_EQ(kinds[root + "/link"], std::vector{WalkKind::Symlink});  // not followed
  EXPECT_EQ(kinds[root + "/fifo"], std::vector{WalkKind::Default});
  EXPECT_EQ(firstSeen[root], 0u);
  EXPECT_EQ(lastSeen[root], seen.size() - 1);
  EXPECT_LT(firstSeen[root + "/dir"], firstSeen[root + "/dir/file"]);
  EXPECT_GT(lastSeen[root + "/dir"], firstSeen[root + "/dir/file"]);
}

TEST_F(TraversalTest, BlockAnsweringFalseStopsTheWalkWithItsError) {
  makeDirectories(temp_ / "root/a/b");
  int calls = 0;
  CVError error;
  const auto stopAtTheSecond = [&](const WalkEntry&, CVError* blockError) {
    EXPECT_NE(blockError, nullptr);
    if (++calls < 2) return true;
    *blockError = CVError("BlockDomain", 7);
    return false;
  };
  EXPECT_FALSE(manager_._traverseDirectory(temp_.directoryURL("root"), &error, stopAtTheSecond));
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(std::tuple(error.domain(), error.code()), std::tuple(std::string("BlockDomain"), 7));

  // Without an error place from the caller the block gets none either.
  bool sawPlace = false;
  EXPECT_FALSE(manager_._traverseDirectory(temp_.directoryURL("root"), nullptr,
                                           [&](const WalkEntry&, CVError* blockError) {
                                             sawPlace = blockError != nullptr;
                                             return false;
                                           }));
  EXPECT_FALSE(sawPlace);
}

// A missing root, an entry deep below the root whose path exceeds PATH_MAX,
// and a walker that cannot open: the error names the root.
TEST_F(TraversalTest, FailedWalksNameTheRoot) {
  makeDirectories(temp_ / "deep");
  makeDeepTree(temp_ / "deep", 400, "directory-with-a-long-name");
  const struct {
    CVURL url;
    int code;
    std::string description;
    bool entriesSeen;
  } cases[] = {
      {temp_.directoryURL("absent"), ENOENT,
       "Error for path " + (temp_ / "absent") + ": No such file or directory", false},
      {temp_.directoryURL("deep"), ENAMETOOLONG,
       "Error for path " + (temp_ / "deep") + ": File name too long", true},
      {CVURL(), ENOENT, "fts_open failed for  with error No such file or directory", false},
  };
  for (const auto& each : cases) {
    int calls = 0;
    CVError error;
    EXPECT_FALSE(manager_._traverseDirectory(each.url, &error, [&](const WalkEntry&, CVError*) {
      ++calls;
      return true;
    }));
    EXPECT_EQ(calls > 10, each.entriesSeen) << calls;
    expectPosixError(error, each.code, each.description, each.url.isNil() ? "" : kTraverseFunction);
  }
}

// --- Ownership ---

TEST_F(TraversalTest, EveryItemGetsTheOwnerLinksThemselvesIncluded) {
  makeDirectories(temp_ / "root/dir/sub");
  writeFile(temp_ / "root/dir/sub/file", "x");
  writeFile(temp_ / "root/file", "y");
  makeSymlink("../file", temp_ / "root/dir/up-link");
  makeSymlink("sub/missing", temp_ / "root/dir/dangling-link");
  ASSERT_EQ(::lchown((temp_ / "root/dir").c_str(), kOwner, 0), 0);  // only the group differs
  CapturedLog log(platform::installerLog());
  CVError error = sentinelError();

  EXPECT_TRUE(manager_.standardizeOwnershipAndValidateSymlinksAtURL(temp_.directoryURL("root"),
                                                                    kOwner, kGroup, &error));

  EXPECT_EQ(error, sentinelError());
  for (const char* item : {"root", "root/dir", "root/dir/sub", "root/dir/sub/file", "root/file",
                           "root/dir/up-link", "root/dir/dangling-link"}) {
    EXPECT_EQ(ownerOf(temp_ / item), (Owner{kOwner, kGroup})) << item;
  }
  EXPECT_EQ(ownerOf(temp_.path()), (Owner{0, 0}));
  EXPECT_FALSE(log.containsFragment("Could not chown")) << log.dump();
  EXPECT_FALSE(log.containsFragment("Rejecting")) << log.dump();
}

// A hard link shares its inode with names elsewhere: the tree's names get a
// copy of their own (content, mode and times kept) and only that copy gets
// the owner; the outside name keeps everything. The root given as a file is
// treated the same way.
TEST_F(TraversalTest, HardLinkedFilesGetACopyOfTheirOwnBeforeTheOwnerChanges) {
  writeFile(temp_ / "outside/shared", "shared content", 0640);
  writeFile(temp_ / "outside/root-file", "root content", 0600);
  makeDirectories(temp_ / "root/dir");
  for (const auto& [from, to] : {std::pair{"outside/shared", "root/dir/linked"},
                                 std::pair{"outside/shared", "root/second-name"},
                                 std::pair{"outside/root-file", "metadata"}}) {
    ASSERT_EQ(::link((temp_ / from).c_str(), (temp_ / to).c_str()), 0) << to;
  }
  struct stat before {};
  ASSERT_EQ(::stat((temp_ / "outside/shared").c_str(), &before), 0);
  CVError error = sentinelError();

  EXPECT_TRUE(manager_.standardizeOwnershipAndValidateSymlinksAtURL(temp_.directoryURL("root"),
                                                                    kOwner, kGroup, &error));
  EXPECT_TRUE(manager_.standardizeOwnershipAndValidateSymlinksAtURL(temp_.fileURL("metadata"),
                                                                    kOwner, kGroup, &error));

  EXPECT_EQ(error, sentinelError());
  for (const char* outside : {"outside/shared", "outside/root-file"}) {
    EXPECT_EQ(ownerOf(temp_ / outside), (Owner{0, 0})) << outside;
  }
  struct stat after {};
  ASSERT_EQ(::stat((temp_ / "outside/shared").c_str(), &after), 0);
  EXPECT_EQ(after.st_nlink, 1u);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  for (const auto& [item, content] :
       {std::pair{"root/dir/linked", "shared content"},
        std::pair{"root/second-name", "shared content"}, std::pair{"metadata", "root content"}}) {
    EXPECT_EQ(ownerOf(temp_ / item), (Owner{kOwner, kGroup})) << item;
    EXPECT_EQ(testing_support::readFile(temp_ / item), content) << item;
  }
  EXPECT_EQ(filemanager_test::entryNames(temp_ / "root/dir"), std::set<std::string>{"linked"});
}

TEST_F(TraversalTest, AbsoluteLinkStopsTheWalkWithCode70AfterChangingTheLinkItself) {
  makeDirectories(temp_ / "root");
  writeFile(temp_ / "outside", "target");
  makeSymlink(temp_ / "outside", temp_ / "root/absolute");
  const std::string link = temp_ / "root/absolute";
  CapturedLog log(platform::installerLog());
  CVError error;

  EXPECT_FALSE(manager_.standardizeOwnershipAndValidateSymlinksAtURL(temp_.directoryURL("root"),
                                                                     kOwner, kGroup, &error));

  EXPECT_EQ(std::tuple(error.domain(), error.code(), error.localizedDescription()),
            std::tuple(std::string("CVInstallerErrorDomain"), 70, "invalid symlink at " + link));
  ASSERT_NE(error.userInfo().findNumber("LegacyErrorString"), nullptr);
  EXPECT_EQ(error.userInfo().findNumber("LegacyErrorString")->int64Value(), 70);
  EXPECT_EQ(*error.userInfo().findString("FunctionName"), kBlockFunction);
  EXPECT_TRUE(log.containsFragment(": invalid symlink at " + link)) << log.dump();
  EXPECT_TRUE(log.contains(3, "Rejecting " + link + " -> " + (temp_ / "outside") +
                                  ", as absolute symlinks are not allowed"))
      << log.dump();
  // Met before the stop: the root and the link itself, not the link's target.
  EXPECT_EQ(ownerOf(temp_ / "root"), (Owner{kOwner, kGroup}));
  EXPECT_EQ(ownerOf(link), (Owner{kOwner, kGroup}));
  EXPECT_EQ(ownerOf(temp_ / "outside"), (Owner{0, 0}));
}

TEST_F(TraversalTest, LinksLeavingTheRootAreInvalidAndARootLinkIsNotFollowed) {
  makeDirectories(temp_ / "root/a");
  makeSymlink("../../elsewhere", temp_ / "root/a/climbing");
  writeFile(temp_ / "target/file", "x");
  makeSymlink("target", temp_ / "relative-root");
  makeSymlink(temp_ / "target", temp_ / "absolute-root");
  CapturedLog log(platform::installerLog());
  CVError error;

  EXPECT_FALSE(manager_.standardizeOwnershipAndValidateSymlinksAtURL(temp_.directoryURL("root"),
                                                                     kOwner, kGroup, &error));
  EXPECT_EQ(error.code(), 70);
  EXPECT_EQ(error.localizedDescription(), "invalid symlink at " + (temp_ / "root/a/climbing"));
  EXPECT_TRUE(log.containsFragment("as it is points outside or to the base")) << log.dump();
  // Without an error place no record is built or logged.
  log.clear();
  EXPECT_FALSE(manager_.standardizeOwnershipAndValidateSymlinksAtURL(temp_.directoryURL("root"),
                                                                     kOwner, kGroup, nullptr));
  EXPECT_FALSE(log.containsFragment("invalid symlink at")) << log.dump();
  EXPECT_TRUE(log.containsFragment("as it is points outside or to the base")) << log.dump();

  // A root that is a link is changed itself; an absolute one is invalid.
  EXPECT_TRUE(manager_.standardizeOwnershipAndValidateSymlinksAtURL(temp_.fileURL("relative-root"),
                                                                    kOwner, kGroup, nullptr));
  EXPECT_FALSE(manager_.standardizeOwnershipAndValidateSymlinksAtURL(temp_.fileURL("absolute-root"),
                                                                     kOwner, kGroup, &error));
  EXPECT_EQ(error.code(), 70);
  for (const char* link : {"relative-root", "absolute-root"})
    EXPECT_EQ(ownerOf(temp_ / link), (Owner{kOwner, kGroup})) << link;
  EXPECT_EQ(ownerOf(temp_ / "target"), (Owner{0, 0}));
  EXPECT_EQ(ownerOf(temp_ / "target/file"), (Owner{0, 0}));
}

TEST_F(TraversalTest, ItemThatCannotBeChownedIsLoggedAndTheWalkGoesOn) {
  makeDirectories(temp_ / "root");
  writeFile(temp_ / "root/stuck", "x");
  writeFile(temp_ / "root/other", "y");
  makeImmutable(temp_ / "root/stuck");
  CapturedLog log(platform::installerLog());
  CVError error = sentinelError();

  EXPECT_TRUE(manager_.standardizeOwnershipAndValidateSymlinksAtURL(temp_.directoryURL("root"),
                                                                    kOwner, kGroup, &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_TRUE(
      log.contains(3, "Could not chown " + (temp_ / "root/stuck") + ": Operation not permitted"))
      << log.dump();
  EXPECT_EQ(log.lines().at(0).function, kBlockFunction);
  EXPECT_EQ(ownerOf(temp_ / "root/stuck"), (Owner{0, 0}));
  EXPECT_EQ(ownerOf(temp_ / "root/other"), (Owner{kOwner, kGroup}));
}

TEST_F(TraversalTest, MissingRootReportsTheFailedStatOverTheWalkError) {
  CVError error;

  EXPECT_FALSE(manager_.standardizeOwnershipAndValidateSymlinksAtURL(temp_.directoryURL("absent"),
                                                                     kOwner, kGroup, &error));

  EXPECT_TRUE(error.isPOSIX(ENOENT)) << error.description();
  EXPECT_EQ(error.localizedDescription(),
            "Could not stat " + (temp_ / "absent") + ": No such file or directory");
  EXPECT_EQ(*error.userInfo().findString("FunctionName"), kStandardizeFunction);
}

}  // namespace
