// The real mavrel program on device images built to mislead it: containers
// that are not directories, links that lead out of the image, saved records
// and maps that name places outside it, names that are not text, trees deeper
// than a path can name and an Info.plist past the size cap. Each run must end
// (a time limit stands guard), say what it did in a clear log line, and leave
// everything outside the image exactly as it was.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "platform/PropertyList.h"
#include "platform/Value.h"
#include "shared/support/CVFileDigest.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/DeviceImage.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using testing_support::makeDirectories;
using testing_support::makeSymlink;
using testing_support::pathExists;
using testing_support::ProgramRun;
using testing_support::readFile;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

// Seconds a run may take before it counts as hung.
constexpr const char* kRunTimeLimit = "180";
constexpr int kTimedOutExitCode = 124;  // timeout(1)

constexpr std::string_view kMarkerName = "com.zentrel.corvane.container_migrator.plist";

// Every entry below `directory` (itself included): type and permissions,
// owner, size, modification time and, for files, the SHA-256 of the content.
std::map<std::string, std::string> snapshotTree(const std::string& directory) {
  std::map<std::string, std::string> entries;
  const auto describe = [&entries](const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return;
    std::ostringstream description;
    description << std::oct << status.st_mode << std::dec << " " << status.st_uid << ":"
                << status.st_gid << " " << status.st_size << " " << status.st_mtim.tv_sec << "."
                << status.st_mtim.tv_nsec;
    if (S_ISREG(status.st_mode)) {
      description << " " << CVCreateSHA256Digest(path).value_or("unreadable");
    }
    entries[path] = description.str();
  };
  describe(directory);
  std::error_code error;
  for (fs::recursive_directory_iterator it(directory, error), end; !error && it != end;
       it.increment(error)) {
    describe(it->path().string());
  }
  return entries;
}

// A device image with the files every run needs, and a canary tree beside it
// that looks like legacy containers so that a run misled into it would find
// plenty to move or remove.
class HostileImageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = image_.rootPath();
    outside_ = fs::canonical(outsideDirectory_.path()).string();
    image_.writePlist(root_ + "/System/Library/CoreServices/SystemBuild.plist",
                      CVDictionary{{"SystemBuildVersion", "23A344"}});
    makeDirectories(legacy());
    makeDirectories(outside_ + "/json");
    makeDirectories(outside_ + "/scratch");

    writeApplication(canary() + "/Container/Victim.app", "com.example.victim", {});
    writeFile(canary() + "/Container/Documents/diary.txt", "outside the image");
    writeFile(canary() + "/Group/shared.txt", "shared outside the image");
    writeFile(canary() + "/Documents/notes.txt", "notes outside the image");
    canaryBefore_ = snapshotTree(canary());
  }

  void TearDown() override {
    for (const std::string& mountPoint : mounts_) {
      EXPECT_EQ(::umount2(mountPoint.c_str(), MNT_DETACH), 0) << std::strerror(errno);
    }
    EXPECT_EQ(snapshotTree(canary()), canaryBefore_) << "something outside the image changed";
  }

  // Bind-mounts `source` on the directory `mountPoint` (made here) until the
  // test ends; false when this machine allows no bind mount.
  bool bindMount(const std::string& source, const std::string& mountPoint) {
    makeDirectories(mountPoint);
    if (::mount(source.c_str(), mountPoint.c_str(), nullptr, MS_BIND, nullptr) != 0) return false;
    mounts_.push_back(mountPoint);
    return true;
  }

  std::string home() const { return image_.home(); }
  std::string legacy() const { return image_.legacyDirectory(); }
  // A tree outside the image that looks like legacy containers, so that a run
  // misled into it would find plenty to move or remove.
  std::string canary() const { return outside_ + "/canary"; }

  // An application bundle the installer accepts: identifier, executable and,
  // when `groups` is not empty, entitlements naming those application groups.
  void writeApplication(const std::string& path, std::string_view identifier,
                        const std::vector<std::string>& groups) const {
    image_.writeBundle(path, CVDictionary{{"QXBundleIdentifier", std::string(identifier)},
                                          {"QXBundleExecutable", "App"},
                                          {"QXBundleVersion", "1.0"}});
    writeFile(path + "/App", "#!/bin/sh\n", 0755);
    if (groups.empty()) return;
    CVArray array;
    for (const std::string& group : groups)
      array.append(group);
    image_.writePlist(path + "/Entitlements.plist",
                      CVDictionary{{"application-groups", std::move(array)}});
  }

  // The legacy install map with one group container entry.
  void writeGroupContainerMap(const std::string& group, const std::string& path) const {
    image_.writePlist(image_.installMapPath(),
                      CVDictionary{{"GroupContainers",
                                    CVDictionary{{group, CVDictionary{{"Container", path}}}}}});
  }

  // Runs `mavrel migrate` on the image under a time limit.
  ProgramRun migrate(const std::vector<std::string>& extraArguments = {}) {
    std::vector<std::string> arguments{"-k",
                                       "10",
                                       kRunTimeLimit,
                                       MAVREL_BINARY_DIR "/bin/mavrel",
                                       "migrate",
                                       "--root",
                                       root_,
                                       "--log-json",
                                       outside_ + "/json/migration.json",
                                       "--installer-log-json",
                                       outside_ + "/json/installer.json"};
    arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
    return testing_support::runProgram("timeout", arguments, outside_ + "/scratch");
  }

  std::string migrationLog() const { return readFile(outside_ + "/json/migration.json"); }
  std::string installerLog() const { return readFile(outside_ + "/json/installer.json"); }

  // Whether the migration log has a line holding `fragment` (compared with
  // the JSON text, so `fragment` must need no escaping).
  bool logged(std::string_view fragment) const {
    return migrationLog().find(fragment) != std::string::npos;
  }

  testing_support::DeviceImage image_;
  TemporaryDirectory outsideDirectory_;
  std::string root_;
  std::string outside_;
  std::map<std::string, std::string> canaryBefore_;
  std::vector<std::string> mounts_;
};

