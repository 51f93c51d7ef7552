// CVFileManager's tree walk, the ownership walk built on it, and
// realPathForURL, with which that walk checks every link, on real trees.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "platform/linux/TreeWalker.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/filemanager/FileManagerTestHelpers.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace filemanager_test;
using platform::sys::WalkEntry;
using platform::sys::WalkKind;
using namespace testing_support;

constexpr const char* kBlockFunction =
    "__78-[CVFileManager "
    "standardizeOwnershipAndValidateSymlinksAtURL:toUID:GID:error:]_block_invoke";
constexpr uid_t kOwner = 501;
using Owner = std::pair<uid_t, gid_t>;
const Owner kNew{kOwner, kOwner}, kRoot{0, 0};

Owner ownerOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return {status.st_uid, status.st_gid};
}

class TraversalTest : public FileManagerFixture {
 protected:
  void SetUp() override { ASSERT_EQ(::geteuid(), 0u) << "ownership tests run as root"; }
  bool standardize(const CVURL& root, CVError* error) {
    return manager_.standardizeOwnershipAndValidateSymlinksAtURL(root, kOwner, kOwner, error);
  }
};

TEST_F(TraversalTest, HandsOnEveryEntryWithDirectoriesBeforeAndAfterTheirContents) {
  writeFile(temp_ / "root/dir/file", "x");
  writeFile(temp_ / "root/top", "y");
  makeSymlink("dir", temp_ / "root/link");
  ASSERT_EQ(::mkfifo((temp_ / "root/fifo").c_str(), 0600), 0);
  std::vector<std::pair<std::string, WalkKind>> seen;
  CVError error = sentinelError();
  EXPECT_TRUE(
      manager_._traverseDirectory(url("root/"), &error, [&](const WalkEntry& entry, CVError*) {
        seen.emplace_back(entry.path, entry.kind);
        return true;
      }));
  EXPECT_EQ(error, sentinelError());
  const std::string root = temp_ / "root";
  std::map<std::string, std::vector<WalkKind>> kinds;
  for (const auto& [path, kind] : seen)
    kinds[path].push_back(kind);
  ASSERT_EQ(kinds, (std::map<std::string, std::vector<WalkKind>>{
                       {root, {WalkKind::Directory, WalkKind::DirectoryPost}},
                       {root + "/dir", {WalkKind::Directory, WalkKind::DirectoryPost}},
                       {root + "/dir/file", {WalkKind::File}},
                       {root + "/top", {WalkKind::File}},
                       {root + "/link", {WalkKind::Symlink}},
                       {root + "/fifo", {WalkKind::Default}}}));
  EXPECT_EQ(std::pair(seen.front().first, seen.back().first), std::pair(root, root));
  const auto at = [&](const std::string& path, WalkKind kind) {
    return std::find(seen.begin(), seen.end(), std::pair(path, kind)) - seen.begin();
  };
  EXPECT_LT(at(root + "/dir", WalkKind::Directory), at(root + "/dir/file", WalkKind::File));
  EXPECT_GT(at(root + "/dir", WalkKind::DirectoryPost), at(root + "/dir/file", WalkKind::File));

  // A block answering false stops the walk with its error. Without an error
  // place from the caller the block gets none: LinksLeavingTheRoot... checks
  // that no record is built then.
  int calls = 0;
  EXPECT_FALSE(
      manager_._traverseDirectory(url("root/"), &error, [&](const WalkEntry&, CVError* blockError) {
        EXPECT_NE(blockError, nullptr);
        if (++calls < 2) return true;
        *blockError = CVError("BlockDomain", 7);
        return false;
      }));
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(std::tuple(error.domain(), error.code()), std::tuple(std::string("BlockDomain"), 7));
}

