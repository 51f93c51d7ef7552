// Staged and placeholder installs through the installer double, and one legacy container carried
// into the current layout with its user data and group containers.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "platform/Bundle.h"
#include "tests/appmigrator/MigratorFixture.h"
#include "tests/support/ChildProgram.h"

namespace {

using Handler = testing_support::FakeInstallerService::InstallHandler;

// Refuses with the given progress report (none when empty) and error.
Handler refusing(CVDictionary report, bool fromAnotherThread = false) {
  return [=](const CVURL&, const CVDictionary&, CVError* error,
             const platform::InstallProgressCallback& progress) {
    if (report.count() > 0 && fromAnotherThread) std::thread([&] { progress(report); }).join();
    if (report.count() > 0 && !fromAnotherThread) progress(report);
    CVSetError(error, CVError("CVInstallerErrorDomain", 7));
    return false;
  };
}

const Handler kAccepting = [](const CVURL&, const CVDictionary&, CVError*,
                              const platform::InstallProgressCallback&) { return true; };

class InstallationTest : public MigratorTest {
 protected:
  void SetUp() override {
    image_.writeBundle(bundle_, CVDictionary{{"QXBundleIdentifier", "com.example.maps"},
                                             {"QXBundleExecutable", "Maps"},
                                             {"QXBundleVersion", "412"},
                                             {"QXBundleShortVersionString", "4.1"},
                                             {"QXBundleIconFile", "AppIcon"},
                                             {"UIDeviceFamily", CVArray{1}}});
    writeFile(bundle_ + "/Maps", "binary", 0755);
    migrator_ = makeMigrator();
    ASSERT_NE(migrator_, nullptr);
  }

  std::string staged() const {
    return temporaryPath() + "/com.zentrel.corvane.migrator/com.example.maps.app";
  }
  bool stageAndInstall() {
    return migrator_->_stageAndInstallBundleAtURL(directoryURL(bundle_), "com.example.maps",
                                                  CVURL(), directoryURL(container_));
  }
  bool installPlaceholder(const std::string& bundle) {
    return migrator_->_stageAndInstallPlaceholderForBundleAtURL(
        directoryURL(bundle), "com.example.maps", directoryURL(container_));
  }

  // Accepts installs, keeping the Info.plist of the staged bundle and whether its icon is a PNG.
  void acceptKeepingStagedInfo() {
    installer_.installHandler = [this](const CVURL& staged, const CVDictionary&, CVError*,
                                       const platform::InstallProgressCallback&) {
      stagedInfo_ = image_.readPlistDictionary(staged.path() + "/Info.plist");
      const std::string icon = staged.path() + "/Icon.png";
      stagedIconIsPNG_ = pathExists(icon) && readFile(icon).starts_with("\x89PNG\r\n\x1a\n");
      return true;
    };
  }

