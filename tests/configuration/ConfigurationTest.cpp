// The configuration: its preferences, fixed names, well-known directories,
// maps of built-in bundles and the applications on mounted disk images (over
// registry and mount-table doubles).
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <set>
#include <thread>

#include "platform/Log.h"
#include "platform/Preferences.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/support/DeviceImage.h"

namespace {

using platform::IORegistryTree;
using platform::kLogLevelDebug;
using platform::kLogLevelError;
using platform::kLogLevelNotice;
using platform::MountEntry;
using namespace testing_support;

void storePreference(const DeviceImage& image, std::string_view key, const CVValue& value) {
  platform::PreferencesStore store(image.root().homeURL());
  ASSERT_TRUE(store.setValue(key, value, kCVPreferencesDomain, platform::kPreferencesCurrentUser,
                             platform::kPreferencesCurrentHost));
}

// Each stored preference, what the configuration makes of it, and its notice:
// the flags need a stored boolean (the number 0 is not false, "YES" and 1 are
// not true), the number of installations any number. The other settings keep
// their defaults, which are silent.
TEST(ConfigurationPreferencesTest, OnlyValuesOfTheRightTypeCountAndEachIsAnnounced) {
  const struct {
    const char* key;
    CVValue value;
    std::size_t setting;
    long expected;
    const char* notice;
  } cases[] = {
      {"", CVValue(), 0, 1, ""},  // nothing stored
      {"LowerInstallPriority", CVValue(0), 0, 1, ""},
      {"LowerInstallPriority", CVValue(false), 0, 0,
       "Not running installation at background priority because of a set default"},
      {"SkipDeviceFamilyCheck", CVValue("YES"), 1, 0, ""},
      {"SkipDeviceFamilyCheck", CVValue(true), 1, 1,
       "Skipping device family check because of a set default"},
      {"SkipThinningCheck", CVValue(1), 2, 0, ""},
      {"SkipThinningCheck", CVValue(true), 2, 1,
       "Skipping device thinning check because of a set default"},
      {"SimultaneousInstallsNumber", CVValue("8"), 3, 4, ""},
      {"SimultaneousInstallsNumber", CVValue(-3), 3, -3,
       "Setting simultaneous installations allowed to -3"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(std::string(each.key) + " = " + each.value.description());
    DeviceImage image;
    if (*each.key) storePreference(image, each.key, each.value);
    CapturedLog log(platform::installerLog());
    const CVGlobalConfiguration c(image.root());
    std::vector<long> expected{1, 0, 0, 4};
    expected[each.setting] = each.expected;
    EXPECT_EQ((std::vector<long>{c.lowerInstallPriority(), c.skipDeviceFamilyCheck(),
                                 c.skipThinningCheck(), c.nSimultaneousInstallations()}),
              expected);
    std::vector<std::tuple<int, std::string, std::string>> lines, got;
    if (*each.notice)
      lines.emplace_back(kLogLevelNotice, each.notice, "-[CVGlobalConfiguration init]");
    for (const auto& line : log.lines())
      got.emplace_back(line.level, line.message, line.function);
    EXPECT_EQ(got, lines);
  }
}

TEST(ConfigurationTest, FixedListsAndThePluginContainerFlag) {
  DeviceImage image;
  CVGlobalConfiguration configuration(image.root());
  // Only this test notices a user data item or a metadata item gone missing;
  // the other fixed locations, lists and owners fail the migration and
  // installer tests.
  EXPECT_EQ(configuration.appUserDataItemNames(),
            (std::vector<std::string>{"Documents", "Library", "tmp", "Pormex"}));
  EXPECT_EQ(configuration.appBundleMetadataItemNames(),
            (std::vector<std::string>{"Manifest.plist", "SorvikArtwork", "SorvikMetadata.plist",
                                      "GeoJSON"}));
  // One set for the whole process.
  EXPECT_EQ(&configuration.installationBlacklist(),
            &CVGlobalConfiguration(image.root()).installationBlacklist());

  EXPECT_FALSE(configuration.haveUpdatedPluginContainersWithParentID());
  configuration.setHaveUpdatedPluginContainersWithParentID(true);
  EXPECT_TRUE(configuration.haveUpdatedPluginContainersWithParentID());
  // Another instance sees it: the value lives in the store, not in the object.
  EXPECT_TRUE(CVGlobalConfiguration(image.root()).haveUpdatedPluginContainersWithParentID());
  configuration.setHaveUpdatedPluginContainersWithParentID(false);
  EXPECT_FALSE(configuration.haveUpdatedPluginContainersWithParentID());
  // Any present value other than the boolean false counts as true.
  storePreference(image, "UpdatedPluginContainersWithParentID", CVValue("no"));
  EXPECT_TRUE(configuration.haveUpdatedPluginContainersWithParentID());
}

// Paths the image stores are device paths, read under the root; the written
// form is the device path again.
TEST(DeviceRootPathsTest, StoredPathsLeadUnderTheRoot) {
  const platform::DeviceRoot root("/images/one");
  const std::pair<const char*, const char*> cases[] = {
      {"/private/var/mobile/Library/X", "/images/one/private/var/mobile/Library/X"},
      {"/var/mobile/Library/X", "/images/one/private/var/mobile/Library/X"},
      {"/var", "/images/one/private/var"},
      {"/tmp/x", "/images/one/private/var/tmp/x"},
      {"/etc/hosts", "/images/one/private/etc/hosts"},
      {"/variable/x", "/images/one/variable/x"},
      {"/images/one/private/var/mobile", "/images/one/private/var/mobile"},
      {"/images/onex/y", "/images/one/images/onex/y"},
      {"/", "/images/one"},
      {"/var/mobile/../../../etc", "(refused)"},
      {"relative/path", "(refused)"},
      {"", "(refused)"},
  };
  for (const auto& [stored, host] : cases) {
    std::string problem;
    const auto hostPath = root.hostPathForDevicePath(stored, &problem);
    EXPECT_EQ(hostPath.value_or("(refused)"), host) << problem;
    EXPECT_EQ(problem.empty(), hostPath.has_value()) << stored;
  }
  EXPECT_EQ(root.devicePathForHostPath("/images/one").value_or(""), "/");
  EXPECT_FALSE(root.devicePathForHostPath("/images/onex/A").has_value());
  std::string problem;
  const platform::DeviceRoot slash("/");
  EXPECT_EQ(slash.hostPathForDevicePath("/var/x", &problem).value_or(""), "/var/x");
  EXPECT_EQ(slash.homeURL().absoluteString(), "file:///private/var/mobile/");
  EXPECT_EQ(slash.rootURL().absoluteString(), "file:///");
}

TEST(SharedConfigurationTest, ConcurrentFirstCallsGetOneInstance) {
  std::vector<CVGlobalConfiguration*> seen(8, nullptr);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i)
    threads.emplace_back([&seen, i] { seen[i] = &CVGlobalConfiguration::sharedInstance(); });
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(std::set<CVGlobalConfiguration*>(seen.begin(), seen.end()).size(), 1u);
}

class WellKnownDirectoriesTest : public ::testing::Test {
 protected:
  DeviceImage image_;
  CVGlobalConfiguration configuration_{image_.root()};
};

TEST_F(WellKnownDirectoriesTest, CreatedDirectoriesHaveTheirModeAndClass) {
  for (const auto& [url, relative, protectionClass] :
       std::vector<std::tuple<CVURL, std::string, std::optional<std::int32_t>>>{
           {configuration_.carrierBundlesDirectory(), "Library/Carrier Bundles", std::nullopt},
           {configuration_.stagingRoot(), "Library/Caches/com.zentrel.mobile.corvaned.staging", 4},
           {configuration_.logDirectory(), "Library/Logs/Corvane", 4},
           {configuration_.dataDirectory(), "Library/Corvane", 4},
           {configuration_.cachesDirectory(), "Library/Caches", std::nullopt},
           {configuration_.archiveDirectory(), "Media/ApplicationArchives", 4}}) {
    const std::string path = image_.home(relative);
    EXPECT_EQ(url.path(), path);
    EXPECT_TRUE(url.isDirectory());
    EXPECT_TRUE(std::filesystem::is_directory(path)) << path;
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0755)) << path;
    EXPECT_EQ(protectionClassOf(path), protectionClass) << path;
  }
}

