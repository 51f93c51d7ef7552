// `mavrel plan`: every kind of legacy entry is classified and predicted as the
// pass would deal with it, the user data is counted, and nothing at all is
// written, on a fresh image and on one that already has a registry.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include "host/UniqueFd.h"
#include "tests/host/GeneratedImage.h"
#include "tests/support/DeviceImage.h"

namespace {

using namespace testing_support;
using namespace host_test;

constexpr const char* kMarkerName = "com.zentrel.corvane.container_migrator.plist";

class PlanCommandTest : public ::testing::Test {
 protected:
  std::string container(const std::string& name) const {
    return image_.legacyDirectory() + "/" + name;
  }
  // An application bundle whose Info.plist names `identifier` and, unless
  // `withExecutable` is false, an executable that is there.
  void writeApplication(const std::string& path, const std::string& identifier,
                        bool withExecutable = true) {
    image_.writeBundle(
        path, CVDictionary{{"QXBundleIdentifier", identifier}, {"QXBundleExecutable", "Main"}});
    if (withExecutable) writeFile(path + "/Main", "binary");
  }
  JSONValue plan() {
    const ProgramRun run =
        runMavrel({"plan", "--root", image_.rootPath(), "--json"}, scratch_.path());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    return parseJSON(run.out);
  }