TEST_F(HostileImageTest, ContainersThatAreNoDirectoriesAreRemovedWithoutBlocking) {
  const std::string file = legacy() + "/RegularFile";
  const std::string fifo = legacy() + "/Fifo";
  const std::string socketPath = legacy() + "/Socket";
  writeFile(file, "not a container");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0) << std::strerror(errno);
  // A FIFO nobody writes to: a reader that opened it would block for ever.
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(listener, 0) << std::strerror(errno);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(socketPath.size(), sizeof(address.sun_path));
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  const int bound = ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  const int bindError = errno;
  ::close(listener);
  ASSERT_EQ(bound, 0) << std::strerror(bindError);

  const ProgramRun run = migrate();
  ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
  EXPECT_EQ(run.exitCode, 0) << run.out << run.err << migrationLog();
  for (const std::string& path : {file, fifo, socketPath}) {
    EXPECT_TRUE(logged("CVAppMigrator: Found regular file at " + path + " ; removing")) << path;
  }
  EXPECT_FALSE(pathExists(legacy()));
}

TEST_F(HostileImageTest, AnApplicationLinkLeadingOutOfTheImageKeepsTheContainer) {
  const std::string container = legacy() + "/LinkedApp";
  makeDirectories(container);
  makeSymlink(canary() + "/Container/Victim.app", container + "/Victim.app");

  const ProgramRun run = migrate();
  ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
  EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
  EXPECT_TRUE(
      logged("CVAppMigrator: Skipping container with app symlink at " + container + "/Victim.app"))
      << migrationLog();
  EXPECT_TRUE(pathExists(container + "/Victim.app"));
}

TEST_F(HostileImageTest, ADocumentsLinkLeadingOutOfTheImageIsMovedAsALink) {
  const std::string container = legacy() + "/LinkedDocuments";
  writeApplication(container + "/Foo.app", "com.example.foo", {});
  makeSymlink(canary() + "/Documents", container + "/Documents");

  const ProgramRun run = migrate();
  ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
  EXPECT_EQ(run.exitCode, 0) << run.out << run.err << migrationLog();
  EXPECT_TRUE(logged("CVAppMigrator: Removing container for com.example.foo at " + container))
      << migrationLog();
  EXPECT_FALSE(pathExists(container));
}