// The application directories, and that they are not made, are checked by
// the bundle-map tests below, which read them.
TEST_F(WellKnownDirectoriesTest, FrameworkAndFactoryDirectoriesAreNamedUnderTheRoot) {
  const std::string root = image_.rootPath();
  EXPECT_EQ(configuration_.factoryMountDirectory().absoluteString(),
            "file://" + root + "/var/factory_mount/");
  EXPECT_EQ(configuration_.developerFrameworksRootDirectory().path(), root + "/Developer");
  CVSet frameworks;
  for (const char* place : {"System/Library/Frameworks", "System/Library/PrivateFrameworks",
                            "ZentrelInternal/Frameworks", "ZentrelInternal/PrivateFrameworks"})
    frameworks.add(CVURL::fileURLWithPath(root + "/" + place, true));
  EXPECT_EQ(configuration_.allFrameworksDirectories(), frameworks);
}

TEST_F(WellKnownDirectoriesTest, RemovedDirectoryIsMadeAgainAndFailuresLoggedPerCall) {
  const CVURL first = configuration_.archiveDirectory();
  ASSERT_EQ(::rmdir(first.path().c_str()), 0);
  EXPECT_EQ(configuration_.archiveDirectory(), first);
  EXPECT_TRUE(pathExists(first.path()));

  // A regular file where a parent of the caches directory belongs: the URL
  // still comes back, and each call logs the caches directory's own (borrowed)
  // message. (An existing item at the path itself would count as success.)
  std::filesystem::remove_all(image_.home("Library"));
  writeFile(image_.home("Library"), "in the way");
  CapturedLog log(platform::installerLog());
  EXPECT_EQ(configuration_.cachesDirectory().path(), image_.home("Library/Caches"));
  EXPECT_EQ(configuration_.cachesDirectory().path(), image_.home("Library/Caches"));
  std::size_t failures = 0;
  for (const auto& line : log.lines())
    failures += line.function == "-[CVGlobalConfiguration cachesDirectory]" &&
                line.message.starts_with("Failed to create data dir at \"file://" +
                                         image_.home("Library/Caches") + "/\": ");
  EXPECT_EQ(failures, 2u) << log.dump();
}