  DeviceImage image_;
  TemporaryDirectory scratch_;
};

TEST_F(PlanCommandTest, EachKindOfEntryIsPredictedAsThePassDealsWithIt) {
  writeFile(container("WhereDidMyApplicationsGo.txt"), "gone");
  writeApplication(container("A") + "/Foo.app", "com.example.foo");
  writeFile(container("A") + "/Documents/notes.txt", "12345");
  writeFile(container("A") + "/Library/Preferences/p.plist", "123");
  writeFile(container("B") + "/Documents/orphan.txt", "orphaned");
  makeDirectories(container("C"));
  makeSymlink("/nowhere/Bar.app", container("C") + "/Bar.app");
  writeFile(container("D"), "a file where a container should be");
  image_.writeBundle(container("E") + "/Tunnel.vpnplugin", "com.example.tunnel");
  makeDirectories(container("F"));
  image_.writePlist(container("F") + "/" + kMarkerName,
                    CVDictionary{{"ContainerPath", container("F")},
                                 {"BundlePath", container("F") + "/Gone.app"},
                                 {"BundleIdentifier", "com.example.gone"},
                                 {"ContainerType", "App"}});
  writeApplication(container("G") + "/NoExec.app", "com.example.noexec", false);
  writeApplication(container("H") + "/Extra.app", "com.example.extra");
  writeFile(container("H") + "/Unexpected.dat", "?");

  const JSONValue document = plan();
  const auto entries = byPath(document["entries"]);
  ASSERT_EQ(entries.size(), 9u);
  const auto expect = [&](const std::string& name, const std::string& kind,
                          const std::string& outcome, const std::string& fate,
                          const std::string& step = "") {
    SCOPED_TRACE(name);
    const auto found = entries.find(container(name));
    ASSERT_NE(found, entries.end());
    const JSONValue& entry = found->second;
    EXPECT_EQ(entry["kind"].string, kind);
    EXPECT_EQ(entry["outcome"].string, outcome);
    EXPECT_EQ(entry["container"].string, fate);
    if (step.empty()) {
      EXPECT_TRUE(entry["failedStep"].isNull());
    } else {
      EXPECT_EQ(entry["failedStep"].string, step);
    }
    if (outcome != "migrated" && outcome != "removed") {
      EXPECT_FALSE(entry["reason"].string.empty());
    }
  };
  expect("WhereDidMyApplicationsGo.txt", "stray-note", "removed", "removed");
  expect("A", "application", "migrated", "removed");
  expect("B", "no-bundle", "removed", "removed");
  expect("C", "symlink-bundle", "left", "kept");
  expect("D", "regular-file", "removed", "removed");
  expect("E", "vpn-only", "failed", "kept", "bundle-record");
  expect("F", "resume", "failed", "kept", "placeholder");
  expect("G", "application", "failed", "removed", "install");
  expect("H", "application", "failed", "kept", "missed-items");

  const JSONValue& a = entries.at(container("A"));
  EXPECT_EQ(a["identifier"].string, "com.example.foo");
  EXPECT_EQ(a["registry"].string, "unknown");
  EXPECT_EQ(a["userData"]["files"].count(), 2u);
  EXPECT_EQ(a["userData"]["bytes"].count(), 8u);
  // The user data that goes with a removed container is counted, so the plan
  // shows what is lost with it.
  EXPECT_EQ(entries.at(container("B"))["userData"]["files"].count(), 1u);
  const JSONValue& h = entries.at(container("H"));
  ASSERT_EQ(h["missedItems"].array.size(), 1u);
  EXPECT_EQ(h["missedItems"].array[0].string, container("H") + "/Unexpected.dat");
  // Applications go first in the work list, VPN-only containers last.
  EXPECT_GT(entries.at(container("E"))["order"].count(), a["order"].count());
  EXPECT_EQ(entries.at(container("B"))["order"].count(), 0u);

  EXPECT_FALSE(document["predictedSuccess"].boolean);
  const JSONValue& totals = document["totals"];
  EXPECT_EQ(totals["entries"].count(), 9u);
  EXPECT_EQ(totals["migrated"].count(), 1u);
  EXPECT_EQ(totals["failed"].count(), 4u);
  EXPECT_EQ(totals["removed"].count(), 3u);
  EXPECT_EQ(totals["left"].count(), 1u);
  EXPECT_TRUE(document["registry"]["exists"].boolean == false);
}

TEST_F(PlanCommandTest, TextSaysWhatHappensToEachEntryAndTheVerdict) {
  writeApplication(container("A") + "/Foo.app", "com.example.foo");
  writeFile(container("A") + "/Documents/notes.txt", "12345");
  makeDirectories(container("C"));
  makeSymlink("/nowhere/Bar.app", container("C") + "/Bar.app");
  image_.writePlist(image_.dataDirectory() + "/SafeHarbor.plist",
                    CVDictionary{{"com.example.harbored",
                                  CVDictionary{{"HarborPathKey", image_.home("Harbors/h")}}}});

  const ProgramRun run = runMavrel({"plan", "--root", image_.rootPath()}, scratch_.path());
  ASSERT_EQ(run.exitCode, 0) << run.err;
  for (const std::string& expected :
       {std::string("1. com.example.foo  application  [registry: unknown]"),
        std::string("user data  1 file, 5 bytes"), std::string("LEFT in place"),
        std::string("is a symbolic link"), std::string("com.example.harbored"),
        std::string("registering it will fail"), std::string("same file system"),
        std::string("The migration is predicted to FAIL")}) {
    EXPECT_NE(run.out.find(expected), std::string::npos) << expected << "\n" << run.out;
  }
}

TEST_F(PlanCommandTest, RefusesAnUnusableRootOrLegacyDirectory) {
  ProgramRun run = runMavrel({"plan", "--root", image_.rootPath() + "/missing"}, scratch_.path());
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_NE(run.err.find("option '--root'"), std::string::npos) << run.err;

  run = runMavrel({"plan"}, scratch_.path());
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_NE(run.err.find("option '--root' is required"), std::string::npos) << run.err;

  // A legacy "directory" that is a file cannot be listed: the pass would not start.
  writeFile(image_.legacyDirectory(), "not a directory");
  run = runMavrel({"plan", "--root", image_.rootPath()}, scratch_.path());
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_NE(run.err.find(image_.legacyDirectory()), std::string::npos) << run.err;
}

TEST_F(PlanCommandTest, TheVerdictSaysWhenAMigrationIsRunningOrWasInterrupted) {
  writeApplication(container("A") + "/Foo.app", "com.example.foo");
  JSONValue document = plan();
  EXPECT_EQ(document["schemaVersion"].count(), 2u);
  EXPECT_FALSE(document["toolVersion"].string.empty());
  EXPECT_FALSE(document["migrationRunning"].boolean);
  EXPECT_FALSE(document["lastMigrationInterrupted"].boolean);
  EXPECT_TRUE(document["circumstances"].isNull());

  // A container the interrupted run had begun carries its marker.
  makeDirectories(container("F"));
  writeApplication(container("F") + "/Gone.app", "com.example.gone");
  image_.writePlist(container("F") + "/" + kMarkerName,
                    CVDictionary{{"ContainerPath", container("F")},
                                 {"BundlePath", container("F") + "/Gone.app"},
                                 {"BundleIdentifier", "com.example.gone"},
                                 {"ContainerType", "App"}});
  const std::string lockPath = image_.home("Library/Corvane/ApplicationRegistry.lock");
  writeFile(lockPath, "");
  struct Case {
    bool holdLock;
    std::string verdict;
  };
  for (const Case& circumstance :
       {Case{false, "The last migration of this image was interrupted: 1 container(s) resume"},
        Case{true, "A migration is running on this image now"}}) {
    const mavrel_host::UniqueFd lock(::open(lockPath.c_str(), O_RDONLY));
    if (circumstance.holdLock) {
      ASSERT_EQ(::flock(lock.get(), LOCK_EX | LOCK_NB), 0);
    }
    const ProgramRun run = runMavrel({"plan", "--root", image_.rootPath()}, scratch_.path());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find(circumstance.verdict), std::string::npos) << run.out;
    document = plan();
    EXPECT_EQ(document["migrationRunning"].boolean, circumstance.holdLock);
    EXPECT_TRUE(document["lastMigrationInterrupted"].boolean);
    EXPECT_EQ(document["circumstances"].string.rfind(circumstance.verdict, 0), 0u)
        << document["circumstances"].string;
  }
}

