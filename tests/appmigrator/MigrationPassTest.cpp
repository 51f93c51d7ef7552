// The whole pass over legacy trees that need no container migration: set-up,
// the leftover check, removal of the legacy tree, the version record, safe
// harbors, data protection, the result and the progress figures.
#include <gtest/gtest.h>

#include "tests/appmigrator/MigratorFixture.h"

namespace {

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using namespace testing_support;

constexpr std::string_view kFinalFailureMessage =
    "CVAppMigrator: Returning migration failed. Please include the contents of "
    "/var/mobile/Library/Logs/Corvane and /var/Mobile/Library/Logs/Mavrel in a bug report.";

class MigrationPassTest : public MigratorTest {};

TEST_F(MigrationPassTest, NoLegacyTreeRunsToTheEndAndRecordsTheVersion) {
  auto migrator = makeMigrator();
  ASSERT_NE(migrator, nullptr);
  EXPECT_FALSE(migrator->itemsToMigrate().has_value());
  EXPECT_FLOAT_EQ(migrator->estimatedDuration(), 20.0f);
  EXPECT_FLOAT_EQ(migrator->migrationProgress(), 0.5f);

  EXPECT_TRUE(migrator->performMigration()) << log_.dump();

  // The whole version dictionary is recorded, not only its build.
  EXPECT_EQ(image_.readPlistDictionary(versionRecordPath()),
            systemVersion_.copySystemVersionDictionary());
  EXPECT_TRUE(
      log_.contains(kLogLevelNotice, "CVAppMigrator: Recorded current system version as 21B80"));
  // The absent legacy directory is not worth a line.
  EXPECT_FALSE(log_.containsFragment("remaining to migrate")) << log_.dump();
  ASSERT_EQ(installer_.dataProtectionRequests.size(), 1u);
  EXPECT_TRUE(installer_.dataProtectionRequests[0]
                  .find(platform::kCVUpdateSystemAppDataContainerDataProtection)
                  ->isBooleanTrue());
}

TEST_F(MigrationPassTest, EmptyLegacyDirectoryIsRemovedAtSetUp) {
  makeDirectories(image_.legacyDirectory());
  auto migrator = makeMigrator();
  ASSERT_NE(migrator, nullptr);
  EXPECT_FALSE(pathExists(image_.legacyDirectory()));
  EXPECT_FALSE(migrator->itemsToMigrate().has_value());
  EXPECT_FLOAT_EQ(migrator->estimatedDuration(), 20.0f);
  EXPECT_FLOAT_EQ(migrator->migrationProgress(), 0.5f);
  EXPECT_TRUE(migrator->performMigration());
}

TEST_F(MigrationPassTest, StrayNoteIsRemovedCountedAndTheTreeRetired) {
  writeFile(image_.legacyDirectory() + "/WhereDidMyApplicationsGo.txt", "moved");
  image_.writePlist(image_.installMapPath(), CVDictionary{{"User", CVDictionary()}});

  auto migrator = makeMigrator();
  ASSERT_NE(migrator, nullptr);
  EXPECT_TRUE(log_.contains(kLogLevelNotice, "CVAppMigrator: 1 items to migrate"));
  EXPECT_FLOAT_EQ(migrator->estimatedDuration(), 22.25f);
  EXPECT_FLOAT_EQ(migrator->migrationProgress(), 0.0f);

  EXPECT_TRUE(migrator->performMigration()) << log_.dump();
  EXPECT_EQ(migrator->countItemsMigrated(), 1u);
  EXPECT_FLOAT_EQ(migrator->migrationProgress(), 1.0f);
  EXPECT_FALSE(pathExists(image_.legacyDirectory()));
  EXPECT_FALSE(pathExists(image_.installMapPath()));
  EXPECT_TRUE(pathExists(versionRecordPath()));
  EXPECT_TRUE(log_.contains(kLogLevelNotice, "CVAppMigrator: Introspecting " +
                                                 image_.legacyDirectory() +
                                                 "/WhereDidMyApplicationsGo.txt"));
}

TEST_F(MigrationPassTest, InstallMapShapesDecideTheGroupContainerMap) {
  writeFile(image_.legacyDirectory() + "/WhereDidMyApplicationsGo.txt", "");
  image_.writePlist(image_.installMapPath(),
                    CVDictionary{{"GroupContainers", CVArray{"group.a", "group.b"}}});
  auto withArray = makeMigrator();
  ASSERT_NE(withArray, nullptr);
  EXPECT_TRUE(withArray->installMap().has_value());
  EXPECT_FALSE(withArray->groupContainerMap().has_value());
  EXPECT_TRUE(
      log_.contains(kLogLevelNotice, "CVAppMigrator: No group container map found in install map"));

  const CVDictionary groups{{"group.a", CVDictionary{{"Container", "/x/a"}}}};
  image_.writePlist(image_.installMapPath(), CVDictionary{{"GroupContainers", groups}});
  auto withDictionary = makeMigrator();
  ASSERT_NE(withDictionary, nullptr);
  EXPECT_EQ(withDictionary->groupContainerMap(), groups);

  // A key that is not a string deep inside does not lose the map.
  BinaryPlistBuilder builder;
  const std::uint32_t root = builder.reserve(), user = builder.reserve(),
                      groupMap = builder.reserve(), group = builder.reserve();
  const std::uint32_t one = builder.addInteger(1), odd = builder.addASCIIString("odd");
  builder.setDictionary(user, {one}, {odd});
  builder.setDictionary(group, {builder.addASCIIString("Container")},
                        {builder.addASCIIString("/x/a")});
  builder.setDictionary(groupMap, {builder.addASCIIString("group.a")}, {group});
  builder.setDictionary(root,
                        {builder.addASCIIString("User"), builder.addASCIIString("GroupContainers")},
                        {user, groupMap});
  const BinaryPlistBuilder::Bytes bytes = builder.build(root);
  writeFile(image_.installMapPath(), std::string(bytes.begin(), bytes.end()));
  auto withOddKey = makeMigrator();
  ASSERT_NE(withOddKey, nullptr);
  EXPECT_EQ(withOddKey->groupContainerMap(), groups);

  // A map that is there but cannot be read says why.
  writeFile(image_.installMapPath(), "neither XML nor binary");
  log_.clear();
  EXPECT_FALSE(makeMigrator()->installMap().has_value());
  EXPECT_TRUE(log_.containsFragment("The property list at " + image_.installMapPath() +
                                    " could not be read: "))
      << log_.dump();

  std::remove(image_.installMapPath().c_str());
  log_.clear();
  auto withoutMap = makeMigrator();
  ASSERT_NE(withoutMap, nullptr);
  EXPECT_FALSE(withoutMap->installMap().has_value());
  EXPECT_TRUE(log_.contains(
      kLogLevelNotice, "CVAppMigrator: Old install map not found at " + image_.installMapPath()));
}

TEST_F(MigrationPassTest, UnlistableLegacyDirectoryFailsSetUp) {
  // A regular file where the legacy directory should be cannot be listed.
  makeDirectories(image_.home());
  writeFile(image_.legacyDirectory(), "not a directory");
  EXPECT_EQ(makeMigrator(), nullptr);
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to get items at " +
                                    image_.legacyDirectory() + " : "))
      << log_.dump();
}