// A link in the image on the way to a directory the installer writes in
// leads out of it: nothing is made there and its class is not touched, with
// or without confinement, and the failure is logged.
TEST_F(WellKnownDirectoriesTest, ALinkOutOfTheImageOnTheWayIsRefusedBeforeAnythingChanges) {
  struct Case {
    std::string linked;  // under the home
    std::function<CVURL(CVGlobalConfiguration&)> directory;
    std::string function;
  };
  const std::vector<Case> cases = {
      {"Library/Caches", [](auto& c) { return c.stagingRoot(); },
       "-[CVGlobalConfiguration cachesDirectory]"},
      {"Library/Caches/com.zentrel.mobile.corvaned.staging",
       [](auto& c) { return c.stagingRoot(); }, "-[CVGlobalConfiguration stagingRoot]"},
      {"Library/Corvane", [](auto& c) { return c.dataDirectory(); },
       "-[CVGlobalConfiguration dataDirectory]"},
      {"Library", [](auto& c) { return c.logDirectory(); },
       "-[CVGlobalConfiguration logDirectory]"},
  };
  for (const Case& each : cases) {
    DeviceImage image;
    TemporaryDirectory outside;
    makeDirectories(std::filesystem::path(image.home(each.linked)).parent_path().string());
    makeSymlink(outside.path(), image.home(each.linked));
    CVGlobalConfiguration configuration{image.root()};
    CapturedLog log(platform::installerLog());
    each.directory(configuration);
    EXPECT_TRUE(std::filesystem::is_empty(outside.path())) << each.linked;
    EXPECT_EQ(protectionClassOf(outside.path()), std::nullopt) << each.linked;
    bool logged = false;
    for (const auto& line : log.lines())
      logged |= line.level == kLogLevelError && line.function == each.function;
    EXPECT_TRUE(logged) << each.linked << log.dump();
  }
}