  const std::string container_ = container("AB12");
  const std::string bundle_ = container_ + "/Maps.app";
  const platform::Image opaqueSquare_{120, 120, std::vector<std::uint8_t>(120 * 120 * 4, 0xFF)};
  CVDictionary stagedInfo_;
  bool stagedIconIsPNG_ = false;
};

// The installer's answers, and what each one becomes: result and log lines.
TEST_F(InstallationTest, InstallerAnswersBecomeResultsAndMessages) {
  const std::string failed = "CVAppMigrator: Failed to install file://" + container_ + "/Staging/";
  struct Case {
    const char* name;
    Handler handler;
    bool result;
    int level;
    std::string present;  // a line that must be there ("" for none)
    std::string absent;   // a fragment that must not be
  };
  const Case cases[] = {
      {"accepted", kAccepting, true, 0, "", "Installation of"},
      // Refused because the system carries a newer copy, reported from another thread.
      {"built in",
       refusing(CVDictionary{{"Error", "ApplicationAlreadyInstalled"},
                             {"ErrorDescription", "newer copy built in"}},
                true),
       true, kLogLevelNotice,
       "Installation of " + bundle_ +
           " failed because it's older than what's built into the system. Data migration already "
           "happened so we're done here.",
       "Failed to install"},
      {"other error",
       refusing(CVDictionary{{"Error", "ExecutableMissing"},
                             {"ErrorDescription", "no executable"},
                             {"ErrorDetail", "Maps"}}),
       false, kLogLevelError,
       "Installation of " + bundle_ +
           " failed with Corvane error no executable (ExecutableMissing : Maps)",
       "older than"},
      {"no error name", refusing(CVDictionary{}), false, 0, "", "failed with Corvane error"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    log_.clear();
    installer_.installHandler = c.handler;
    EXPECT_EQ(stageAndInstall(), c.result);
    EXPECT_TRUE(c.present.empty() || logged(c.level, c.present)) << log_.dump();
    EXPECT_FALSE(log_.containsFragment(c.absent)) << log_.dump();
    EXPECT_EQ(log_.containsFragment(failed), !c.result) << log_.dump();
    // The staging directory stays with the container.
    EXPECT_TRUE(pathExists(container_ + "/Staging/Payload/Maps.app"));
    std::filesystem::rename(container_ + "/Staging/Payload/Maps.app", bundle_);
    removeItem(container_ + "/Staging");
  }
}

TEST_F(InstallationTest, StagingFailuresStopBeforeTheInstallerAndAMissingBundleDoesNot) {
  // "Staging" is a file, so "Payload" cannot be made.
  writeFile(container_ + "/Staging", "in the way");
  EXPECT_FALSE(stageAndInstall());
  EXPECT_TRUE(loggedFragment("Failed to create file://" + container_ + "/Staging/Payload/ : "));
  EXPECT_TRUE(installer_.installs.empty());
  EXPECT_TRUE(pathExists(bundle_));

  // A bundle that is gone is moved as a no-op and the installer decides.
  removeItem(container_ + "/Staging");
  removeItem(bundle_);
  installer_.installHandler = kAccepting;
  EXPECT_TRUE(stageAndInstall());
  EXPECT_EQ(installer_.installs.size(), 1u);
}

TEST_F(InstallationTest, PlaceholderCarriesIdentityIconAndStoreMetadata) {
  icons_.icon = opaqueSquare_;
  writeFile(container_ + "/SorvikMetadata.plist", "raw metadata bytes");
  acceptKeepingStagedInfo();
  EXPECT_TRUE(installPlaceholder(bundle_)) << log_.dump();

  ASSERT_EQ(installer_.installs.size(), 1u);
  EXPECT_EQ(installer_.installs[0].url.path(), staged());
  EXPECT_FALSE(installer_.installs[0].hadProgressCallback);
  const std::string metadata = "raw metadata bytes";
  EXPECT_EQ(installer_.installs[0].options,
            (CVDictionary{{"InstallType", 6},
                          {"PackageType", std::string(platform::kPackageTypePlaceholder)},
                          {"SkipBlacklist", true},
                          {"QXBundleIdentifier", "com.example.maps"},
                          {std::string(platform::kStoreMetadataOptionKey),
                           CVData(metadata.begin(), metadata.end())}}));
  EXPECT_EQ(stagedInfo_.keys(),
            (std::vector<std::string>{"QXBundleIdentifier", "QXBundleExecutable", "QXBundleVersion",
                                      "QXBundleShortVersionString", "QXBundleIconFile"}));
  EXPECT_EQ(*stagedInfo_.findString("QXBundleIconFile"), "Icon.png");
  EXPECT_TRUE(stagedIconIsPNG_);
  EXPECT_TRUE(logged(kLogLevelNotice, "Installing placeholder for com.example.maps"));
  // The staged copy never outlives the call, and the legacy container is as it was.
  EXPECT_FALSE(pathExists(staged()));
  EXPECT_EQ(readFile(container_ + "/SorvikMetadata.plist"), metadata);
  EXPECT_TRUE(pathExists(bundle_ + "/Maps"));
}

// Refused (the double's default), then accepted at the same staging path,
// with neither an icon nor store metadata to hand over.
TEST_F(InstallationTest, RefusedPlaceholderIsCleanedUpAndOneWithoutIconOrMetadataInstalls) {
  EXPECT_FALSE(installPlaceholder(bundle_));
  EXPECT_TRUE(loggedFragment("Failed to install placeholder for com.example.maps: "));
  acceptKeepingStagedInfo();
  EXPECT_TRUE(installPlaceholder(bundle_));
  ASSERT_EQ(installer_.installs.size(), 2u);
  EXPECT_EQ(installer_.installs[0].url, installer_.installs[1].url);
  EXPECT_EQ(stagedInfo_.find("QXBundleIconFile"), nullptr);
  EXPECT_FALSE(stagedIconIsPNG_);
  EXPECT_EQ(installer_.installs[1].options.find(platform::kStoreMetadataOptionKey), nullptr);
  EXPECT_TRUE(
      logged(kLogLevelError, "Writing placeholder icon for app com.example.maps to file://" +
                                 staged() + "/Icon.png failed"));
  EXPECT_FALSE(log_.containsFragment("Failed to read"));
}

TEST_F(InstallationTest, PlaceholderNeedsAStagingPlaceAndAReadableBundle) {
  writeFile(temporaryPath() + "/com.zentrel.corvane.migrator", "in the way");
  EXPECT_FALSE(installPlaceholder(bundle_));
  EXPECT_TRUE(loggedFragment("Failed to create staged placeholder directory at " + staged()));
  removeItem(temporaryPath());

  const std::string missing = container_ + "/Gone.app";
  EXPECT_FALSE(installPlaceholder(missing));
  EXPECT_TRUE(logged(kLogLevelError, "Failed to create QXBundle for " + missing));
  writeFile(bundle_ + "/Info.plist", "not a property list");
  EXPECT_FALSE(installPlaceholder(bundle_));
  EXPECT_TRUE(logged(kLogLevelError, "Failed to get bundle info dictionary for bundle " + bundle_));
  EXPECT_TRUE(installer_.installs.empty());
  EXPECT_FALSE(pathExists(staged()));
}

TEST_F(InstallationTest, IconIsWrittenAsPNGOrReportedMissing) {
  const auto bundle = platform::Bundle::create(directoryURL(bundle_));
  const CVURL iconURL = CVURL::fileURLWithPath(image_.rootPath() + "/icon.png", false);
  EXPECT_FALSE(migrator_->_writeIconForBundle(*bundle, iconURL));
  EXPECT_TRUE(logged(kLogLevelError, "Failed to create icon from bundle " + bundle_));
  EXPECT_FALSE(pathExists(iconURL.path()));

  // A destination that cannot be written (a written icon is the placeholder tests' part).
  icons_.icon = opaqueSquare_;
  const CVURL blocked = CVURL::fileURLWithPath(bundle_ + "/Maps/icon.png", false);
  EXPECT_FALSE(migrator_->_writeIconForBundle(*bundle, blocked));
  EXPECT_TRUE(
      loggedFragment("Failed to write image data to file://" + bundle_ + "/Maps/icon.png : "));
}

const std::string kIdentifier = "com.example.notes";

class ContainerMigrationTest : public MigratorTest {
 protected:
  void SetUp() override {
    knownApplication("Notes", kIdentifier, false);
    migrator_ = makeMigrator();
    ASSERT_NE(migrator_, nullptr);
  }

  bool migrate(std::string_view type = "App") {
    return migrator_->_migrateContainerWithInfo(CVDictionary{{"ContainerPath", container_},
                                                             {"BundlePath", bundle_},
                                                             {"BundleIdentifier", kIdentifier},
                                                             {"ContainerType", std::string(type)}});
  }
  void acceptedAndKnown() {
    acceptInstalls(kIdentifier, data_);
    installer_.records[kIdentifier] = record(kIdentifier, data_);
  }

  const std::string container_ = container("Notes");
  const std::string bundle_ = container_ + "/Notes.app";
  const std::string data_ = image_.home("Containers/Data/Notes");
};

TEST_F(ContainerMigrationTest, KnownApplicationSkipsThePlaceholder) {
  acceptedAndKnown();
  EXPECT_TRUE(migrate());
  EXPECT_EQ(installer_.installs.size(), 1u) << "the customer install alone";
  EXPECT_TRUE(logged(kLogLevelNotice,
                     "App com.example.notes is already installed, so not creating placeholder."));
}

TEST_F(ContainerMigrationTest, FailuresBeforeTheDataMoveKeepTheContainer) {
  // The placeholder install is refused.
  EXPECT_FALSE(migrate());
  // No bundle record at all.
  EXPECT_FALSE(migrate("VPNBundle"));
  EXPECT_TRUE(logged(kLogLevelError, "Failed to get bundle proxy for identifier " + kIdentifier));
  // A record without a data container: everything the registry knew is logged.
  platform::BundleRecord withoutData = record(kIdentifier, data_);
  withoutData.dataContainerURL = CVURL();
  withoutData.foundBackingBundle = false;
  installer_.records[kIdentifier] = withoutData;
  EXPECT_FALSE(migrate());
  for (const std::string& message : {"Failed to get data container URL for " + kIdentifier,
                                     std::string("Proxy had bundle type User"),
                                     std::string("Proxy did not have backing bundle")})
    EXPECT_TRUE(logged(kLogLevelError, message)) << message;
  EXPECT_TRUE(pathExists(container_ + "/Documents/d.txt"));
  EXPECT_TRUE(pathExists(bundle_));
  // The marker was written each time, so a later pass resumes this container.
  EXPECT_TRUE(pathExists(container_ + "/com.zentrel.corvane.container_migrator.plist"));

  // A data container that is a file: nothing can be moved into it.
  acceptedAndKnown();
  removeItem(data_);
  writeFile(data_, "not a directory");
  installer_.installs.clear();
  EXPECT_FALSE(migrate());
  EXPECT_TRUE(installer_.installs.empty());
  EXPECT_TRUE(pathExists(container_ + "/Documents/d.txt"));
  EXPECT_TRUE(loggedFragment("Failed to move "));
}

// The marker is made durable on another thread; a failure to put it in place
// is still told before any data leaves the container, and the migration goes on.
TEST_F(ContainerMigrationTest, AMarkerThatCannotBePutInPlaceIsToldBeforeTheDataMoves) {
  acceptedAndKnown();
  writeFile(container_ + "/com.zentrel.corvane.container_migrator.plist/occupied", "");
  EXPECT_TRUE(migrate()) << log_.dump();
  const std::vector<std::string> messages = log_.messages();
  const auto indexOf = [&messages](std::string_view fragment) {
    return std::ranges::find_if(messages,
                                [fragment](const std::string& message) {
                                  return message.find(fragment) != std::string::npos;
                                }) -
           messages.begin();
  };
  EXPECT_LT(indexOf("Failed to write out container marker"), indexOf("Moving data from container"))
      << log_.dump();
  EXPECT_EQ(readFile(data_ + "/Documents/d.txt"), "data");
}

TEST_F(ContainerMigrationTest, PlaceholderBundleSkipsInstallGroupsAndMissedItems) {
  acceptedAndKnown();
  ASSERT_TRUE(
      CVFileManager::defaultManager().markBundleAsPlaceholder(directoryURL(bundle_), nullptr));
  writeFile(container_ + "/Unexpected.dat", "left over");
  EXPECT_TRUE(migrate());
  EXPECT_TRUE(installer_.installs.empty());
  EXPECT_FALSE(pathExists(container_));
  EXPECT_EQ(readFile(data_ + "/Documents/d.txt"), "data");
}

TEST_F(ContainerMigrationTest, MissedItemsKeepTheContainerButMarkerFilesAreNoneOfThem) {
  acceptedAndKnown();
  writeFile(container_ + "/Unexpected.dat", "left over");
  writeFile(container_ + "/com.zentrel.corvane.placeholder", "");
  writeFile(container_ + "/com.zentrel.corvane.migration_marker", "");
  EXPECT_FALSE(migrate());
  EXPECT_EQ(readFile(container_ + "/Unexpected.dat"), "left over");
  EXPECT_TRUE(loggedFragment("Found missed items in " + container_ + " for com.example.notes:"));
  EXPECT_TRUE(log_.containsFragment("Unexpected.dat"));
  EXPECT_FALSE(log_.containsFragment("com.zentrel.corvane.placeholder\""));

  removeItem(container_ + "/Unexpected.dat");
  EXPECT_FALSE(migrator_->_containerHasMissedItems(directoryURL(container_), kIdentifier));
  // A container that cannot be listed counts as holding missed items.
  EXPECT_TRUE(migrator_->_containerHasMissedItems(directoryURL(container_ + "-gone"), kIdentifier));
  EXPECT_TRUE(loggedFragment("Failed to enumerate container " + container_ +
                             "-gone for com.example.notes : "));
}

class DataMigrationTest : public MigratorTest {
 protected:
  std::string legacy(std::string_view name) const { return container("L1/" + std::string(name)); }
  std::string data(std::string_view name = "") const {
    return image_.home("Containers/Data/D1") + (name.empty() ? "" : "/" + std::string(name));
  }
  bool migrateData() {
    return makeMigrator()->_migrateDataContainerForIdentifier(
        "com.example.app", directoryURL(container("L1")), directoryURL(data()));
  }

  // A legacy install map naming these groups with these `Container` paths.
  void writeGroupMap(const std::vector<std::pair<std::string, CVValue>>& groups) {
    CVDictionary map;
    for (const auto& [group, path] : groups)
      map.set(group, CVDictionary{{"Container", path}});
    image_.writePlist(image_.installMapPath(), CVDictionary{{"GroupContainers", map}});
    // Set-up reads the install map only when there is something to migrate.
    makeDirectories(container("L1"));
  }
  std::string legacyGroup(const std::string& group) const {
    return image_.home("Library/GroupContainers/" + group);
  }
  std::string newGroup(const std::string& group) const {
    return image_.home("Containers/Shared/" + group);
  }
  // The registry gives the application these group containers.
  void recordGroups(const std::vector<std::string>& groups) {
    platform::BundleRecord& known = installer_.records["com.example.app"];
    known = record("com.example.app", data());
    for (const std::string& group : groups) {
      makeDirectories(newGroup(group));
      known.groupContainerURLs->set(group, CVValue(directoryURL(newGroup(group))));
    }
  }
  bool migrateGroups(CVAppMigrator& migrator) {
    return migrator._migrateGroupContainersForIdentifier("com.example.app");
  }
};

TEST_F(DataMigrationTest, OnlyUserDataItemsMoveAndNoneIsMadeWhereTheLegacyOneIsMissing) {
  writeFile(legacy("Documents/a/b/deep.txt"), "deep");
  writeFile(legacy("Library/Preferences/app.plist"), "prefs");
  writeFile(legacy("NotUserData/secret"), "stays");
  makeDirectories(data());
  EXPECT_TRUE(migrateData()) << log_.dump();
  EXPECT_EQ(readFile(data("Documents/a/b/deep.txt")), "deep");
  EXPECT_EQ(readFile(data("Library/Preferences/app.plist")), "prefs");
  EXPECT_EQ(readFile(legacy("NotUserData/secret")), "stays");
  EXPECT_FALSE(pathExists(data("NotUserData")));

  // A container without user data moves nothing, and takes nothing from the
  // data container's own skeleton.
  removeItem(data());
  makeDirectories(data("tmp"));
  EXPECT_TRUE(migrateData());
  EXPECT_TRUE(std::filesystem::is_directory(data("tmp")));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(data()), {}), 1);
}

