// The whole pass over legacy trees that need no container migration: set-up,
// the leftover check, removal of the legacy tree, the version record, safe
// harbors, data protection, the result and the progress figures.
#include <gtest/gtest.h>

#include "tests/appmigrator/MigratorFixture.h"

namespace {

const std::string kFinalFailureMessage =
    "CVAppMigrator: Returning migration failed. Please include the contents of "
    "/var/mobile/Library/Logs/Corvane and /var/Mobile/Library/Logs/Mavrel in a bug report.";

std::string bytesOf(const BinaryPlistBuilder& builder, std::uint32_t root) {
  const BinaryPlistBuilder::Bytes bytes = builder.build(root);
  return std::string(bytes.begin(), bytes.end());
}

class MigrationPassTest : public MigratorTest {
 protected:
  std::string strayNote() const { return container("WhereDidMyApplicationsGo.txt"); }
  std::unique_ptr<CVAppMigrator> migrator() {
    auto migrator = makeMigrator();
    EXPECT_NE(migrator, nullptr) << log_.dump();
    return migrator;
  }
};

TEST_F(MigrationPassTest, NoOrEmptyLegacyTreeRunsToTheEndAndRecordsTheVersion) {
  for (const bool empty : {false, true}) {
    if (empty) makeDirectories(image_.legacyDirectory());
    auto subject = migrator();
    // An empty legacy directory is removed at set-up.
    EXPECT_FALSE(pathExists(image_.legacyDirectory()));
    EXPECT_FALSE(subject->itemsToMigrate().has_value());
    EXPECT_FLOAT_EQ(subject->estimatedDuration(), 20.0f);
    EXPECT_FLOAT_EQ(subject->migrationProgress(), 0.5f);
    EXPECT_TRUE(subject->performMigration()) << log_.dump();
  }
  // The whole version dictionary is recorded, not only its build.
  EXPECT_EQ(image_.readPlistDictionary(versionRecordPath()),
            systemVersion_.copySystemVersionDictionary());
  EXPECT_TRUE(logged(kLogLevelNotice, "CVAppMigrator: Recorded current system version as 21B80"));
  // The absent legacy directory is not worth a line.
  EXPECT_FALSE(log_.containsFragment("remaining to migrate")) << log_.dump();
  ASSERT_EQ(installer_.dataProtectionRequests.size(), 2u);
  EXPECT_TRUE(installer_.dataProtectionRequests[0]
                  .find(platform::kCVUpdateSystemAppDataContainerDataProtection)
                  ->isBooleanTrue());
}

TEST_F(MigrationPassTest, StrayNoteIsRemovedCountedAndTheTreeRetired) {
  // A record of an earlier version is read but never short-circuits the pass.
  image_.writePlist(versionRecordPath(), CVDictionary{{"SystemBuildVersion", "20A10"}});
  writeFile(strayNote(), "moved");
  image_.writePlist(image_.installMapPath(), CVDictionary{{"User", CVDictionary()}});
  auto subject = migrator();
  EXPECT_EQ(subject->lastSystemBuildVersion(), "20A10");
  EXPECT_TRUE(logged(kLogLevelNotice, "CVAppMigrator: 1 items to migrate"));
  EXPECT_FLOAT_EQ(subject->estimatedDuration(), 22.25f);
  EXPECT_FLOAT_EQ(subject->migrationProgress(), 0.0f);

  EXPECT_TRUE(subject->performMigration()) << log_.dump();
  EXPECT_EQ(subject->countItemsMigrated(), 1u);
  EXPECT_FLOAT_EQ(subject->migrationProgress(), 1.0f);
  EXPECT_FALSE(pathExists(image_.legacyDirectory()));
  EXPECT_FALSE(pathExists(image_.installMapPath()));
  EXPECT_EQ(*image_.readPlistDictionary(versionRecordPath()).findString("SystemBuildVersion"),
            "21B80");
  EXPECT_TRUE(logged(kLogLevelNotice, "CVAppMigrator: Introspecting " + strayNote()));
}

TEST_F(MigrationPassTest, InstallMapShapesDecideTheGroupContainerMap) {
  writeFile(strayNote(), "");
  image_.writePlist(image_.installMapPath(),
                    CVDictionary{{"GroupContainers", CVArray{"group.a", "group.b"}}});
  auto withArray = migrator();
  EXPECT_TRUE(withArray->installMap().has_value());
  EXPECT_FALSE(withArray->groupContainerMap().has_value());
  EXPECT_TRUE(
      logged(kLogLevelNotice, "CVAppMigrator: No group container map found in install map"));

  const CVDictionary groups{{"group.a", CVDictionary{{"Container", "/x/a"}}}};
  image_.writePlist(image_.installMapPath(), CVDictionary{{"GroupContainers", groups}});
  EXPECT_EQ(migrator()->groupContainerMap(), groups);

  // A key that is not a string deep inside does not lose the map.
  BinaryPlistBuilder builder;
  const std::uint32_t root = builder.reserve(), user = builder.reserve(),
                      groupMap = builder.reserve(), group = builder.reserve();
  builder.setDictionary(user, {builder.addInteger(1)}, {builder.addASCIIString("odd")});
  builder.setDictionary(group, {builder.addASCIIString("Container")},
                        {builder.addASCIIString("/x/a")});
  builder.setDictionary(groupMap, {builder.addASCIIString("group.a")}, {group});
  builder.setDictionary(root,
                        {builder.addASCIIString("User"), builder.addASCIIString("GroupContainers")},
                        {user, groupMap});
  writeFile(image_.installMapPath(), bytesOf(builder, root));
  EXPECT_EQ(migrator()->groupContainerMap(), groups);

  // A map that is there but cannot be read says why.
  writeFile(image_.installMapPath(), "neither XML nor binary");
  EXPECT_FALSE(migrator()->installMap().has_value());
  EXPECT_TRUE(log_.containsFragment("The property list at " + image_.installMapPath() +
                                    " could not be read: "))
      << log_.dump();

  std::remove(image_.installMapPath().c_str());
  EXPECT_FALSE(migrator()->installMap().has_value());
  EXPECT_TRUE(logged(kLogLevelNotice,
                     "CVAppMigrator: Old install map not found at " + image_.installMapPath()));
}

TEST_F(MigrationPassTest, UnlistableLegacyDirectoryFailsSetUp) {
  // A regular file where the legacy directory should be cannot be listed.
  writeFile(image_.legacyDirectory(), "not a directory");
  EXPECT_EQ(makeMigrator(), nullptr);
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to get items at " +
                                    image_.legacyDirectory() + " : "))
      << log_.dump();
}

