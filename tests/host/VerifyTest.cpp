// `mavrel migrate --verify`: every user-data file is checked at its new
// place. A file removed or changed after the pass (by a test plug-in that runs
// after the real migrator) is reported and gives exit code 3; a pass that
// fails without losing data says so plainly.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>

#include "platform/PropertyList.h"
#include "tests/host/GeneratedImage.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;

// Sets an environment variable for the life of the object.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const std::string& value) : name_(name) {
    ::setenv(name, value.c_str(), 1);
  }
  ~ScopedEnvironment() { ::unsetenv(name_); }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  const char* name_;
};

class VerifyTest : public ::testing::Test {
 protected:
  samplegen::ImageManifest generate(std::uint64_t seed, std::vector<std::string> extraItem = {}) {
    samplegen::GeneratorOptions options;
    options.applicationCount = 6;
    options.seed = seed;
    options.vpnOnlyCount = 0;
    options.extraItem = std::move(extraItem);
    return host_test::generateImage(directory_.path() + "/image", options);
  }

  // The number of user-data files the image holds: containers, groups and harbors.
  static std::uint64_t userDataFiles(const samplegen::ImageManifest& manifest) {
    std::uint64_t files = 0;
    for (const auto& container : manifest.containers)
      files += container.dataFiles;
    for (const auto& group : manifest.groupContainers)
      files += group.files;
    for (const auto& harbor : manifest.harbors)
      files += harbor.files;
    return files;
  }

  // A plug-in directory with the real migrator and, after it, the damaging one.
  std::string damagingPluginDirectory() {
    const std::string directory = directory_.path() + "/plugins";
    fs::create_directories(directory);
    fs::copy_file(MAVREL_BINARY_DIR "/plugins/AppMigrator.migrator",
                  directory + "/AppMigrator.migrator");
    fs::copy_file(MAVREL_BINARY_DIR "/test-plugins/DamagingMigrator.migrator",
                  directory + "/ZZDamagingMigrator.migrator");
    return directory;
  }

  // The first user-data file of the first container that has one under
  // "Documents", relative to the container.
  static std::pair<std::string, std::string> someDocument(
      const samplegen::ImageManifest& manifest) {
    for (const auto& container : manifest.containers) {
      const fs::path documents = fs::path(container.containerPath) / "Documents";
      if (!fs::exists(documents)) continue;
      for (const auto& entry : fs::recursive_directory_iterator(documents)) {
        if (entry.is_regular_file() && !entry.is_symlink())
          return {container.identifier,
                  fs::relative(entry.path(), container.containerPath).string()};
      }
    }
    ADD_FAILURE() << "no document in the image";
    return {};
  }

  TemporaryDirectory directory_;
};