TEST_F(DataMigrationTest, FirstFailedMoveStopsAndKeepsTheRest) {
  const auto names = CVGlobalConfiguration(image_.root()).appUserDataItemNames();
  ASSERT_GE(names.size(), 2u);
  for (const std::string& name : names)
    writeFile(legacy(name + "/f"), name);
  // The destination of the first item cannot be made: its parent is a file.
  writeFile(data(), "a file");
  EXPECT_FALSE(migrateData());
  EXPECT_TRUE(loggedFragment("Failed to move file://" + legacy(names[0]) + "/ to file://" +
                             data(names[0]) + "/ migrating for com.example.app : "));
  for (const std::string& name : names)
    EXPECT_EQ(readFile(legacy(name + "/f")), name);
}

// Problem entries of the map are skipped without failing the others.
TEST_F(DataMigrationTest, GroupContainersMoveIntoTheRegistrysPlacesOnce) {
  writeGroupMap({{"group.a", legacyGroup("group.a")},
                 {"group.b", legacyGroup("group.b")},
                 {"group.other", legacyGroup("group.other")},
                 {"group.missing", legacyGroup("group.missing")},
                 {"group.bad", 42}});
  writeFile(legacyGroup("group.a") + "/shared.db", "rows");
  writeFile(legacyGroup("group.a") + "/nested/x", "x");
  makeSymlink("shared.db", legacyGroup("group.a") + "/link");
  writeFile(legacyGroup("group.b") + "/b", "b");
  makeDirectories(legacyGroup("group.other"));
  recordGroups({"group.a", "group.b", "group.missing", "group.bad", "group.unlisted"});
  auto migrator = makeMigrator();

  EXPECT_TRUE(migrateGroups(*migrator)) << log_.dump();
  EXPECT_EQ(readFile(newGroup("group.a") + "/shared.db"), "rows");
  EXPECT_EQ(readFile(newGroup("group.a") + "/nested/x"), "x");
  EXPECT_EQ(std::filesystem::read_symlink(newGroup("group.a") + "/link"), "shared.db");
  EXPECT_EQ(readFile(newGroup("group.b") + "/b"), "b");
  EXPECT_TRUE(pathExists(legacyGroup("group.other")));
  EXPECT_EQ(migrator->groupContainerMap()->keys(),
            (std::vector<std::string>{"group.other", "group.missing", "group.bad"}));
  const std::pair<int, std::string> messages[] = {
      {kLogLevelNotice, "Migrating group container group.a at file://" + legacyGroup("group.a") +
                            "/ to file://" + newGroup("group.a") + "/"},
      {kLogLevelError, "Missing source group container at " + legacyGroup("group.missing")},
      {kLogLevelNotice, "Failed to get path to group container for com.example.app[group.bad]"},
      {kLogLevelNotice, "No group container entry to migrate for com.example.app[group.unlisted]"},
  };
  for (const auto& [level, message] : messages)
    EXPECT_TRUE(logged(level, message)) << log_.dump();

  // A second application of the same group finds it already moved.
  EXPECT_TRUE(migrateGroups(*migrator));
  EXPECT_TRUE(
      logged(kLogLevelNotice, "No group container entry to migrate for com.example.app[group.a]"));
}

