// `mavrel migrate --report FILE`: the report's schema, each kind of entry's
// outcome as the plug-in reported it, the totals, the log paths, and a
// console summary that never claims success for a failed entry; a report
// that cannot be written where asked is refused before anything is migrated.
#include <gtest/gtest.h>

#include <filesystem>

#include "host/EntryRecorder.h"
#include "host/RunReport.h"
#include "tests/host/GeneratedImage.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;

class RunReportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    samplegen::GeneratorOptions options;
    options.applicationCount = 8;
    options.seed = 51;
    options.vpnOnlyCount = 1;
    options.missingExecutable = {"1"};
    options.extraItem = {"3"};
    manifest_ = host_test::generateImage(directory_.path() + "/image", options);
    // Two more entries the classification discards: one removed, one left.
    writeFile(manifest_.legacyDirectory + "/NoBundle/Documents/orphan.txt", "orphan");
    makeDirectories(manifest_.legacyDirectory + "/Linked");
    makeSymlink("/nowhere/Linked.app", manifest_.legacyDirectory + "/Linked/Linked.app");
  }

  const samplegen::ContainerManifest& containerWhere(
      bool (*test)(const samplegen::ContainerManifest&)) {
    const auto found = std::find_if(manifest_.containers.begin(), manifest_.containers.end(), test);
    EXPECT_NE(found, manifest_.containers.end());
    return *found;
  }

  TemporaryDirectory directory_;
  samplegen::ImageManifest manifest_;
};

TEST_F(RunReportTest, EachEntryHasItsOutcome) {
  const std::string reportPath = directory_.path() + "/out/report.json";
  makeDirectories(directory_.path() + "/out");
  const ProgramRun run =
      runMavrel({"migrate", "--root", manifest_.root, "--report", reportPath}, directory_.path());
  ASSERT_EQ(run.exitCode, 1) << run.out << run.err;
  // Written atomically: nothing else is left beside it.
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory_.path() + "/out"))
    names.push_back(entry.path().filename().string());
  EXPECT_EQ(names, std::vector<std::string>{"report.json"});

  const JSONValue report = parseJSON(readFile(reportPath));
  EXPECT_EQ(report["root"].string, manifest_.root);
  EXPECT_FALSE(report["startedAt"].string.empty());
  EXPECT_GE(report["durationSeconds"].number, 0.0);
  EXPECT_FALSE(report["succeeded"].boolean);
  EXPECT_EQ(report["exitCode"].count(), 1u);
  ASSERT_EQ(report["migrators"].array.size(), 1u);
  const JSONValue& migrator = report["migrators"].array[0];
  EXPECT_EQ(migrator["name"].string, "CVAppMigrator");
  EXPECT_FALSE(migrator["succeeded"].boolean);
  // Every legacy entry once: the containers, the stray note and the two extra.
  const std::uint64_t legacyEntries = manifest_.containers.size() + 3;
  EXPECT_EQ(migrator["entriesFound"].count(), legacyEntries);
  ASSERT_EQ(report["entries"].array.size(), legacyEntries);
  EXPECT_EQ(report["totals"]["entries"].count(), legacyEntries);

  std::uint64_t summed = 0;
  for (const char* key :
       {"migrated", "placeholderOnly", "refusedBuiltIn", "failed", "removed", "left"})
    summed += report["totals"][key].count();
  EXPECT_EQ(summed, legacyEntries);
  for (const JSONValue& entry : report["entries"].array) {
    SCOPED_TRACE(entry["path"].string);
    EXPECT_EQ(entry["migrator"].string, "CVAppMigrator");
    EXPECT_TRUE(entry.has("identifier") && entry.has("message") && entry.has("failedStep"));
    EXPECT_TRUE(entry["container"].string == "removed" || entry["container"].string == "kept");
    EXPECT_EQ(entry["failedStep"].isNull(), entry["outcome"].string != "failed");
    EXPECT_GE(entry["durationSeconds"].number, 0.0);
  }

  const auto entries = byPath(report["entries"]);
  const auto outcomeOf = [&entries](const std::string& path) -> const JSONValue& {
    const auto found = entries.find(path);
    EXPECT_NE(found, entries.end()) << path;
    static const JSONValue missing;
    return found == entries.end() ? missing : found->second;
  };
  const JSONValue& stray = outcomeOf(manifest_.strayNotePath);
  EXPECT_EQ(stray["outcome"].string, "removed");
  EXPECT_EQ(stray["container"].string, "removed");
  EXPECT_EQ(outcomeOf(manifest_.legacyDirectory + "/NoBundle")["outcome"].string, "removed");
  const JSONValue& linked = outcomeOf(manifest_.legacyDirectory + "/Linked");
  EXPECT_EQ(linked["outcome"].string, "left");
  EXPECT_EQ(linked["container"].string, "kept");
  EXPECT_NE(linked["message"].string.find("symlink"), std::string::npos);

  const auto& broken = containerWhere([](const auto& c) { return c.missingExecutable; });
  const JSONValue& install = outcomeOf(broken.containerPath);
  EXPECT_EQ(install["identifier"].string, broken.identifier);
  EXPECT_EQ(install["outcome"].string, "failed");
  EXPECT_EQ(install["failedStep"].string, "install");
  EXPECT_EQ(install["container"].string, "removed");
  EXPECT_FALSE(install["message"].string.empty());

  const auto& extra = containerWhere([](const auto& c) { return c.extraItem; });
  const JSONValue& missed = outcomeOf(extra.containerPath);
  EXPECT_EQ(missed["failedStep"].string, "missed-items");
  EXPECT_EQ(missed["container"].string, "kept");
  EXPECT_NE(missed["message"].string.find("Unexpected.dat"), std::string::npos);

  const auto& builtIn = containerWhere([](const auto& c) { return c.builtInDuplicate; });
  EXPECT_EQ(outcomeOf(builtIn.containerPath)["outcome"].string, "refused-built-in");
  const auto& plain = containerWhere([](const auto& c) {
    return !c.builtInDuplicate && !c.extraItem && !c.missingExecutable && c.containerType == "App";
  });
  EXPECT_EQ(outcomeOf(plain.containerPath)["outcome"].string, "migrated");

  EXPECT_TRUE(pathExists(report["logs"]["migration"].string));
  EXPECT_TRUE(pathExists(report["logs"]["installer"].string));
  EXPECT_TRUE(report["logs"]["migrationJSON"].isNull());
  EXPECT_TRUE(report["verification"].isNull());

  // The console says the same, and never "succeeded".
  EXPECT_EQ(run.err.find("succeeded"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("failed at installing: " + broken.identifier), std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find(std::to_string(legacyEntries) + " legacy entries:"), std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("Report written to " + reportPath), std::string::npos) << run.err;
}

