// What `mavrel plan` predicts is what `mavrel migrate` does, and what the
// report of the pass says: on generated images with every kind of legacy
// entry (built-in duplicates, a bundle without its executable, a container
// with an unexpected item, VPN-only containers, the stray note, a container
// without a bundle, a linked bundle), the plan's outcome, failed step and
// container fate of each entry are those of the report, the pass migrates in
// the plan's work-list order, and the report's schema, totals, messages and
// console summary never claim success for a failed entry, and --verify finds
// that the failed pass lost no data. A clean pass leaves no safety net behind.
#include <gtest/gtest.h>

#include <algorithm>

#include "host/EntryRecorder.h"
#include "host/RunReport.h"
#include "tests/host/GeneratedImage.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;

class PlanAgainstPassTest : public ::testing::Test {
 protected:
  void comparePlanWithPass(const samplegen::ImageManifest& manifest) {
    const ProgramRun planned =
        runMavrel({"plan", "--root", manifest.root, "--json"}, directory_.path());
    ASSERT_EQ(planned.exitCode, 0) << planned.err;
    plan_ = parseJSON(planned.out);
    const JSONValue& plan = plan_;

    makeDirectories(directory_.path() + "/out");
    migrated_ = runMavrel({"migrate", "--root", manifest.root, "--verify", "--report", reportPath_},
                          directory_.path());
    ASSERT_NE(migrated_.exitCode, 2) << migrated_.out << migrated_.err;
    report_ = parseJSON(readFile(reportPath_));

    const auto predicted = byPath(plan["entries"]);
    happened_ = byPath(report_["entries"]);
    ASSERT_EQ(predicted.size(), happened_.size());
    ASSERT_GT(predicted.size(), 0u);
    std::vector<std::pair<std::uint64_t, std::string>> order;
    for (const auto& [path, entry] : predicted) {
      SCOPED_TRACE(path + " (" + entry["kind"].string + ")");
      const auto found = happened_.find(path);
      ASSERT_NE(found, happened_.end()) << "the report lacks the entry";
      const JSONValue& actual = found->second;
      EXPECT_EQ(entry["outcome"].string, actual["outcome"].string)
          << "predicted because: " << entry["reason"].string
          << "\nthe pass said: " << actual["message"].string;
      EXPECT_EQ(entry["failedStep"].string, actual["failedStep"].string);
      EXPECT_EQ(entry["container"].string, actual["container"].string);
      if (entry["order"].count() > 0) {
        EXPECT_EQ(entry["identifier"].string, actual["identifier"].string);
        order.emplace_back(entry["order"].count(), path);
      }
    }
    // The pass migrates in the plan's work-list order.
    std::sort(order.begin(), order.end());
    std::vector<std::string> migratedInOrder;
    for (const JSONValue& entry : report_["entries"].array) {
      if (!entry["identifier"].isNull()) migratedInOrder.push_back(entry["path"].string);
    }
    ASSERT_EQ(order.size(), migratedInOrder.size());
    for (std::size_t i = 0; i < order.size(); ++i)
      EXPECT_EQ(order[i].second, migratedInOrder[i]);

    EXPECT_EQ(plan["predictedSuccess"].boolean, report_["succeeded"].boolean);
    EXPECT_EQ(plan["totals"]["entries"].count(), report_["totals"]["entries"].count());
  }
  const JSONValue& entryOf(const std::string& path) {
    static const JSONValue missing;
    const auto found = happened_.find(path);
    EXPECT_NE(found, happened_.end()) << path;
    return found == happened_.end() ? missing : found->second;
  }

  TemporaryDirectory directory_;
  const std::string reportPath_ = directory_.path() + "/out/report.json";
  ProgramRun migrated_;
  JSONValue plan_;
  JSONValue report_;
  std::map<std::string, JSONValue> happened_;
};

