// User data and group containers moved out of the legacy layout: what arrives,
// what is replaced, what stays when a move cannot be made.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/Log.h"
#include "tests/appmigrator/MigratorFixture.h"
#include "tests/support/ChildProgram.h"

namespace {

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using namespace testing_support;

CVURL directoryURL(const std::string& path) {
  return CVURL::fileURLWithPath(path, true);
}

class DataMigrationTest : public MigratorTest {
 protected:
  std::string legacy(std::string_view name) const {
    return container("L1") + "/" + std::string(name);
  }
  std::string data(std::string_view name) const {
    return image_.home("Containers/Data/D1") + "/" + std::string(name);
  }
  bool migrateData(CVAppMigrator& migrator) {
    return migrator._migrateDataContainerForIdentifier(
        "com.example.app", directoryURL(container("L1")),
        directoryURL(image_.home("Containers/Data/D1")));
  }

  // A legacy install map with these groups ("Container" paths under the home).
  void writeGroupMap(const std::vector<std::string>& groups) {
    CVDictionary map;
    for (const std::string& group : groups) {
      map.set(group, CVDictionary{{"Container", legacyGroup(group)}});
    }
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
  void recordGroups(const std::vector<std::string>& groups) {
    platform::BundleRecord record;
    record.bundleIdentifier = "com.example.app";
    CVDictionary urls;
    for (const std::string& group : groups) {
      makeDirectories(newGroup(group));
      urls.set(group, CVValue(directoryURL(newGroup(group))));
    }
    record.groupContainerURLs = urls;
    installer_.records["com.example.app"] = record;
  }
};

TEST_F(DataMigrationTest, UserDataItemsReplaceWhatTheDataContainerHeld) {
  writeFile(legacy("Documents/a/b/deep.txt"), "deep");
  writeFile(legacy("Library/Preferences/app.plist"), "prefs");
  writeFile(legacy("NotUserData/secret"), "stays");
  writeFile(data("Documents/stale.txt"), "from the installer");
  makeDirectories(data("Library/Caches"));
  auto migrator = makeMigrator();

  EXPECT_TRUE(migrateData(*migrator)) << log_.dump();
  EXPECT_EQ(readFile(data("Documents/a/b/deep.txt")), "deep");
  EXPECT_EQ(readFile(data("Library/Preferences/app.plist")), "prefs");
  // Replaced, never merged.
  EXPECT_FALSE(pathExists(data("Documents/stale.txt")));
  EXPECT_FALSE(pathExists(data("Library/Caches")));
  EXPECT_FALSE(pathExists(legacy("Documents")));
  EXPECT_EQ(readFile(legacy("NotUserData/secret")), "stays");
  EXPECT_FALSE(pathExists(data("NotUserData")));
}

TEST_F(DataMigrationTest, ContainerWithoutUserDataMovesNothing) {
  makeDirectories(container("L1"));
  makeDirectories(image_.home("Containers/Data/D1"));
  auto migrator = makeMigrator();
  EXPECT_TRUE(migrateData(*migrator));
  EXPECT_TRUE(std::filesystem::is_empty(image_.home("Containers/Data/D1")));
}

TEST_F(DataMigrationTest, FirstFailedMoveStopsAndKeepsTheRest) {
  const auto names = CVGlobalConfiguration(image_.root()).appUserDataItemNames();
  ASSERT_GE(names.size(), 2u);
  for (const std::string& name : names)
    writeFile(legacy(name + "/f"), name);
  // The destination of the first item cannot be made: its parent is a file.
  writeFile(image_.home("Containers/Data/D1"), "a file");
  auto migrator = makeMigrator();

  EXPECT_FALSE(migrateData(*migrator));
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to move file://" + legacy(names[0]) +
                                    "/ to file://" + data(names[0]) +
                                    "/ migrating for com.example.app : "));
  for (const std::string& name : names)
    EXPECT_EQ(readFile(legacy(name + "/f")), name);
}

