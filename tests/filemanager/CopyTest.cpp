// CVFileManager's copy and move.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include "platform/linux/ExtendedAttributes.h"
#include "platform/linux/LinksTesting.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/filemanager/FileManagerTestHelpers.h"
#include "tests/support/TestSupport.h"
#include "tests/support/TreeSnapshot.h"

namespace {

namespace sys = platform::sys;
using namespace filemanager_test;
using namespace testing_support;

// The depth of the chain of directories named `name` below `root`, counted
// through descriptors (it may be longer than PATH_MAX), and whether its
// deepest directory holds "leaf".
std::pair<int, bool> chainDepth(const std::string& root, const std::string& name) {
  sys::UniqueFd current(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  int depth = 0;
  for (sys::UniqueFd next; (next = sys::UniqueFd(::openat(current.get(), name.c_str(),
                                                          O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
       ++depth)
    current = std::move(next);
  struct stat status {};
  return {depth, ::fstatat(current.get(), "leaf", &status, AT_SYMLINK_NOFOLLOW) == 0};
}

constexpr const char* kSparseFile = "sparse";
constexpr off_t kSparseFileSize = 8 * 1024 * 1024;

void setAttribute(const std::string& path, const char* name, const std::string& value) {
  ASSERT_EQ(sys::setAttribute(sys::AttributeItem::link(path.c_str()), name, value), 0)
      << name << " on " << path << ": " << std::strerror(errno);
}

std::string patternBytes(std::size_t size, std::uint32_t seed) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    seed = seed * 1664525u + 1013904223u;
    byte = static_cast<char>(seed >> 24);
  }
  return bytes;
}

// Gives every item below and including `path` its own past times (2001,
// odd nanoseconds), contents before their directory.
void setPastTimes(const std::string& path, int& counter) {
  if (std::filesystem::is_directory(std::filesystem::symlink_status(path))) {
    for (const auto& entry : std::filesystem::directory_iterator(path))
      setPastTimes(entry.path().string(), counter);
  }
  ++counter;
  const timespec times[2] = {{1000000000 + counter * 1000, 123456789 + counter},
                             {1100000000 + counter * 1000, 987654321 - counter}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

// A POSIX ACL as the kernel stores it in "system.posix_acl_*": a version
// word, then (tag, permissions, id) entries sorted by tag and id: owner rwx,
// user 501 r, group r-x, mask r-x, other none.
std::string posixAclValue() {
  struct Entry {
    std::uint16_t tag;
    std::uint16_t permissions;
    std::uint32_t id;
  };
  constexpr std::uint32_t kUndefined = 0xFFFFFFFFu;
  const Entry entries[] = {{0x01, 7, kUndefined},
                           {0x02, 4, 501},
                           {0x04, 5, kUndefined},
                           {0x10, 5, kUndefined},
                           {0x20, 0, kUndefined}};
  const std::uint32_t version = 2;
  std::string value(reinterpret_cast<const char*>(&version), sizeof version);
  return value.append(reinterpret_cast<const char*>(entries), sizeof entries);
}

// Builds below `root` (which must not exist) a tree with every kind of item,
// mode, owner, link, attribute and ACL a copy has to carry over, and a file
// with a second name in the directory `outside`.
void makeRichTree(const std::string& root, const std::string& outside) {
  for (const auto& [path, contents] : {std::pair<const char*, std::string>{"empty", ""},
                                       {"small.txt", "hello\n"},
                                       {"name with spaces", "spaces"},
                                       {"nested/large", patternBytes(3 * 1024 * 1024 + 17, 3)},
                                       {"nested/deeper/deepest/leaf", "leaf"},
                                       {"readonly/inside", "read only"},
                                       {"closed/secret", "secret"},
                                       {"sticky/file", "sticky"},
                                       {"setgid/file", "setgid"},
                                       {"setuid-program", "#!/bin/sh\nexit 0\n"},
                                       {"no-access", "nobody may read this"},
                                       {"acl-file", "acl"},
                                       {"owned-by-501/file", "owned"},
                                       {"nested/one", "three names"}})
    writeFile(root + "/" + path, contents, 0644);
  for (const char* directory : {"/acl-dir", "/links", "/empty-dir"})  // the rest made above
    makeDirectories(root + directory);
  {
    // Data at 0 and at 4 MiB, holes between and after.
    const sys::UniqueFd fd(
        ::open((root + "/" + kSparseFile).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640));
    const std::string head = patternBytes(4096, 7), middle = patternBytes(8192, 8);
    ASSERT_EQ(::pwrite(fd.get(), head.data(), head.size(), 0), static_cast<ssize_t>(head.size()));
    ASSERT_EQ(::pwrite(fd.get(), middle.data(), middle.size(), 4 * 1024 * 1024),
              static_cast<ssize_t>(middle.size()));
    ASSERT_EQ(::ftruncate(fd.get(), kSparseFileSize), 0);
  }
  writeFile(outside + "/shared", "shared with the outside");
  for (const auto& [from, to] : {std::pair{root + "/nested/one", root + "/nested/deeper/two"},
                                 std::pair{root + "/nested/one", root + "/links/three"},
                                 std::pair{outside + "/shared", root + "/shared-outside"}})
    ASSERT_EQ(::link(from.c_str(), to.c_str()), 0) << to;
  for (const auto& [target, link] :
       {std::pair{"../small.txt", "relative"}, std::pair{"/etc/hostname", "absolute"},
        std::pair{"does/not/exist", "dangling"}, std::pair{"../nested", "to-directory"},
        std::pair{"loop", "loop"}})
    makeSymlink(target, root + "/links/" + link);
  ASSERT_EQ(::mkfifo((root + "/fifo").c_str(), 0640), 0);

  for (const auto& [path, name, value] :
       {std::tuple<std::string, const char*, std::string>{"/small.txt", "user.comment",
                                                          "a comment"},
        {"/small.txt", "user.second", std::string("bin\0ary\xff", 8)},
        {"/nested/large", "user.empty", ""},
        {"/nested", "user.directory", "on a directory"},
        {"/readonly", "user.big", patternBytes(3000, 11)},
        {std::string("/") + kSparseFile, "user.sparse", "yes"},
        {"", "user.root", "on the root"},
        {"/acl-file", "system.posix_acl_access", posixAclValue()},
        {"/acl-dir", "system.posix_acl_default", posixAclValue()}})
    setAttribute(root + path, name, value);
  for (const char* path : {"owned-by-501", "owned-by-501/file", "setuid-program", "links/relative",
                           "nested/deeper", "fifo"})
    ASSERT_EQ(::lchown((root + "/" + path).c_str(), 501, 501), 0) << path;
  // Modes last: a change of owner clears the set-id bits.
  for (const auto& [path, mode] :
       {std::pair{"setuid-program", 04751}, std::pair{"no-access", 0000},
        std::pair{"readonly", 0555}, std::pair{"closed", 0000}, std::pair{"sticky", 01777},
        std::pair{"setgid", 02775}, std::pair{"empty-dir", 0700}})
    ASSERT_EQ(::chmod((root + "/" + path).c_str(), mode), 0) << path;
  int counter = 0;
  setPastTimes(root, counter);
}

using CopyMoveTest = FileManagerFixture;

TEST_F(CopyMoveTest, FailuresAreRecordedWithTheCallThatFailed) {
  // A missing source of the "IfExists" forms is success and leaves the error
  // alone (StoreDataIsCarried... sees that it makes and logs nothing).
  CVError error = sentinelError();
  EXPECT_TRUE(manager_.copyItemIfExistsAtURL(url("absent"), url("copy"), &error));
  EXPECT_TRUE(manager_.moveItemIfExistsAtURL(url("absent"), url("moved"), &error));
  EXPECT_EQ(error, sentinelError());

  writeFile(temp_ / "file", "not a directory");
  writeFile(temp_ / "source/a/file", "a");
  writeFile(temp_ / "source/b/file", "b");
  makeDirectories(temp_ / "locked/b");
  makeImmutable(temp_ / "locked/b");
  writeFile(temp_ / "occupied/other", "");
  enum Call { Copy, CopyIfExists, Move, MoveIfExists };
  // (call, source, destination, code, failed step, text)
  const std::vector<std::tuple<Call, const char*, const char*, int, std::string, const char*>>
      cases = {
          {Copy, "absent", "target", ENOENT, "mirrorit", "No such file or directory"},
          {Move, "absent", "target", ENOENT, "rename", "No such file or directory"},
          {CopyIfExists, "file/child", "x", ENOTDIR, "stat", "Not a directory"},
          {MoveIfExists, "file/child", "x", ENOTDIR, "stat", "Not a directory"},
          // What the copy made before the failure stays.
          {Copy, "source/", "locked/", EPERM, "mirrorit", "Operation not permitted"},
          {MoveIfExists, "source/", "occupied/", ENOTEMPTY, "rename", "Directory not empty"},
      };
  for (const auto& [call, from, to, code, verb, text] : cases) {
    SCOPED_TRACE(from + (" " + verb));
    const CVURL source = url(from), destination = url(to);
    error = CVError();
    EXPECT_FALSE(call == Copy ? manager_.copyItemAtURL(source, destination, &error)
                 : call == CopyIfExists
                     ? manager_.copyItemIfExistsAtURL(source, destination, &error)
                 : call == Move ? manager_.moveItemAtURL(source, destination, &error)
                                : manager_.moveItemIfExistsAtURL(source, destination, &error));
    const std::string into = verb == "stat" ? "" : " to " + destination.description();
    expectPosixError(error, code, verb + " of " + source.description() + into + " failed: " + text,
                     call <= CopyIfExists
                         ? "-[CVFileManager _copyItemAtURL:toURL:failIfSrcMissing:error:]"
                         : "-[CVFileManager _moveItemAtURL:toURL:failIfSrcMissing:error:]");
  }
  EXPECT_FALSE(pathExists(temp_ / "target"));
  EXPECT_FALSE(pathExists(temp_ / "x"));
  EXPECT_TRUE(pathExists(temp_ / "source/b/file"));
}

TEST_F(CopyMoveTest, LoneItemsAreCopiedAsTheyAreAndLinksTravelAsLinks) {
  writeFile(temp_ / "source/file", "data", 0640);
  makeSymlink("../elsewhere", temp_ / "source/link");
  makeDirectories(temp_ / "target-directory");
  makeSymlink(temp_ / "target-directory", temp_ / "source/directory-link");
  ASSERT_EQ(::mkfifo((temp_ / "source/fifo").c_str(), 0604), 0);
  ASSERT_EQ(::lchown((temp_ / "source/link").c_str(), 501, 502), 0);
  makeDirectories(temp_ / "copies");
  for (const std::string name : {"file", "link", "directory-link", "fifo"}) {
    // A link to a directory, even named by a directory URL, stays a link.
    CVError error;
    EXPECT_TRUE(manager_.copyItemAtURL(url("source/" + name + "/"), url("copies/" + name), &error))
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

  // A dangling link counts as present for the "IfExists" forms.
  makeSymlink("nowhere/at/all", temp_ / "dangling");
  EXPECT_TRUE(manager_.copyItemIfExistsAtURL(url("dangling"), url("copy"), nullptr));
  EXPECT_TRUE(manager_.moveItemIfExistsAtURL(url("dangling"), url("moved"), nullptr));
  EXPECT_EQ(linkContent(temp_ / "copy") + linkContent(temp_ / "moved"),
            "nowhere/at/allnowhere/at/all");
  EXPECT_FALSE(pathExists(temp_ / "dangling"));
}

TEST_F(CopyMoveTest, ItemsInTheWayAreReplacedOrMergedButNeverFollowed) {
  // A link where a file goes is replaced, not written through.
  writeFile(temp_ / "outside", "must stay");
  writeFile(temp_ / "source", "new contents");
  makeSymlink(temp_ / "outside", temp_ / "destination");
  CVError error;
  ASSERT_TRUE(manager_.copyItemAtURL(url("source"), url("destination"), &error))
      << error.description();
  EXPECT_EQ(readFile(temp_ / "outside"), "must stay");
  EXPECT_EQ(linkContent(temp_ / "destination"), "(not a link)");
  EXPECT_EQ(readFile(temp_ / "destination"), "new contents");

  // A tree is merged into an existing directory...
  writeFile(temp_ / "tree/keep/file", "from the source");
  writeFile(temp_ / "merged/keep/existing", "already there");
  ASSERT_TRUE(manager_.copyItemAtURL(url("tree/"), url("merged/"), nullptr));
  EXPECT_EQ(entriesOf(temp_ / "merged/keep"), (std::vector<std::string>{"existing", "file"}));
  // ...but a link where it needs a directory fails the copy, and nothing is
  // written where the link points.
  makeDirectories(temp_ / "outside-directory");
  makeDirectories(temp_ / "second");
  makeSymlink(temp_ / "outside-directory", temp_ / "second/keep");
  EXPECT_FALSE(manager_.copyItemAtURL(url("tree/"), url("second/"), &error));
  EXPECT_TRUE(error.isPOSIX(EEXIST)) << error.description();
  EXPECT_EQ(entriesOf(temp_ / "outside-directory"), std::vector<std::string>{});

  // A copy into itself is refused and the source kept.
  for (const auto& [from, to] :
       {std::pair{"tree/", "tree/keep/copy/"}, std::pair{"tree/keep/file", "tree/keep/file"},
        std::pair{"tree/", "tree/"}}) {
    error = CVError();
    EXPECT_FALSE(manager_.copyItemAtURL(url(from), url(to), &error)) << from << " " << to;
    EXPECT_TRUE(error.isPOSIX(EINVAL)) << error.description();
  }
  EXPECT_EQ(readFile(temp_ / "tree/keep/file"), "from the source");
}

TEST_F(CopyMoveTest, AclsInheritedWhereTheCopyIsMadeAreNotKept) {
  writeFile(temp_ / "source/sub/file", "plain");
  writeFile(temp_ / "source/top", "plain");
  ASSERT_EQ(::mkfifo((temp_ / "source/sub/fifo").c_str(), 0600), 0);
  makeDirectories(temp_ / "inheriting");
  setAttribute(temp_ / "inheriting", "system.posix_acl_default", posixAclValue());

  ASSERT_TRUE(manager_.copyItemAtURL(url("source/"), url("inheriting/copy/"), nullptr));
  ASSERT_TRUE(manager_.copyItemAtURL(url("source/top"), url("inheriting/top"), nullptr));

  EXPECT_EQ(
      listed(differences(snapshotTree(temp_ / "source"), snapshotTree(temp_ / "inheriting/copy"))),
      "");
  EXPECT_EQ(listed(differences(snapshotTree(temp_ / "source/top"),
                               snapshotTree(temp_ / "inheriting/top"))),
            "");
}

TEST_F(CopyMoveTest, TreeDeeperThanPathMaxAndTheDescriptorWindowIsCopiedWhole) {
  const std::string name = "a-directory-level";  // 300 of them: about 5400 bytes of path
  makeDirectories(temp_ / "deep");
  makeDeepTree(temp_ / "deep", 300, name);
  EXPECT_TRUE(manager_.copyItemAtURL(url("deep/"), url("copy/"), nullptr));
  EXPECT_EQ(chainDepth(temp_ / "copy", name), std::make_pair(300, true));
  // With few descriptors to spare the window shrinks and the copy still ends.
  {
    ScopedDescriptorLimit limit(48);
    EXPECT_TRUE(manager_.copyItemAtURL(url("deep/"), url("copy2/"), nullptr));
  }
  EXPECT_EQ(chainDepth(temp_ / "copy2", name), std::make_pair(300, true));
  for (const char* tree : {"deep/", "copy/", "copy2/"})
    EXPECT_TRUE(manager_.removeItemAtURL(url(tree), nullptr));
}

TEST_F(CopyMoveTest, UnprivilegedCopyBelongsToTheCaller) {
  writeFile(temp_ / "source/file", "readable by all", 0644);
  ASSERT_EQ(::chmod((temp_ / "source").c_str(), 0755), 0);
  makeDirectories(temp_ / "mine");
  ASSERT_EQ(::chown((temp_ / "mine").c_str(), 65534, 65534), 0);
  ASSERT_EQ(::chmod(temp_.path().c_str(), 0755), 0);
  const int exitCode = runInChild([this] {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 3;
    return CVFileManager::defaultManager().copyItemAtURL(url("source/"), url("mine/copy/"), nullptr)
               ? 0
               : 1;
  });
  ASSERT_EQ(exitCode, 0) << "1: the copy failed; 3: could not drop privileges";
  struct stat copy {};
  ASSERT_EQ(::lstat((temp_ / "mine/copy/file").c_str(), &copy), 0);
  EXPECT_EQ(std::tuple(copy.st_uid, copy.st_mode & 07777), std::tuple(65534u, 0644u));
  EXPECT_EQ(readFile(temp_ / "mine/copy/file"), "readable by all");
}

// A move that cannot rename copies: on success it answers false with no
// error and keeps both; when the copy fails it removes the source and
// answers true, logging only a source it cannot remove.
TEST_F(CopyMoveTest, MovesRenameOrFallBackToACopyAcrossDevices) {
  writeFile(temp_ / "tree/file", "moved");
  CVError error = sentinelError();
  EXPECT_TRUE(manager_.moveItemAtURL(url("tree/"), url("moved/"), &error));
  EXPECT_EQ(error, sentinelError());

  writeFile(temp_ / "source/file", "both");
  CapturedLog log(platform::installerLog());
  {
    const sys::ScopedRenameFault fault(EXDEV);
    EXPECT_FALSE(manager_.moveItemAtURL(url("source/"), url("destination/"), &error));
    EXPECT_TRUE(error.isNil()) << error.description();
    EXPECT_EQ(readFile(temp_ / "source/file"), "both");
    EXPECT_EQ(readFile(temp_ / "destination/file"), "both");

    error = sentinelError();
    EXPECT_TRUE(manager_.moveItemAtURL(url("source/"), url("missing/destination/"), &error));
    EXPECT_EQ(error, sentinelError());
    EXPECT_FALSE(pathExists(temp_ / "source"));
    EXPECT_FALSE(pathExists(temp_ / "missing"));
    EXPECT_EQ(log.count(), 0u) << log.dump();

    writeFile(temp_ / "source/locked", "stays");
    writeFile(temp_ / "source/other", "goes");
    makeImmutable(temp_ / "source/locked");
    EXPECT_TRUE(manager_.moveItemAtURL(url("source/"), url("missing/destination/"), nullptr));
  }
  const std::string prefix = "Failed to remove source " + (temp_ / "source") + " : Error Domain=";
  EXPECT_TRUE(std::ranges::any_of(log.lines(), [&](const CapturedLine& line) {
    return line.level == 3 &&
           line.function == "-[CVFileManager _moveItemAtURL:toURL:failIfSrcMissing:error:]" &&
           line.message.starts_with(prefix) &&
           line.message.find("Operation not permitted") != std::string::npos;
  })) << log.dump();
  EXPECT_EQ(entriesOf(temp_ / "source"), std::vector<std::string>{"locked"});
}

TEST(CopyOracleTest, CopyEqualsTheSourceItemByItemOnThisAndAnotherFileSystem) {
  TemporaryDirectory temp;
  CVFileManager& manager = CVFileManager::defaultManager();
  makeDirectories(temp / "outside");
  ASSERT_NO_FATAL_FAILURE(makeRichTree(temp / "source", temp / "outside"));
  const TreeSnapshot before = snapshotTree(temp / "source");
  // The copy's sparse file keeps its holes: about as many blocks as the
  // source's, far fewer than its size.
  const auto expectHolesKept = [&](const TreeSnapshot& copy) {
    EXPECT_LT(copy.at(kSparseFile).blocks * 512, kSparseFileSize / 8) << "the holes were filled";
    EXPECT_LE(copy.at(kSparseFile).blocks, before.at(kSparseFile).blocks + 64);
  };
  CVError error;
  ASSERT_TRUE(manager.copyItemAtURL(temp.directoryURL("source"), temp.directoryURL("copy"), &error))
      << error.description();
  const TreeSnapshot copy = snapshotTree(temp / "copy");
  EXPECT_EQ(listed(differences(before, copy)), "");
  expectHolesKept(copy);
  // The source was read without touching its access times, except those of
  // links, whose content cannot be read any other way.
  EXPECT_EQ(listed(differences(before, snapshotTree(temp / "source"), AccessTimes::IgnoredOnLinks)),
            "");
  // The file with a name outside the tree is a file of its own in the copy
  // (the names inside it stay one file: `differences` compares hard links).
  struct stat shared {};
  ASSERT_EQ(::lstat((temp / "copy/shared-outside").c_str(), &shared), 0);
  EXPECT_EQ(shared.st_nlink, 1u);

  const OtherDeviceDirectory other(temp.path());
  if (!other.available()) GTEST_SKIP() << "no second file system (/dev/shm) to copy to";
  ASSERT_TRUE(manager.copyItemAtURL(temp.directoryURL("source"),
                                    CVURL::fileURLWithPath(other / "copy", true), &error))
      << error.description();
  const TreeSnapshot elsewhere = snapshotTree(other / "copy");
  EXPECT_EQ(listed(differences(before, elsewhere, AccessTimes::IgnoredOnLinks)), "");
  expectHolesKept(elsewhere);
}

// Each operation on a tree holding a bind mount reports the crossing it
// refused (true) and leaves the mounted directory's contents alone.
TEST(MountPointTest, TheMountIsNotCrossedAndStaysInPlace) {
  constexpr std::uint32_t kNewOwner = 501;
  CVFileManager& manager = CVFileManager::defaultManager();
  CVError error;
  const auto crossing = [&error](bool done) { return !done && error.code() == EXDEV; };
  using Operation = std::function<bool(const TemporaryDirectory&)>;
  const std::vector<std::pair<const char*, Operation>> operations = {
      {"removal",
       [&](const TemporaryDirectory& place) {
         return crossing(manager.removeItemAtURL(place.directoryURL("tree"), &error)) &&
                !pathExists(place / "tree/file.txt");
       }},
      {"copy",
       [&](const TemporaryDirectory& place) {
         return crossing(manager.copyItemAtURL(place.directoryURL("tree"),
                                               place.directoryURL("copy"), &error)) &&
                !pathExists(place / "copy/sub/mounted");
       }},
      {"ownership",
       [&](const TemporaryDirectory& place) {
         return crossing(manager.standardizeOwnershipAndValidateSymlinksAtURL(
             place.directoryURL("tree"), kNewOwner, kNewOwner, &error));
       }},
      {"disk usage",
       [&](const TemporaryDirectory& place) {
         // The canary is far larger than the tree's own file.
         writeFile(place / "outside/large.bin", std::string(1 << 20, 'x'));
         return manager.diskUsageForURL(place.directoryURL("tree")) < (1 << 20);
       }},
  };
  for (const auto& [name, run] : operations) {
    SCOPED_TRACE(name);
    error = CVError();
    const TemporaryDirectory place;  // goes away after the mount is undone
    writeFile(place / "outside/canary.txt", "outside the tree");
    writeFile(place / "tree/file.txt", "inside");
    makeDirectories(place / "tree/sub/mounted");
    const std::string mountPoint = place / "tree/sub/mounted";
    if (::mount((place / "outside").c_str(), mountPoint.c_str(), nullptr, MS_BIND, nullptr) != 0)
      GTEST_SKIP() << "no bind mount here: " << std::strerror(errno);
    const bool refused = run(place);
    struct stat status {};
    const bool canaryThere = ::stat((place / "outside/canary.txt").c_str(), &status) == 0 &&
                             pathExists(mountPoint + "/canary.txt");
    EXPECT_EQ(::umount2(mountPoint.c_str(), MNT_DETACH), 0) << std::strerror(errno);
    EXPECT_TRUE(refused);
    ASSERT_TRUE(canaryThere);
    EXPECT_EQ(readFile(place / "outside/canary.txt"), "outside the tree");
    EXPECT_NE(status.st_uid, kNewOwner);
  }
}

}  // namespace