TEST_F(PlanAgainstPassTest, EveryKindOfEntry) {
  samplegen::GeneratorOptions options;
  options.applicationCount = 14;
  options.seed = 31;
  options.vpnOnlyCount = 2;
  options.missingExecutable = {"2"};
  options.extraItem = {"5"};
  const auto manifest = host_test::generateImage(directory_.path() + "/image", options);
  // Entries the classification sorts out: a container without a bundle, a
  // linked bundle, a file where a container should be, a VPN plug-in without
  // its application, and a container an interrupted run had begun (its
  // marker names an application that is gone).
  const std::string legacy = manifest.legacyDirectory;
  const auto plist = [](const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + body +
           "</dict></plist>\n";
  };
  const auto pair = [](const std::string& key, const std::string& value) {
    return "<key>" + key + "</key><string>" + value + "</string>";
  };
  writeFile(legacy + "/NoBundle/Documents/orphan.txt", "orphan");
  makeDirectories(legacy + "/Linked");
  makeSymlink("/nowhere/Linked.app", legacy + "/Linked/Linked.app");
  writeFile(legacy + "/AFile", "a file where a container should be");
  writeFile(legacy + "/Tunnel/Tunnel.vpnplugin/Info.plist",
            plist(pair("QXBundleIdentifier", "com.example.tunnel")));
  writeFile(legacy + "/Resumed/com.zentrel.corvane.container_migrator.plist",
            plist(pair("ContainerPath", legacy + "/Resumed") +
                  pair("BundlePath", legacy + "/Resumed/Gone.app") +
                  pair("BundleIdentifier", "com.example.gone") + pair("ContainerType", "App")));
  comparePlanWithPass(manifest);
  ASSERT_EQ(migrated_.exitCode, 1) << migrated_.out << migrated_.err;

  // What the plan foresaw and the pass did, entry by entry (the pass agreed
  // with the plan above).
  const auto containerWhere = [&](bool (*test)(const samplegen::ContainerManifest&)) {
    return *std::find_if(manifest.containers.begin(), manifest.containers.end(), test);
  };
  const auto broken = containerWhere([](const auto& c) { return c.missingExecutable; });
  const auto extra = containerWhere([](const auto& c) { return c.extraItem; });
  const auto builtIn = containerWhere([](const auto& c) { return c.builtInDuplicate; });
  const auto plain = containerWhere([](const auto& c) {
    return !c.builtInDuplicate && !c.extraItem && !c.missingExecutable && c.containerType == "App";
  });
  const auto planned = byPath(plan_["entries"]);
  const struct {
    std::string path, kind, outcome, container, failedStep;
  } entries[] = {
      {manifest.strayNotePath, "stray-note", "removed", "removed", ""},
      {plain.containerPath, "application", "migrated", "removed", ""},
      {legacy + "/NoBundle", "no-bundle", "removed", "removed", ""},
      {legacy + "/Linked", "symlink-bundle", "left", "kept", ""},
      {legacy + "/AFile", "regular-file", "removed", "removed", ""},
      {legacy + "/Tunnel", "vpn-only", "failed", "kept", "bundle-record"},
      {legacy + "/Resumed", "resume", "failed", "kept", "placeholder"},
      {broken.containerPath, "application", "failed", "removed", "install"},
      {extra.containerPath, "application", "failed", "kept", "missed-items"},
      {builtIn.containerPath, "application", "refused-built-in", "removed", ""},
  };
  for (const auto& expected : entries) {
    SCOPED_TRACE(expected.path);
    ASSERT_EQ(planned.count(expected.path), 1u);
    EXPECT_EQ(planned.at(expected.path)["kind"].string, expected.kind);
    const JSONValue& entry = entryOf(expected.path);
    EXPECT_EQ(entry["outcome"].string, expected.outcome);
    EXPECT_EQ(entry["container"].string, expected.container);
    EXPECT_EQ(entry["failedStep"].string, expected.failedStep);
    // What is not migrated says why, in the plan and in the report.
    if (expected.outcome == "failed" || expected.outcome == "left") {
      EXPECT_FALSE(planned.at(expected.path)["reason"].string.empty());
      EXPECT_FALSE(entry["message"].string.empty());
    }
  }
  // The user data that goes with a removed container is counted, so the plan
  // shows what is lost with it.
  EXPECT_EQ(planned.at(legacy + "/NoBundle")["userData"]["files"].count(), 1u);
  EXPECT_EQ(planned.at(legacy + "/NoBundle")["order"].count(), 0u);
  EXPECT_NE(entryOf(extra.containerPath)["message"].string.find("Unexpected.dat"),
            std::string::npos);
  EXPECT_NE(entryOf(legacy + "/Linked")["message"].string.find("symlink"), std::string::npos);

  const JSONValue& totals = report_["totals"];
  const std::uint64_t legacyEntries = manifest.containers.size() + 6;
  std::uint64_t summed = 0;
  for (const char* key :
       {"migrated", "placeholderOnly", "refusedBuiltIn", "failed", "removed", "left"})
    summed += totals[key].count();
  EXPECT_EQ(summed, legacyEntries);
  EXPECT_EQ(totals["entries"].count(), legacyEntries);

  // The report: written atomically (nothing else is left beside it), with its
  // schema, one migrator that failed, and every entry's fields.
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory_.path() + "/out"))
    names.push_back(entry.path().filename().string());
  EXPECT_EQ(names, std::vector<std::string>{"report.json"});
  EXPECT_EQ(report_["root"].string, manifest.root);
  EXPECT_FALSE(report_["succeeded"].boolean);
  EXPECT_EQ(report_["exitCode"].count(), 1u);
  EXPECT_GE(report_["durationSeconds"].number, 0.0);
  ASSERT_EQ(report_["migrators"].array.size(), 1u);
  EXPECT_EQ(report_["migrators"].array[0]["name"].string, "CVAppMigrator");
  EXPECT_FALSE(report_["migrators"].array[0]["succeeded"].boolean);
  EXPECT_EQ(report_["migrators"].array[0]["entriesFound"].count(), legacyEntries);
  for (const JSONValue& entry : report_["entries"].array) {
    SCOPED_TRACE(entry["path"].string);
    EXPECT_EQ(entry["migrator"].string, "CVAppMigrator");
    EXPECT_TRUE(entry.has("identifier") && entry.has("message") && entry.has("failedStep"));
    EXPECT_EQ(entry["failedStep"].isNull(), entry["outcome"].string != "failed");
  }
  EXPECT_TRUE(pathExists(report_["logs"]["migration"].string));
  EXPECT_TRUE(pathExists(report_["logs"]["installer"].string));
  EXPECT_TRUE(report_["logs"]["migrationJSON"].isNull());
  EXPECT_EQ(report_["verification"]["missing"].count() + report_["verification"]["changed"].count(),
            0u);

  // The failed pass lost no data: the container with the unknown item stays
  // with the legacy tree and its map.
  EXPECT_TRUE(pathExists(extra.containerPath + "/Unexpected.dat"));
  EXPECT_TRUE(pathExists(manifest.installMapPath));

  // The console says the same, and never "succeeded".
  const std::string& err = migrated_.err;
  EXPECT_EQ(err.find("succeeded"), std::string::npos) << err;
  for (const std::string& said :
       {"failed at installing: " + broken.identifier,
        std::string("Apart from those removed, every file is at its new place."),
        std::to_string(legacyEntries) + " legacy entries:", "Report written to " + reportPath_})
    EXPECT_NE(err.find(said), std::string::npos) << said << "\n" << err;
}