class BuiltInBundleMapsTest : public WellKnownDirectoriesTest {
 protected:
  void bundle(const std::string& directory, const std::string& name, const std::string& identifier,
              std::optional<std::string> version = std::nullopt) {
    CVDictionary info{{"QXBundleIdentifier", identifier}, {"QXBundleName", name}};
    if (version) info.set("QXBundleVersion", *version);
    image_.writeBundle(image_.rootPath() + "/" + directory + "/" + name, info);
  }
};

TEST_F(BuiltInBundleMapsTest, SystemMapHoldsIdentifierVersionAndURL) {
  const std::string apps = image_.rootPath() + "/Applications";
  bundle("Applications", "Clock.app", "com.zentrel.clock", "3");
  bundle("Applications", "Notes.App", "com.zentrel.upper");  // not "app": left out
  image_.writePlist(apps + "/NoId.app/Info.plist", CVDictionary{{"QXBundleName", "x"}});
  makeSymlink(apps + "/Clock.app", apps + "/Linked.app");

  CapturedLog log(platform::installerLog(), kLogLevelDebug);
  const auto map = configuration_.systemAppBundleIDToInfoMap();
  ASSERT_NE(map, nullptr);
  const CVDictionary clock{
      {"QXBundleIdentifier", "com.zentrel.clock"},
      {"QXBundleVersion", "3"},
      {"com.zentrel.Corvane.bundleURL", CVURL::fileURLWithPath(apps + "/Clock.app", true)}};
  EXPECT_EQ(*map, (CVDictionary{{"com.zentrel.clock", clock}}));
  EXPECT_TRUE(log.contains(
      kLogLevelDebug, "Failed to get QXBundleIdentifier from bundle file://" + apps + "/NoId.app/"))
      << log.dump();
}

TEST_F(BuiltInBundleMapsTest, LaterBundleWithTheSameIdentifierWins) {
  bundle("Developer/Applications", "A.app", "com.example.same", "1");
  bundle("Developer/Applications", "B.app", "com.example.same", "2");
  const auto listing = CVFileManager::defaultManager().urlsForItemsInDirectoryAtURL(
      configuration_.developerAppsDirectory(), /*ignoringSymlinks=*/true, nullptr);
  ASSERT_TRUE(listing.has_value());
  const auto map =
      configuration_._bundleIDMapForAppsInDirectory(configuration_.developerAppsDirectory());
  ASSERT_TRUE(map.has_value());
  EXPECT_EQ(*map->findDictionary("com.example.same")->findString("QXBundleVersion"),
            listing->back().lastPathComponent() == "A.app" ? "1" : "2");
}

TEST_F(BuiltInBundleMapsTest, MissingDirectoryIsSilentUnreadableOneIsLogged) {
  CapturedLog log(platform::installerLog());
  EXPECT_EQ(configuration_.internalAppBundleIDToInfoMap(), nullptr);
  EXPECT_EQ(log.count(), 0u);
  writeFile(image_.rootPath() + "/Applications", "not a directory");
  EXPECT_EQ(configuration_.systemAppBundleIDToInfoMap(), nullptr);
  EXPECT_TRUE(log.containsFragment("Failed to search for apps in file://" + image_.rootPath() +
                                   "/Applications/ : Error Domain=POSIXErrorDomain Code=20"))
      << log.dump();
  // A failed scan is retried at the next call.
  ASSERT_EQ(::unlink((image_.rootPath() + "/Applications").c_str()), 0);
  bundle("Applications", "Clock.app", "com.zentrel.clock");
  ASSERT_NE(configuration_.systemAppBundleIDToInfoMap(), nullptr);
}

