// Install throughput for small bundles, next to the lower bound of the same
// work done as plain renames. Reported, not judged: the numbers depend on the
// machine and on the sanitizers of the test build.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>

#include "installer/InstallerFiles.h"
#include "tests/installer/InstallerFixture.h"
#include "tests/support/TestSupport.h"

namespace installer_test {
namespace {

using testing_support::makeDirectories;
using testing_support::TemporaryDirectory;

constexpr int kApplications = 200;

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class InstallThroughputTest : public InstallerFixture {};

TEST_F(InstallThroughputTest, MeasuresInstallsPerSecondForSmallBundles) {
  TemporaryDirectory temporary;
  std::vector<std::string> identifiers;
  for (int i = 0; i < kApplications; ++i) {
    const std::string identifier = "com.example.app" + std::to_string(i);
    identifiers.push_back(identifier);
    BundleSpec spec{identifier};
    spec.executable = "Main";
    stageCustomerPackage("T" + std::to_string(i), spec, false, {"SorvikMetadata.plist"});
    BundleSpec placeholder{identifier};
    placeholder.executable.clear();
    makePlaceholderPackage(temporary.path(), placeholder);
    // The lower bound's own copy of the same package.
    writeBundle(temporary / ("plain/" + std::to_string(i) + "/Staging/Payload/app.app"), spec);
  }

  auto start = std::chrono::steady_clock::now();
  for (const std::string& identifier : identifiers) {
    ASSERT_TRUE(
        installPlaceholder(temporary / (identifier + ".app"), identifier, CVData{'m'}).succeeded);
  }
  const double placeholderSeconds = secondsSince(start);

  start = std::chrono::steady_clock::now();
  for (int i = 0; i < kApplications; ++i) {
    ASSERT_TRUE(installCustomer(home("Applications/T" + std::to_string(i) + "/Staging"),
                                identifiers[static_cast<std::size_t>(i)])
                    .succeeded);
  }
  const double customerSeconds = secondsSince(start);

  // The lower bound of a customer install: a new container and one rename.
  makeDirectories(temporary / "containers");
  start = std::chrono::steady_clock::now();
  for (int i = 0; i < kApplications; ++i) {
    const std::string container = temporary / ("containers/" + std::to_string(i));
    CVError error;
    ASSERT_TRUE(mavrel_installer::makeOwnedDirectory(container, 0755, {}, &error));
    ASSERT_TRUE(mavrel_installer::renameItem(
        temporary / ("plain/" + std::to_string(i) + "/Staging/Payload/app.app"),
        container + "/app.app", &error));
  }
  const double plainSeconds = secondsSince(start);

  const double placeholderRate = kApplications / placeholderSeconds;
  const double customerRate = kApplications / customerSeconds;
  const double plainRate = kApplications / plainSeconds;
  std::printf(
      "[ INSTALLS ] placeholder %.0f/s, customer %.0f/s, plain mkdir+rename %.0f/s "
      "(%d each)\n",
      placeholderRate, customerRate, plainRate, kApplications);
  RecordProperty("placeholderInstallsPerSecond", static_cast<int>(placeholderRate));
  RecordProperty("customerInstallsPerSecond", static_cast<int>(customerRate));
  RecordProperty("plainMovesPerSecond", static_cast<int>(plainRate));
  EXPECT_EQ(entriesOf(bundleContainers()).size(), static_cast<std::size_t>(kApplications));
  EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
}

}  // namespace
}  // namespace installer_test
