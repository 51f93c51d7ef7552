// A generated image, read by the system's own readers: the configuration, the
// property-list and bundle readers, the icon service and the migrator's set-up
// and container introspection all see what the manifest says is there.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>

#include "AppMigrator/AppMigrator.h"
#include "platform/Bundle.h"
#include "platform/DeviceRoot.h"
#include "platform/IconService.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "platform/SystemVersion.h"
#include "samplegen/LegacyImageGenerator.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "tests/support/FakeServices.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using samplegen::ContainerManifest;
using namespace testing_support;

// One image for the whole suite: every test only reads it.
class ImageReadersTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    temporary_ = new testing_support::TemporaryDirectory();
    CVError error;
    const auto root = samplegen::prepareImageRoot(*temporary_ / "image", false, &error);
    ASSERT_TRUE(root) << error.description();
    samplegen::GeneratorOptions options;
    options.root = *root;
    options.applicationCount = 40;
    options.seed = 5;
    options.missingExecutable = {"3"};
    options.extraItem = {"6"};
    auto manifest = samplegen::generateLegacyImage(options, &error);
    ASSERT_TRUE(manifest) << error.description();
    sharedManifest_ = new samplegen::ImageManifest(std::move(*manifest));
  }
  static void TearDownTestSuite() {
    delete sharedManifest_;
    sharedManifest_ = nullptr;
    delete temporary_;
    temporary_ = nullptr;
  }

  // Set only when the suite's image was made (SetUp checks).
  static const samplegen::ImageManifest& manifest() { return *sharedManifest_; }

  void SetUp() override {
    ASSERT_NE(sharedManifest_, nullptr);
    configuration_ = std::make_unique<CVGlobalConfiguration>(platform::DeviceRoot(manifest().root));
  }

  CVDictionary readDictionary(const std::string& path) {
    CVError error;
    auto dictionary =
        platform::readPropertyListDictionary(CVURL::fileURLWithPath(path, false), &error);
    EXPECT_TRUE(dictionary) << path << ": " << error.description();
    return dictionary.value_or(CVDictionary());
  }

  // Where a device path stored in the image's maps leads under the root; ""
  // when it is no device path.
  std::string underRoot(const std::string& stored) const {
    if (!stored.starts_with("/private/var/") && !stored.starts_with("/var/")) return std::string();
    std::string problem;
    return platform::DeviceRoot(manifest().root)
        .hostPathForDevicePath(stored, &problem)
        .value_or("");
  }
  bool inside(const std::string& path) const {
    return path.compare(0, manifest().root.size() + 1, manifest().root + "/") == 0;
  }

  testing_support::CapturedLog migrationLog_{platform::migrationLog()};
  testing_support::CapturedLog installerLog_{platform::installerLog()};
  static testing_support::TemporaryDirectory* temporary_;
  static samplegen::ImageManifest* sharedManifest_;
  std::unique_ptr<CVGlobalConfiguration> configuration_;
};

testing_support::TemporaryDirectory* ImageReadersTest::temporary_ = nullptr;
samplegen::ImageManifest* ImageReadersTest::sharedManifest_ = nullptr;

TEST_F(ImageReadersTest, TheMapsAreWhereTheConfigurationLooks) {
  EXPECT_EQ(manifest().legacyDirectory, configuration_->oldContainerPath().path());
  EXPECT_EQ(manifest().installMapPath, configuration_->oldInstallMapPath().path());
  EXPECT_EQ(manifest().harborMapPath, configuration_->dataDirectory()
                                          .URLByAppendingPathComponent("SafeHarbor.plist", false)
                                          .path());

  // Install map: every legacy container and group container, with paths that exist.
  const CVDictionary installMap = readDictionary(manifest().installMapPath);
  const CVDictionary* user = installMap.findDictionary("User");
  ASSERT_NE(user, nullptr);
  EXPECT_EQ(user->count(), manifest().containers.size());
  for (const ContainerManifest& container : manifest().containers) {
    const CVDictionary* entry = user->findDictionary(container.identifier);
    ASSERT_NE(entry, nullptr) << container.identifier;
    ASSERT_NE(entry->findString("Container"), nullptr);
    EXPECT_EQ(underRoot(*entry->findString("Container")), container.containerPath);
    EXPECT_EQ(underRoot(*entry->findString("Path")), container.bundlePath);
    EXPECT_TRUE(fs::is_directory(container.bundlePath)) << container.bundlePath;
  }
  const CVDictionary* groups = installMap.findDictionary("GroupContainers");
  ASSERT_NE(groups, nullptr);
  EXPECT_EQ(groups->count(), manifest().groupContainers.size());
  for (const auto& group : manifest().groupContainers) {
    const CVDictionary* entry = groups->findDictionary(group.identifier);
    ASSERT_NE(entry, nullptr) << group.identifier;
    ASSERT_NE(entry->findString("Container"), nullptr);
    EXPECT_EQ(underRoot(*entry->findString("Container")), group.path);
    EXPECT_TRUE(inside(group.path));
    EXPECT_TRUE(fs::is_directory(group.path));
    EXPECT_GT(group.files, 0u);
  }

  // Harbor map: one existing directory per entry.
  const CVDictionary harborMap = readDictionary(manifest().harborMapPath);
  EXPECT_EQ(harborMap.count(), manifest().harbors.size());
  for (const auto& harbor : manifest().harbors) {
    const CVDictionary* entry = harborMap.findDictionary(harbor.identifier);
    ASSERT_NE(entry, nullptr);
    ASSERT_NE(entry->findString("HarborPathKey"), nullptr);
    EXPECT_EQ(underRoot(*entry->findString("HarborPathKey")), harbor.path);
    EXPECT_TRUE(inside(harbor.path));
    EXPECT_TRUE(fs::is_directory(harbor.path + "/Documents"));
  }

  // The system version and the stray note.
  const platform::DeviceSystemVersion version(configuration_->rootDirectory());
  EXPECT_EQ(version.fileURL().path(), manifest().systemBuildPath);
  const CVDictionary build = version.copySystemVersionDictionary();
  ASSERT_NE(build.findString(platform::kSystemBuildVersionKey), nullptr);
  EXPECT_FALSE(build.findString(platform::kSystemBuildVersionKey)->empty());
  EXPECT_EQ(manifest().strayNotePath, manifest().legacyDirectory + "/WhereDidMyApplicationsGo.txt");
  EXPECT_TRUE(fs::is_regular_file(manifest().strayNotePath));
}

