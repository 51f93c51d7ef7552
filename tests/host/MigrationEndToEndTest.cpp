// The real `mavrel migrate --verify` on generated legacy images: every user
// file arrives with its bytes; the plan (which writes nothing) foretells the
// pass, its report and console; damage done after the pass exits 3; a moved
// image or a "/var" link changes nothing; the safety net keeps, recovers and
// purges what the rules discard, is adopted after an interruption and cannot
// be led out of.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "host/EntryRecorder.h"
#include "host/RunReport.h"
#include "host/SafetyNetManifest.h"
#include "installer/EmbeddedInstallerService.h"
#include "platform/DeviceRoot.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "tests/host/GeneratedImage.h"
#include "tests/support/DeviceImage.h"
#include "tests/support/JSON.h"
#include "tests/support/TreeSnapshot.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;
using host_test::expectContains;
using host_test::expectLacks;

using Files = std::map<std::string, std::string>;  // relative path -> SHA-256

const std::string kNetBase = "/private/var/mobile/Library/Mavrel/SafetyNet";

class MigrationEndToEndTest : public ::testing::Test {
 protected:
  ProgramRun mavrel(const std::vector<std::string>& arguments) {
    return runMavrel(arguments, scratch_.path());
  }
  void SetUp() override { makeDirectories(scratch_ / "out"); }
  ProgramRun migrate(const std::string& root, std::vector<std::string> extra = {}) {
    extra.insert(extra.begin(), {"migrate", "--root", root, "--verify", "--report", report()});
    migrated_ = mavrel(extra);
    report_ = parseJSON(readFile(report()));
    return migrated_;
  }
  std::string report() const { return scratch_ / "out/report.json"; }

  // The plan as JSON; neither it nor the text plan changes anything in the
  // directory holding the image (names, contents, modes, times, attributes).
  JSONValue planWritingNothing(const std::string& root) {
    const TreeSnapshot before = snapshotTree(directory_.path());
    EXPECT_EQ(mavrel({"plan", "--root", root}).exitCode, 0);
    const ProgramRun planned = mavrel({"plan", "--root", root, "--json"});
    EXPECT_EQ(planned.exitCode, 0) << planned.err;
    EXPECT_EQ(listed(differences(before, snapshotTree(directory_.path()), AccessTimes::Ignored)),
              "")
        << "the plan wrote into the image";
    return parseJSON(planned.out);
  }

  // Plans, migrates, and expects each entry's outcome, failed step and
  // container fate as planned, in the plan's work-list order.
  void comparePlanWithPass(const samplegen::ImageManifest& manifest) {
    plan_ = planWritingNothing(manifest.root);
    ASSERT_NE(migrate(manifest.root, {"--progress-fd", "1"}).exitCode, 2) << migrated_.err;
    const auto predicted = byPath(plan_["entries"]);
    happened_ = byPath(report_["entries"]);
    ASSERT_EQ(predicted.size(), happened_.size());
    ASSERT_GT(predicted.size(), 0u);
    std::map<std::uint64_t, std::string> order;  // the plan's work list
    for (const auto& [path, entry] : predicted) {
      SCOPED_TRACE(path + " (" + entry["kind"].string + ")");
      const JSONValue& actual = entryOf(path);
      EXPECT_EQ(entry["outcome"].string, actual["outcome"].string)
          << "predicted because: " << entry["reason"].string
          << "\nthe pass said: " << actual["message"].string;
      EXPECT_EQ(entry["failedStep"].string, actual["failedStep"].string);
      EXPECT_EQ(entry["container"].string, actual["container"].string);
      if (entry["order"].count() > 0) {
        EXPECT_EQ(entry["identifier"].string, actual["identifier"].string);
        EXPECT_TRUE(order.emplace(entry["order"].count(), path).second) << "order repeated";
      }
    }
    std::vector<std::string> planned, migratedInOrder;
    for (const auto& [position, path] : order)
      planned.push_back(path);
    for (const JSONValue& entry : report_["entries"].array) {
      if (!entry["identifier"].isNull()) migratedInOrder.push_back(entry["path"].string);
    }
    EXPECT_EQ(planned, migratedInOrder);
    // The progress stream on standard output tells the same: each migrated
    // entry begins and takes steps, and every entry ends with the report's
    // outcome, counted up to the total.
    std::vector<std::string> began, finished;
    std::size_t steps = 0;
    std::istringstream events(migrated_.out);
    for (std::string line; std::getline(events, line);) {
      const JSONValue event = parseJSON(line);
      if (event["event"].string == "entry-began") began.push_back(event["path"].string);
      steps += event["event"].string == "entry-step" ? 1 : 0;
      if (event["event"].string != "entry") continue;
      finished.push_back(event["path"].string);
      EXPECT_EQ(event["outcome"].string, entryOf(finished.back())["outcome"].string);
      EXPECT_EQ(event["done"].count(), finished.size());
      EXPECT_EQ(event["total"].count(), happened_.size());
    }
    EXPECT_EQ(began, migratedInOrder);
    EXPECT_EQ(finished.size(), happened_.size());
    EXPECT_GT(steps, began.size());
    EXPECT_EQ(plan_["predictedSuccess"].boolean, report_["succeeded"].boolean);
    EXPECT_EQ(plan_["totals"]["entries"].count(), report_["totals"]["entries"].count());
  }
  const JSONValue& entryOf(const std::string& path) {
    static const JSONValue missing;
    const auto found = happened_.find(path);
    EXPECT_NE(found, happened_.end()) << "the report lacks " << path;
    return found == happened_.end() ? missing : found->second;
  }

