// The crash promise: a child process runs a series of installs and is killed
// at the Nth step that changes the disk or the registry, for every N; the
// registry opened again afterwards must hold either the state before or the
// state after each install, never a registered container that is missing,
// never an unregistered container or staging area with the only copy of a
// bundle or of user data; and the interrupted work must be able to go on.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "installer/FaultInjection.h"
#include "installer/InstallJournal.h"
#include "installer/RegistryListing.h"
#include "platform/Log.h"
#include "tests/installer/InstallerFixture.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace installer_test {
namespace {

using mavrel_installer::EmbeddedInstallerService;
using namespace testing_support;

constexpr int kKilled = 86;
constexpr int kScenarioComplete = 0;

// The child's fault handler: ends the process at the Nth point.
long pointsLeft = 0;
void killAtNthPoint(std::string_view) {
  if (--pointsLeft == 0) ::_exit(kKilled);
}

class SilentSink final : public platform::LogSink {
 public:
  void write(const platform::LogLine&) override {}
};

// The image's applications and packages, by role.
struct Scenario {
  std::string root;          // the image
  std::string placeholders;  // the device's temporary directory, where the migrator stages
  std::string home() const { return root + "/private/var/mobile"; }
  std::string staging(const std::string& container) const {
    return home() + "/Applications/" + container + "/Staging";
  }
  // Placeholder packages staged there are taken by rename.
  mavrel_installer::InstallerServiceOptions options() const {
    mavrel_installer::InstallerServiceOptions options = kNoFlush;
    options.temporaryDirectory = placeholders;
    return options;
  }
};

// Runs in the child. Returns the number of the step that failed, or 0.
int runScenario(const Scenario& scenario) {
  CVGlobalConfiguration configuration{platform::DeviceRoot(scenario.root)};
  auto service = EmbeddedInstallerService::open(configuration, nullptr, scenario.options());
  if (!service) return 10;
  const auto install = [&service](const std::string& path, const CVDictionary& options) {
    return service->installApplication(CVURL::fileURLWithPath(path, true), options, nullptr, {});
  };
  if (!install(scenario.placeholders + "/com.example.alpha.app",
               placeholderOptions("com.example.alpha", CVData{'m', 'e', 't', 'a'})))
    return 11;
  const auto alpha = service->bundleRecordForIdentifier("com.example.alpha");
  if (!alpha || alpha->dataContainerURL.isNil()) return 12;
  // The user's data, moved in by the migrator.
  std::filesystem::create_directory(alpha->dataContainerURL.path() + "/Documents");
  std::ofstream(alpha->dataContainerURL.path() + "/Documents/user.txt") << "precious";
  if (!service->bundleRecordForIdentifier("com.zentrel.weather")) return 13;
  if (!install(scenario.staging("A1"), customerOptions("com.example.alpha"))) return 14;
  if (!install(scenario.staging("B1"), customerOptions("com.example.beta"))) return 15;
  if (!install(scenario.staging("A2"), customerOptions("com.example.alpha"))) return 16;
  // Resumed after the install: the same request with an empty payload.
  std::filesystem::create_directories(scenario.staging("A2") + "/Payload");
  if (!install(scenario.staging("A2"), customerOptions("com.example.alpha"))) return 17;
  return kScenarioComplete;
}

class CrashRecoveryTest : public ::testing::Test {
 protected:
  // The image every run starts from.
  void SetUp() override {
    template_ = std::filesystem::canonical(templateDirectory_.path()).string();
    const std::string root = template_ + "/image";
    const std::string home = root + "/private/var/mobile";
    BundleSpec weather{"com.zentrel.weather"};
    weather.groups = {"group.zentrel.weather"};
    writeBundle(root + "/Applications/weather.app", weather);
    BundleSpec alphaPlaceholder{"com.example.alpha"};
    alphaPlaceholder.executable.clear();
    writeBundle(root + "/private/var/tmp/mavrel/com.example.alpha.app", alphaPlaceholder);
    BundleSpec alpha2{"com.example.alpha"};
    alpha2.version = "2";
    alpha2.groups = {"group.example.shared", "group.example.alpha"};
    writeBundle(home + "/Applications/A1/Staging/Payload/alpha.app", alpha2);
    testing_support::writeFile(home + "/Applications/A1/Staging/Manifest.plist", "manifest");
    BundleSpec beta{"com.example.beta"};
    beta.groups = {"group.example.shared"};
    writeBundle(home + "/Applications/B1/Staging/Payload/beta.app", beta);
    testing_support::writeFile(home + "/Applications/B1/Staging/Payload/beta.vpnplugin/Info.plist",
                               "plug-in");
    BundleSpec alpha3{"com.example.alpha"};
    alpha3.version = "3";
    alpha3.groups = {"group.example.alpha"};
    writeBundle(home + "/Applications/A2/Staging/Payload/alpha.app", alpha3);
  }

