// The whole pass over legacy trees that need no container migration, safe
// harbors, what the migrator tells the host's observer of each entry, the
// classification of legacy entries and the migration marker, whose type
// decides the order of the work list.
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
  // A regular file where the legacy directory should be cannot be listed.
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
  EXPECT_EQ(observer_.finished.size(), std::size(expected));
  EXPECT_EQ(migrator->countItemsMigrated(), std::size(expected)) << "each entry counts once";
  for (const auto& [path, outcome, failedStep, removed] : expected) {
    SCOPED_TRACE(path);
    ASSERT_EQ(observer_.finished[path].size(), 1u);
    const MavrelEntryResult& result = observer_.finished[path][0];
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

  std::unique_ptr<CVAppMigrator> migrator_;
};

// A plug-in alone is announced and is the only bundle of its record.
TEST_F(ContainerIntrospectionTest, APluginAloneIsTheOnlyBundleOfItsRecord) {
  image_.writeBundle(container("V") + "/Bar.vpnplugin", "com.example.bar");
  const auto record = introspect("V");
  ASSERT_TRUE(record.has_value());
  EXPECT_FALSE(record->contains("SecondBundlePath"));
  EXPECT_TRUE(logged(kLogLevelNotice, "Found vpn plugin " + container("V") + "/Bar.vpnplugin"));
}

// Entries that give no record: removed when nothing in them can be migrated,
// left when a link makes them suspect; each says why.
TEST_F(ContainerIntrospectionTest, EntriesWithoutARecordAreRemovedOrLeftWithTheirMessage) {
  const std::string real = image_.rootPath() + "/Real.app";
  image_.writeBundle(real, "com.example.real");
  const std::string marker = "/com.zentrel.corvane.container_migrator.plist";
  struct Case {
    std::string name;
    std::function<void(const std::string& path)> make;
    bool stays;
    int level;
    std::string message;  // "" when none is checked
  };
  const std::vector<Case> cases = {
      // The extension test is case-sensitive.
      {"Upper", [&](auto& p) { image_.writeBundle(p + "/Foo.APP", "com.example.upper"); }, false, 0,
       ""},
      {"NoId",
       [&](auto& p) {
         image_.writeBundle(p + "/Foo.app", CVDictionary{{"QXBundleName", "Foo"}});
       },
       false, kLogLevelError,
       "Could not get identifier for bundle at " + container("NoId") + "/Foo.app"},
      {"NoId2", [&](auto& p) { image_.writeBundle(p + "/Foo.app", CVDictionary{}); }, false,
       kLogLevelError,
       "No app or vpn bundle found in container " + container("NoId2") + " ; removing it"},
      {"Bad",
       [](auto& p) {
         writeFile(p + "/Foo.app/Info.plist", "bplist00\xff\xff garbage");
         makeDirectories(p + "/Documents");
       },
       false, 0, ""},
      {"stray.bin", [](auto& p) { writeFile(p, "x"); }, false, kLogLevelError,
       "Found regular file at " + container("stray.bin") + " ; removing"},
      {"Gone", [](auto&) {}, false, kLogLevelNotice,
       "Got ENOENT when introspecting " + container("Gone") +
           " ; ignoring (likely raced with corvaned)"},
      {"LinkedApp",
       [&](auto& p) {
         makeDirectories(p + "/Documents");
         makeSymlink(real, p + "/Foo.app");
       },
       true, kLogLevelError,
       "Skipping container with app symlink at " + container("LinkedApp") + "/Foo.app"},
      {"LinkedPlugin",
       [&](auto& p) {
         image_.writeBundle(p + "/Foo.app", "com.example.foo");
         makeSymlink(real, p + "/Bar.vpnplugin");
       },
       true, kLogLevelError,
       "VPN plugin was symlink; skipping container " + container("LinkedPlugin") +
           "/Bar.vpnplugin"},
      {"LinkedMarker",
       [&](auto& p) {
         makeDirectories(p);
         makeSymlink(real + "/Info.plist", p + marker);
       },
       true, kLogLevelError,
       "Migration marker was symlink; skipping container " + container("LinkedMarker") + marker},
      {"Unloadable",
       [&](auto& p) {
         image_.writeBundle(p + "/Foo.app", "com.example.foo");
         image_.writePlist(p + marker, CVArray{"not", "a", "dictionary"});
       },
       true, kLogLevelError,
       "Failed to load migration marker file from file://" + container("Unloadable") + marker},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.make(container(c.name));
    EXPECT_FALSE(introspect(c.name).has_value());
    EXPECT_EQ(pathExists(container(c.name)), c.stays);
    if (!c.message.empty()) {
      EXPECT_TRUE(logged(c.level, c.message)) << log_.dump();
    }
  }
  // The target of the linked bundle was never touched.
  EXPECT_TRUE(pathExists(real + "/Info.plist"));
  EXPECT_TRUE(pathExists(container("Unloadable") + "/Foo.app"));
}

