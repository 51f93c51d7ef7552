// What the migrator tells the host's observer: every legacy entry finished
// exactly once with its outcome, the steps of a migrated entry in order, the
// failing step of a failed one, a refusal because the system carries the
// application, and a classification that decides without touching the disk.
#include <gtest/gtest.h>

#include <map>

#include "AppMigrator/ContainerClassification.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/appmigrator/MigratorFixture.h"

namespace {

using namespace testing_support;

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
  std::unique_ptr<CVAppMigrator> makeObservedMigrator() { return makeMigrator(&observer_); }

  // An application container whose application the registry already knows.
  std::string knownApplication(const std::string& name, const std::string& identifier) {
    const std::string path = container(name);
    image_.writeBundle(path + "/" + name + ".app", CVDictionary{{"QXBundleIdentifier", identifier},
                                                                {"QXBundleExecutable", name}});
    writeFile(path + "/" + name + ".app/" + name, "binary", 0755);
    writeFile(path + "/Documents/d.txt", "data");
    const std::string data = image_.home("Containers/Data/" + name);
    makeDirectories(data);
    platform::BundleRecord record;
    record.bundleIdentifier = identifier;
    record.bundleType = "User";
    record.dataContainerURL = CVURL::fileURLWithPath(data, true);
    record.groupContainerURLs = CVDictionary{};
    installer_.records[identifier] = record;
    return path;
  }

  // Customer installs consume the staging directory, or are refused as the
  // service refuses a built-in application.
  void installerAnswers(bool acceptFor, const std::string& refusedAsBuiltIn = "") {
    installer_.installHandler = [acceptFor, refusedAsBuiltIn](
                                    const CVURL& url, const CVDictionary& options, CVError*,
                                    const platform::InstallProgressCallback& progress) {
      const std::string* identifier = options.findString(platform::kBundleIdentifierOptionKey);
      if (identifier && *identifier == refusedAsBuiltIn) {
        progress(CVDictionary{{std::string(platform::kProgressErrorKey),
                               std::string(platform::kApplicationAlreadyInstalledError)}});
        CVFileManager::defaultManager().removeItemAtURL(url, nullptr);
        return false;
      }
      if (acceptFor) CVFileManager::defaultManager().removeItemAtURL(url, nullptr);
      return acceptFor;
    };
  }

  RecordingObserver observer_;
};

