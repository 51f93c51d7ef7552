// The crash promise: a child process runs a series of installs and is killed
// at the Nth step that changes the disk or the registry, for every N; the
// registry opened again afterwards must hold either the state before or the
// state after each install, never a registered container that is missing,
// never an unregistered container or staging area with the only copy of a
// bundle or of user data; and the interrupted work must be able to go on.
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <set>

#include "installer/FaultInjection.h"
#include "installer/RegistryListing.h"
#include "tests/installer/InstallerFixture.h"
#include "tests/support/ChildProgram.h"

namespace installer_test {
namespace {

using mavrel_installer::ContainerClass;
using mavrel_installer::EmbeddedInstallerService;

constexpr int kKilled = 86;
constexpr int kScenarioComplete = 0;

// The child's fault handler: ends the process at the Nth point.
long pointsLeft = 0;
void killAtNthPoint(std::string_view) {
  if (--pointsLeft == 0) ::_exit(kKilled);
}

// The customer packages of the scenario: (container, identifier, bundle).
const std::tuple<std::string, std::string, std::string> kPackages[] = {
    {"A1", "com.example.alpha", "alpha.app"},
    {"B1", "com.example.beta", "beta.app"},
    {"A2", "com.example.alpha", "alpha.app"}};

// One copy of the image. Placeholder packages the migrator stages in the
// device's temporary directory are taken by rename.
struct Scenario {
  std::string root;
  std::string placeholders() const { return root + "/private/var/tmp/mavrel"; }
  std::string staging(const std::string& container) const {
    return root + "/private/var/mobile/Applications/" + container + "/Staging";
  }
  std::unique_ptr<EmbeddedInstallerService> open(CVGlobalConfiguration& configuration,
                                                 CVError* error) const {
    mavrel_installer::InstallerServiceOptions options = kNoFlush;
    options.temporaryDirectory = placeholders();
    return EmbeddedInstallerService::open(configuration, error, options);
  }
};

// Runs in the child. Returns the number of the step that failed, or 0.
int runScenario(const Scenario& scenario) {
  CVGlobalConfiguration configuration{platform::DeviceRoot(scenario.root)};
  auto service = scenario.open(configuration, nullptr);
  if (!service) return 10;
  const auto install = [&service](const std::string& path, const CVDictionary& options) {
    return service->installApplication(CVURL::fileURLWithPath(path, true), options, nullptr, {});
  };
  if (!install(scenario.placeholders() + "/com.example.alpha.app",
               placeholderOptions("com.example.alpha", CVData{'m', 'e', 't', 'a'})))
    return 11;
  const auto alpha = service->bundleRecordForIdentifier("com.example.alpha");
  if (!alpha || alpha->dataContainerURL.isNil()) return 12;
  // The user's data, moved in by the migrator.
  writeFile(alpha->dataContainerURL.path() + "/Documents/user.txt", "precious");
  if (!service->bundleRecordForIdentifier("com.zentrel.weather")) return 13;
  int step = 14;
  for (const auto& [container, identifier, bundle] : kPackages) {
    if (!install(scenario.staging(container), customerOptions(identifier))) return step;
    ++step;
  }
  // Resumed after the install: the same request with an empty payload.
  makeDirectories(scenario.staging("A2") + "/Payload");
  if (!install(scenario.staging("A2"), customerOptions("com.example.alpha"))) return 17;
  return kScenarioComplete;
}

class CrashRecoveryTest : public ::testing::Test {
 protected:
  // The image every run starts from.
  void SetUp() override {
    template_ = std::filesystem::canonical(templateDirectory_.path()).string();
    const Scenario image{template_ + "/image"};
    writeBundle(image.root + "/Applications/weather.app",
                {.identifier = "com.zentrel.weather", .groups = {"group.zentrel.weather"}});
    writeBundle(image.placeholders() + "/com.example.alpha.app",
                {.identifier = "com.example.alpha", .executable = ""});
    writeBundle(image.staging("A1") + "/Payload/alpha.app",
                {.identifier = "com.example.alpha",
                 .version = "2",
                 .groups = {"group.example.shared", "group.example.alpha"}});
    writeFile(image.staging("A1") + "/Manifest.plist", "manifest");
    writeBundle(image.staging("B1") + "/Payload/beta.app",
                {.identifier = "com.example.beta", .groups = {"group.example.shared"}});
    writeFile(image.staging("B1") + "/Payload/beta.vpnplugin/Info.plist", "plug-in");
    writeBundle(
        image.staging("A2") + "/Payload/alpha.app",
        {.identifier = "com.example.alpha", .version = "3", .groups = {"group.example.alpha"}});
  }

  // A fresh copy of the template, where the scenario runs in a child killed
  // at the Nth point (0: never); gives the child's exit code.
  int runChild(const TemporaryDirectory& directory, long killAt, Scenario& scenario) {
    const std::string base = std::filesystem::canonical(directory.path()).string();
    std::filesystem::copy(template_, base, std::filesystem::copy_options::recursive);
    scenario = Scenario{base + "/image"};
    return runInChild([&scenario, killAt] {
      const CapturedLog silent(platform::installerLog());
      pointsLeft = killAt;
      if (killAt > 0) mavrel_installer::setFaultHandler(&killAtNthPoint);
      return runScenario(scenario);
    });
  }