  // The user-data files of containers and groups (and harbors, when asked).
  static std::uint64_t userDataFiles(const samplegen::ImageManifest& manifest, bool harbors) {
    std::uint64_t files = 0;
    for (const auto& container : manifest.containers)
      files += container.dataFiles;
    for (const auto& group : manifest.groupContainers)
      files += group.files;
    for (const auto& harbor : manifest.harbors)
      files += harbors ? harbor.files : 0;
    return files;
  }

  // Each recorded file at its new place with the same bytes.
  static void expectArrived(const Files& recorded, const std::string& place,
                            const std::string& what) {
    Files arrived = digestsBelow(place);
    std::erase_if(arrived, [&](const auto& item) { return recorded.count(item.first) == 0; });
    EXPECT_EQ(arrived, recorded) << what << ": files missing or changed";
  }
  // The user-data files of the legacy container at `container`, by path
  // relative to it, after `prefix`.
  static Files userData(const std::string& container, const std::string& prefix = "") {
    Files files;
    for (const char* item : {"Documents", "Library", "tmp", "Pormex"}) {
      for (const auto& [path, digest] : digestsBelow(container + "/" + item))
        files[prefix + item + "/" + path] = digest;
    }
    return files;
  }

  TemporaryDirectory directory_, scratch_;
  ProgramRun migrated_;
  JSONValue plan_, report_;
  std::map<std::string, JSONValue> happened_;
};