TEST_F(ContainerIntrospectionTest, MarkerWinsOverTheScanAndItsTypeDecidesTheOrder) {
  CVDictionary saved = markerRecord("M", "Gone.app");
  saved.set("Extra", 42);
  makeDirectories(container("M"));
  migrator_->_writeMigrationMarker(saved, directoryURL(container("M")));
  image_.writeBundle(container("M") + "/Other.app", "com.example.other");
  bool early = false;
  // Returned as read, extra keys included, though its bundle is gone.
  EXPECT_EQ(introspect("M", &early), saved) << log_.dump();
  EXPECT_TRUE(early);

  image_.writePlist(markerPath("M"), markerRecord("M", "b.app", "Whatever"));
  ASSERT_TRUE(introspect("M", &early).has_value());
  EXPECT_FALSE(early);
}

// Each malformed marker reports the first check it fails, and only that one.
TEST_F(ContainerIntrospectionTest, MarkerChecksRunInOrder) {
  const std::string marker = image_.rootPath() + "/marker.plist";
  const std::string from = " from migration marker file " + marker;
  const std::pair<CVDictionary, std::string> cases[] = {
      {{{"ContainerPath", "/c"}, {"BundleIdentifier", "x"}}, "Failed to get bundle path" + from},
      {{{"BundlePath", "/b"}, {"ContainerPath", "/c"}, {"BundleIdentifier", "x"}},
       "Failed to get container type" + from},
      {{{"BundlePath", "/b"}, {"ContainerType", "App"}, {"BundleIdentifier", "x"}},
       "Failed to get container path" + from},
      {{{"BundlePath", "/b"}, {"ContainerType", "App"}, {"ContainerPath", 3}},
       "Failed to get container path" + from},
      {{{"BundlePath", "/b"}, {"ContainerType", "App"}, {"ContainerPath", "/c"}},
       "Failed to get container bundle ID" + from},
      {{{"BundlePath", "/b"},
        {"ContainerType", "App"},
        {"ContainerPath", "/c"},
        {"BundleIdentifier", "x"},
        {"SecondBundlePath", 7}},
       "Second bundle path was not a string: 7"},
  };
  for (const auto& [content, message] : cases) {
    image_.writePlist(marker, content);
    log_.clear();
    const CVURL url = CVURL::fileURLWithPath(marker, false);
    EXPECT_FALSE(migrator_->_loadAndValidateMigrationMarkerAtURL(url).has_value());
    ASSERT_EQ(log_.count(), 1u) << log_.dump();
    EXPECT_TRUE(logged(kLogLevelError, message)) << log_.dump();
  }
}

// The marker stores device paths, so a copied or moved image resumes; it is
// read back as the record stood.
TEST_F(ContainerIntrospectionTest, MarkerIsWrittenWithDevicePathsAndReadBackAsTheRecordStood) {
  CVDictionary info = markerRecord("W", "Foo.app");
  info.set("SecondBundlePath", container("W") + "/Bar.vpnplugin");
  makeDirectories(container("W"));
  migrator_->_writeMigrationMarker(info, directoryURL(container("W")));
  const std::string device = "/private/var/mobile/Applications/W";
  EXPECT_EQ(image_.readPlistDictionary(markerPath("W")),
            (CVDictionary{{"ContainerPath", device},
                          {"BundlePath", device + "/Foo.app"},
                          {"SecondBundlePath", device + "/Bar.vpnplugin"},
                          {"BundleIdentifier", "com.example.foo"},
                          {"ContainerType", "App"}}));
  // Nothing is left aside.
  EXPECT_EQ(entriesOf(container("W")),
            std::vector<std::string>{"com.zentrel.corvane.container_migrator.plist"});
  EXPECT_EQ(introspect("W"), info);

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
    const auto record = introspect("M");
    ASSERT_EQ(record.has_value(), loaded) << log_.dump();
    if (loaded) {
      EXPECT_EQ(*record, markerRecord("M", "Foo.app"));
    } else {
      EXPECT_TRUE(log_.containsFragment("does not describe its container")) << log_.dump();
      EXPECT_TRUE(pathExists(container("M") + "/Foo.app"));
    }
  }
}

}  // namespace
