// One legacy container carried into the current layout, through the installer
// and registry doubles: every row of the outcome table, and what the container
// holds afterwards.
#include <gtest/gtest.h>

#include "platform/Log.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/appmigrator/MigratorFixture.h"

namespace {

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using namespace testing_support;

constexpr std::string_view kIdentifier = "com.example.notes";

class ContainerMigrationTest : public MigratorTest {
 protected:
  void SetUp() override {
    containerPath_ = container("C0FFEE");
    bundlePath_ = containerPath_ + "/Notes.app";
    image_.writeBundle(bundlePath_, CVDictionary{{"QXBundleIdentifier", std::string(kIdentifier)},
                                                 {"QXBundleExecutable", "Notes"},
                                                 {"QXBundleDisplayName", "Notes"}});
    writeFile(bundlePath_ + "/Notes", "binary", 0755);
    writeFile(containerPath_ + "/Documents/note.txt", "dear diary");
    writeFile(containerPath_ + "/Library/Preferences/p.plist", "prefs");
    dataContainerPath_ = image_.home("Containers/Data/D1");
    makeDirectories(dataContainerPath_);
    migrator_ = makeMigrator();
    ASSERT_NE(migrator_, nullptr);
  }

  CVDictionary info(std::string_view type = "App") const {
    return CVDictionary{{"ContainerPath", containerPath_},
                        {"BundlePath", bundlePath_},
                        {"BundleIdentifier", std::string(kIdentifier)},
                        {"ContainerType", std::string(type)}};
  }

  platform::BundleRecord record() const {
    platform::BundleRecord record;
    record.bundleIdentifier = std::string(kIdentifier);
    record.bundleType = "User";
    record.dataContainerURL = CVURL::fileURLWithPath(dataContainerPath_, true);
    record.foundBackingBundle = true;
    record.groupContainerURLs = CVDictionary{};
    return record;
  }

  // Placeholders register the application; customer installs take the
  // staging directory away, as the embedded installer does.
  void installerAcceptsEverything() {
    installer_.installHandler = [this](const CVURL& url, const CVDictionary& options, CVError*,
                                       const platform::InstallProgressCallback&) {
      const std::string* packageType = options.findString(platform::kPackageTypeOptionKey);
      if (packageType && *packageType == platform::kPackageTypePlaceholder) {
        installer_.records[std::string(kIdentifier)] = record();
      } else {
        CVFileManager::defaultManager().removeItemAtURL(url, nullptr);
      }
      return true;
    };
  }

  std::size_t installsOfType(std::string_view packageType) const {
    std::size_t count = 0;
    for (const auto& request : installer_.installs) {
      const std::string* type = request.options.findString(platform::kPackageTypeOptionKey);
      if (type && *type == packageType) ++count;
    }
    return count;
  }

