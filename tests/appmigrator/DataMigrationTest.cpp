// User data and group containers moved out of the legacy layout: what arrives,
// what is replaced, what stays when a move cannot be made.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/appmigrator/MigratorFixture.h"
#include "tests/support/ChildProgram.h"

namespace {

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

  // A legacy install map naming these groups, `Container` paths as given
  // (their legacy places when empty).
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
  EXPECT_TRUE(log_.containsFragment("CVAppMigrator: Failed to move file://" + legacy(names[0]) +
                                    "/ to file://" + data(names[0]) +
                                    "/ migrating for com.example.app : "));
  for (const std::string& name : names)
    EXPECT_EQ(readFile(legacy(name + "/f")), name);
}

TEST_F(DataMigrationTest, GroupContainersMoveIntoTheRegistrysPlacesOnce) {
  writeGroupMap({{"group.a", legacyGroup("group.a")},
                 {"group.b", legacyGroup("group.b")},
                 {"group.other", legacyGroup("group.other")}});
  writeFile(legacyGroup("group.a") + "/shared.db", "rows");
  writeFile(legacyGroup("group.a") + "/nested/x", "x");
  makeSymlink("shared.db", legacyGroup("group.a") + "/link");
  writeFile(legacyGroup("group.b") + "/b", "b");
  makeDirectories(legacyGroup("group.other"));
  recordGroups({"group.a", "group.b"});
  auto migrator = makeMigrator();

  EXPECT_TRUE(migrateGroups(*migrator)) << log_.dump();
  EXPECT_EQ(readFile(newGroup("group.a") + "/shared.db"), "rows");
  EXPECT_EQ(readFile(newGroup("group.a") + "/nested/x"), "x");
  EXPECT_EQ(std::filesystem::read_symlink(newGroup("group.a") + "/link"), "shared.db");
  EXPECT_EQ(readFile(newGroup("group.b") + "/b"), "b");
  EXPECT_TRUE(pathExists(legacyGroup("group.other")));
  EXPECT_EQ(migrator->groupContainerMap()->count(), 1u);
  EXPECT_TRUE(logged(kLogLevelNotice,
                     "CVAppMigrator: Migrating group container group.a at file://" +
                         legacyGroup("group.a") + "/ to file://" + newGroup("group.a") + "/"));

  // A second application of the same group finds it already moved.
  EXPECT_TRUE(migrateGroups(*migrator));
  EXPECT_TRUE(logged(kLogLevelNotice,
                     "CVAppMigrator: No group container entry to migrate for "
                     "com.example.app[group.a]"));
}

TEST_F(DataMigrationTest, GroupMapProblemsAreSkippedWithoutFailing) {
  writeGroupMap({{"group.missing", legacyGroup("group.missing")}, {"group.bad", 42}});
  recordGroups({"group.missing", "group.bad", "group.unlisted"});
  auto migrator = makeMigrator();
  EXPECT_TRUE(migrateGroups(*migrator));
  const std::pair<int, std::string> messages[] = {
      {kLogLevelError, "Missing source group container at " + legacyGroup("group.missing")},
      {kLogLevelNotice, "Failed to get path to group container for com.example.app[group.bad]"},
      {kLogLevelNotice, "No group container entry to migrate for com.example.app[group.unlisted]"},
  };
  for (const auto& [level, message] : messages)
    EXPECT_TRUE(logged(level, "CVAppMigrator: " + message)) << log_.dump();
  EXPECT_EQ(migrator->groupContainerMap()->count(), 2u);
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
    if (problem.empty()) {
      EXPECT_EQ(readFile(newGroup("group.a") + "/g.db"), "rows") << log_.dump();
      EXPECT_FALSE(pathExists(legacyGroup("G")));
    } else {
      EXPECT_TRUE(log_.containsFragment(problem + "; not migrating it")) << log_.dump();
      EXPECT_EQ(readFile(legacyGroup("G") + "/g.db"), "rows");
      EXPECT_EQ(readFile(legacy("Documents/d")), "d");
      EXPECT_TRUE(pathExists(image_.installMapPath()));
      EXPECT_TRUE(migrator->groupContainerMap()->contains("group.a"));
    }
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
  EXPECT_TRUE(
      logged(kLogLevelError, "CVAppMigrator: Failed to get bundle proxy for com.example.app"));
  installer_.records["com.example.app"] = platform::BundleRecord{};
  EXPECT_FALSE(migrateGroups(*migrator));
  EXPECT_TRUE(logged(kLogLevelError,
                     "CVAppMigrator: Failed to get group container URLs "
                     "for installed com.example.app"));
  recordGroups({});
  EXPECT_TRUE(migrateGroups(*migrator));
  EXPECT_TRUE(
      logged(kLogLevelNotice, "CVAppMigrator: No group containers to migrate for com.example.app"));
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