// The whole directory holding the image, before and after: names, contents,
// modes, modification times and extended attributes.
class PlanWritesNothingTest : public ::testing::Test {
 protected:
  void expectPlanLeavesEverythingAsItWas(const std::string& root) {
    const auto before = describeTree(directory_.path());
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"plan", "--root", root},
          std::vector<std::string>{"plan", "--root", root, "--json"}}) {
      const ProgramRun run = runMavrel(arguments, scratch_.path());
      ASSERT_EQ(run.exitCode, 0) << run.err;
    }
    const auto after = describeTree(directory_.path());
    EXPECT_EQ(before.size(), after.size());
    for (const auto& [path, description] : after) {
      const auto found = before.find(path);
      if (found == before.end()) {
        ADD_FAILURE() << "the plan made " << path;
      } else {
        EXPECT_EQ(found->second, description) << "the plan changed " << path;
      }
    }
  }

  TemporaryDirectory directory_;
  TemporaryDirectory scratch_;
};

TEST_F(PlanWritesNothingTest, OnAFreshImage) {
  samplegen::GeneratorOptions options;
  options.applicationCount = 8;
  options.seed = 21;
  options.extraItem = {"3"};
  const auto manifest = host_test::generateImage(directory_.path() + "/image", options);
  expectPlanLeavesEverythingAsItWas(manifest.root);
}

TEST_F(PlanWritesNothingTest, OnAnImageWithARegistryAndLeftovers) {
  samplegen::GeneratorOptions options;
  options.applicationCount = 6;
  options.seed = 22;
  options.extraItem = {"1"};
  const auto manifest = host_test::generateImage(directory_.path() + "/image", options);
  // A first migration leaves the registry, its containers, logs and the
  // container with the unexpected item.
  const ProgramRun migrated = runMavrel({"migrate", "--root", manifest.root}, scratch_.path());
  ASSERT_EQ(migrated.exitCode, 1) << migrated.out << migrated.err;
  expectPlanLeavesEverythingAsItWas(manifest.root);
}

}  // namespace