// A missing root, an entry deep below the root whose path exceeds PATH_MAX,
// and a walker that cannot open: the error names the root.
TEST_F(TraversalTest, FailedWalksNameTheRoot) {
  makeDirectories(temp_ / "deep");
  makeDeepTree(temp_ / "deep", 400, "directory-with-a-long-name");
  // (root, code, description, whether the walk met entries before failing)
  const std::vector<std::tuple<CVURL, int, std::string, bool>> cases = {
      {url("absent/"), ENOENT,
       "Error for path " + (temp_ / "absent") + ": No such file or directory", false},
      {url("deep/"), ENAMETOOLONG, "Error for path " + (temp_ / "deep") + ": File name too long",
       true},
      {CVURL(), ENOENT, "fts_open failed for  with error No such file or directory", false},
  };
  for (const auto& [root, code, description, entriesSeen] : cases) {
    int calls = 0;
    CVError error;
    EXPECT_FALSE(manager_._traverseDirectory(root, &error, [&](const WalkEntry&, CVError*) {
      ++calls;
      return true;
    }));
    EXPECT_EQ(calls > 10, entriesSeen) << calls;
    expectPosixError(error, code, description,
                     root.isNil() ? "" : "-[CVFileManager _traverseDirectory:error:withBlock:]");
  }

  // The ownership walk of a missing root reports the failed stat over the walk
  // error.
  CVError error;
  EXPECT_FALSE(standardize(url("absent/"), &error));
  expectPosixError(
      error, ENOENT, "Could not stat " + (temp_ / "absent") + ": No such file or directory",
      "-[CVFileManager standardizeOwnershipAndValidateSymlinksAtURL:toUID:GID:error:]");
}

// Links themselves included; an item that cannot be changed is logged and
// the walk goes on.
TEST_F(TraversalTest, EveryItemGetsTheOwnerLinksThemselvesIncluded) {
  writeFile(temp_ / "root/dir/sub/file", "x");
  writeFile(temp_ / "root/file", "y");
  writeFile(temp_ / "root/stuck", "z");
  makeImmutable(temp_ / "root/stuck");
  makeSymlink("../file", temp_ / "root/dir/up-link");
  makeSymlink("sub/missing", temp_ / "root/dir/dangling-link");
  ASSERT_EQ(::lchown((temp_ / "root/dir").c_str(), kOwner, 0), 0);  // only the group differs
  CapturedLog log(platform::installerLog());
  CVError error = sentinelError();
  EXPECT_TRUE(standardize(url("root/"), &error));
  EXPECT_EQ(error, sentinelError());
  for (const char* item : {"root", "root/dir", "root/dir/sub", "root/dir/sub/file", "root/file",
                           "root/dir/up-link", "root/dir/dangling-link"}) {
    EXPECT_EQ(ownerOf(temp_ / item), kNew) << item;
  }
  EXPECT_EQ(ownerOf(temp_.path()), kRoot);
  EXPECT_EQ(ownerOf(temp_ / "root/stuck"), kRoot);
  const std::string chown =
      "Could not chown " + (temp_ / "root/stuck") + ": Operation not permitted";
  EXPECT_TRUE(log.contains(3, chown)) << log.dump();
  for (const auto& line : log.lines())
    EXPECT_TRUE(line.message != chown || line.function == kBlockFunction) << line.function;
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
  struct stat before = {}, after = {};
  ASSERT_EQ(::stat((temp_ / "outside/shared").c_str(), &before), 0);
  CVError error = sentinelError();
  EXPECT_TRUE(standardize(url("root/"), &error));
  EXPECT_TRUE(standardize(url("metadata"), &error));
  EXPECT_EQ(error, sentinelError());
  for (const char* outside : {"outside/shared", "outside/root-file"})
    EXPECT_EQ(ownerOf(temp_ / outside), kRoot) << outside;
  ASSERT_EQ(::stat((temp_ / "outside/shared").c_str(), &after), 0);
  EXPECT_EQ(after.st_nlink, 1u);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  for (const auto& [item, content] :
       {std::pair{"root/dir/linked", "shared content"},
        std::pair{"root/second-name", "shared content"}, std::pair{"metadata", "root content"}}) {
    EXPECT_EQ(ownerOf(temp_ / item), kNew) << item;
    EXPECT_EQ(readFile(temp_ / item), content) << item;
  }
  EXPECT_EQ(entriesOf(temp_ / "root/dir"), std::vector<std::string>{"linked"});
}