TEST_F(RunReportTest, AReportThatCannotBeWrittenIsRefusedBeforeMigrating) {
  const std::string reportPath = directory_.path() + "/no/such/dir/report.json";
  const ProgramRun run =
      runMavrel({"migrate", "--root", manifest_.root, "--report", reportPath}, directory_.path());
  EXPECT_EQ(run.exitCode, 2) << run.out << run.err;
  EXPECT_NE(run.err.find("option '--report'"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find(reportPath), std::string::npos) << run.err;
  // Nothing was migrated.
  for (const auto& container : manifest_.containers)
    EXPECT_TRUE(pathExists(container.containerPath)) << container.containerPath;
}

}  // namespace

namespace {

// The one line a failed run ends with, for each mix of outcomes and passes.
TEST(FailedRunLineTest, SaysWhatFailedInWordsThatCount) {
  const auto line = [](std::vector<MavrelEntryOutcome> outcomes, bool passFailed) {
    mavrel_host::RunReport report;
    for (const MavrelEntryOutcome outcome : outcomes) {
      mavrel_host::RecordedEntry entry;
      entry.result.outcome = outcome;
      report.entries.push_back(entry);
    }
    report.migrators.push_back({"AppMigrator", !passFailed, 0, std::nullopt});
    return mavrel_host::describeFailedRun(report);
  };
  using enum MavrelEntryOutcome;
  const std::vector<std::pair<std::string, std::string>> cases = {
      {line({}, false), "the migration failed"},
      {line({Failed, Migrated}, false), "1 legacy entry failed"},
      {line({Failed, Failed}, false), "2 legacy entries failed"},
      {line({Left}, false), "1 legacy entry was left in place"},
      {line({Left, Left, Failed}, true),
       "1 legacy entry failed, 2 legacy entries were left in place and the pass of AppMigrator "
       "reported failure"},
  };
  for (const auto& [got, expected] : cases)
    EXPECT_EQ(got, expected);
}

}  // namespace
