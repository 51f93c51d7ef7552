// The whole pass over legacy trees that need no container migration, safe harbors, what the
// host's observer is told of each entry, the classification of entries and the migration marker.
#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "AppMigrator/ContainerClassification.h"
#include "tests/appmigrator/MigratorFixture.h"

namespace {

const std::string kFinalFailureMessage =
    "Returning migration failed. Please include the contents of "
    "/var/mobile/Library/Logs/Corvane and /var/Mobile/Library/Logs/Mavrel in a bug report.";

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
  EXPECT_TRUE(logged(kLogLevelNotice, "Recorded current system version as 21B80"));
  const std::string protect(platform::kCVUpdateSystemAppDataContainerDataProtection);
  EXPECT_EQ(installer_.dataProtectionRequests, std::vector(2, CVDictionary{{protect, true}}));
}

TEST_F(MigrationPassTest, StrayNoteIsRemovedCountedAndTheTreeRetired) {
  // A record of an earlier version is read but never short-circuits the pass.
  image_.writePlist(versionRecordPath(), CVDictionary{{"SystemBuildVersion", "20A10"}});
  writeFile(strayNote(), "moved");
  image_.writePlist(image_.installMapPath(), CVDictionary{{"User", CVDictionary()}});
  auto subject = migrator();
  EXPECT_EQ(subject->lastSystemBuildVersion(), "20A10");
  EXPECT_TRUE(logged(kLogLevelNotice, "1 items to migrate"));
  EXPECT_FLOAT_EQ(subject->estimatedDuration(), 22.25f);
  EXPECT_FLOAT_EQ(subject->migrationProgress(), 0.0f);

  EXPECT_TRUE(subject->performMigration()) << log_.dump();
  EXPECT_EQ(subject->countItemsMigrated(), 1u);
  EXPECT_FLOAT_EQ(subject->migrationProgress(), 1.0f);
  EXPECT_FALSE(pathExists(image_.legacyDirectory()));
  EXPECT_FALSE(pathExists(image_.installMapPath()));
  EXPECT_EQ(*image_.readPlistDictionary(versionRecordPath()).findString("SystemBuildVersion"),
            "21B80");
  EXPECT_TRUE(logged(kLogLevelNotice, "Introspecting " + strayNote()));
}

TEST_F(MigrationPassTest, AnInstallMapWithoutAGroupMapUnreadableOrMissingSaysWhy) {
  writeFile(strayNote(), "");
  image_.writePlist(image_.installMapPath(),
                    CVDictionary{{"GroupContainers", CVArray{"group.a", "group.b"}}});
  auto withArray = migrator();
  EXPECT_TRUE(withArray->installMap().has_value());
  EXPECT_FALSE(withArray->groupContainerMap().has_value());
  EXPECT_TRUE(logged(kLogLevelNotice, "No group container map found in install map"));

  // A map that is there but cannot be read says why.
  writeFile(image_.installMapPath(), "neither XML nor binary");
  EXPECT_FALSE(migrator()->installMap().has_value());
  EXPECT_TRUE(log_.containsFragment("The property list at " + image_.installMapPath() +
                                    " could not be read: "))
      << log_.dump();

  std::remove(image_.installMapPath().c_str());
  EXPECT_FALSE(migrator()->installMap().has_value());
  EXPECT_TRUE(logged(kLogLevelNotice, "Old install map not found at " + image_.installMapPath()));
}

TEST_F(MigrationPassTest, UnlistableLegacyDirectoryFailsSetUp) {
  writeFile(image_.legacyDirectory(), "not a directory");
  EXPECT_EQ(makeMigrator(), nullptr);
  EXPECT_TRUE(loggedFragment("Failed to get items at " + image_.legacyDirectory() + " : "))
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
  EXPECT_TRUE(logged(kLogLevelError, "Not removing " + image_.installMapPath() +
                                         " because 1 items remain unmigrated."))
      << log_.dump();
  EXPECT_TRUE(logged(kLogLevelError, kFinalFailureMessage));
  EXPECT_EQ(subject->countItemsMigrated(), 1u);
}