  // A fresh copy of the template.
  Scenario copyTemplate(const TemporaryDirectory& directory) {
    const std::string base = std::filesystem::canonical(directory.path()).string();
    std::filesystem::copy(template_, base, std::filesystem::copy_options::recursive);
    return Scenario{base + "/image", base + "/image/private/var/tmp/mavrel"};
  }

  // Runs the scenario in a child killed at the Nth point (0: never).
  int runChild(const Scenario& scenario, long killAt) {
    return testing_support::runInChild([&scenario, killAt] {
      platform::installerLog().setSink(std::make_shared<SilentSink>());
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
  auto service = EmbeddedInstallerService::open(configuration, &error, scenario.options());
  ASSERT_TRUE(service) << error.description();
  const auto listing = mavrel_installer::readRegistryListing(configuration, &error);
  ASSERT_TRUE(listing) << error.description();
  EXPECT_EQ(listing->pendingInstalls, 0u);
  EXPECT_EQ(entriesOf(service->stagingRoot()), std::vector<std::string>{});

  // Registered containers exist; every container is registered.
  std::set<std::string> bundles, data, groups;
  std::string alphaData;
  for (const mavrel_installer::ListedApplication& application : listing->applications) {
    SCOPED_TRACE(application.identifier);
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
  EXPECT_EQ(entriesAsPaths(layout.directoryFor(mavrel_installer::ContainerClass::Bundle)), bundles);
  EXPECT_EQ(entriesAsPaths(layout.directoryFor(mavrel_installer::ContainerClass::Data)), data);
  EXPECT_EQ(entriesAsPaths(layout.directoryFor(mavrel_installer::ContainerClass::Group)), groups);

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

  // Every package is either still where the caller put it, whole, or installed.
  const auto kindOf = [&listing](const std::string& identifier) {
    for (const auto& application : listing->applications)
      if (application.identifier == identifier) return application.kind;
    return std::string();
  };
  for (const auto& [container, identifier, bundle] :
       {std::tuple{"A1", "com.example.alpha", "alpha.app"},
        std::tuple{"B1", "com.example.beta", "beta.app"},
        std::tuple{"A2", "com.example.alpha", "alpha.app"}}) {
    const std::string staging = scenario.staging(container);
    if (pathExists(staging + "/Payload/" + bundle)) {
      EXPECT_TRUE(pathExists(staging + "/Payload/" + bundle + "/Info.plist")) << staging;
    } else {
      EXPECT_EQ(kindOf(identifier), "application") << staging << " is gone";
    }
  }

  // What was interrupted can go on: every package left is installed now.
  for (const auto& [container, identifier] :
       {std::pair{"A1", "com.example.alpha"}, std::pair{"B1", "com.example.beta"},
        std::pair{"A2", "com.example.alpha"}}) {
    const std::string staging = scenario.staging(container);
    if (!pathExists(staging)) continue;
    CVError installError;
    EXPECT_TRUE(service->installApplication(CVURL::fileURLWithPath(staging, true),
                                            customerOptions(identifier), &installError, {}))
        << staging << ": " << installError.description();
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
    const Scenario scenario = copyTemplate(run);
    const int exitCode = runChild(scenario, killAt);
    if (exitCode == kScenarioComplete) break;  // fewer points than killAt
    ASSERT_EQ(exitCode, kKilled) << "scenario step " << exitCode << " failed at point " << killAt;
    checkInvariants(scenario, killAt);
    if (HasFailure()) break;
  }
  // The whole scenario, not killed, ends in the same shape.
  EXPECT_GT(killAt, 40) << "fewer points than expected";
  TemporaryDirectory run;
  const Scenario scenario = copyTemplate(run);
  ASSERT_EQ(runChild(scenario, 0), kScenarioComplete);
  checkInvariants(scenario, 0);
}

}  // namespace
}  // namespace installer_test