TEST_F(ImageReadersTest, BuiltInApplicationsAreFoundAndOneIsAlsoInstalledByTheUser) {
  const CVSet builtIn = configuration_->builtInApplicationBundleIDs();
  std::size_t expected = 0;
  for (const auto& application : manifest().builtIns) {
    if (application.location == "coreServices") {
      EXPECT_FALSE(builtIn.contains(CVValue(application.identifier)));
      const auto coreServices = configuration_->coreServicesAppBundleIDToInfoMap();
      ASSERT_NE(coreServices, nullptr);
      EXPECT_TRUE(coreServices->contains(application.identifier));
    } else {
      ++expected;
      EXPECT_TRUE(builtIn.contains(CVValue(application.identifier))) << application.identifier;
    }
  }
  EXPECT_EQ(builtIn.count(), expected);
  std::size_t duplicates = 0;
  for (const ContainerManifest& container : manifest().containers) {
    EXPECT_EQ(builtIn.contains(CVValue(container.identifier)), container.builtInDuplicate)
        << container.identifier;
    duplicates += container.builtInDuplicate ? 1 : 0;
  }
  EXPECT_EQ(duplicates, 1u);
}

TEST_F(ImageReadersTest, TheMigratorSetsUpAndClassifiesEveryContainerAsPlanned) {
  testing_support::FakeInstallerService installer;
  const testing_support::FakeSystemVersion systemVersion{
      CVDictionary{{std::string(platform::kSystemBuildVersionKey), "22A1"}}};
  CVAppMigrator::Environment environment;
  environment.configuration = configuration_.get();
  environment.installer = &installer;
  environment.registry = &installer;
  environment.systemVersion = &systemVersion;
  environment.temporaryDirectory = temporary_->directoryURL("migrator-tmp");
  const auto migrator = CVAppMigrator::create(environment);
  ASSERT_NE(migrator, nullptr) << migrationLog_.dump();

  ASSERT_TRUE(migrator->itemsToMigrate());
  EXPECT_EQ(migrator->itemsToMigrate()->size(), manifest().containers.size() + 1);  // + the note
  ASSERT_TRUE(migrator->installMap());
  ASSERT_TRUE(migrator->groupContainerMap());
  EXPECT_EQ(migrator->groupContainerMap()->count(), manifest().groupContainers.size());
  ASSERT_TRUE(migrator->harborMap());
  EXPECT_EQ(migrator->harborMap()->count(), manifest().harbors.size());

  for (const ContainerManifest& container : manifest().containers) {
    bool early = false;
    const auto record = migrator->_introspectContainer(
        CVURL::fileURLWithPath(container.containerPath, true), &early);
    ASSERT_TRUE(record) << container.containerPath << "\n" << migrationLog_.dump();
    EXPECT_EQ(early, container.containerType == "App");
    EXPECT_EQ(*record->findString("ContainerType"), container.containerType);
    EXPECT_EQ(*record->findString("BundleIdentifier"), container.identifier);
    EXPECT_EQ(*record->findString("BundlePath"), container.bundlePath);
    if (container.vpnPluginPath.empty()) {
      EXPECT_FALSE(record->contains("SecondBundlePath"));
    } else {
      ASSERT_NE(record->findString("SecondBundlePath"), nullptr);
      EXPECT_EQ(*record->findString("SecondBundlePath"), container.vpnPluginPath);
    }
    EXPECT_TRUE(pathExists(container.containerPath)) << "introspection removed it";
  }
  EXPECT_TRUE(std::any_of(manifest().containers.begin(), manifest().containers.end(),
                          [](const auto& c) { return c.containerType == "VPNBundle"; }));
}