// Maps are kept until a rescan; the framework set survives only a rescan of
// the core services; built-in applications leave out the core services.
TEST_F(BuiltInBundleMapsTest, MapsAreCachedUntilARescan) {
  bundle("Applications", "Clock.app", "com.zentrel.clock");
  bundle("ZentrelInternal/Applications", "Probe.app", "com.zentrel.probe");
  bundle("Developer/Applications", "Tool.app", "com.zentrel.tool");
  bundle("System/Library/CoreServices", "Springboard.app", "com.zentrel.springboard");
  bundle("System/Library/Frameworks", "Kit.framework", "com.zentrel.kit");
  bundle("ZentrelInternal/PrivateFrameworks", "Debug.framework", "com.zentrel.debug");
  bundle("Developer/Frameworks", "Dev.framework", "com.zentrel.dev");
  EXPECT_NE(
      configuration_.coreServicesAppBundleIDToInfoMap()->findDictionary("com.zentrel.springboard"),
      nullptr);
  EXPECT_EQ(configuration_.builtInApplicationBundleIDs(),
            (CVSet{"com.zentrel.clock", "com.zentrel.probe", "com.zentrel.tool"}));
  const auto before = configuration_.systemAppBundleIDToInfoMap();
  const auto frameworks = configuration_.builtInFrameworkBundleIDs();
  EXPECT_EQ(*frameworks, (CVSet{"com.zentrel.kit", "com.zentrel.debug"}));

  bundle("Applications", "Maps.app", "com.zentrel.maps");
  EXPECT_EQ(configuration_.systemAppBundleIDToInfoMap(), before);
  configuration_.reScanCoreServicesApps();
  EXPECT_EQ(configuration_.builtInFrameworkBundleIDs(), frameworks);
  configuration_.reScanSystemApps();
  EXPECT_NE(configuration_.builtInFrameworkBundleIDs(), frameworks);
  const auto after = configuration_.systemAppBundleIDToInfoMap();
  EXPECT_NE(after, before);
  EXPECT_EQ(after->count(), 2u);
}

class FixedMountTable final : public platform::MountTable {
 public:
  std::vector<MountEntry> mounts;
  std::vector<MountEntry> mountedFileSystems() const override { return mounts; }
};

class DiskImageDiscoveryTest : public ::testing::Test {
 protected:
  CVGlobalConfiguration::Services services(
      std::function<std::shared_ptr<platform::IORegistry>()> registry) const {
    return {std::make_shared<platform::PreferencesStore>(image_.root().homeURL()),
            std::move(registry), mounts_};
  }

  // A drive directly under `parent` whose media is named `bsdName` (none: no name).
  void drive(IORegistryTree::NodeId parent, std::optional<std::string> bsdName) {
    CVDictionary properties;
    if (bsdName) properties.set("BSD Name", *bsdName);
    registry_->addNode(registry_->addNode(parent, {"HWVDSKHDDrive"}), {"HWMedia"}, properties);
  }

  CVURL applications(const std::string& mountPoint) const {
    return CVURL::fileURLWithPath(mountPoint + "/Applications", true);
  }

  DeviceImage image_;
  std::shared_ptr<IORegistryTree> registry_ = std::make_shared<IORegistryTree>();
  std::shared_ptr<FixedMountTable> mounts_ = std::make_shared<FixedMountTable>();
  std::unique_ptr<CVGlobalConfiguration> configuration_ = std::make_unique<CVGlobalConfiguration>(
      image_.root(), services([this] { return registry_; }));
};

TEST_F(DiskImageDiscoveryTest, DrivesMapToTheirMountPointsInOrder) {
  // No controller: only the developer directory.
  mounts_->mounts = {{"/dev/sda1", "/"}};
  EXPECT_TRUE(configuration_->diskImageMountPoints().empty());
  EXPECT_EQ(configuration_->diskImageApplicationsDirectories(),
            std::vector<CVURL>{configuration_->developerAppsDirectory()});

  const auto controller = registry_->addNode(IORegistryTree::kRoot, {"HWVDSKController"});
  drive(controller, "loop1");
  drive(controller, std::nullopt);  // media without a name contributes nothing
  drive(controller, "loop9");       // not mounted
  // A nested child contributes its first mounted drive only.
  const auto hub = registry_->addNode(controller, {"HWHub"});
  drive(hub, "loop7");
  drive(hub, "loop2");
  drive(hub, "loop3");
  mounts_->mounts = {{"/dev/sda1", "/"},
                     {"/dev/loop3", "/mnt/three"},
                     {"/dev/loop2", "/mnt/two"},
                     {"/dev/loop1", "/private/var/debug_mount2"}};
  EXPECT_EQ(configuration_->diskImageMountPoints(),
            (std::vector<std::string>{"/private/var/debug_mount2", "/mnt/two"}));
  // Debug mounts are never scanned; the developer directory comes last.
  EXPECT_EQ(
      configuration_->diskImageApplicationsDirectories(),
      (std::vector<CVURL>{applications("/mnt/two"), configuration_->developerAppsDirectory()}));
  EXPECT_EQ(registry_->outstandingHandles(), 0u);
}