TEST_F(VerifyTest, EveryFileArrives) {
  const auto manifest = generate(41);
  // A container without an application goes with its data, as designed: that
  // is said, and is no loss.
  testing_support::writeFile(manifest.legacyDirectory + "/NoBundle/Documents/orphan.txt", "o");
  const std::string report = directory_.path() + "/report.json";
  const ProgramRun run = runMavrel(
      {"migrate", "--root", manifest.root, "--verify", "--report", report}, directory_.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  const std::string files = std::to_string(userDataFiles(manifest));
  EXPECT_NE(run.err.find("Verified " + files + " of " + files + " user-data files"),
            std::string::npos)
      << run.err;
  // Removed by the rules is said, and never contradicted.
  EXPECT_NE(run.err.find("1 file(s) were removed with legacy containers that held no application"),
            std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("Apart from those removed, every file is at its new place."),
            std::string::npos)
      << run.err;
  EXPECT_EQ(run.err.find("o user data was lost"), std::string::npos) << run.err;

  const auto document = parseJSON(readFile(report));
  const auto& verification = document["verification"];
  EXPECT_EQ(verification["files"].count(), userDataFiles(manifest));
  EXPECT_EQ(verification["verified"].count(), userDataFiles(manifest));
  EXPECT_EQ(verification["missing"].count(), 0u);
  EXPECT_EQ(verification["changed"].count(), 0u);
  EXPECT_EQ(verification["removedByDesign"].count(), 1u);
}

// A device writes its maps with "/private/var/..." or "/var/..." paths, images
// made by earlier versions hold host paths inside the root, a device's "/var"
// is a link into "/private", and an image may be copied elsewhere before it is
// migrated: each gives the same outcome, entry by entry and file by file.
TEST_F(VerifyTest, EveryFormOfDevicePathAndAMovedImageMigrateAlike) {
  enum class Variant { AsMade, CopiedElsewhere, VarPaths, HostPaths, VarIsALink };
  std::map<std::string, std::string> firstOutcomes;
  for (const Variant variant : {Variant::AsMade, Variant::CopiedElsewhere, Variant::VarPaths,
                                Variant::HostPaths, Variant::VarIsALink}) {
    SCOPED_TRACE(static_cast<int>(variant));
    const std::string made = directory_.path() + "/made";
    fs::remove_all(made);
    samplegen::GeneratorOptions options;
    options.applicationCount = 6;
    options.seed = 46;
    auto manifest = host_test::generateImage(made, options);
    std::string root = manifest.root;
    if (variant == Variant::CopiedElsewhere) {
      root = directory_.path() + "/copy";
      fs::remove_all(root);
      ASSERT_EQ(runProgram("cp", {"-a", made, root}).exitCode, 0);
      fs::remove_all(made);
    }
    // Rewrites every group container path of the install map.
    const auto rewriteGroups = [&root](const std::function<std::string(std::string)>& rewrite) {
      const CVURL map = CVURL::fileURLWithPath(
          root + "/private/var/mobile/Library/Caches/com.zentrel.corvane.plist", false);
      auto installMap = platform::readPropertyListDictionary(map, nullptr);
      ASSERT_TRUE(installMap.has_value());
      CVDictionary groups = *installMap->findDictionary("GroupContainers");
      for (std::size_t i = 0; i < groups.count(); ++i) {
        const std::string path = *groups.valueAt(i).asDictionary()->findString("Container");
        groups.set(groups.keys()[i], CVDictionary{{"Container", rewrite(path)}});
      }
      installMap->set("GroupContainers", groups);
      ASSERT_TRUE(platform::writePropertyListAtomically(CVValue(*installMap), map, nullptr));
    };
    if (variant == Variant::VarPaths)
      rewriteGroups([](std::string path) { return path.substr(std::string("/private").size()); });
    if (variant == Variant::HostPaths)
      rewriteGroups([&root](std::string path) { return root + path; });
    if (variant == Variant::VarIsALink) fs::create_directory_symlink("private/var", root + "/var");

    const std::string report = directory_.path() + "/report.json";
    const ProgramRun run =
        runMavrel({"migrate", "--root", root, "--verify", "--report", report}, directory_.path());
    EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
    const auto document = parseJSON(readFile(report));
    const auto& verification = document["verification"];
    EXPECT_EQ(verification["verified"].count(), userDataFiles(manifest)) << run.out;
    EXPECT_EQ(verification["leftBehind"].count(), 0u);
    std::map<std::string, std::string> outcomes;
    for (const auto& entry : document["entries"].array)
      outcomes[fs::path(entry["path"].string).filename()] = entry["outcome"].string;
    if (variant == Variant::AsMade) firstOutcomes = outcomes;
    EXPECT_EQ(outcomes, firstOutcomes);
    EXPECT_FALSE(fs::exists(root + "/private/var/mobile/Library/GroupContainers") &&
                 !fs::is_empty(root + "/private/var/mobile/Library/GroupContainers"))
        << "group data stayed behind";
    fs::remove_all(root);
  }
}

TEST_F(VerifyTest, ARemovedFileIsMissing) {
  const auto manifest = generate(41);
  const auto [identifier, document] = someDocument(manifest);
  const ScopedEnvironment damage("MAVREL_TEST_DAMAGE", "remove:" + identifier + ":" + document);
  const ProgramRun run = runMavrel(
      {"migrate", "--root", manifest.root, "--verify", "--plugin-dir", damagingPluginDirectory()},
      directory_.path());
  EXPECT_EQ(run.exitCode, 3) << run.out << run.err;
  EXPECT_NE(run.err.find("USER DATA LOST: 1 file(s) missing, 0 file(s) changed"), std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("missing: "), std::string::npos) << run.err;
  EXPECT_NE(run.err.find(document), std::string::npos) << run.err;
}

// A file still at its old place while the run says it moved is out of its
// application's reach: named, counted and never called safe.
TEST_F(VerifyTest, AFileLeftBehindWhereTheRunSaysItMovedIsALoss) {
  const auto manifest = generate(41);
  const auto [identifier, document] = someDocument(manifest);
  std::string legacy;
  for (const auto& container : manifest.containers) {
    if (container.identifier == identifier) legacy = container.containerPath;
  }
  const ScopedEnvironment damage("MAVREL_TEST_DAMAGE", "unmove:" + identifier + ":" + document);
  const ScopedEnvironment back("MAVREL_TEST_LEGACY_CONTAINER", legacy);
  const ProgramRun run = runMavrel(
      {"migrate", "--root", manifest.root, "--verify", "--plugin-dir", damagingPluginDirectory()},
      directory_.path());
  EXPECT_EQ(run.exitCode, 3) << run.out << run.err;
  EXPECT_NE(run.err.find("USER DATA LEFT BEHIND: 1 file(s)"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("left behind: " + legacy + "/" + document), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find("o user data was lost"), std::string::npos) << run.err;
}

TEST_F(VerifyTest, AChangedFileIsCaught) {
  const auto manifest = generate(41);
  const auto [identifier, document] = someDocument(manifest);
  const ScopedEnvironment damage("MAVREL_TEST_DAMAGE", "corrupt:" + identifier + ":" + document);
  const ProgramRun run = runMavrel(
      {"migrate", "--root", manifest.root, "--verify", "--plugin-dir", damagingPluginDirectory()},
      directory_.path());
  EXPECT_EQ(run.exitCode, 3) << run.out << run.err;
  EXPECT_NE(run.err.find("USER DATA LOST: 0 file(s) missing, 1 file(s) changed"), std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("changed: "), std::string::npos) << run.err;
}

TEST_F(VerifyTest, AFailedPassThatLostNothingSaysSo) {
  const auto manifest = generate(44, {"2"});
  const ProgramRun run =
      runMavrel({"migrate", "--root", manifest.root, "--verify"}, directory_.path());
  EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
  EXPECT_NE(run.err.find("The migration failed, but no user data was lost"), std::string::npos)
      << run.err;
  EXPECT_EQ(run.err.find("succeeded"), std::string::npos) << run.err;
}

}  // namespace