TEST_F(TraversalTest, AbsoluteLinkStopsTheWalkWithCode70AfterChangingTheLinkItself) {
  makeDirectories(temp_ / "root");
  writeFile(temp_ / "outside", "target");
  makeSymlink(temp_ / "outside", temp_ / "root/absolute");
  const std::string link = temp_ / "root/absolute";
  CapturedLog log(platform::installerLog());
  CVError error;
  EXPECT_FALSE(standardize(url("root/"), &error));
  EXPECT_EQ(
      std::tuple(error.domain(), error.code(), error.localizedDescription(), functionOf(error)),
      std::tuple(std::string("CVInstallerErrorDomain"), 70, "invalid symlink at " + link,
                 std::string(kBlockFunction)));
  ASSERT_NE(error.userInfo().findNumber("LegacyErrorString"), nullptr);
  EXPECT_EQ(error.userInfo().findNumber("LegacyErrorString")->int64Value(), 70);
  EXPECT_TRUE(log.containsFragment(": invalid symlink at " + link)) << log.dump();
  EXPECT_TRUE(log.contains(3, "Rejecting " + link + " -> " + (temp_ / "outside") +
                                  ", as absolute symlinks are not allowed"))
      << log.dump();
  // Met before the stop: the root and the link itself, not the link's target.
  EXPECT_EQ(ownerOf(temp_ / "root"), kNew);
  EXPECT_EQ(ownerOf(link), kNew);
  EXPECT_EQ(ownerOf(temp_ / "outside"), kRoot);
}

TEST_F(TraversalTest, LinksLeavingTheRootAreInvalidAndARootLinkIsNotFollowed) {
  makeDirectories(temp_ / "root/a");
  makeSymlink("../../elsewhere", temp_ / "root/a/climbing");
  writeFile(temp_ / "target/file", "x");
  makeSymlink("target", temp_ / "relative-root");
  makeSymlink(temp_ / "target", temp_ / "absolute-root");
  CapturedLog log(platform::installerLog());
  CVError error;
  EXPECT_FALSE(standardize(url("root/"), &error));
  EXPECT_EQ(std::tuple(error.code(), error.localizedDescription()),
            std::tuple(70, "invalid symlink at " + (temp_ / "root/a/climbing")));
  EXPECT_TRUE(log.containsFragment("as it is points outside or to the base")) << log.dump();
  // Without an error place no record is built or logged.
  log.clear();
  EXPECT_FALSE(standardize(url("root/"), nullptr));
  EXPECT_FALSE(log.containsFragment("invalid symlink at")) << log.dump();
  EXPECT_TRUE(log.containsFragment("as it is points outside or to the base")) << log.dump();

  // A root that is a link is changed itself; an absolute one is invalid.
  EXPECT_TRUE(standardize(url("relative-root"), nullptr));
  EXPECT_FALSE(standardize(url("absolute-root"), &error));
  EXPECT_EQ(error.code(), 70);
  for (const char* link : {"relative-root", "absolute-root"})
    EXPECT_EQ(ownerOf(temp_ / link), kNew) << link;
  EXPECT_EQ(ownerOf(temp_ / "target"), kRoot);
  EXPECT_EQ(ownerOf(temp_ / "target/file"), kRoot);
}

CVURL fileURL(const std::string& path) {
  return CVURL::fileURLWithPath(path, false);
}

TEST(RealPathTest, DepthWalkCountsComponentsAndRefusesToClimbBelowTheStart) {
  CVFileManager& manager = CVFileManager::defaultManager();
  std::int32_t depth = -1;
  const std::string down = "/a/../b/./c/", back = "/a/..", below = "/a/../../b/c", plain = "x";
  EXPECT_TRUE(manager._validateSymlink(&down, 2, &depth));
  EXPECT_EQ(depth, 4);
  EXPECT_TRUE(manager._validateSymlink(&back, 2, &depth));
  EXPECT_EQ(depth, 2);  // back at the start is allowed
  depth = -1;
  EXPECT_FALSE(manager._validateSymlink(&below, 2, &depth));
  EXPECT_EQ(depth, -1);  // untouched on failure
  EXPECT_FALSE(manager._validateSymlink(nullptr, 0, &depth));
  EXPECT_TRUE(manager._validateSymlink(&plain, 0, nullptr));
}

