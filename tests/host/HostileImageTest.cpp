// The real mavrel program on the hostile images of docs/RELIABILITY.md. Each
// run must end, say what it did in a clear log line, and leave the canary
// beside the image exactly as it was.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <filesystem>

#include "platform/PropertyList.h"
#include "tests/host/GeneratedImage.h"
#include "tests/support/DeviceImage.h"
#include "tests/support/TreeSnapshot.h"

namespace {

using namespace testing_support;

constexpr std::string_view kMarkerName = "com.zentrel.corvane.container_migrator.plist";

class HostileImageTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (const std::string& mountPoint : mounts_)
      EXPECT_EQ(::umount2(mountPoint.c_str(), MNT_DETACH), 0) << std::strerror(errno);
  }
  // Mounts `source` (bound, or a small tmpfs when `flags` is 0) until the test
  // ends; false when this machine does not allow it.
  bool mount(const std::string& source, const std::string& mountPoint, unsigned long flags) {
    makeDirectories(mountPoint);
    if (::mount(source.c_str(), mountPoint.c_str(), flags ? nullptr : "tmpfs", flags,
                flags ? nullptr : "size=8m") != 0)
      return false;
    mounts_.push_back(mountPoint);
    return true;
  }
  void writeGroupContainerMap(const std::string& group, const std::string& path) const {
    image_.writePlist(image_.installMapPath(),
                      CVDictionary{{"GroupContainers",
                                    CVDictionary{{group, CVDictionary{{"Container", path}}}}}});
  }
  std::string legacy(const std::string& name = "") const {
    return name.empty() ? image_.legacy() : image_.legacy() + "/" + name;
  }
  // Migrates; expects `exitCode` (unless -1) and each fragment in the migration log.
  void expectRun(int exitCode, const std::vector<std::string>& logged,
                 const std::vector<std::string>& extra = {}) {
    last_ = image_.migrate(extra);
    EXPECT_TRUE(exitCode < 0 || last_.exitCode == exitCode) << last_.describe() << "\n"
                                                            << last_.out << last_.err;
    for (const std::string& fragment : logged)
      EXPECT_TRUE(image_.logged(fragment)) << fragment << "\n" << image_.migrationLog();
  }

  LegacyImage image_;
  std::vector<std::string> mounts_;  // undone before the image goes
  ProgramRun last_;
};

// A hard link in a bundle to a file outside keeps that file's owner (the
// canary's check sees it).
TEST_F(HostileImageTest, OddContainersAndNamesMigrateWithoutHarmingWhatIsOutside) {
  std::vector<std::string> lines;
  makeDirectories(legacy());
  // A FIFO nobody writes to: a reader that opened it would block for ever.
  for (const auto& [name, mode] : {std::pair{"RegularFile", S_IFREG}, std::pair{"Fifo", S_IFIFO},
                                   std::pair{"Socket", S_IFSOCK}}) {
    ASSERT_EQ(::mknod(legacy(name).c_str(), mode | 0644, 0), 0) << std::strerror(errno);
    lines.push_back("CVAppMigrator: Found regular file at " + legacy(name) + " ; removing");
  }
  for (const auto& [name, identifier] : std::vector<std::pair<std::string, std::string>>{
           {"line\nbreak", "com.example.newline"}, {"bad\xff\xfe utf8", "com.example.badutf8"}}) {
    image_.writeApplication(legacy(name + "/A\nB.app"), identifier);
    writeFile(legacy(name + "/Documents/x\n\xc3\x28.txt"), "user data");
    lines.push_back("CVAppMigrator: Removing container for " + identifier);
  }
  image_.writeApplication(legacy("HardLinked/Foo.app"), "com.example.hardlinked");
  ASSERT_EQ(::link((image_.canary() + "/Container/Documents/diary.txt").c_str(),
                   legacy("HardLinked/Foo.app/diary.txt").c_str()),
            0)
      << std::strerror(errno);
  expectRun(0, lines);
  EXPECT_FALSE(pathExists(legacy()));
}