TEST_F(DataMigrationTest, GroupContainersMoveIntoTheRegistrysPlaces) {
  writeGroupMap({"group.a", "group.b"});
  writeFile(legacyGroup("group.a") + "/shared.db", "rows");
  writeFile(legacyGroup("group.a") + "/nested/x", "x");
  makeSymlink("shared.db", legacyGroup("group.a") + "/link");
  writeFile(newGroup("group.a") + "/shared.db", "installer's empty db");
  writeFile(legacyGroup("group.b") + "/b", "b");
  recordGroups({"group.a", "group.b"});
  auto migrator = makeMigrator();

  EXPECT_TRUE(migrator->_migrateGroupContainersForIdentifier("com.example.app")) << log_.dump();
  EXPECT_EQ(readFile(newGroup("group.a") + "/shared.db"), "rows");
  EXPECT_EQ(readFile(newGroup("group.a") + "/nested/x"), "x");
  EXPECT_EQ(std::filesystem::read_symlink(newGroup("group.a") + "/link"), "shared.db");
  EXPECT_EQ(readFile(newGroup("group.b") + "/b"), "b");
  EXPECT_FALSE(pathExists(legacyGroup("group.a")));
  EXPECT_FALSE(pathExists(legacyGroup("group.b")));
  EXPECT_TRUE(migrator->groupContainerMap()->empty());
  EXPECT_TRUE(log_.contains(
      kLogLevelNotice, "CVAppMigrator: Migrating group container group.a at file://" +
                           legacyGroup("group.a") + "/ to file://" + newGroup("group.a") + "/"));

  // A second application of the same group finds it already moved.
  EXPECT_TRUE(migrator->_migrateGroupContainersForIdentifier("com.example.app"));
}

TEST_F(DataMigrationTest, SharedGroupIsMovedOnceAndThenReportedAsGone) {
  writeGroupMap({"group.a", "group.other"});
  writeFile(legacyGroup("group.a") + "/f", "f");
  makeDirectories(legacyGroup("group.other"));
  recordGroups({"group.a"});
  auto migrator = makeMigrator();
  ASSERT_TRUE(migrator->_migrateGroupContainersForIdentifier("com.example.app"));
  EXPECT_TRUE(migrator->_migrateGroupContainersForIdentifier("com.example.app"));
  EXPECT_TRUE(log_.contains(kLogLevelNotice,
                            "CVAppMigrator: No group container entry to migrate for "
                            "com.example.app[group.a]"));
  EXPECT_TRUE(pathExists(legacyGroup("group.other")));
}

TEST_F(DataMigrationTest, GroupMapProblemsAreSkippedWithoutFailing) {
  writeGroupMap({"group.missing"});
  // An entry whose path is not a string.
  CVDictionary map{{"group.missing", CVDictionary{{"Container", legacyGroup("group.missing")}}},
                   {"group.bad", CVDictionary{{"Container", 42}}}};
  image_.writePlist(image_.installMapPath(), CVDictionary{{"GroupContainers", map}});
  recordGroups({"group.missing", "group.bad", "group.unlisted"});
  auto migrator = makeMigrator();

  EXPECT_TRUE(migrator->_migrateGroupContainersForIdentifier("com.example.app"));
  EXPECT_TRUE(log_.contains(kLogLevelError, "CVAppMigrator: Missing source group container at " +
                                                legacyGroup("group.missing")));
  EXPECT_TRUE(log_.contains(kLogLevelNotice,
                            "CVAppMigrator: Failed to get path to group container for "
                            "com.example.app[group.bad]"));
  EXPECT_TRUE(log_.contains(kLogLevelNotice,
                            "CVAppMigrator: No group container entry to migrate for "
                            "com.example.app[group.unlisted]"));
  EXPECT_EQ(migrator->groupContainerMap()->count(), 2u);
}