// In the table of (case, link, path, base, result, the level-3 line or "" for
// no line at all), "{T}" is the temporary directory as given, "{R}" its real
// path; a link is made as "target > link path below {T}" ("" for none). A
// result of "" is a refusal (a nil URL).
TEST(RealPathTest, EveryCaseResolvesOrIsRefusedWithItsLine) {
  using Text = const char*;
  const std::vector<std::tuple<Text, Text, Text, Text, Text, Text>> cases = {
      {"inside", "", "{T}/c/file", "{T}/c", "{R}/c/file", ""},
      {"the base itself", "", "{T}/c", "{T}/c", "{R}/c", ""},
      {"missing trailing components", "", "{T}/c/a/new", "{T}/c", "{R}/c/a/new", ""},
      {"missing base", "", "{T}/absent/x", "{T}/absent", "",
       "Failed to retrieve realpath for base path {T}/absent "},
      {"link leaving the base", "{T}/elsewhere > c/out", "{T}/c/out/file", "{T}/c", "",
       "Rejecting {T}/c/out/file with base {T}/c (reals {R}/elsewhere/file ; {R}/c) because "
       "components diverge at c != elsewhere"},
      {"sibling with the base as string prefix", "", "{T}/cd/x", "{T}/c", "",
       "Rejecting {T}/cd/x with base {T}/c (reals {R}/cd/x ; {R}/c) because components diverge "
       "at c != cd"},
      {"resolving above the base", "../.. > c/a/b/up", "{T}/c/a/b/up/file", "{T}/c/a/b", "",
       "Rejecting {T}/c/a/b/up/file with base {T}/c/a/b because base component count is greater "
       "than child component count (reals {R}/c/file ; {R}/c/a/b)"},
      {"dot-dot", "", "{T}/c/../c/file", "{T}/c", "",
       "The suspicious path {T}/c/../c/file contains '..' paths, which are invalid"},
      {"outside the base string", "", "{T}/elsewhere", "{T}/c", "",
       "supiscious path {T}/elsewhere does not contain base path {T}/c as a prefix"},
      {"root as base", "", "{T}/c/file", "/", "",
       "Rejecting {T}/c/file with base / because real component counts don't make sense (reals "
       "{R}/c/file ; /)"},
      {"unreadable link", "", "{T}/c/file/x", "{T}/c", "", "Readlink failed: Not a directory"},
      {"relative link inside", "../b > c/a/l", "{T}/c/a/l", "{T}/c", "{R}/c/b", ""},
      {"relative link climbing out", "../../x > c/a/l", "{T}/c/a/l", "{T}/c", "",
       "Rejecting {T}/c/a/l -> /a/../../x, as it is points outside or to the base {T}/c"},
      {"absolute link", "/etc > c/a/l", "{T}/c/a/l", "{T}/c", "",
       "Rejecting {T}/c/a/l -> /etc, as absolute symlinks are not allowed"},
      {"link to the base one level down", ".. > c/a/l", "{T}/c/a/l", "{T}/c", "{R}/c", ""},
      {"link to the base at the top", ".. > c/l", "{T}/c/l", "{T}/c", "",
       "Rejecting {T}/c/l -> /.., as it is points outside or to the base {T}/c"},
      {"dangling relative link inside", "missing > c/a/dangling", "{T}/c/a/dangling", "{T}/c",
       "{R}/c/a/dangling",
       "Failed to realpath {T}/c/a/dangling : No such file or directory at {R}/c/a/missing"},
  };
  CVFileManager& manager = CVFileManager::defaultManager();
  for (const auto& [name, link, path, base, result, message] : cases) {
    SCOPED_TRACE(name);
    TemporaryDirectory temp;
    makeDirectories(temp / "c/a/b");
    makeDirectories(temp / "c/b");
    writeFile(temp / "c/file", "x");
    writeFile(temp / "elsewhere/file", "x");
    writeFile(temp / "cd/x", "x");
    const std::string real = std::filesystem::canonical(temp.path()).string();
    const auto expand = [&](std::string text) {
      for (const auto& [token, value] : {std::pair{"{T}", temp.path()}, std::pair{"{R}", real}}) {
        for (std::size_t at; (at = text.find(token)) != std::string::npos;)
          text.replace(at, 3, value);
      }
      return text;
    };
    if (const std::string made = link; !made.empty())
      makeSymlink(expand(made.substr(0, made.find(" > "))),
                  temp / made.substr(made.find(" > ") + 3));
    CapturedLog log(platform::installerLog());
    const CVURL resolved = manager.realPathForURL(fileURL(expand(path)), fileURL(expand(base)));
    // A result of "" makes the nil URL.
    EXPECT_EQ(resolved, fileURL(expand(result))) << resolved.description();
    if (*message) {
      EXPECT_TRUE(log.contains(3, expand(message))) << log.dump();
      if (std::string_view(message).starts_with("Rejecting")) {
        EXPECT_EQ(log.lines().at(0).function, "-[CVFileManager realPathForURL:ifChildOfURL:]");
      }
    } else {
      EXPECT_EQ(log.count(), 0u) << log.dump();
    }
  }
}