TEST_F(HostileImageTest, LinksLeadingOutOfTheImage) {
  // An application link keeps its container, a Documents link is moved as a
  // link and a group container link is not followed.
  makeDirectories(legacy("LinkedApp"));
  makeSymlink(image_.canary() + "/Container/Victim.app", legacy("LinkedApp/Victim.app"));
  image_.writeApplication(legacy("LinkedDocuments/Foo.app"), "com.example.foo");
  makeSymlink(image_.canary() + "/Documents", legacy("LinkedDocuments/Documents"));
  image_.writeApplication(legacy("Grouped/Bar.app"), "com.example.bar", {"group.example.shared"});
  const std::string legacyGroup = image_.home("Library/GroupContainers/Shared");
  makeDirectories(image_.home("Library/GroupContainers"));
  makeSymlink(image_.canary() + "/Group", legacyGroup);
  writeGroupContainerMap("group.example.shared", legacyGroup);
  expectRun(
      1, {"CVAppMigrator: Skipping container with app symlink at " + legacy("LinkedApp/Victim.app"),
          "CVAppMigrator: Removing container for com.example.foo at " + legacy("LinkedDocuments"),
          "CVAppMigrator: Source group container " + legacyGroup +
              " of com.example.bar[group.example.shared] lies outside the device root; "
              "not migrating it"});
  EXPECT_TRUE(pathExists(legacy("LinkedApp/Victim.app")));
  EXPECT_FALSE(pathExists(legacy("LinkedDocuments")));
  EXPECT_TRUE(pathExists(legacyGroup));
}

// Map paths are device paths: a host path outside the image is read inside it.
TEST_F(HostileImageTest, AGroupContainerPathOutsideTheImageIsNotMigrated) {
  const std::string canary = image_.canary();
  for (const auto& [stored, line] : std::vector<std::pair<std::string, std::string>>{
           {canary + "/Group", "CVAppMigrator: Missing source group container at " +
                                   image_.rootPath() + "/private/var" + canary + "/Group"},
           {"/private/var/mobile/../../.." + canary + "/Group",
            "CVAppMigrator: Source group container /private/var/mobile/../../.." + canary +
                "/Group of com.example.foo[group.example.shared] has a '..' component; not "
                "migrating it"}}) {
    image_.writeApplication(legacy("Grouped/Foo.app"), "com.example.foo", {"group.example.shared"});
    writeGroupContainerMap("group.example.shared", stored);
    expectRun(-1, {line});
  }
}

// A marker names the container it lies in, or it is not loaded; nothing of
// the place it names is moved or removed.
TEST_F(HostileImageTest, AMarkerNamingAnotherPlaceIsNotLoaded) {
  const std::string container = legacy("Resumed"),
                    marker = container + "/" + std::string(kMarkerName);
  for (const std::string& named :
       {image_.canary() + "/Container", std::string("/"), std::string("/private/var/mobile"),
        std::string("/private/var/mobile/Containers/Data")}) {
    SCOPED_TRACE(named);
    writeFile(image_.home("Library/keep.txt"), "kept");
    writeFile(image_.home("Containers/Data/Other/Documents/keep.txt"), "kept");
    // No executable: an install of it fails, which once removed what the
    // marker named.
    image_.writeApplication(container + "/Victim.app", "com.example.victim", {}, false);
    image_.writePlist(marker, CVDictionary{{"ContainerPath", named},
                                           {"BundlePath", named + "/Victim.app"},
                                           {"BundleIdentifier", "com.example.victim"},
                                           {"ContainerType", "App"}});
    expectRun(1, {"CVAppMigrator: Migration marker " + marker +
                  " does not describe its container: it names the container " + named +
                  ", not the one it lies in"});
    EXPECT_TRUE(pathExists(marker));
    EXPECT_EQ(readFile(image_.home("Library/keep.txt")), "kept");
    EXPECT_EQ(readFile(image_.home("Containers/Data/Other/Documents/keep.txt")), "kept");
  }
}

// Replace, never merge: the later container's data takes the earlier one's
// place. The plan foresees it and the run reports it as a conflict naming both.
TEST_F(HostileImageTest, TwoContainersWithOneIdentifierAreAConflict) {
  for (const std::string name : {"First", "Second"}) {
    image_.writeApplication(legacy(name + "/Foo.app"), "com.example.foo");
    writeFile(legacy(name + "/Documents/" + name + ".txt"), name);
  }
  host_test::expectContains(image_.mavrel({"plan", "--root", image_.rootPath()}).out,
                            {"the same identifier is in " + legacy("First"), "predicted to FAIL"});
  expectRun(1, {});
  host_test::expectContains(last_.err, {"conflict: com.example.foo was in "});
  host_test::expectLacks(last_.err, {"succeeded"});
}