TEST_F(MigrationPassTest, FailedDataProtectionUpdateFailsThePassButRetiresTheTree) {
  installer_.dataProtectionResult = false;
  writeFile(strayNote(), "");
  EXPECT_FALSE(migrator()->performMigration());
  EXPECT_TRUE(logged(kLogLevelError, "Failed to update container data protection"));
  EXPECT_TRUE(logged(kLogLevelError, kFinalFailureMessage));
  EXPECT_FALSE(pathExists(image_.legacyDirectory()));
  EXPECT_FALSE(pathExists(versionRecordPath()));
}

class SafeHarborTest : public MigrationPassTest {};

TEST_F(SafeHarborTest, MalformedEntriesAreSkippedAndGoodOnesRegistered) {
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
  const BinaryPlistBuilder::Bytes bytes = builder.build(root);
  writeFile(harborMapPath(), std::string(bytes.begin(), bytes.end()));
  EXPECT_TRUE(migrator()->performMigration()) << log_.dump();
  ASSERT_EQ(installer_.harbors.size(), 1u);
  EXPECT_EQ(std::tie(installer_.harbors[0].path, installer_.harbors[0].identifier,
                     installer_.harbors[0].containerType),
            std::tuple("/harbor/c", "com.c.good", 2));
  for (const char* message : {"Identifier in harbor map was not string; skipping",
                              "Failed to get harbor info for identifier com.a.broken"})
    EXPECT_TRUE(logged(kLogLevelError, message)) << log_.dump();
  EXPECT_TRUE(loggedFragment("Failed to get harbor path from harbor entry for com.b.nopath : {"));
  EXPECT_TRUE(logged(kLogLevelNotice, "Migrating safe harbor for com.c.good at /harbor/c"));
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
                     "Failed to migrate safe harbor for identifier com.a at /harbor/a : (null)"));
  EXPECT_TRUE(pathExists(harborMapPath()));
  EXPECT_FALSE(pathExists(versionRecordPath()));
}

TEST_F(SafeHarborTest, UnreadableMapIsReportedAndLeftAlone) {
  writeFile(harborMapPath(), "this is not a property list");
  auto subject = migrator();
  EXPECT_FALSE(subject->harborMap().has_value());
  EXPECT_TRUE(logged(kLogLevelError, "Failed to load existing harbor map from " + harborMapPath()));
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
    finished[std::string(path)].push_back(result);
  }

  std::map<std::string, std::string> began;
  std::map<std::string, std::vector<MavrelEntryStep>> steps;
  std::map<std::string, std::vector<MavrelEntryResult>> finished;
};

using EntryObserverTest = MigratorTest;

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

  RecordingObserver observer;
  const auto migrator = makeMigrator(&observer);
  ASSERT_NE(migrator, nullptr);
  EXPECT_FALSE(migrator->performMigration());

  // Path, outcome, the step that failed (Examining unless failed), whether the container went.
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
  EXPECT_EQ(observer.finished.size(), std::size(expected));
  EXPECT_EQ(migrator->countItemsMigrated(), std::size(expected)) << "each entry counts once";
  for (const auto& [path, outcome, failedStep, removed] : expected) {
    SCOPED_TRACE(path);
    ASSERT_EQ(observer.finished[path].size(), 1u);
    const MavrelEntryResult& result = observer.finished[path][0];
    EXPECT_EQ(
        std::tuple(result.outcome, result.failedStep, result.containerRemoved, pathExists(path)),
        std::tuple(outcome, failedStep, removed, !removed));
  }
  // The refused application's data had moved before its install.
  EXPECT_EQ(readFile(image_.home("Containers/Data/Refused/Documents/d.txt")), "data");
  EXPECT_EQ(observer.began.count(container("Linked")), 0u);
  EXPECT_EQ(observer.began.at(migrated), "com.example.good");
  EXPECT_EQ(observer.steps.at(migrated),
            (std::vector<Step>{Step::Marker, Step::BundleRecord, Step::DataMove, Step::Install,
                               Step::GroupContainers, Step::MissedItems, Step::Removal}));
}

TEST_F(EntryObserverTest, ClassificationDecidesWithoutRemovingAnything) {
  writeFile(container("File"), "a file");
  EXPECT_TRUE(CVClassifyLegacyEntry(CVURL::fileURLWithPath(container("File"), false)).removeEntry);
  EXPECT_TRUE(pathExists(container("File")));
}