TEST_F(MigrationPassTest, LeftoverEntriesKeepTheTreeAndFailThePass) {
  // A container whose bundle is a symbolic link is never migrated and stays.
  const std::string container = image_.legacyDirectory() + "/ABCD";
  makeDirectories(container);
  makeSymlink("/nowhere", container + "/Foo.app");
  image_.writePlist(image_.installMapPath(), CVDictionary());

  auto migrator = makeMigrator();
  ASSERT_NE(migrator, nullptr);
  EXPECT_FALSE(migrator->performMigration());

  EXPECT_TRUE(pathExists(container));
  EXPECT_TRUE(pathExists(image_.installMapPath()));
  EXPECT_FALSE(pathExists(versionRecordPath()));
  // The message names the install map, not the directory.
  EXPECT_TRUE(log_.contains(kLogLevelError, "CVAppMigrator: Not removing " +
                                                image_.installMapPath() +
                                                " because 1 items remain unmigrated."))
      << log_.dump();
  EXPECT_TRUE(log_.contains(kLogLevelError, std::string(kFinalFailureMessage)));
  EXPECT_EQ(migrator->countItemsMigrated(), 1u);
}

TEST_F(MigrationPassTest, FailedDataProtectionUpdateFailsThePassButRetiresTheTree) {
  installer_.dataProtectionResult = false;
  writeFile(image_.legacyDirectory() + "/WhereDidMyApplicationsGo.txt", "");
  auto migrator = makeMigrator();
  ASSERT_NE(migrator, nullptr);
  EXPECT_FALSE(migrator->performMigration());
  EXPECT_TRUE(
      log_.contains(kLogLevelError, "CVAppMigrator: Failed to update container data protection"));
  EXPECT_TRUE(log_.contains(kLogLevelError, std::string(kFinalFailureMessage)));
  EXPECT_FALSE(pathExists(image_.legacyDirectory()));
  EXPECT_FALSE(pathExists(versionRecordPath()));
}

