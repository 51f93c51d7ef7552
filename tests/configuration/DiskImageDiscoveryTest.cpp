// Applications on mounted disk images, over registry and mount-table doubles.
#include <gtest/gtest.h>

#include "platform/Log.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "tests/support/DeviceImage.h"

namespace {

using platform::IORegistryTree;
using platform::MountEntry;
using namespace testing_support;

class FixedMountTable final : public platform::MountTable {
 public:
  std::vector<MountEntry> mounts;
  std::vector<MountEntry> mountedFileSystems() const override { return mounts; }
};

class DiskImageDiscoveryTest : public ::testing::Test {
 protected:
  DiskImageDiscoveryTest() {
    CVGlobalConfiguration::Services services;
    services.preferences = std::make_shared<platform::PreferencesStore>(image_.root().homeURL());
    services.ioRegistry = [this] { return registry_; };
    services.mountTable = mounts_;
    configuration_ = std::make_unique<CVGlobalConfiguration>(image_.root(), services);
  }

  // A drive directly under `parent` whose media is named `bsdName` (none: no name).
  IORegistryTree::NodeId drive(IORegistryTree::NodeId parent, std::optional<std::string> bsdName) {
    const auto node = registry_->addNode(parent, {"HWVDSKHDDrive"});
    CVDictionary properties;
    if (bsdName) properties.set("BSD Name", *bsdName);
    registry_->addNode(node, {"HWMedia"}, properties);
    return node;
  }

  CVURL applications(const std::string& mountPoint) const {
    return CVURL::fileURLWithPath(mountPoint + "/Applications", true);
  }

  DeviceImage image_;
  std::shared_ptr<IORegistryTree> registry_ = std::make_shared<IORegistryTree>();
  std::shared_ptr<FixedMountTable> mounts_ = std::make_shared<FixedMountTable>();
  std::unique_ptr<CVGlobalConfiguration> configuration_;
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
  CVGlobalConfiguration::Services services;
  services.preferences = std::make_shared<platform::PreferencesStore>(image_.root().homeURL());
  services.ioRegistry = [] {
    auto tree = std::make_shared<IORegistryTree>();
    const auto controller = tree->addNode(IORegistryTree::kRoot, {"HWVDSKController"});
    tree->addNode(tree->addNode(controller, {"HWVDSKHDDrive"}), {"HWMedia"},
                  CVDictionary{{"BSD Name", "loop4"}});
    return tree;
  };
  services.mountTable = mounts_;
  mounts_->mounts = {{"/dev/loop4", "/mnt/four"}};
  CVGlobalConfiguration configuration(image_.root(), services);
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