TEST_F(MigrationEndToEndTest, EveryApplicationAndEveryFileArrivesAsPlanned) {
  const auto manifest = host_test::generateImage(directory_ / "image", 24, 7);
  // The user data of each container and each group container, before the pass.
  std::map<std::string, Files> containerData, groupData;
  std::uint64_t recorded = 0;
  for (const auto& container : manifest.containers)
    recorded += (containerData[container.identifier] = userData(container.containerPath)).size();
  for (const auto& group : manifest.groupContainers)
    recorded += (groupData[group.identifier] = digestsBelow(group.path)).size();
  // The manifest's own count: the walk above must have seen every file.
  EXPECT_EQ(recorded, userDataFiles(manifest, false));
  EXPECT_GT(manifest.vpnOnlyCount(), 0u);

  comparePlanWithPass(manifest);
  ASSERT_EQ(migrated_.exitCode, 0) << migrated_.out << migrated_.err;
  const std::uint64_t files = userDataFiles(manifest, true);
  expectContains(migrated_.err, {": succeeded in ", "No user data was lost.",
                                 "Verified " + std::to_string(files) + " of " +
                                     std::to_string(files) + " user-data files"});
  const JSONValue& verification = report_["verification"];
  EXPECT_EQ(verification["files"].count(), files);
  EXPECT_EQ(verification["verified"].count(), files);
  for (const char* key : {"missing", "changed", "leftBehind", "removedByDesign"})
    EXPECT_EQ(verification[key].count(), 0u) << key;
  for (const std::string& gone :
       {manifest.legacyDirectory, manifest.installMapPath, manifest.harborMapPath})
    EXPECT_FALSE(pathExists(gone)) << gone;
  EXPECT_TRUE(pathExists(manifest.root +
                         "/private/var/mobile/Library/Corvane/AppMigratorLastSystemVersion.plist"));
  // The safety net held every file of the legacy containers and groups while
  // the pass ran, and a clean pass keeps none.
  const JSONValue& net = report_["safetyNet"];
  EXPECT_EQ(net["linked"].count(), userDataFiles(manifest, false));
  EXPECT_EQ(net["notLinked"].count() + net["keptFiles"].count(), 0u);
  EXPECT_GT(net["layDurationSeconds"].number, 0);
  EXPECT_GT(net["settleDurationSeconds"].number, 0);
  EXPECT_FALSE(pathExists(manifest.root + "/private/var/mobile/Library/Mavrel"));
  const ProgramRun recover = mavrel({"recover", "--root", manifest.root});
  EXPECT_EQ(recover.exitCode, 0);
  expectContains(recover.out, {"No safety net"});

  CVGlobalConfiguration configuration{platform::DeviceRoot(manifest.root)};
  CVError error;
  const auto registry = mavrel_installer::EmbeddedInstallerService::open(configuration, &error);
  ASSERT_NE(registry, nullptr) << error.description();
  const ProgramRun apps = mavrel({"apps", "--json", "--root", manifest.root});
  for (const auto& container : manifest.containers) {
    SCOPED_TRACE(container.identifier);
    const auto record = registry->bundleRecordForIdentifier(container.identifier);
    ASSERT_TRUE(record.has_value() && record->dataContainerURL);
    const std::string data = record->dataContainerURL.path();
    expectArrived(containerData[container.identifier], data, container.identifier);
    if (container.builtInDuplicate) {
      EXPECT_EQ(record->bundleType, "System");
      continue;
    }
    // A VPN-only container's data belongs to the plug-in that its
    // application installed; the listing names the plug-in and that data.
    const bool vpn = container.containerType == "VPNBundle";
    EXPECT_EQ(record->bundleType, vpn ? "VPNPlugin" : "User");
    EXPECT_TRUE(record->foundBackingBundle);
    if (vpn)
      expectContains(apps.out, {"\"vpnPluginIdentifier\":\"" + container.identifier +
                                "\",\"vpnPluginDataContainer\":\"" + data + "\""});
    // Group contents arrived in the group containers the registry assigned.
    ASSERT_TRUE(record->groupContainerURLs.has_value());
    for (const std::string& group : container.groups) {
      const CVValue* url = record->groupContainerURLs->find(group);
      ASSERT_NE(url, nullptr) << "lacks " << group;
      expectArrived(groupData[group], url->asURL()->path(), group);
    }
  }
  for (const auto& group : manifest.groupContainers)
    EXPECT_FALSE(pathExists(group.path));
}