class ContainerIntrospectionTest : public MigratorTest {
 protected:
  void SetUp() override {
    makeDirectories(image_.legacyDirectory());
    migrator_ = makeMigrator();
    ASSERT_NE(migrator_, nullptr);
  }

  std::optional<CVDictionary> introspect(std::string_view name, bool* early = nullptr) {
    bool ignored = false;
    return migrator_->_introspectContainer(directoryURL(container(name)), early ? early : &ignored);
  }

  CVDictionary markerRecord(std::string_view name, const std::string& bundle,
                            std::string_view type = "App") const {
    return CVDictionary{{"ContainerPath", container(name)},
                        {"BundlePath", container(name) + "/" + bundle},
                        {"BundleIdentifier", "com.example.foo"},
                        {"ContainerType", std::string(type)}};
  }
};

TEST_F(ContainerIntrospectionTest, APluginAloneIsTheOnlyBundleOfItsRecord) {
  image_.writeBundle(container("V") + "/Bar.vpnplugin", "com.example.bar");
  const auto record = introspect("V");
  ASSERT_TRUE(record.has_value());
  EXPECT_FALSE(record->contains("SecondBundlePath"));
  EXPECT_TRUE(logged(kLogLevelNotice, "Found vpn plugin " + container("V") + "/Bar.vpnplugin"));
}

// Entries that give no record: removed when nothing in them can be migrated,
// left when a link makes them suspect; each says why ("@" is the entry's path).
TEST_F(ContainerIntrospectionTest, EntriesWithoutARecordAreRemovedOrLeftWithTheirMessage) {
  const std::string real = image_.rootPath() + "/Real.app";
  image_.writeBundle(real, "com.example.real");
  const std::string marker = "/com.zentrel.corvane.container_migrator.plist";
  struct Case {
    std::string name;
    bool stays;
    std::function<void(const std::string& path)> make;
    int level = 0;
    std::string message = "";  // none checked when empty
  };
  const std::vector<Case> cases = {
      // The extension test is case-sensitive.
      {"Upper", false, [&](auto& p) { image_.writeBundle(p + "/Foo.APP", "com.example.upper"); }},
      {"NoId", false,
       [&](auto& p) {
         image_.writeBundle(p + "/Foo.app", CVDictionary{{"QXBundleName", "Foo"}});
       },
       kLogLevelError, "Could not get identifier for bundle at @/Foo.app"},
      {"NoId2", false, [&](auto& p) { image_.writeBundle(p + "/Foo.app", CVDictionary{}); },
       kLogLevelError, "No app or vpn bundle found in container @ ; removing it"},
      {"Bad", false,
       [](auto& p) {
         writeFile(p + "/Foo.app/Info.plist", "bplist00\xff\xff garbage");
         makeDirectories(p + "/Documents");
       }},
      {"stray.bin", false, [](auto& p) { writeFile(p, "x"); }, kLogLevelError,
       "Found regular file at @ ; removing"},
      {"Gone", false, [](auto&) {}, kLogLevelNotice,
       "Got ENOENT when introspecting @ ; ignoring (likely raced with corvaned)"},
      {"LinkedApp", true,
       [&](auto& p) {
         makeDirectories(p + "/Documents");
         makeSymlink(real, p + "/Foo.app");
       },
       kLogLevelError, "Skipping container with app symlink at @/Foo.app"},
      {"LinkedPlugin", true,
       [&](auto& p) {
         image_.writeBundle(p + "/Foo.app", "com.example.foo");
         makeSymlink(real, p + "/Bar.vpnplugin");
       },
       kLogLevelError, "VPN plugin was symlink; skipping container @/Bar.vpnplugin"},
      {"LinkedMarker", true,
       [&](auto& p) {
         makeDirectories(p);
         makeSymlink(real + "/Info.plist", p + marker);
       },
       kLogLevelError, "Migration marker was symlink; skipping container @" + marker},
      {"Unloadable", true,
       [&](auto& p) {
         image_.writeBundle(p + "/Foo.app", "com.example.foo");
         image_.writePlist(p + marker, CVArray{"not", "a", "dictionary"});
       },
       kLogLevelError, "Failed to load migration marker file from file://@" + marker},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = container(c.name);
    c.make(path);
    EXPECT_FALSE(introspect(c.name).has_value());
    EXPECT_EQ(pathExists(path), c.stays);
    const std::size_t at = c.message.find('@');
    EXPECT_TRUE(c.message.empty() || logged(c.level, std::string(c.message).replace(at, 1, path)))
        << log_.dump();
  }
  // The target of the linked bundle was never touched.
  EXPECT_TRUE(pathExists(real + "/Info.plist"));
  EXPECT_TRUE(pathExists(container("Unloadable") + "/Foo.app"));
}

