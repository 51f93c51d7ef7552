// What the migrator tells the host's observer: every legacy entry finished
// exactly once with its outcome, the steps of a migrated entry in order, the
// failing step of a failed one, a refusal because the system carries the
// application, and a classification that decides without touching the disk.
#include <gtest/gtest.h>

#include <map>

#include "AppMigrator/ContainerClassification.h"
#include "tests/appmigrator/MigratorFixture.h"

namespace {

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
  EXPECT_EQ(observer_.began.count(container("Linked")), 0u);
  EXPECT_EQ(observer_.began.at(migrated), "com.example.good");
  EXPECT_EQ(observer_.steps.at(migrated),
            (std::vector<Step>{Step::Marker, Step::BundleRecord, Step::DataMove, Step::Install,
                               Step::GroupContainers, Step::MissedItems, Step::Removal}));
}

TEST_F(EntryObserverTest, ClassificationDecidesWithoutRemovingAnything) {
  writeFile(container("File"), "a file");
  writeFile(container("Empty") + "/Documents/orphan.txt", "o");
  const auto file = CVClassifyLegacyEntry(CVURL::fileURLWithPath(container("File"), false));
  EXPECT_EQ(file.kind, LegacyEntryKind::RegularFile);
  EXPECT_TRUE(file.removeEntry);
  const auto empty = CVClassifyLegacyEntry(directoryURL(container("Empty")));
  EXPECT_EQ(empty.kind, LegacyEntryKind::NoBundle);
  EXPECT_TRUE(empty.removeEntry);
  EXPECT_FALSE(empty.record.has_value());
  EXPECT_TRUE(pathExists(container("File")));
  EXPECT_TRUE(pathExists(container("Empty") + "/Documents/orphan.txt"));

  const std::string path = knownApplication("App", "com.example.app");
  image_.writeBundle(path + "/V.vpnplugin", "com.example.app.vpn");
  const auto application = CVClassifyLegacyEntry(directoryURL(path));
  EXPECT_EQ(application.kind, LegacyEntryKind::Application);
  EXPECT_TRUE(application.orderResultEarly);
  ASSERT_TRUE(application.record.has_value());
  EXPECT_EQ(*application.record->findString("SecondBundlePath"), path + "/V.vpnplugin");
}

}  // namespace