TEST_F(EntryObserverTest, EveryEntryIsFinishedOnceWithItsOutcome) {
  writeFile(container("WhereDidMyApplicationsGo.txt"), "note");
  const std::string migrated = knownApplication("Good", "com.example.good");
  const std::string builtIn = knownApplication("Builtin", "com.example.builtin");
  const std::string extra = knownApplication("Extra", "com.example.extra");
  writeFile(extra + "/Unexpected.dat", "?");
  makeDirectories(container("Linked"));
  makeSymlink("/nowhere/L.app", container("Linked") + "/L.app");
  writeFile(container("Empty") + "/Documents/orphan.txt", "o");
  image_.writeBundle(container("Vpn") + "/T.vpnplugin", "com.example.unknown.vpn");
  installerAnswers(true, "com.example.builtin");

  const auto migrator = makeObservedMigrator();
  ASSERT_NE(migrator, nullptr);
  EXPECT_FALSE(migrator->performMigration());

  EXPECT_EQ(observer_.finishCount.size(), 7u);
  for (const auto& [path, count] : observer_.finishCount)
    EXPECT_EQ(count, 1) << path;
  const auto outcome = [this](const std::string& path) { return observer_.finished.at(path); };

  EXPECT_EQ(outcome(container("WhereDidMyApplicationsGo.txt")).outcome,
            MavrelEntryOutcome::Removed);
  EXPECT_TRUE(outcome(container("Empty")).containerRemoved);
  EXPECT_EQ(outcome(container("Empty")).outcome, MavrelEntryOutcome::Removed);
  EXPECT_EQ(outcome(container("Linked")).outcome, MavrelEntryOutcome::Left);
  EXPECT_FALSE(outcome(container("Linked")).containerRemoved);
  EXPECT_EQ(observer_.began.count(container("Linked")), 0u);

  EXPECT_EQ(outcome(migrated).outcome, MavrelEntryOutcome::Migrated);
  EXPECT_TRUE(outcome(migrated).containerRemoved);
  EXPECT_EQ(observer_.began.at(migrated), "com.example.good");
  EXPECT_EQ(observer_.steps.at(migrated),
            (std::vector<MavrelEntryStep>{MavrelEntryStep::Marker, MavrelEntryStep::BundleRecord,
                                          MavrelEntryStep::DataMove, MavrelEntryStep::Install,
                                          MavrelEntryStep::GroupContainers,
                                          MavrelEntryStep::MissedItems, MavrelEntryStep::Removal}));

  EXPECT_EQ(outcome(builtIn).outcome, MavrelEntryOutcome::RefusedAsBuiltIn);
  EXPECT_TRUE(outcome(builtIn).containerRemoved);

  EXPECT_EQ(outcome(extra).outcome, MavrelEntryOutcome::Failed);
  EXPECT_EQ(outcome(extra).failedStep, MavrelEntryStep::MissedItems);
  EXPECT_FALSE(outcome(extra).containerRemoved);

  EXPECT_EQ(outcome(container("Vpn")).outcome, MavrelEntryOutcome::Failed);
  EXPECT_EQ(outcome(container("Vpn")).failedStep, MavrelEntryStep::BundleRecord);
  EXPECT_FALSE(outcome(container("Vpn")).containerRemoved);
}

TEST_F(EntryObserverTest, AFailedInstallRemovesTheContainerAndSaysSo) {
  const std::string path = knownApplication("Refused", "com.example.refused");
  installerAnswers(false);
  const auto migrator = makeObservedMigrator();
  ASSERT_NE(migrator, nullptr);
  EXPECT_FALSE(migrator->performMigration());
  const MavrelEntryResult& result = observer_.finished.at(path);
  EXPECT_EQ(result.outcome, MavrelEntryOutcome::Failed);
  EXPECT_EQ(result.failedStep, MavrelEntryStep::Install);
  EXPECT_TRUE(result.containerRemoved);
  EXPECT_FALSE(pathExists(path));
}

TEST_F(EntryObserverTest, ClassificationDecidesWithoutRemovingAnything) {
  writeFile(container("File"), "a file");
  writeFile(container("Empty") + "/Documents/orphan.txt", "o");
  const auto file = CVClassifyLegacyEntry(CVURL::fileURLWithPath(container("File"), false));
  EXPECT_EQ(file.kind, LegacyEntryKind::RegularFile);
  EXPECT_TRUE(file.removeEntry);
  const auto empty = CVClassifyLegacyEntry(CVURL::fileURLWithPath(container("Empty"), true));
  EXPECT_EQ(empty.kind, LegacyEntryKind::NoBundle);
  EXPECT_TRUE(empty.removeEntry);
  EXPECT_FALSE(empty.record.has_value());
  EXPECT_TRUE(pathExists(container("File")));
  EXPECT_TRUE(pathExists(container("Empty") + "/Documents/orphan.txt"));

  const std::string path = knownApplication("App", "com.example.app");
  image_.writeBundle(path + "/V.vpnplugin", "com.example.app.vpn");
  const auto application = CVClassifyLegacyEntry(CVURL::fileURLWithPath(path, true));
  EXPECT_EQ(application.kind, LegacyEntryKind::Application);
  EXPECT_TRUE(application.orderResultEarly);
  ASSERT_TRUE(application.record.has_value());
  EXPECT_EQ(*application.record->findString("SecondBundlePath"), path + "/V.vpnplugin");
}

}  // namespace
