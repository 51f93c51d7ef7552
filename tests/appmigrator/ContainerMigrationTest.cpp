// One legacy container carried into the current layout, through the installer
// and registry doubles: every row of the outcome table, and what the container
// holds afterwards.
#include <gtest/gtest.h>

#include "tests/appmigrator/MigratorFixture.h"

namespace {

const std::string kIdentifier = "com.example.notes";

class ContainerMigrationTest : public MigratorTest {
 protected:
  void SetUp() override {
    image_.writeBundle(bundle_, CVDictionary{{"QXBundleIdentifier", kIdentifier},
                                             {"QXBundleExecutable", "Notes"},
                                             {"QXBundleDisplayName", "Notes"}});
    writeFile(bundle_ + "/Notes", "binary", 0755);
    writeFile(container_ + "/Documents/note.txt", "dear diary");
    writeFile(container_ + "/Library/Preferences/p.plist", "prefs");
    makeDirectories(data_);
    migrator_ = makeMigrator();
    ASSERT_NE(migrator_, nullptr);
  }

  bool migrate(std::string_view type = "App") {
    return migrator_->_migrateContainerWithInfo(CVDictionary{{"ContainerPath", container_},
                                                             {"BundlePath", bundle_},
                                                             {"BundleIdentifier", kIdentifier},
                                                             {"ContainerType", std::string(type)}});
  }
  void registered() { installer_.records[kIdentifier] = record(kIdentifier, data_); }
  void accepted() { acceptInstalls(kIdentifier, data_); }

  const std::string container_ = container("C0FFEE");
  const std::string bundle_ = container_ + "/Notes.app";
  const std::string data_ = image_.home("Containers/Data/D1");
  std::unique_ptr<CVAppMigrator> migrator_;
};

TEST_F(ContainerMigrationTest, UnknownApplicationGetsPlaceholderDataInstallAndContainerRemoved) {
  accepted();
  EXPECT_TRUE(migrate()) << log_.dump();
  EXPECT_EQ(installsOfType(platform::kPackageTypePlaceholder), 1u);
  EXPECT_EQ(installsOfType(platform::kPackageTypeCustomer), 1u);
  EXPECT_EQ(readFile(data_ + "/Documents/note.txt"), "dear diary");
  EXPECT_EQ(readFile(data_ + "/Library/Preferences/p.plist"), "prefs");
  EXPECT_FALSE(pathExists(container_));
  EXPECT_TRUE(logged(kLogLevelNotice,
                     "CVAppMigrator: Removing container for " + kIdentifier + " at " + container_));
}

TEST_F(ContainerMigrationTest, KnownApplicationSkipsThePlaceholder) {
  accepted();
  registered();
  EXPECT_TRUE(migrate());
  EXPECT_EQ(installsOfType(platform::kPackageTypePlaceholder), 0u);
  EXPECT_TRUE(logged(kLogLevelNotice,
                     "CVAppMigrator: App com.example.notes is already "
                     "installed, so not creating placeholder."));
}

TEST_F(ContainerMigrationTest, VPNOnlyContainerNeverAsksForAPlaceholder) {
  accepted();
  registered();
  EXPECT_TRUE(migrate("VPNBundle"));
  EXPECT_EQ(installsOfType(platform::kPackageTypePlaceholder), 0u);
  EXPECT_FALSE(log_.containsFragment("so not creating placeholder"));
}

TEST_F(ContainerMigrationTest, FailuresBeforeTheDataMoveKeepTheContainer) {
  // The placeholder install is refused.
  EXPECT_FALSE(migrate());
  // No bundle record at all.
  EXPECT_FALSE(migrate("VPNBundle"));
  EXPECT_TRUE(logged(kLogLevelError,
                     "CVAppMigrator: Failed to get bundle proxy for identifier " + kIdentifier));
  // A record without a data container: everything the registry knew is logged.
  platform::BundleRecord withoutData = record(kIdentifier, data_);
  withoutData.dataContainerURL = CVURL();
  withoutData.foundBackingBundle = false;
  installer_.records[kIdentifier] = withoutData;
  EXPECT_FALSE(migrate());
  for (const std::string& message : {"Failed to get data container URL for " + kIdentifier,
                                     std::string("Proxy had bundle type User"),
                                     std::string("Proxy did not have backing bundle")})
    EXPECT_TRUE(logged(kLogLevelError, "CVAppMigrator: " + message)) << message;
  EXPECT_TRUE(pathExists(container_ + "/Documents/note.txt"));
  EXPECT_TRUE(pathExists(bundle_));
  // The marker was written each time, so a later pass resumes this container.
  EXPECT_TRUE(pathExists(container_ + "/com.zentrel.corvane.container_migrator.plist"));

  // A data container that is a file: nothing can be moved into it.
  accepted();
  registered();
  removeItem(data_);
  writeFile(data_, "not a directory");
  EXPECT_FALSE(migrate());
  EXPECT_EQ(installsOfType(platform::kPackageTypeCustomer), 0u);
  EXPECT_TRUE(pathExists(container_ + "/Documents/note.txt"));
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to move "));
}

TEST_F(ContainerMigrationTest, FailedInstallAfterTheDataMoveStillRemovesTheContainer) {
  registered();  // the default double refuses every install
  EXPECT_FALSE(migrate());
  EXPECT_FALSE(pathExists(container_));
  EXPECT_EQ(readFile(data_ + "/Documents/note.txt"), "dear diary");
}

TEST_F(ContainerMigrationTest, PlaceholderBundleSkipsInstallGroupsAndMissedItems) {
  accepted();
  registered();
  ASSERT_TRUE(
      CVFileManager::defaultManager().markBundleAsPlaceholder(directoryURL(bundle_), nullptr));
  writeFile(container_ + "/Unexpected.dat", "left over");
  EXPECT_TRUE(migrate());
  EXPECT_TRUE(installer_.installs.empty());
  EXPECT_FALSE(pathExists(container_));
  EXPECT_EQ(readFile(data_ + "/Documents/note.txt"), "dear diary");
}

TEST_F(ContainerMigrationTest, MissedItemsKeepTheContainerButMarkerFilesAreNoneOfThem) {
  accepted();
  registered();
  writeFile(container_ + "/Unexpected.dat", "left over");
  writeFile(container_ + "/com.zentrel.corvane.placeholder", "");
  writeFile(container_ + "/com.zentrel.corvane.migration_marker", "");
  EXPECT_FALSE(migrate());
  EXPECT_EQ(readFile(container_ + "/Unexpected.dat"), "left over");
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Found missed items in " + container_ +
                                    " for com.example.notes:"));
  EXPECT_TRUE(log_.containsFragment("Unexpected.dat"));
  EXPECT_FALSE(log_.containsFragment("com.zentrel.corvane.placeholder\""));

  removeItem(container_ + "/Unexpected.dat");
  EXPECT_FALSE(migrator_->_containerHasMissedItems(directoryURL(container_), kIdentifier));
  // A container that cannot be listed counts as holding missed items.
  EXPECT_TRUE(migrator_->_containerHasMissedItems(directoryURL(container_ + "-gone"), kIdentifier));
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to enumerate container " + container_ +
                                    "-gone for com.example.notes : "));
}

}  // namespace
