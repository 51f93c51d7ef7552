// The whole pass over legacy trees that need no container migration, safe
// harbors, and what the migrator tells the host's observer of each entry.
#include <gtest/gtest.h>

#include <map>

#include "AppMigrator/ContainerClassification.h"
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

TEST_F(MigrationPassTest, AnInstallMapWithoutAGroupMapUnreadableOrMissingSaysWhy) {
  writeFile(strayNote(), "");
  image_.writePlist(image_.installMapPath(),
                    CVDictionary{{"GroupContainers", CVArray{"group.a", "group.b"}}});
  auto withArray = migrator();
  EXPECT_TRUE(withArray->installMap().has_value());
  EXPECT_FALSE(withArray->groupContainerMap().has_value());
  EXPECT_TRUE(
      logged(kLogLevelNotice, "CVAppMigrator: No group container map found in install map"));

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

  // An identifier that is not a string, an entry that is not a dictionary, one
  // without a path, and a good one.
  BinaryPlistBuilder builder;
  const std::uint32_t root = builder.reserve(), odd = builder.reserve(), noPath = builder.reserve(),
                      good = builder.reserve();
  const std::uint32_t pathKey = builder.addASCIIString("HarborPathKey");
  builder.setDictionary(odd, {pathKey}, {builder.addASCIIString("/harbor/odd")});
  builder.setDictionary(noPath, {pathKey}, {builder.addInteger(5)});
  builder.setDictionary(good, {pathKey}, {builder.addASCIIString("/harbor/c")});
  builder.setDictionary(
      root,
      {builder.addInteger(7), builder.addASCIIString("com.a.broken"),
       builder.addASCIIString("com.b.nopath"), builder.addASCIIString("com.c.good")},
      {odd, builder.addASCIIString("not a dictionary"), noPath, good});
  writeFile(harborMapPath(), bytesOf(builder, root));
  EXPECT_TRUE(migrator()->performMigration()) << log_.dump();
  ASSERT_EQ(installer_.harbors.size(), 1u);
  EXPECT_EQ(installer_.harbors[0].path, "/harbor/c");
  EXPECT_EQ(installer_.harbors[0].identifier, "com.c.good");
  EXPECT_EQ(installer_.harbors[0].containerType, 2);
  for (const std::string& message :
       {std::string("Identifier in harbor map was not string; skipping"),
        std::string("Failed to get harbor info for identifier com.a.broken")})
    EXPECT_TRUE(logged(kLogLevelError, "CVAppMigrator: " + message)) << log_.dump();
  EXPECT_TRUE(log_.containsFragment(
      "CVAppMigrator: Failed to get harbor path from harbor entry for com.b.nopath : {"));
  EXPECT_TRUE(
      logged(kLogLevelNotice, "CVAppMigrator: Migrating safe harbor for com.c.good at /harbor/c"));
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

class RecordingObserver final : public MavrelMigrationObserver {
 public:
  void migrationEntryBegan(std::string_view path, std::string_view identifier) override {
    began[std::string(path)] = std::string(identifier);
  }
  void migrationEntryStep(std::string_view path, MavrelEntryStep step) override {
    steps[std::string(path)].push_back(step);
  }
  void migrationEntryFinished(std::string_view path, const MavrelEntryResult& result) override {
    ++finishCount[std::string(path)];
    finished[std::string(path)] = result;
  }

  std::map<std::string, std::string> began;
  std::map<std::string, std::vector<MavrelEntryStep>> steps;
  std::map<std::string, MavrelEntryResult> finished;
  std::map<std::string, int> finishCount;
};

class EntryObserverTest : public MigratorTest {
 protected:
  RecordingObserver observer_;
};

TEST_F(EntryObserverTest, EveryEntryIsFinishedOnceWithItsOutcome) {
  using Outcome = MavrelEntryOutcome;
  using Step = MavrelEntryStep;
  writeFile(container("WhereDidMyApplicationsGo.txt"), "note");
  const std::string migrated = knownApplication("Good", "com.example.good");
  const std::string builtIn = knownApplication("Builtin", "com.example.builtin");
  const std::string extra = knownApplication("Extra", "com.example.extra");
  writeFile(extra + "/Unexpected.dat", "?");
  makeDirectories(container("Linked"));
  makeSymlink("/nowhere/L.app", container("Linked") + "/L.app");
  writeFile(container("Empty") + "/Documents/orphan.txt", "o");
  image_.writeBundle(container("Vpn") + "/T.vpnplugin", "com.example.unknown.vpn");
  const std::string refused = knownApplication("Refused", "com.example.refused");
  acceptInstalls("", "", "com.example.builtin", "com.example.refused");

  const auto migrator = makeMigrator(&observer_);
  ASSERT_NE(migrator, nullptr);
  EXPECT_FALSE(migrator->performMigration());

  // Path, outcome, the step that failed (of a failure), whether the container went.
  const std::tuple<std::string, Outcome, Step, bool> expected[] = {
      {container("WhereDidMyApplicationsGo.txt"), Outcome::Removed, Step::Examining, true},
      {container("Empty"), Outcome::Removed, Step::Examining, true},
      {container("Linked"), Outcome::Left, Step::Examining, false},
      {migrated, Outcome::Migrated, Step::Examining, true},
      {builtIn, Outcome::RefusedAsBuiltIn, Step::Examining, true},
      {extra, Outcome::Failed, Step::MissedItems, false},
      {container("Vpn"), Outcome::Failed, Step::BundleRecord, false},
      // A failed install comes after the data moved: the container goes all the same.
      {refused, Outcome::Failed, Step::Install, true},
  };
  EXPECT_EQ(observer_.finishCount.size(), std::size(expected));
  EXPECT_EQ(migrator->countItemsMigrated(), std::size(expected)) << "each entry counts once";
  for (const auto& [path, outcome, failedStep, removed] : expected) {
    SCOPED_TRACE(path);
    EXPECT_EQ(observer_.finishCount[path], 1);
    const MavrelEntryResult& result = observer_.finished[path];
    EXPECT_EQ(result.outcome, outcome);
    if (outcome == Outcome::Failed) {
      EXPECT_EQ(result.failedStep, failedStep);
    }
    EXPECT_EQ(result.containerRemoved, removed);
    EXPECT_EQ(pathExists(path), !removed);
  }
  // The refused application's data had moved before its install.
  EXPECT_EQ(readFile(image_.home("Containers/Data/Refused/Documents/d.txt")), "data");
  EXPECT_EQ(observer_.began.count(container("Linked")), 0u);
  EXPECT_EQ(observer_.began.at(migrated), "com.example.good");
  EXPECT_EQ(observer_.steps.at(migrated),
            (std::vector<Step>{Step::Marker, Step::BundleRecord, Step::DataMove, Step::Install,
                               Step::GroupContainers, Step::MissedItems, Step::Removal}));
}

TEST_F(EntryObserverTest, ClassificationDecidesWithoutRemovingAnything) {
  writeFile(container("File"), "a file");
  EXPECT_TRUE(CVClassifyLegacyEntry(CVURL::fileURLWithPath(container("File"), false)).removeEntry);
  EXPECT_TRUE(pathExists(container("File")));
}

}  // namespace