  std::string containerPath_;
  std::string bundlePath_;
  std::string dataContainerPath_;
  std::unique_ptr<CVAppMigrator> migrator_;
};

TEST_F(ContainerMigrationTest, UnknownApplicationGetsPlaceholderDataInstallAndContainerRemoved) {
  installerAcceptsEverything();
  EXPECT_TRUE(migrator_->_migrateContainerWithInfo(info())) << log_.dump();

  EXPECT_EQ(installsOfType(platform::kPackageTypePlaceholder), 1u);
  EXPECT_EQ(installsOfType(platform::kPackageTypeCustomer), 1u);
  EXPECT_EQ(readFile(dataContainerPath_ + "/Documents/note.txt"), "dear diary");
  EXPECT_EQ(readFile(dataContainerPath_ + "/Library/Preferences/p.plist"), "prefs");
  EXPECT_FALSE(pathExists(containerPath_));
  EXPECT_TRUE(log_.contains(kLogLevelNotice, "CVAppMigrator: Removing container for " +
                                                 std::string(kIdentifier) + " at " +
                                                 containerPath_));
}

TEST_F(ContainerMigrationTest, KnownApplicationSkipsThePlaceholder) {
  installerAcceptsEverything();
  installer_.records[std::string(kIdentifier)] = record();
  EXPECT_TRUE(migrator_->_migrateContainerWithInfo(info()));
  EXPECT_EQ(installsOfType(platform::kPackageTypePlaceholder), 0u);
  EXPECT_TRUE(log_.contains(kLogLevelNotice,
                            "CVAppMigrator: App com.example.notes is already "
                            "installed, so not creating placeholder."));
}

TEST_F(ContainerMigrationTest, VPNOnlyContainerNeverMakesAPlaceholder) {
  installerAcceptsEverything();
  installer_.records[std::string(kIdentifier)] = record();
  EXPECT_TRUE(migrator_->_migrateContainerWithInfo(info("VPNBundle")));
  EXPECT_EQ(installsOfType(platform::kPackageTypePlaceholder), 0u);
  EXPECT_FALSE(log_.containsFragment("so not creating placeholder"));
}

TEST_F(ContainerMigrationTest, FailuresBeforeTheDataMoveKeepTheContainer) {
  // The placeholder install is refused.
  EXPECT_FALSE(migrator_->_migrateContainerWithInfo(info()));
  EXPECT_TRUE(pathExists(containerPath_ + "/Documents/note.txt"));

  // No bundle record at all.
  EXPECT_FALSE(migrator_->_migrateContainerWithInfo(info("VPNBundle")));
  EXPECT_TRUE(log_.contains(kLogLevelError,
                            "CVAppMigrator: Failed to get bundle proxy for identifier "
                            "com.example.notes"));

  // A record without a data container: everything the registry knew is logged.
  platform::BundleRecord withoutData = record();
  withoutData.dataContainerURL = CVURL();
  withoutData.foundBackingBundle = false;
  installer_.records[std::string(kIdentifier)] = withoutData;
  EXPECT_FALSE(migrator_->_migrateContainerWithInfo(info()));
  EXPECT_TRUE(log_.contains(kLogLevelError,
                            "CVAppMigrator: Failed to get data container URL for "
                            "com.example.notes"));
  EXPECT_TRUE(log_.contains(kLogLevelError, "CVAppMigrator: Proxy had bundle type User"));
  EXPECT_TRUE(log_.contains(kLogLevelError, "CVAppMigrator: Proxy did not have backing bundle"));

  EXPECT_TRUE(pathExists(containerPath_ + "/Documents/note.txt"));
  EXPECT_TRUE(pathExists(bundlePath_));
  // The marker was written each time, so a later pass resumes this container.
  EXPECT_TRUE(pathExists(containerPath_ + "/com.zentrel.corvane.container_migrator.plist"));
}

TEST_F(ContainerMigrationTest, FailedDataMoveKeepsTheContainer) {
  installerAcceptsEverything();
  installer_.records[std::string(kIdentifier)] = record();
  // A data container that is a file: nothing can be moved into it.
  CVFileManager::defaultManager().removeItemAtURL(CVURL::fileURLWithPath(dataContainerPath_, true),
                                                  nullptr);
  writeFile(dataContainerPath_, "not a directory");

  EXPECT_FALSE(migrator_->_migrateContainerWithInfo(info()));
  EXPECT_EQ(installsOfType(platform::kPackageTypeCustomer), 0u);
  EXPECT_TRUE(pathExists(containerPath_ + "/Documents/note.txt"));
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to move "));
}

TEST_F(ContainerMigrationTest, FailedInstallAfterTheDataMoveStillRemovesTheContainer) {
  installer_.records[std::string(kIdentifier)] = record();
  // The default double refuses every install.
  EXPECT_FALSE(migrator_->_migrateContainerWithInfo(info()));
  EXPECT_FALSE(pathExists(containerPath_));
  EXPECT_EQ(readFile(dataContainerPath_ + "/Documents/note.txt"), "dear diary");
}

TEST_F(ContainerMigrationTest, PlaceholderBundleSkipsInstallGroupsAndMissedItems) {
  installerAcceptsEverything();
  installer_.records[std::string(kIdentifier)] = record();
  ASSERT_TRUE(CVFileManager::defaultManager().markBundleAsPlaceholder(
      CVURL::fileURLWithPath(bundlePath_, true), nullptr));
  writeFile(containerPath_ + "/Unexpected.dat", "left over");

  EXPECT_TRUE(migrator_->_migrateContainerWithInfo(info()));
  EXPECT_TRUE(installer_.installs.empty());
  EXPECT_FALSE(pathExists(containerPath_));
  EXPECT_EQ(readFile(dataContainerPath_ + "/Documents/note.txt"), "dear diary");
}

TEST_F(ContainerMigrationTest, MissedItemsKeepTheContainer) {
  installerAcceptsEverything();
  installer_.records[std::string(kIdentifier)] = record();
  writeFile(containerPath_ + "/Unexpected.dat", "left over");
  writeFile(containerPath_ + "/com.zentrel.corvane.placeholder", "");
  writeFile(containerPath_ + "/com.zentrel.corvane.migration_marker", "");

  EXPECT_FALSE(migrator_->_migrateContainerWithInfo(info()));
  EXPECT_EQ(readFile(containerPath_ + "/Unexpected.dat"), "left over");
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Found missed items in " + containerPath_ +
                                    " for com.example.notes:"));
  EXPECT_TRUE(log_.containsFragment("Unexpected.dat"));
  EXPECT_FALSE(log_.containsFragment("com.zentrel.corvane.placeholder\""));
}

TEST_F(ContainerMigrationTest, OnlyMarkerFilesLeftIsNoMissedItem) {
  writeFile(containerPath_ + "/com.zentrel.corvane.placeholder", "");
  writeFile(containerPath_ + "/com.zentrel.corvane.migration_marker", "");
  writeFile(containerPath_ + "/com.zentrel.corvane.container_migrator.plist", "");
  CVFileManager& fileManager = CVFileManager::defaultManager();
  for (const char* name : {"/Notes.app", "/Documents", "/Library"}) {
    ASSERT_TRUE(
        fileManager.removeItemAtURL(CVURL::fileURLWithPath(containerPath_ + name, true), nullptr));
  }
  const CVURL containerURL = CVURL::fileURLWithPath(containerPath_, true);
  EXPECT_FALSE(migrator_->_containerHasMissedItems(containerURL, std::string(kIdentifier)));

  // A container that cannot be listed counts as holding missed items.
  const CVURL missingURL = CVURL::fileURLWithPath(containerPath_ + "-gone", true);
  EXPECT_TRUE(migrator_->_containerHasMissedItems(missingURL, std::string(kIdentifier)));
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to enumerate container " +
                                    containerPath_ + "-gone for com.example.notes : "));
}

}  // namespace