TEST_F(MigrationPassTest, LeftoverEntriesKeepTheTreeAndFailThePass) {
  // A container whose bundle is a symbolic link is never migrated and stays.
  makeDirectories(container("ABCD"));
  makeSymlink("/nowhere", container("ABCD") + "/Foo.app");
  image_.writePlist(image_.installMapPath(), CVDictionary());
  auto subject = migrator();
  EXPECT_FALSE(subject->performMigration());
  EXPECT_TRUE(pathExists(container("ABCD")));
  EXPECT_TRUE(pathExists(image_.installMapPath()));
  EXPECT_FALSE(pathExists(versionRecordPath()));
  // The message names the install map, not the directory.
  EXPECT_TRUE(logged(kLogLevelError, "CVAppMigrator: Not removing " + image_.installMapPath() +
                                         " because 1 items remain unmigrated."))
      << log_.dump();
  EXPECT_TRUE(logged(kLogLevelError, kFinalFailureMessage));
  EXPECT_EQ(subject->countItemsMigrated(), 1u);
}

TEST_F(MigrationPassTest, FailedDataProtectionUpdateFailsThePassButRetiresTheTree) {
  installer_.dataProtectionResult = false;
  writeFile(strayNote(), "");
  EXPECT_FALSE(migrator()->performMigration());
  EXPECT_TRUE(logged(kLogLevelError, "CVAppMigrator: Failed to update container data protection"));
  EXPECT_TRUE(logged(kLogLevelError, kFinalFailureMessage));
  EXPECT_FALSE(pathExists(image_.legacyDirectory()));
  EXPECT_FALSE(pathExists(versionRecordPath()));
}

class SafeHarborTest : public MigrationPassTest {};