TEST_F(ImageReadersTest, BundlesCarryTheirExecutableIconsAndEntitlements) {
  platform::IconService& icons = platform::defaultIconService();
  std::set<std::string> formats;
  for (const ContainerManifest& container : manifest().containers) {
    const auto bundle =
        platform::Bundle::create(CVURL::fileURLWithPath(container.bundlePath, true));
    ASSERT_NE(bundle, nullptr);
    const auto& info = bundle->infoDictionary();
    ASSERT_TRUE(info) << container.bundlePath;
    formats.insert(container.infoPlistFormat);
    const std::string* executable = info->findString(platform::kBundleExecutableKey);
    ASSERT_NE(executable, nullptr);
    struct stat item;
    const std::string executablePath = container.bundlePath + "/" + *executable;
    if (container.missingExecutable) {
      EXPECT_FALSE(pathExists(executablePath));
    } else {
      ASSERT_EQ(::lstat(executablePath.c_str(), &item), 0) << executablePath;
      EXPECT_EQ(item.st_mode & 0777, 0755u);
    }
    if (container.containerType != "App") continue;

    const auto icon = icons.homeScreenIconForBundle(*bundle);
    ASSERT_TRUE(icon) << container.bundlePath << "\n" << installerLog_.dump();
    EXPECT_EQ(icon->width, platform::kHomeScreenIconSide);

    // Members of groups say so in their entitlements.
    const std::string entitlementsPath = container.bundlePath + "/Entitlements.plist";
    if (!container.groups.empty()) {
      const CVDictionary entitlements = readDictionary(entitlementsPath);
      const CVArray* groups = entitlements.findArray("application-groups");
      ASSERT_NE(groups, nullptr) << entitlementsPath;
      ASSERT_EQ(groups->count(), container.groups.size());
      for (std::size_t i = 0; i < groups->count(); ++i) {
        EXPECT_EQ(*(*groups)[i].asString(), container.groups[i]);
      }
    }
  }
  EXPECT_EQ(formats, (std::set<std::string>{"binary", "xml"}));
  for (const auto& group : manifest().groupContainers) {
    for (const std::string& member : group.members) {
      const auto found = std::find_if(manifest().containers.begin(), manifest().containers.end(),
                                      [&](const auto& c) { return c.identifier == member; });
      ASSERT_NE(found, manifest().containers.end());
      EXPECT_NE(std::find(found->groups.begin(), found->groups.end(), group.identifier),
                found->groups.end());
    }
  }
}

TEST_F(ImageReadersTest, UserDataAndStoreMetadataMatchTheManifest) {
  const std::vector<std::string> userItems = configuration_->appUserDataItemNames();
  const std::vector<std::string> storeItems = configuration_->appBundleMetadataItemNames();
  for (const ContainerManifest& container : manifest().containers) {
    std::uint64_t files = 0, bytes = 0;
    for (const std::string& item : userItems) {
      const std::string path = container.containerPath + "/" + item;
      if (!pathExists(path)) continue;
      EXPECT_TRUE(fs::is_directory(path)) << path;
      for (const auto& entry : fs::recursive_directory_iterator(path)) {
        if (!entry.is_regular_file()) continue;
        ++files;
        bytes += entry.file_size();
      }
    }
    EXPECT_EQ(files, container.dataFiles) << container.containerPath;
    EXPECT_EQ(bytes, container.dataBytes) << container.containerPath;
    readDictionary(container.containerPath + "/Library/Preferences/" + container.identifier +
                   ".plist");
    if (container.containerType != "App") continue;
    EXPECT_TRUE(fs::is_directory(container.containerPath + "/Documents"));

    // The store items listed, and only those, are there.
    for (const std::string& item : storeItems) {
      const bool listed = std::find(container.storeMetadata.begin(), container.storeMetadata.end(),
                                    item) != container.storeMetadata.end();
      EXPECT_EQ(pathExists(container.containerPath + "/" + item), listed) << item;
    }
    if (!container.storeMetadata.empty()) {
      const CVDictionary record = readDictionary(container.containerPath + "/SorvikMetadata.plist");
      ASSERT_NE(record.findString("softwareVersionBundleId"), nullptr);
      EXPECT_EQ(*record.findString("softwareVersionBundleId"), container.identifier);
    }

    // Nothing at the top of a container but bundles, user data, store items
    // and the planned extra item.
    for (const auto& entry : fs::directory_iterator(container.containerPath)) {
      const std::string name = entry.path().filename().string();
      const std::string extension = entry.path().extension().string();
      const bool known =
          extension == ".app" || extension == ".vpnplugin" ||
          std::find(userItems.begin(), userItems.end(), name) != userItems.end() ||
          std::find(storeItems.begin(), storeItems.end(), name) != storeItems.end() ||
          (container.extraItem && name == "Unexpected.dat");
      EXPECT_TRUE(known) << entry.path();
    }
  }
}

}  // namespace