// A move between file systems is a copy whose failure loses the source, so
// an image whose legacy tree lies on another file system is refused before
// anything is written.
TEST_F(HostileImageTest, ALegacyTreeOnAnotherFileSystemIsRefusedUntouched) {
  if (!mount("mavrel-test", legacy(), 0))
    GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
  image_.writeApplication(legacy("Mounted/Foo.app"), "com.example.foo");
  writeFile(legacy("Mounted/Documents/notes.txt"), "on another file system");
  const TreeSnapshot before = snapshotTree(image_.rootPath());
  expectRun(2, {});
  host_test::expectContains(last_.err, {"'" + legacy() + "' and '", "are not on one file system"});
  EXPECT_EQ(listed(differences(before, snapshotTree(image_.rootPath()), AccessTimes::Ignored)), "")
      << "the refused run wrote into the image";
}

TEST_F(HostileImageTest, StagingUnderTheIdentifierStaysInTheScratchDirectory) {
  // The host's scratch directory is emptied before use: a link the image put
  // where placeholders are staged is removed, not followed.
  makeDirectories(image_.rootPath() + "/private/var/tmp/mavrel");
  makeSymlink(image_.canary() + "/Container",
              image_.rootPath() + "/private/var/tmp/mavrel/com.zentrel.corvane.migrator");
  image_.writeApplication(legacy("Staged/Foo.app"), "com.example.foo");
  expectRun(0, {"CVAppMigrator: Removing container for com.example.foo"});
  // The placeholder is staged under a directory named after the identifier:
  // one that is a path gets none.
  const std::string identifier = "../../../../../../../../../../../../../../../../../../../.." +
                                 image_.canary() + "/Container/Victim";
  image_.writeApplication(legacy("Climbing/Foo.app"), identifier);
  expectRun(1, {"CVAppMigrator: Failed to create staged placeholder directory at ",
                ": the identifier is not a plain file name"});
  EXPECT_TRUE(pathExists(legacy("Climbing/Foo.app/Info.plist")));
}

// Documents holding a chain of directories longer than PATH_MAX: two chains
// that each fit in a path, the second moved to the bottom of the first.
TEST_F(HostileImageTest, ATreeDeeperThanPathMaxIsMovedVerifiedAndRemoved) {
  const std::string container = legacy("Deep");
  image_.writeApplication(container + "/Foo.app", "com.example.deep");
  std::string chain;
  while (chain.size() < PATH_MAX / 2 + 200)
    chain += "/" + std::string(60, 'd');
  makeDirectories(container + "/Documents" + chain);
  writeFile(legacy("Lower") + chain + "/bottom.txt", "bottom");
  std::filesystem::rename(legacy("Lower"), container + "/Documents" + chain + "/Lower");
  expectRun(0, {"CVAppMigrator: Removing container for com.example.deep"}, {"--verify"});
  // The file deeper than a path can name is recorded, found and verified.
  host_test::expectContains(last_.err, {"Verified 1 of 1 user-data files"});
  host_test::expectLacks(last_.err, {"could not be read"});
  EXPECT_FALSE(pathExists(container));
  // The temporary directory's own removal cannot reach that deep.
  EXPECT_EQ(runProgram("rm", {"-rf", image_.rootPath()}).exitCode, 0);
}

TEST_F(HostileImageTest, AnInfoPlistPastTheSizeCapIsRefusedUnread) {
  const std::string container = legacy("Huge");
  image_.writeApplication(container + "/Foo.app", "com.example.huge");
  // A well-formed list one byte longer than an Info.plist may be.
  const std::string head =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">"
      "<dict><key>QXBundleIdentifier</key><string>com.example.huge</string>"
      "<key>Padding</key><string>";
  const std::string tail = "</string></dict></plist>\n";
  const std::size_t padding =
      platform::kInfoPlistLimits.maxFileSize + 1 - head.size() - tail.size();
  writeFile(container + "/Foo.app/Info.plist", head + std::string(padding, 'p') + tail);
  expectRun(-1,
            {"CVAppMigrator: Could not get identifier for bundle at " + container + "/Foo.app"});
}

// A container without a bundle is removed, but not the mount inside it.
TEST_F(HostileImageTest, AMountInsideAContainerIsLeftAlone) {
  const std::string container = legacy("Bundleless");
  writeFile(container + "/Documents/own.txt", "the container's own");
  if (!mount(image_.canary() + "/Documents", container + "/Documents/Mounted", MS_BIND))
    GTEST_SKIP() << "no bind mount here: " << std::strerror(errno);
  expectRun(-1, {});
  EXPECT_FALSE(pathExists(container + "/Documents/own.txt"));
  EXPECT_TRUE(pathExists(container + "/Documents/Mounted/notes.txt"));
  host_test::expectContains(
      image_.installerLog(),
      {"treewipe hit error for " + container + "/Documents/Mounted : Invalid cross-device link"});
}

}  // namespace