TEST_F(HostileImageTest, AGroupContainerLinkLeadingOutOfTheImageIsNotFollowed) {
  const std::string container = legacy() + "/Grouped";
  writeApplication(container + "/Foo.app", "com.example.foo", {"group.example.shared"});
  const std::string legacyGroup = home() + "/Library/GroupContainers/Shared";
  makeDirectories(home() + "/Library/GroupContainers");
  makeSymlink(canary() + "/Group", legacyGroup);
  writeGroupContainerMap("group.example.shared", legacyGroup);

  const ProgramRun run = migrate();
  ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
  EXPECT_TRUE(logged("CVAppMigrator: Source group container " + legacyGroup +
                     " of com.example.foo[group.example.shared] lies outside the device root; "
                     "not migrating it"))
      << migrationLog();
  EXPECT_TRUE(pathExists(legacyGroup));
  EXPECT_TRUE(pathExists(canary() + "/Group/shared.txt"));
}

// Map paths are device paths: a host path outside the image is read inside
// it, and a path that climbs out is refused.
TEST_F(HostileImageTest, AGroupContainerPathOutsideTheImageIsNotMigrated) {
  const std::string container = legacy() + "/Grouped";
  const struct {
    std::string stored;
    std::string logged;
  } cases[] = {
      {canary() + "/Group", "CVAppMigrator: Missing source group container at " + root_ +
                                "/private/var" + canary() + "/Group"},
      {"/private/var/mobile/../../.." + canary() + "/Group",
       "CVAppMigrator: Source group container /private/var/mobile/../../.." + canary() +
           "/Group of com.example.foo[group.example.shared] has a '..' component; not migrating "
           "it"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stored);
    writeApplication(container + "/Foo.app", "com.example.foo", {"group.example.shared"});
    writeGroupContainerMap("group.example.shared", c.stored);
    const ProgramRun run = migrate();
    ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
    EXPECT_TRUE(logged(c.logged)) << migrationLog();
  }
}

// A marker describes the container it lies in. One that names another place
// (outside the image, the root, the home, the new data containers) is not
// loaded: a container that still holds its bundle is left, and nothing of
// the place it names is moved or removed.
TEST_F(HostileImageTest, AMarkerNamingAnotherPlaceIsNotLoaded) {
  const std::string container = legacy() + "/Resumed";
  for (const std::string& named :
       {canary() + "/Container", std::string("/"), std::string("/private/var/mobile"),
        std::string("/private/var/mobile/Containers/Data")}) {
    SCOPED_TRACE(named);
    writeFile(home() + "/Library/keep.txt", "kept");
    writeFile(home() + "/Containers/Data/Other/Documents/keep.txt", "kept");
    // No executable: an install of it fails, which once removed what the
    // marker named.
    image_.writeBundle(container + "/Victim.app",
                       CVDictionary{{"QXBundleIdentifier", "com.example.victim"}});
    image_.writePlist(container + "/" + std::string(kMarkerName),
                      CVDictionary{{"ContainerPath", named},
                                   {"BundlePath", named + "/Victim.app"},
                                   {"BundleIdentifier", "com.example.victim"},
                                   {"ContainerType", "App"}});

    const ProgramRun run = migrate();
    ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
    EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
    EXPECT_TRUE(logged("CVAppMigrator: Migration marker " + container + "/" +
                       std::string(kMarkerName) +
                       " does not describe its container: it names "
                       "the container " +
                       named + ", not the one it lies in"))
        << migrationLog();
    EXPECT_TRUE(pathExists(container + "/" + std::string(kMarkerName)));
    EXPECT_EQ(readFile(home() + "/Library/keep.txt"), "kept");
    EXPECT_EQ(readFile(home() + "/Containers/Data/Other/Documents/keep.txt"), "kept");
  }
}

