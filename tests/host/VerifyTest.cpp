// `mavrel migrate --verify`: every user-data file is checked at its new
// place. A file removed or changed after the pass (by a test plug-in that runs
// after the real migrator) is reported and gives exit code 3; a pass that
// fails without losing data says so plainly.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "tests/host/GeneratedImage.h"

namespace {

namespace fs = std::filesystem;
using host_test::parseJSON;
using host_test::ProgramRun;
using host_test::runMavrel;
using testing_support::readFile;
using testing_support::TemporaryDirectory;

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

  // The number of user-data files the image holds: containers and groups.
  static std::uint64_t userDataFiles(const samplegen::ImageManifest& manifest) {
    std::uint64_t files = 0;
    for (const auto& container : manifest.containers)
      files += container.dataFiles;
    for (const auto& group : manifest.groupContainers)
      files += group.files;
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
  EXPECT_NE(run.err.find("No user data was lost."), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("1 file(s) were removed with legacy containers that held no application"),
            std::string::npos)
      << run.err;

  const auto document = parseJSON(readFile(report));
  const auto& verification = document["verification"];
  EXPECT_EQ(verification["files"].count(), userDataFiles(manifest));
  EXPECT_EQ(verification["verified"].count(), userDataFiles(manifest));
  EXPECT_EQ(verification["missing"].count(), 0u);
  EXPECT_EQ(verification["changed"].count(), 0u);
  EXPECT_EQ(verification["removedByDesign"].count(), 1u);
}

TEST_F(VerifyTest, ARemovedFileIsMissing) {
  const auto manifest = generate(42);
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

TEST_F(VerifyTest, AChangedFileIsCaught) {
  const auto manifest = generate(43);
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