TEST_F(PlanAgainstPassTest, AnImageThatMigratesCleanly) {
  samplegen::GeneratorOptions options;
  options.applicationCount = 10;
  options.seed = 32;
  options.vpnOnlyCount = 0;
  const auto manifest = host_test::generateImage(directory_.path() + "/image", options);
  comparePlanWithPass(manifest);
  EXPECT_EQ(report_["totals"]["failed"].count(), 0u);
  EXPECT_TRUE(report_["succeeded"].boolean);
  // The safety net held every file of the legacy containers and group
  // containers while the pass ran, and kept none.
  std::uint64_t files = 0;
  for (const auto& container : manifest.containers)
    files += container.dataFiles;
  for (const auto& group : manifest.groupContainers)
    files += group.files;
  const JSONValue& net = report_["safetyNet"];
  EXPECT_EQ(net["linked"].count(), files);
  EXPECT_EQ(net["notLinked"].count() + net["keptFiles"].count(), 0u);
  EXPECT_FALSE(pathExists(manifest.root + "/private/var/mobile/Library/Mavrel"));
  const ProgramRun recover = runMavrel({"recover", "--root", manifest.root}, directory_.path());
  EXPECT_EQ(recover.exitCode, 0);
  EXPECT_NE(recover.out.find("No safety net"), std::string::npos) << recover.out;
}

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