  void checkInvariants(const Scenario& scenario, long killAt);

  TemporaryDirectory templateDirectory_;
  std::string template_;
};

std::set<std::string> entriesAsPaths(const std::string& directory) {
  std::set<std::string> paths;
  for (const std::string& name : entriesOf(directory))
    paths.insert(directory + "/" + name);
  return paths;
}

void CrashRecoveryTest::checkInvariants(const Scenario& scenario, long killAt) {
  SCOPED_TRACE("killed at point " + std::to_string(killAt));
  CVGlobalConfiguration configuration{platform::DeviceRoot(scenario.root)};
  CVError error;
  auto service = scenario.open(configuration, &error);
  ASSERT_TRUE(service) << error.description();
  const auto listing = mavrel_installer::readRegistryListing(configuration, &error);
  ASSERT_TRUE(listing) << error.description();
  EXPECT_EQ(listing->pendingInstalls, 0u);
  EXPECT_EQ(entriesOf(service->stagingRoot()), kNothing);

  // Registered containers exist; every container is registered.
  std::set<std::string> bundles, data, groups;
  std::string alphaData;
  std::map<std::string, std::string> kinds;
  for (const mavrel_installer::ListedApplication& application : listing->applications) {
    SCOPED_TRACE(application.identifier);
    kinds[application.identifier] = application.kind;
    if (application.identifier == "com.example.alpha") alphaData = application.dataContainer;
    if (application.kind != "system") {
      EXPECT_TRUE(pathExists(application.bundlePath + "/Info.plist")) << application.bundlePath;
      bundles.insert(application.bundleContainer);
    }
    if (!application.dataContainer.empty()) {
      EXPECT_TRUE(pathExists(application.dataContainer + "/Library/Preferences"));
      data.insert(application.dataContainer);
    }
    for (const auto& [group, path] : application.groupContainers) {
      EXPECT_TRUE(pathExists(path)) << group;
      groups.insert(path);
    }
  }
  const mavrel_installer::ContainerLayout& layout = service->layout();
  EXPECT_EQ(entriesAsPaths(layout.directoryFor(ContainerClass::Bundle)), bundles);
  EXPECT_EQ(entriesAsPaths(layout.directoryFor(ContainerClass::Data)), data);
  EXPECT_EQ(entriesAsPaths(layout.directoryFor(ContainerClass::Group)), groups);

  // Not killed, the scenario ends with the user's data in place.
  if (killAt == 0) {
    EXPECT_TRUE(pathExists(alphaData + "/Documents/user.txt")) << alphaData;
  }
  // The user's data lives in the registered data container, and only there.
  for (const std::string& container : data) {
    if (pathExists(container + "/Documents/user.txt")) {
      EXPECT_EQ(container, alphaData);
      EXPECT_EQ(readFile(container + "/Documents/user.txt"), "precious");
    }
  }

  // Every package is either still where the caller put it, whole, or
  // installed; and what was interrupted can go on: every package left is
  // installed now.
  for (const auto& [container, identifier, bundle] : kPackages) {
    const std::string staging = scenario.staging(container);
    if (pathExists(staging + "/Payload/" + bundle)) {
      EXPECT_TRUE(pathExists(staging + "/Payload/" + bundle + "/Info.plist")) << staging;
    } else {
      EXPECT_EQ(kinds[identifier], "application") << staging << " is gone";
    }
  }
  for (const auto& [container, identifier, bundle] : kPackages) {
    const std::string staging = scenario.staging(container);
    if (!pathExists(staging)) continue;
    EXPECT_TRUE(service->installApplication(CVURL::fileURLWithPath(staging, true),
                                            customerOptions(identifier), &error, {}))
        << staging << ": " << error.description();
  }
  if (!alphaData.empty() && pathExists(alphaData + "/Documents/user.txt")) {
    EXPECT_EQ(service->bundleRecordForIdentifier("com.example.alpha")->dataContainerURL.path(),
              alphaData);
  }
}

TEST_F(CrashRecoveryTest, EveryInterruptedStepIsUndoneOrFinishedWhenTheRegistryIsOpened) {
  long killAt = 1;
  for (; killAt < 400; ++killAt) {
    TemporaryDirectory run;
    Scenario scenario;
    const int exitCode = runChild(run, killAt, scenario);
    if (exitCode == kScenarioComplete) break;  // fewer points than killAt
    ASSERT_EQ(exitCode, kKilled) << "scenario step " << exitCode << " failed at point " << killAt;
    checkInvariants(scenario, killAt);
    if (HasFailure()) break;
  }
  // The whole scenario, not killed, ends in the same shape.
  EXPECT_GT(killAt, 40) << "fewer points than expected";
  TemporaryDirectory run;
  Scenario scenario;
  ASSERT_EQ(runChild(run, 0, scenario), kScenarioComplete);
  checkInvariants(scenario, 0);
}

}  // namespace
}  // namespace installer_test