// Replace, never merge: the later container's data takes the earlier one's
// place. The plan foresees it and the run reports it as a conflict naming both.
TEST_F(HostileImageTest, TwoContainersWithOneIdentifierAreAConflict) {
  for (const std::string name : {"First", "Second"}) {
    writeApplication(legacy() + "/" + name + "/Foo.app", "com.example.foo", {});
    writeFile(legacy() + "/" + name + "/Documents/" + name + ".txt", name);
  }
  const ProgramRun plan = testing_support::runProgram(
      MAVREL_BINARY_DIR "/bin/mavrel", {"plan", "--root", root_}, outside_ + "/scratch");
  EXPECT_NE(plan.out.find("the same identifier is in " + legacy() + "/First"), std::string::npos)
      << plan.out;
  EXPECT_NE(plan.out.find("predicted to FAIL"), std::string::npos) << plan.out;

  const ProgramRun run = migrate();
  ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
  EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
  EXPECT_NE(run.err.find("conflict: com.example.foo was in "), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find("succeeded"), std::string::npos) << run.err;
}

// A move between file systems is a copy whose failure loses the source, so
// an image whose legacy tree lies on another file system is refused before
// anything is written.
TEST_F(HostileImageTest, ALegacyTreeOnAnotherFileSystemIsRefusedUntouched) {
  if (::mount("mavrel-test", legacy().c_str(), "tmpfs", 0, "size=8m") != 0)
    GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
  struct Unmount {
    std::string path;
    ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
  } unmount{legacy()};
  writeApplication(legacy() + "/Mounted/Foo.app", "com.example.foo", {});
  writeFile(legacy() + "/Mounted/Documents/notes.txt", "on another file system");
  const auto before = snapshotTree(root_);

  const ProgramRun run = migrate();
  EXPECT_EQ(run.exitCode, 2) << run.out << run.err;
  EXPECT_NE(run.err.find("'" + legacy() + "' and '"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("are not on one file system"), std::string::npos) << run.err;
  EXPECT_EQ(snapshotTree(root_), before) << "the refused run wrote into the image";
}

// The host's scratch directory in the image is emptied before use: a link
// the image put where placeholders are staged is removed, not followed.
TEST_F(HostileImageTest, ALinkInTheScratchDirectoryIsRemovedNotFollowed) {
  makeDirectories(root_ + "/private/var/tmp/mavrel");
  makeSymlink(canary() + "/Container",
              root_ + "/private/var/tmp/mavrel/com.zentrel.corvane.migrator");
  writeApplication(legacy() + "/Staged/Foo.app", "com.example.foo", {});

  const ProgramRun run = migrate();
  ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
  EXPECT_EQ(run.exitCode, 0) << run.out << run.err << migrationLog();
  EXPECT_TRUE(logged("CVAppMigrator: Removing container for com.example.foo")) << migrationLog();
}

TEST_F(HostileImageTest, AnIdentifierThatIsAPathGetsNoPlaceholder) {
  // The placeholder is staged under a directory named after the identifier.
  const std::string container = legacy() + "/Climbing";
  const std::string identifier = "../../../../../../../../../../../../../../../../../../../.." +
                                 canary() + "/Container/Victim";
  writeApplication(container + "/Foo.app", identifier, {});

  const ProgramRun run = migrate();
  ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
  EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
  EXPECT_TRUE(logged("CVAppMigrator: Failed to create staged placeholder directory at "))
      << migrationLog();
  EXPECT_TRUE(logged(": the identifier is not a plain file name")) << migrationLog();
  EXPECT_TRUE(pathExists(container + "/Foo.app/Info.plist"));
}

TEST_F(HostileImageTest, NamesWithNewlinesAndInvalidUTF8AreMigrated) {
  const std::vector<std::pair<std::string, std::string>> containers = {
      {"line\nbreak", "com.example.newline"}, {"bad\xff\xfe utf8", "com.example.badutf8"}};
  for (const auto& [name, identifier] : containers) {
    writeApplication(legacy() + "/" + name + "/A\nB.app", identifier, {});
    writeFile(legacy() + "/" + name + "/Documents/x\n\xc3\x28.txt", "user data");
  }

  const ProgramRun run = migrate();
  ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
  EXPECT_EQ(run.exitCode, 0) << run.out << run.err << migrationLog();
  for (const auto& [name, identifier] : containers) {
    EXPECT_TRUE(logged("CVAppMigrator: Removing container for " + identifier)) << identifier;
  }
  EXPECT_FALSE(pathExists(legacy()));
}

// Documents holding a chain of directories longer than PATH_MAX: two chains
// that each fit in a path, the second moved to the bottom of the first.
TEST_F(HostileImageTest, ATreeDeeperThanPathMaxIsMovedAndRemoved) {
  const std::string container = legacy() + "/Deep";
  writeApplication(container + "/Foo.app", "com.example.deep", {});
  std::string chain;
  while (chain.size() < PATH_MAX / 2 + 200)
    chain += "/" + std::string(60, 'd');
  makeDirectories(container + "/Documents" + chain);
  writeFile(legacy() + "/Lower" + chain + "/bottom.txt", "bottom");
  std::error_code error;
  fs::rename(legacy() + "/Lower", container + "/Documents" + chain + "/Lower", error);
  ASSERT_FALSE(error) << error.message();
  ASSERT_GT((container + "/Documents" + chain + "/Lower" + chain + "/bottom.txt").size(),
            std::size_t{PATH_MAX});

  const ProgramRun run = migrate({"--verify"});
  ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
  EXPECT_EQ(run.exitCode, 0) << run.out << run.err << migrationLog();
  EXPECT_TRUE(logged("CVAppMigrator: Removing container for com.example.deep")) << migrationLog();
  // The file deeper than a path can name is recorded, found and verified.
  EXPECT_NE(run.err.find("Verified 1 of 1 user-data files"), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find("could not be read"), std::string::npos) << run.err;
  EXPECT_FALSE(pathExists(container));
  // The temporary directory's own removal cannot reach that deep.
  const ProgramRun removed = testing_support::runProgram("rm", {"-rf", root_});
  EXPECT_EQ(removed.exitCode, 0);
}

TEST_F(HostileImageTest, AnInfoPlistPastTheSizeCapIsRefusedUnread) {
  const std::string container = legacy() + "/Huge";
  writeApplication(container + "/Foo.app", "com.example.huge", {});
  {
    // A well-formed list one byte longer than an Info.plist may be.
    const std::size_t size = platform::kInfoPlistLimits.maxFileSize + 1;
    const std::string head =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">"
        "<dict><key>QXBundleIdentifier</key><string>com.example.huge</string>"
        "<key>Padding</key><string>";
    const std::string tail = "</string></dict></plist>\n";
    std::ofstream out(container + "/Foo.app/Info.plist", std::ios::binary | std::ios::trunc);
    out << head << std::string(size - head.size() - tail.size(), 'p') << tail;
    ASSERT_TRUE(out.good());
  }

  const ProgramRun run = migrate();
  ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
  EXPECT_TRUE(
      logged("CVAppMigrator: Could not get identifier for bundle at " + container + "/Foo.app"))
      << migrationLog();
}

TEST_F(HostileImageTest, AHardLinkInABundleToAFileOutsideKeepsThatFilesOwner) {
  const std::string container = legacy() + "/HardLinked";
  writeApplication(container + "/Foo.app", "com.example.hardlinked", {});
  const std::string inBundle = container + "/Foo.app/diary.txt";
  ASSERT_EQ(::link((canary() + "/Container/Documents/diary.txt").c_str(), inBundle.c_str()), 0)
      << std::strerror(errno);

  const ProgramRun run = migrate();
  ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
  EXPECT_EQ(run.exitCode, 0) << run.out << run.err << migrationLog();
  EXPECT_FALSE(pathExists(container));
}

TEST_F(HostileImageTest, ABindMountInsideARemovedContainerIsLeftAlone) {
  // A container without a bundle is removed with its contents.
  const std::string container = legacy() + "/Bundleless";
  writeFile(container + "/Documents/own.txt", "the container's own");
  if (!bindMount(canary() + "/Documents", container + "/Documents/Mounted"))
    GTEST_SKIP() << "no bind mount here: " << std::strerror(errno);

  const ProgramRun run = migrate();
  ASSERT_NE(run.exitCode, kTimedOutExitCode) << "the run did not end";
  EXPECT_FALSE(pathExists(container + "/Documents/own.txt"));
  EXPECT_TRUE(pathExists(container + "/Documents/Mounted/notes.txt"));
  EXPECT_NE(installerLog().find("treewipe hit error for " + container +
                                "/Documents/Mounted : Invalid cross-device link"),
            std::string::npos)
      << installerLog();
}

}  // namespace