// The map's paths are device paths, read under the root in any of their
// forms; a path that is not a group container of its own is left alone.
TEST_F(DataMigrationTest, GroupPathsLeadIntoTheImageAndOnlyToGroupContainers) {
  const std::string groups = "/private/var/mobile/Library/GroupContainers/";
  const std::pair<std::string, std::string> cases[] = {
      {groups + "G", ""},
      {"/var/mobile/Library/GroupContainers/G", ""},
      {image_.home("Library/GroupContainers/G"), ""},
      {groups + "G/", ""},
      {"/", "is /, not a group container"},
      {"/private/var/mobile", "is /private/var/mobile, not a group container"},
      {"/private/var/mobile/Library", "is /private/var/mobile/Library, not a group container"},
      {"/private/var/mobile/Library/Corvane",
       "is /private/var/mobile/Library/Corvane, not a group container"},
      {"/private/var/mobile/Applications/L1", "lies inside /private/var/mobile/Applications"},
      {"/private/var/mobile/Containers/Data/D1", "lies inside /private/var/mobile/Containers"},
      {"/private/var/mobile/Library/GroupContainers", "holds the group container of group.other"},
      {groups + "G/../G", "has a '..' component"},
  };
  for (const auto& [stored, problem] : cases) {
    SCOPED_TRACE(stored);
    writeFile(legacyGroup("G") + "/g.db", "rows");
    writeFile(legacyGroup("group.other") + "/o", "o");
    writeFile(legacy("Documents/d"), "d");
    makeDirectories(data());
    writeGroupMap({{"group.a", stored}, {"group.other", legacyGroup("group.other")}});
    recordGroups({"group.a"});
    log_.clear();
    auto migrator = makeMigrator();
    EXPECT_TRUE(migrateGroups(*migrator));
    const bool moved = problem.empty();
    EXPECT_EQ(log_.containsFragment(problem + "; not migrating it"), !moved) << log_.dump();
    EXPECT_EQ(readFile((moved ? newGroup("group.a") : legacyGroup("G")) + "/g.db"), "rows");
    EXPECT_EQ(pathExists(legacyGroup("G")), !moved);
    EXPECT_EQ(migrator->groupContainerMap()->contains("group.a"), !moved);
    EXPECT_EQ(readFile(legacy("Documents/d")), "d");
    EXPECT_TRUE(pathExists(image_.installMapPath()));
    std::filesystem::remove_all(newGroup("group.a"));
  }
}