// The marker stores device paths, so a copied or moved image resumes. It
// wins over the scan and is read back as the record stood, extra keys
// included, though its bundle is gone; its type decides the order.
TEST_F(ContainerIntrospectionTest, MarkerIsWrittenWithDevicePathsAndWinsOverTheScan) {
  CVDictionary info = markerRecord("W", "Foo.app");
  info.set("SecondBundlePath", container("W") + "/Bar.vpnplugin");
  info.set("Extra", 42);
  makeDirectories(container("W"));
  migrator_->_writeMigrationMarker(info, directoryURL(container("W")));
  const std::string device = "/private/var/mobile/Applications/W";
  EXPECT_EQ(image_.readPlistDictionary(markerPath("W")),
            (CVDictionary{{"ContainerPath", device},
                          {"BundlePath", device + "/Foo.app"},
                          {"SecondBundlePath", device + "/Bar.vpnplugin"},
                          {"BundleIdentifier", "com.example.foo"},
                          {"ContainerType", "App"},
                          {"Extra", 42}}));
  // No temporary file is left beside it.
  EXPECT_EQ(entriesOf(container("W")),
            std::vector<std::string>{"com.zentrel.corvane.container_migrator.plist"});
  image_.writeBundle(container("W") + "/Other.app", "com.example.other");
  bool early = false;
  EXPECT_EQ(introspect("W", &early), info) << log_.dump();
  EXPECT_TRUE(early);
  image_.writePlist(markerPath("W"), markerRecord("W", "b.app", "Whatever"));
  ASSERT_TRUE(introspect("W", &early).has_value());
  EXPECT_FALSE(early);

  migrator_->_writeMigrationMarker(info, directoryURL(container("Missing")));
  EXPECT_TRUE(logged(
      kLogLevelError,
      "Failed to write out container marker dictionary... hopefully we don't need it to recover."));
}

// A marker describes the container it lies in, whatever form its paths take;
// one that names another place is not loaded, and the container is left.
TEST_F(ContainerIntrospectionTest, MarkerPathsMustDescribeItsOwnContainer) {
  const std::string apps = "/private/var/mobile/Applications";
  const std::tuple<std::string, std::string, bool> cases[] = {
      {apps + "/M", apps + "/M/Foo.app", true},
      {"/var/mobile/Applications/M", "/var/mobile/Applications/M/Foo.app", true},
      {container("M"), container("M") + "/Foo.app", true},
      {"/", apps + "/M/Foo.app", false},
      {"/private/var/mobile", apps + "/M/Foo.app", false},
      {"/private/var/mobile/Containers/Data", apps + "/M/Foo.app", false},
      {apps + "/N", apps + "/N/Foo.app", false},
      {apps + "/M", apps + "/N/Foo.app", false},
      {apps + "/M", apps + "/M/../N/Foo.app", false},
      {apps + "/M", apps + "/M", false},
      {apps + "/M", "Foo.app", false},
  };
  for (const auto& [containerPath, bundlePath, loaded] : cases) {
    SCOPED_TRACE(containerPath + " " + bundlePath);
    image_.writeBundle(container("M") + "/Foo.app", "com.example.foo");
    image_.writePlist(markerPath("M"), CVDictionary{{"ContainerPath", containerPath},
                                                    {"BundlePath", bundlePath},
                                                    {"BundleIdentifier", "com.example.foo"},
                                                    {"ContainerType", "App"}});
    log_.clear();
    EXPECT_EQ(introspect("M").value_or(CVDictionary()),
              loaded ? markerRecord("M", "Foo.app") : CVDictionary());
    EXPECT_EQ(log_.containsFragment("does not describe its container"), !loaded) << log_.dump();
    EXPECT_TRUE(pathExists(container("M") + "/Foo.app"));
  }
}

}  // namespace