TEST_F(DiskImageDiscoveryTest, DeveloperMountInItsPlaceAndTheLaterOfTwoSameIdentifiers) {
  const auto controller = registry_->addNode(IORegistryTree::kRoot, {"HWVDSKController"});
  drive(controller, "loop0");
  drive(controller, "loop1");
  mounts_->mounts = {{"/dev/loop0", image_.rootPath() + "/Developer"},
                     {"/dev/loop1", "/mnt/other"}};
  EXPECT_EQ(
      configuration_->diskImageApplicationsDirectories(),
      (std::vector<CVURL>{configuration_->developerAppsDirectory(), applications("/mnt/other")}));

  const std::string first = image_.rootPath() + "/mnt/first";
  const std::string second = image_.rootPath() + "/mnt/second";
  mounts_->mounts = {{"/dev/loop0", first}, {"/dev/loop1", second}};
  for (const auto& [place, version] : {std::pair{first, "1"}, std::pair{second, "2"}}) {
    image_.writeBundle(
        place + "/Applications/Tool.app",
        CVDictionary{{"QXBundleIdentifier", "com.example.tool"}, {"QXBundleVersion", version}});
  }
  const CVDictionary map = configuration_->diskImageAppBundleIDToInfoMap();
  EXPECT_EQ(*map.findDictionary("com.example.tool")->findString("QXBundleVersion"), "2");
  EXPECT_TRUE(configuration_->builtInApplicationBundleIDs().contains("com.example.tool"));
  EXPECT_EQ(registry_->outstandingHandles(), 0u);
}

TEST_F(DiskImageDiscoveryTest, TheCallersDriveHandleFindsItsMountPoint) {
  // Like the Linux registry: every request reads a registry anew, so a handle
  // is only good for the registry the caller took it from.
  mounts_->mounts = {{"/dev/loop4", "/mnt/four"}};
  CVGlobalConfiguration configuration(
      image_.root(), services([] {
        auto tree = std::make_shared<IORegistryTree>();
        const auto controller = tree->addNode(IORegistryTree::kRoot, {"HWVDSKController"});
        tree->addNode(tree->addNode(controller, {"HWVDSKHDDrive"}), {"HWMedia"},
                      CVDictionary{{"BSD Name", "loop4"}});
        return tree;
      }));
  const auto registry = configuration.ioRegistry();
  const platform::IOObjectHandle drive = registry->firstMatchingService("HWVDSKHDDrive");
  EXPECT_EQ(configuration.mountPointForDevice(*registry, drive), "/mnt/four");
  registry->release(drive);
}

TEST_F(DiskImageDiscoveryTest, RegistryAndMountTableFailuresAreLogged) {
  const auto controller = registry_->addNode(IORegistryTree::kRoot, {"HWVDSKController"});
  drive(controller, "loop0");
  CapturedLog log(platform::installerLog());
  // An empty mount table counts as a failed read.
  EXPECT_TRUE(configuration_->diskImageMountPoints().empty());
  EXPECT_TRUE(log.containsFragment("getmntinfo failed: ")) << log.dump();

  registry_->failIterators = static_cast<platform::IOReturn>(0xE00002BC);
  mounts_->mounts = {{"/dev/loop0", "/mnt/zero"}};
  EXPECT_TRUE(configuration_->diskImageMountPoints().empty());
  EXPECT_TRUE(log.contains(platform::kLogLevelError,
                           "unable to create controller child iterator: error 0xE00002BC "
                           "(-536870212)"))
      << log.dump();
  EXPECT_EQ(registry_->outstandingHandles(), 0u);
}

}  // namespace