TEST_F(MigrationEndToEndTest, DamageAfterThePassIsCaught) {
  const struct {
    std::string kind, summary, named;  // the file's line starts with `named`
    std::string examples;              // the report's list that names it
  } cases[] = {
      {"remove", "USER DATA LOST: 1 file(s) missing, 0 file(s) changed",
       "missing: ", "missingExamples"},
      {"corrupt", "USER DATA LOST: 0 file(s) missing, 1 file(s) changed",
       "changed: ", "changedExamples"},
      // A file still at its old place while the run says it moved is out of
      // its application's reach: named, counted and never called safe.
      {"unmove", "USER DATA LEFT BEHIND: 1 file(s)", "left behind: ", "leftBehindExamples"},
  };
  for (const auto& damage : cases) {
    SCOPED_TRACE(damage.kind);
    const auto manifest = host_test::generateImage(directory_ / ("image-" + damage.kind), 6, 41);
    // The first user-data file under "Documents", relative to its container.
    std::string identifier, legacy, document;
    for (const auto& container : manifest.containers) {
      const Files documents = digestsBelow(container.containerPath + "/Documents");
      if (!document.empty() || documents.empty()) continue;
      identifier = container.identifier;
      legacy = container.containerPath;
      document = "Documents/" + documents.begin()->first;
    }
    ASSERT_FALSE(document.empty()) << "no document in the image";
    ::setenv("MAVREL_TEST_DAMAGE", (damage.kind + ":" + identifier + ":" + document).c_str(), 1);
    ::setenv("MAVREL_TEST_LEGACY_CONTAINER", legacy.c_str(), 1);
    const ProgramRun run = migrate(
        manifest.root, {"--plugin-dir", host_test::damagingPluginDirectory(scratch_ / "plugins")});
    ::unsetenv("MAVREL_TEST_DAMAGE");
    ::unsetenv("MAVREL_TEST_LEGACY_CONTAINER");
    EXPECT_EQ(run.exitCode, 3) << run.out << run.err;
    expectContains(run.err, {damage.summary, damage.named,
                             damage.kind == "unmove" ? legacy + "/" + document : document});
    expectLacks(run.err, {"o user data was lost"});
    const auto& examples = report_["verification"][damage.examples].array;
    ASSERT_EQ(examples.size(), 1u);
    expectContains(examples[0].string, {document});
  }
}

// A device's "/var" is a link into "/private", and an image may be copied
// elsewhere before it is migrated: each gives the same outcome, entry by entry
// and file by file. (The forms the maps' paths take are DataMigrationTest's.)
TEST_F(MigrationEndToEndTest, EveryFormOfDevicePathAndAMovedImageMigrateAlike) {
  enum class Variant { AsMade, CopiedElsewhere, VarIsALink };
  std::map<std::string, std::string> firstOutcomes;
  for (const Variant variant : {Variant::AsMade, Variant::CopiedElsewhere, Variant::VarIsALink}) {
    SCOPED_TRACE(static_cast<int>(variant));
    const std::string made = directory_ / "made";
    fs::remove_all(made);
    const auto manifest = host_test::generateImage(directory_ / "made", 6, 46);
    std::string root = manifest.root;
    if (variant == Variant::CopiedElsewhere) {
      root = directory_ / "copy";
      fs::remove_all(root);
      ASSERT_EQ(runProgram("cp", {"-a", made, root}).exitCode, 0);
      fs::remove_all(made);
    }
    if (variant == Variant::VarIsALink) fs::create_directory_symlink("private/var", root + "/var");

    const ProgramRun run = migrate(root);
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_EQ(report_["verification"]["verified"].count(), userDataFiles(manifest, true));
    EXPECT_EQ(report_["verification"]["leftBehind"].count(), 0u);
    std::map<std::string, std::string> outcomes;
    for (const auto& entry : report_["entries"].array)
      outcomes[fs::path(entry["path"].string).filename()] = entry["outcome"].string;
    if (variant == Variant::AsMade) firstOutcomes = outcomes;
    EXPECT_EQ(outcomes, firstOutcomes);
    const std::string groups = root + "/private/var/mobile/Library/GroupContainers";
    EXPECT_FALSE(fs::exists(groups) && !fs::is_empty(groups)) << "group data stayed behind";
    fs::remove_all(root);
  }
}