TEST_F(SafeHarborTest, MalformedEntriesAreSkippedAndGoodOnesRegistered) {
  // An empty map is deleted without registrations.
  image_.writePlist(harborMapPath(), CVDictionary());
  EXPECT_TRUE(migrator()->_migrateSafeHarbors());
  EXPECT_TRUE(installer_.harbors.empty());
  EXPECT_FALSE(pathExists(harborMapPath()));

  image_.writePlist(harborMapPath(),
                    CVDictionary{{"com.a.broken", "not a dictionary"},
                                 {"com.b.nopath", CVDictionary{{"HarborPathKey", 5}}},
                                 {"com.c.good", CVDictionary{{"HarborPathKey", "/harbor/c"}}}});
  EXPECT_TRUE(migrator()->performMigration()) << log_.dump();
  ASSERT_EQ(installer_.harbors.size(), 1u);
  EXPECT_EQ(installer_.harbors[0].path, "/harbor/c");
  EXPECT_EQ(installer_.harbors[0].identifier, "com.c.good");
  EXPECT_EQ(installer_.harbors[0].containerType, 2);
  EXPECT_TRUE(logged(kLogLevelError,
                     "CVAppMigrator: Failed to get harbor info for identifier com.a.broken"));
  EXPECT_TRUE(log_.containsFragment(
      "CVAppMigrator: Failed to get harbor path from harbor entry for com.b.nopath : {"));
  EXPECT_TRUE(
      logged(kLogLevelNotice, "CVAppMigrator: Migrating safe harbor for com.c.good at /harbor/c"));
  EXPECT_FALSE(pathExists(harborMapPath()));
}

TEST_F(SafeHarborTest, AnIdentifierThatIsNotAStringIsSkipped) {
  BinaryPlistBuilder builder;
  const std::uint32_t root = builder.reserve(), odd = builder.reserve(), good = builder.reserve();
  const std::uint32_t pathKey = builder.addASCIIString("HarborPathKey");
  builder.setDictionary(odd, {pathKey}, {builder.addASCIIString("/harbor/odd")});
  builder.setDictionary(good, {pathKey}, {builder.addASCIIString("/harbor/c")});
  builder.setDictionary(root, {builder.addInteger(7), builder.addASCIIString("com.c.good")},
                        {odd, good});
  writeFile(harborMapPath(), bytesOf(builder, root));
  EXPECT_TRUE(migrator()->_migrateSafeHarbors());
  ASSERT_EQ(installer_.harbors.size(), 1u);
  EXPECT_EQ(installer_.harbors[0].identifier, "com.c.good");
  EXPECT_TRUE(
      logged(kLogLevelError, "CVAppMigrator: Identifier in harbor map was not string; skipping"))
      << log_.dump();
  EXPECT_FALSE(pathExists(harborMapPath()));
}

TEST_F(SafeHarborTest, FailedRegistrationKeepsTheMapAndFailsThePass) {
  image_.writePlist(harborMapPath(),
                    CVDictionary{{"com.a", CVDictionary{{"HarborPathKey", "/harbor/a"}}},
                                 {"com.b", CVDictionary{{"HarborPathKey", "/harbor/b"}}}});
  installer_.harborHandler = [](const HarborRegistration& registration) {
    return registration.identifier != "com.a";
  };
  EXPECT_FALSE(migrator()->performMigration());
  // The loop never stops early.
  EXPECT_EQ(installer_.harbors.size(), 2u);
  EXPECT_TRUE(logged(kLogLevelError,
                     "CVAppMigrator: Failed to migrate safe harbor for identifier "
                     "com.a at /harbor/a : (null)"));
  EXPECT_TRUE(pathExists(harborMapPath()));
  EXPECT_FALSE(pathExists(versionRecordPath()));
}

TEST_F(SafeHarborTest, UnreadableMapIsReportedAndLeftAlone) {
  writeFile(harborMapPath(), "this is not a property list");
  auto subject = migrator();
  EXPECT_FALSE(subject->harborMap().has_value());
  EXPECT_TRUE(logged(kLogLevelError,
                     "CVAppMigrator: Failed to load existing harbor map from " + harborMapPath()));
  EXPECT_TRUE(subject->performMigration());
  EXPECT_TRUE(pathExists(harborMapPath()));
}

}  // namespace
