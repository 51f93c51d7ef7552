// `mavrel plan`: what its text says of each entry and of the run (whether
// one is running now or was interrupted), what it refuses, and that nothing
// at all is written, on a fresh image and on one that already has a
// registry. Each kind of entry is predicted in PlanAgainstPassTest.
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
constexpr const char* kGoneGroup = "/private/var/mobile/Library/GroupContainers/Gone";

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

TEST_F(PlanCommandTest, TextSaysWhatHappensToEachEntryAndTheVerdict) {
  writeApplication(container("A") + "/Foo.app", "com.example.foo");
  writeFile(container("A") + "/Documents/notes.txt", "12345");
  makeDirectories(container("C"));
  makeSymlink("/nowhere/Bar.app", container("C") + "/Bar.app");
  image_.writePlist(image_.dataDirectory() + "/SafeHarbor.plist",
                    CVDictionary{{"com.example.harbored",
                                  CVDictionary{{"HarborPathKey", image_.home("Harbors/h")}}}});

  // A group container the install map names but the image lacks.
  image_.writePlist(
      image_.installMapPath(),
      CVDictionary{{"GroupContainers", CVDictionary{{"group.example.gone",
                                                     CVDictionary{{"Container", kGoneGroup}}}}}});
  const ProgramRun run = runMavrel({"plan", "--root", image_.rootPath()}, scratch_.path());
  ASSERT_EQ(run.exitCode, 0) << run.err;
  for (const std::string& expected :
       {std::string("1. com.example.foo  application  [registry: unknown]"),
        std::string("user data  1 file, 5 bytes"), std::string("LEFT in place"),
        std::string("is a symbolic link"), std::string("com.example.harbored"),
        std::string("registering it will fail"), std::string("same file system"),
        "group.example.gone  " + std::string(kGoneGroup) + " -> " + image_.rootPath() + kGoneGroup +
            "  (NOT MIGRATED: it leads to nothing in the image)",
        std::string("The migration is predicted to FAIL")}) {
    EXPECT_NE(run.out.find(expected), std::string::npos) << expected << "\n" << run.out;
  }
}

TEST_F(PlanCommandTest, ALegacyDirectoryThatCannotBeListedIsRefused) {
  // The pass would not start either.
  writeFile(image_.legacyDirectory(), "not a directory");
  const ProgramRun run = runMavrel({"plan", "--root", image_.rootPath()}, scratch_.path());
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

// On a fresh image, and on one where a first migration left the registry,
// its containers, logs and the container with the unexpected item.
TEST_F(PlanWritesNothingTest, OnAFreshImageAndOneWithARegistryAndLeftovers) {
  samplegen::GeneratorOptions options;
  options.applicationCount = 6;
  options.seed = 22;
  options.extraItem = {"1"};
  const auto manifest = host_test::generateImage(directory_.path() + "/image", options);
  expectPlanLeavesEverythingAsItWas(manifest.root);
  const ProgramRun migrated = runMavrel({"migrate", "--root", manifest.root}, scratch_.path());
  ASSERT_EQ(migrated.exitCode, 1) << migrated.out << migrated.err;
  expectPlanLeavesEverythingAsItWas(manifest.root);
}

}  // namespace