// Every kind of legacy entry, generated and handmade: the plan agrees with the
// pass (which fails and loses nothing), and neither the report nor the console
// claims success for a failed entry.
TEST_F(MigrationEndToEndTest, PlanAgainstPassOnEveryKindOfEntry) {
  const auto manifest = host_test::generateImage(directory_ / "image", 14, 31, 2, {"2"}, {"5"});
  // Entries the classification sorts out (the table below names each kind);
  // the marker of "Resumed" names an application that is gone.
  const std::string legacy = manifest.legacyDirectory;
  writeFile(legacy + "/NoBundle/Documents/orphan.txt", "orphan");
  makeDirectories(legacy + "/Linked");
  makeSymlink("/nowhere/Linked.app", legacy + "/Linked/Linked.app");
  writeFile(legacy + "/AFile", "a file where a container should be");
  DeviceImage::writePlist(legacy + "/Tunnel/Tunnel.vpnplugin/Info.plist",
                          CVDictionary{{"QXBundleIdentifier", "com.example.tunnel"}});
  DeviceImage::writePlist(legacy + "/Resumed/com.zentrel.corvane.container_migrator.plist",
                          CVDictionary{{"ContainerPath", legacy + "/Resumed"},
                                       {"BundlePath", legacy + "/Resumed/Gone.app"},
                                       {"BundleIdentifier", "com.example.gone"},
                                       {"ContainerType", "App"}});
  comparePlanWithPass(manifest);
  ASSERT_EQ(migrated_.exitCode, 1) << migrated_.out << migrated_.err;
  planWritingNothing(manifest.root);

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
  // shows what is lost with it, and the check names it as removed by design.
  EXPECT_EQ(planned.at(legacy + "/NoBundle")["userData"]["files"].count(), 1u);
  EXPECT_EQ(planned.at(legacy + "/NoBundle")["order"].count(), 0u);
  EXPECT_EQ(report_["verification"]["removedByDesign"].count(), 1u);
  expectContains(entryOf(extra.containerPath)["message"].string, {"Unexpected.dat"});
  expectContains(entryOf(legacy + "/Linked")["message"].string, {"symlink"});

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
  EXPECT_EQ(std::distance(fs::directory_iterator(scratch_ / "out"), fs::directory_iterator()), 1);
  EXPECT_EQ(report_["root"].string, manifest.root);
  EXPECT_FALSE(report_["succeeded"].boolean);
  EXPECT_EQ(report_["exitCode"].count(), 1u);
  EXPECT_GE(report_["durationSeconds"].number, 0.0);
  ASSERT_EQ(report_["migrators"].array.size(), 1u);
  const JSONValue& migrator = report_["migrators"].array[0];
  EXPECT_EQ(migrator["name"].string, "CVAppMigrator");
  EXPECT_FALSE(migrator["succeeded"].boolean);
  EXPECT_EQ(migrator["entriesFound"].count(), legacyEntries);
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
  expectLacks(migrated_.err, {"succeeded"});
  expectContains(
      migrated_.err,
      {"failed at installing: " + broken.identifier,
       "1 file(s) were removed with legacy containers that held no application",
       "Apart from those removed, every file is at its new place.",
       std::to_string(legacyEntries) + " legacy entries:", "Report written to " + report()});
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
  EXPECT_EQ(line({}, false), "the migration failed");
  EXPECT_EQ(line({Failed, Migrated}, false), "1 legacy entry failed");
  EXPECT_EQ(line({Failed, Failed}, false), "2 legacy entries failed");
  EXPECT_EQ(line({Left}, false), "1 legacy entry was left in place");
  EXPECT_EQ(line({Left, Left, Failed}, true),
            "1 legacy entry failed, 2 legacy entries were left in place and the pass of "
            "AppMigrator reported failure");
}