TEST_F(MigrationPassTest, PreviousVersionRecordIsReadButNeverShortCircuits) {
  image_.writePlist(versionRecordPath(), CVDictionary{{"SystemBuildVersion", "20A10"}});
  writeFile(image_.legacyDirectory() + "/WhereDidMyApplicationsGo.txt", "");
  auto migrator = makeMigrator();
  ASSERT_NE(migrator, nullptr);
  EXPECT_EQ(migrator->lastSystemBuildVersion(), "20A10");
  EXPECT_TRUE(migrator->performMigration());
  EXPECT_FALSE(pathExists(image_.legacyDirectory()));
  EXPECT_EQ(*image_.readPlistDictionary(versionRecordPath()).findString("SystemBuildVersion"),
            "21B80");
}

class SafeHarborTest : public MigrationPassTest {};

TEST_F(SafeHarborTest, EmptyMapIsDeletedWithoutRegistrations) {
  image_.writePlist(harborMapPath(), CVDictionary());
  auto migrator = makeMigrator();
  ASSERT_NE(migrator, nullptr);
  EXPECT_TRUE(migrator->_migrateSafeHarbors());
  EXPECT_TRUE(installer_.harbors.empty());
  EXPECT_FALSE(pathExists(harborMapPath()));
}

TEST_F(SafeHarborTest, MalformedEntriesAreSkippedAndGoodOnesRegistered) {
  image_.writePlist(harborMapPath(),
                    CVDictionary{{"com.a.broken", "not a dictionary"},
                                 {"com.b.nopath", CVDictionary{{"HarborPathKey", 5}}},
                                 {"com.c.good", CVDictionary{{"HarborPathKey", "/harbor/c"}}}});
  auto migrator = makeMigrator();
  ASSERT_NE(migrator, nullptr);
  EXPECT_TRUE(migrator->performMigration()) << log_.dump();

  ASSERT_EQ(installer_.harbors.size(), 1u);
  EXPECT_EQ(installer_.harbors[0].path, "/harbor/c");
  EXPECT_EQ(installer_.harbors[0].identifier, "com.c.good");
  EXPECT_EQ(installer_.harbors[0].containerType, 2);
  EXPECT_TRUE(log_.contains(
      kLogLevelError, "CVAppMigrator: Failed to get harbor info for identifier com.a.broken"));
  EXPECT_TRUE(log_.containsFragment(
      "CVAppMigrator: Failed to get harbor path from harbor entry for com.b.nopath : {"));
  EXPECT_TRUE(log_.contains(kLogLevelNotice,
                            "CVAppMigrator: Migrating safe harbor for com.c.good at /harbor/c"));
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
  const BinaryPlistBuilder::Bytes bytes = builder.build(root);
  writeFile(harborMapPath(), std::string(bytes.begin(), bytes.end()));
  auto migrator = makeMigrator();
  ASSERT_NE(migrator, nullptr);
  EXPECT_TRUE(migrator->_migrateSafeHarbors());
  ASSERT_EQ(installer_.harbors.size(), 1u);
  EXPECT_EQ(installer_.harbors[0].identifier, "com.c.good");
  EXPECT_TRUE(log_.contains(kLogLevelError,
                            "CVAppMigrator: Identifier in harbor map was not string; skipping"))
      << log_.dump();
  EXPECT_FALSE(pathExists(harborMapPath()));
}

TEST_F(SafeHarborTest, FailedRegistrationKeepsTheMapAndFailsThePass) {
  image_.writePlist(harborMapPath(),
                    CVDictionary{{"com.a", CVDictionary{{"HarborPathKey", "/harbor/a"}}},
                                 {"com.b", CVDictionary{{"HarborPathKey", "/harbor/b"}}}});
  installer_.harborHandler = [](const testing_support::HarborRegistration& registration) {
    return registration.identifier != "com.a";
  };
  auto migrator = makeMigrator();
  ASSERT_NE(migrator, nullptr);
  EXPECT_FALSE(migrator->performMigration());
  // The loop never stops early.
  EXPECT_EQ(installer_.harbors.size(), 2u);
  EXPECT_TRUE(log_.contains(
      kLogLevelError,
      "CVAppMigrator: Failed to migrate safe harbor for identifier com.a at /harbor/a : (null)"));
  EXPECT_TRUE(pathExists(harborMapPath()));
  EXPECT_FALSE(pathExists(versionRecordPath()));
}

TEST_F(SafeHarborTest, UnreadableMapIsReportedAndLeftAlone) {
  makeDirectories(image_.dataDirectory());
  writeFile(harborMapPath(), "this is not a property list");
  auto migrator = makeMigrator();
  ASSERT_NE(migrator, nullptr);
  EXPECT_FALSE(migrator->harborMap().has_value());
  EXPECT_TRUE(log_.contains(
      kLogLevelError, "CVAppMigrator: Failed to load existing harbor map from " + harborMapPath()));
  EXPECT_TRUE(migrator->performMigration());
  EXPECT_TRUE(pathExists(harborMapPath()));
}

}  // namespace