TEST_F(DataMigrationTest, RegistryAnswersDecideTheResult) {
  // Without a group map there is nothing to ask.
  EXPECT_TRUE(migrateGroups(*makeMigrator()));
  EXPECT_EQ(log_.count(), 0u);

  writeGroupMap({{"group.a", legacyGroup("group.a")}});
  makeDirectories(legacyGroup("group.a"));
  auto migrator = makeMigrator();
  EXPECT_FALSE(migrateGroups(*migrator));
  EXPECT_TRUE(logged(kLogLevelError, "Failed to get bundle proxy for com.example.app"));
  installer_.records["com.example.app"] = platform::BundleRecord{};
  EXPECT_FALSE(migrateGroups(*migrator));
  EXPECT_TRUE(
      logged(kLogLevelError, "Failed to get group container URLs for installed com.example.app"));
  recordGroups({});
  EXPECT_TRUE(migrateGroups(*migrator));
  EXPECT_TRUE(logged(kLogLevelNotice, "No group containers to migrate for com.example.app"));
  EXPECT_TRUE(pathExists(legacyGroup("group.a")));
}

TEST_F(DataMigrationTest, MoveAllGoesOnPastItemsThatFail) {
  const std::string source = image_.home("src"), destination = image_.home("dst");
  writeFile(source + "/a", "a");
  writeFile(source + "/b/inner", "b");
  writeFile(source + "/c", "c");
  // "b" cannot be replaced: the removal before it fails on an immutable directory.
  writeFile(destination + "/b/kept", "old");
  ASSERT_EQ(runProgram("chattr", {"+i", destination + "/b"}).exitCode, 0);
  auto migrator = makeMigrator();
  EXPECT_TRUE(
      migrator->_moveAllItemsInGroupContainerURL(directoryURL(source), directoryURL(destination)));
  EXPECT_EQ(readFile(destination + "/a"), "a");
  EXPECT_EQ(readFile(destination + "/c"), "c");
  EXPECT_TRUE(loggedFragment("Failed to move item " + source + "/b to " + destination + "/b : "));

  EXPECT_FALSE(migrator->_moveAllItemsInGroupContainerURL(directoryURL(source + "-missing"),
                                                          directoryURL(destination)));
  EXPECT_TRUE(
      loggedFragment("Failed to get all urls in source group container " + source + "-missing : "));
}

}  // namespace