// Two containers the rules remove (one without a bundle, one whose bundle has
// no Info.plist): their files, and nothing else, stay in the net, named by
// the report; recover copies them out under their legacy paths; purge
// removes the net. The same image without the net migrates alike.
TEST_F(MigrationEndToEndTest, SafetyNetWhatTheRulesDiscardIsKeptRecoveredAndPurged) {
  std::map<std::string, std::vector<std::string>> outcomes;
  for (const bool withNet : {true, false}) {
    SCOPED_TRACE(withNet);
    const auto manifest =
        host_test::generateImage(directory_ / (withNet ? "net" : "plain"), 6, 51, 0);
    const std::string root = manifest.root, noBundle = manifest.legacyDirectory + "/NoBundle";
    writeFile(noBundle + "/Documents/orphan.txt", "orphan");
    writeFile(noBundle + "/Library/Preferences/p.plist", "prefs");
    const std::string unreadable = manifest.containers.front().containerPath;
    for (const auto& entry : fs::directory_iterator(unreadable)) {
      if (entry.path().extension() == ".app") fs::remove(entry.path() / "Info.plist");
    }
    writeFile(unreadable + "/Documents/mine.txt", "mine");
    const auto underRoot = [&root](const std::string& container) {
      return userData(container, fs::relative(container, root).string() + "/");
    };
    Files discarded = underRoot(noBundle);
    discarded.merge(underRoot(unreadable));

    std::vector<std::string> arguments{"migrate", "--root", root, "--report", report()};
    if (!withNet) arguments.push_back("--no-safety-net");
    const ProgramRun run = mavrel(arguments);
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const auto document = parseJSON(readFile(report()));
    for (const auto& entry : document["entries"].array) {
      const std::string name = entry["identifier"].string.empty()
                                   ? fs::path(entry["path"].string).filename().string()
                                   : entry["identifier"].string;
      outcomes[name].push_back(entry["outcome"].string);
    }
    if (!withNet) {
      EXPECT_TRUE(document["safetyNet"].isNull());
      EXPECT_FALSE(fs::exists(root + "/private/var/mobile/Library/Mavrel"));
      continue;
    }
    const auto& net = document["safetyNet"];
    const std::string runId = net["runId"].string, netDirectory = root + kNetBase + "/" + runId;
    EXPECT_EQ(net["directory"].string, netDirectory);
    EXPECT_EQ(net["keptFiles"].count(), discarded.size());
    std::set<std::string> named;
    for (const auto& entry : net["kept"].array) {
      named.insert(entry["legacyPath"].string);
      expectContains(entry["reason"].string, {"removed the container"});
    }
    EXPECT_EQ(named, (std::set<std::string>{noBundle, unreadable}));
    auto kept = digestsBelow(netDirectory);
    EXPECT_EQ(kept.erase("SafetyNet.plist"), 1u) << "a kept net is marked complete";
    EXPECT_EQ(kept, discarded);
    expectContains(run.err, {"Safety net: kept " + std::to_string(discarded.size())});
    expectContains(mavrel({"apps", "--root", root}).out, {"Safety net: 1 net(s)"});

    const std::string out = scratch_ / "recovered";
    const ProgramRun recover = mavrel({"recover", "--root", root, "--to", out});
    ASSERT_EQ(recover.exitCode, 0) << recover.out << recover.err;
    expectContains(recover.out, {"/" + discarded.begin()->first});
    EXPECT_EQ(digestsBelow(out + "/" + runId), discarded);
    EXPECT_EQ(mavrel({"recover", "--root", root, "--to", out}).exitCode, 2)
        << "a destination that is not empty is refused";
    const ProgramRun purge = mavrel({"recover", "--root", root, "--purge"});
    EXPECT_EQ(purge.exitCode, 0) << purge.out << purge.err;
    EXPECT_FALSE(fs::exists(root + "/private/var/mobile/Library/Mavrel"));
    EXPECT_EQ(digestsBelow(out + "/" + runId), discarded) << "purging leaves the copy alone";
  }
  for (const auto& [name, each] : outcomes) {
    ASSERT_EQ(each.size(), 2u) << name;
    EXPECT_EQ(each[0], each[1]) << name;
  }
}