// Missing components are traced only with a handle; a nil base is refused.
TEST(RealPathTest, MissingComponentsAreTracedAndANilBaseIsRefused) {
  TemporaryDirectory temp;
  makeDirectories(temp / "c/a");
  const std::string real = std::filesystem::canonical(temp.path()).string();
  CVFileManager& manager = CVFileManager::defaultManager();
  CapturedLog log(platform::installerLog(), 7);
  EXPECT_EQ(manager.realPathForURL(fileURL(temp / "c/a/new/deeper"), fileURL(temp / "c")),
            fileURL(real + "/c/a/new/deeper"));
  EXPECT_TRUE(
      log.contains(7, "Realpathed " + real + "/c/a ; appending non-existing components new/deeper"))
      << log.dump();
  EXPECT_EQ(log.lines().at(0).function, "-[CVFileManager _realPathWhatExistsInPath:]");
  EXPECT_TRUE(manager.realPathForURL(fileURL(temp.path()), CVURL()).isNil());
  EXPECT_TRUE(log.contains(
      3, "The base path (null) and/or suspicious path file://" + temp.path() + " were nil"))
      << log.dump();
}

// The device's top-level directories are links into "/private". A child
// changes its root to a tree laid out that way, so that the rule can be seen
// at work on real paths; it reports each check as one bit of its exit status.
TEST(RealPathTest, PrivatePrefixIsTheSamePlaceAsThePathWithoutIt) {
  TemporaryDirectory temp;
  writeFile(temp / "private/var/c/x", "x");
  makeSymlink("private/var", temp / "var");
  // A real "/data" beside "/private/data": the comparison skips "private",
  // so both count as the same place.
  makeDirectories(temp / "private/data/c");
  writeFile(temp / "data/c/z", "z");
  makeSymlink("/data/c", temp / "private/data/c/l");
  makeSymlink("/private/data/c", temp / "b");
  const int failures = testing_support::runInChild([&temp] {
    if (::chroot(temp.path().c_str()) != 0 || ::chdir("/") != 0) return 0x80;
    CVFileManager& manager = CVFileManager::defaultManager();
    const std::vector<std::tuple<const char*, const char*, const char*>> checks = {
        {"/var/c/x", "/private/var/c", "/private/var/c/x"},
        {"/private/var/c/x", "/var/c", "/private/var/c/x"},
        {"/b/l/z", "/b", "/data/c/z"},
        {"/var/c/x", "/private/var/d", ""}};  // "": the nil URL
    int bits = 0;
    for (std::size_t i = 0; i < checks.size(); ++i) {
      const auto& [path, base, result] = checks[i];
      if (!(manager.realPathForURL(fileURL(path), fileURL(base)) == fileURL(result)))
        bits |= 1 << i;
    }
    return bits;
  });
  EXPECT_EQ(failures, 0) << "failed checks (bits): " << failures;
}

}  // namespace