// The map's paths are device paths, read under the root in any of their
// forms; a path that is not a group container of its own is left alone.
TEST_F(DataMigrationTest, GroupPathsLeadIntoTheImageAndOnlyToGroupContainers) {
  const std::string groups = "/private/var/mobile/Library/GroupContainers/";
  struct Case {
    std::string stored;
    std::string problem;  // "" when the group migrates
  };
  const Case cases[] = {
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
  for (const Case& c : cases) {
    SCOPED_TRACE(c.stored);
    writeFile(legacyGroup("G") + "/g.db", "rows");
    writeFile(legacyGroup("group.other") + "/o", "o");
    writeFile(container("L1") + "/Documents/d", "d");
    makeDirectories(image_.home("Containers/Data/D1"));
    image_.writePlist(
        image_.installMapPath(),
        CVDictionary{{"GroupContainers",
                      CVDictionary{{"group.a", CVDictionary{{"Container", c.stored}}},
                                   {"group.other",
                                    CVDictionary{{"Container", legacyGroup("group.other")}}}}}});
    recordGroups({"group.a"});
    log_.clear();
    auto migrator = makeMigrator();
    EXPECT_TRUE(migrator->_migrateGroupContainersForIdentifier("com.example.app"));
    if (c.problem.empty()) {
      EXPECT_EQ(readFile(newGroup("group.a") + "/g.db"), "rows") << log_.dump();
      EXPECT_FALSE(pathExists(legacyGroup("G")));
    } else {
      EXPECT_TRUE(log_.containsFragment(c.problem + "; not migrating it")) << log_.dump();
      EXPECT_EQ(readFile(legacyGroup("G") + "/g.db"), "rows");
      EXPECT_EQ(readFile(container("L1") + "/Documents/d"), "d");
      EXPECT_TRUE(pathExists(image_.installMapPath()));
      EXPECT_TRUE(migrator->groupContainerMap()->contains("group.a"));
    }
    std::filesystem::remove_all(newGroup("group.a"));
  }
}

TEST_F(DataMigrationTest, RegistryAnswersDecideTheResult) {
  writeGroupMap({"group.a"});
  makeDirectories(legacyGroup("group.a"));
  auto migrator = makeMigrator();

  EXPECT_FALSE(migrator->_migrateGroupContainersForIdentifier("com.example.app"));
  EXPECT_TRUE(log_.contains(kLogLevelError,
                            "CVAppMigrator: Failed to get bundle proxy for com.example.app"));

  installer_.records["com.example.app"] = platform::BundleRecord{};
  EXPECT_FALSE(migrator->_migrateGroupContainersForIdentifier("com.example.app"));
  EXPECT_TRUE(log_.contains(kLogLevelError,
                            "CVAppMigrator: Failed to get group container URLs "
                            "for installed com.example.app"));

  recordGroups({});
  EXPECT_TRUE(migrator->_migrateGroupContainersForIdentifier("com.example.app"));
  EXPECT_TRUE(log_.contains(kLogLevelNotice,
                            "CVAppMigrator: No group containers to migrate for com.example.app"));
  EXPECT_TRUE(pathExists(legacyGroup("group.a")));
}

TEST_F(DataMigrationTest, WithoutAGroupMapThereIsNothingToAsk) {
  auto migrator = makeMigrator();
  EXPECT_TRUE(migrator->_migrateGroupContainersForIdentifier("com.example.app"));
  EXPECT_EQ(log_.count(), 0u);
}

TEST_F(DataMigrationTest, MoveAllGoesOnPastItemsThatFail) {
  const std::string source = image_.home("src");
  const std::string destination = image_.home("dst");
  writeFile(source + "/a", "a");
  writeFile(source + "/b/inner", "b");
  writeFile(source + "/c", "c");
  makeDirectories(destination);
  // "b" cannot be replaced: the removal before it fails on an immutable directory.
  writeFile(destination + "/b/kept", "old");
  ASSERT_EQ(runProgram("chattr", {"+i", destination + "/b"}).exitCode, 0);
  auto migrator = makeMigrator();

  const bool result =
      migrator->_moveAllItemsInGroupContainerURL(directoryURL(source), directoryURL(destination));
  runProgram("chattr", {"-i", destination + "/b"});
  EXPECT_TRUE(result);
  EXPECT_EQ(readFile(destination + "/a"), "a");
  EXPECT_EQ(readFile(destination + "/c"), "c");
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to move item " + source + "/b to " +
                                    destination + "/b : "));

  EXPECT_FALSE(migrator->_moveAllItemsInGroupContainerURL(directoryURL(source + "-missing"),
                                                          directoryURL(destination)));
  EXPECT_TRUE(log_.containsFragment(
      "CVAppMigrator: Failed to get all urls in source group container " + source + "-missing : "));
}

}  // namespace