// A net without its state file is an interrupted run's: the next run takes
// it over, keeps what that run discarded (a container it removed), drops
// what is still in place and marks the net complete.
TEST_F(MigrationEndToEndTest, SafetyNetAResumedRunAdoptsTheInterruptedNet) {
  const auto manifest = host_test::generateImage(directory_ / "resumed", 6, 53, 0);
  const std::string root = manifest.root, interrupted = root + kNetBase + "/20000101-000000";
  const std::string legacyRelative = fs::relative(manifest.legacyDirectory, root).string();
  // The interrupted run linked a file of a container it then removed...
  const std::string links = interrupted + "/SafetyNet.links";
  writeFile(links + "/0", "gone");
  const std::string goneDigest = digestsBelow(links).at("0");
  std::string records;
  mavrel_host::appendNetLinkRecord(records, "0", legacyRelative + "/Gone", "Documents/gone.txt");
  // ...and a file still in place, which its laying had linked twice before
  // it was cut short (the second link is in no record).
  const std::string container =
      fs::relative(manifest.containers.back().containerPath, root).string();
  const auto stillThere = userData(manifest.containers.back().containerPath, container + "/");
  ASSERT_FALSE(stillThere.empty());
  const auto& [linked, digest] = *stillThere.begin();
  fs::create_hard_link(root + "/" + linked, links + "/1");
  fs::create_hard_link(root + "/" + linked, links + "/2");
  mavrel_host::appendNetLinkRecord(records, "1", container, linked.substr(container.size() + 1));
  ASSERT_TRUE(mavrel_host::writeNetManifest(interrupted, {records}, nullptr));

  // Before it is settled, recover copies each linked file to its legacy path.
  const std::string gone = legacyRelative + "/Gone/Documents/gone.txt";
  ASSERT_EQ(mavrel({"recover", "--root", root, "--to", scratch_ / "recovered"}).exitCode, 0);
  EXPECT_EQ(digestsBelow(scratch_ / "recovered/20000101-000000"),
            (Files{{gone, goneDigest}, {linked, digest}}));

  const ProgramRun run = mavrel({"migrate", "--root", root, "--report", report()});
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  const auto net = parseJSON(readFile(report()))["safetyNet"];
  EXPECT_EQ(net["runId"].string, "20000101-000000");
  EXPECT_TRUE(net["adopted"].boolean);
  EXPECT_EQ(net["keptFiles"].count(), 1u);
  ASSERT_EQ(net["kept"].array.size(), 1u);
  EXPECT_EQ(net["kept"].array[0]["legacyPath"].string, manifest.legacyDirectory + "/Gone");
  expectContains(net["kept"].array[0]["reason"].string, {"interrupted"});
  Files settled = digestsBelow(interrupted);
  EXPECT_EQ(settled.erase("SafetyNet.plist"), 1u) << "the adopted net is marked complete";
  EXPECT_EQ(settled, (Files{{gone, goneDigest}}));
  EXPECT_EQ(digestsBelow(root + kNetBase).size(), 2u) << "no second net was made";
}

// The manifest is read from the image, which may be crafted: a record whose
// link name or paths could lead out of the net's directories is left out.
TEST(SafetyNetManifestTest, RecordsThatCouldLeadOutOfTheNetAreLeftOut) {
  const struct {
    std::string_view link, container, inner;
    bool kept;
  } cases[] = {
      {"7", "private/var/mobile/Applications/A", "Documents/a.txt", true},
      {"../7", "private/var/mobile/Applications/A", "Documents/a.txt", false},
      {"7x", "private/var/mobile/Applications/A", "Documents/a.txt", false},
      {"12345678901234567890", "private/A", "a", false},
      {"7", "../../outside", "a.txt", false},
      {"7", "/private/var/mobile/Applications/A", "a.txt", false},
      {"7", "private/var/mobile/Applications/A", "Documents/../../../a.txt", false},
      {"7", "private/var/mobile/Applications/A", "Documents//a.txt", false},
      {"7", "private/var/mobile/Applications/A", ".", false},
  };
  for (const auto& c : cases) {
    std::string manifest;
    mavrel_host::appendNetLinkRecord(manifest, c.link, c.container, c.inner);
    EXPECT_EQ(mavrel_host::parseNetManifest(manifest).size(), c.kept ? 1u : 0u)
        << c.link << " " << c.container << " " << c.inner;
  }
  // A record cut short is left out; the one before it stays.
  std::string manifest;
  mavrel_host::appendNetLinkRecord(manifest, "1", "private/A", "a");
  constexpr char kCut[] = "2\0private/B\0b";
  manifest.append(kCut, sizeof kCut - 1);
  const auto records = mavrel_host::parseNetManifest(manifest);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].legacyRelative(), "private/A/a");
}

}  // namespace
