// The crash promise: a child process runs a series of installs and is killed
// at the Nth step that changes the disk or the registry, for every N; the
// registry opened again afterwards must hold either the state before or the
// state after each install, never a registered container that is missing,
// never an unregistered container or staging area with the only copy of a
// bundle or of user data; and the interrupted work must be able to go on.
// Below it, the install journal's steps and the recovery that replays them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <set>

#include "installer/FaultInjection.h"
#include "installer/InstallJournal.h"
#include "installer/RegistryListing.h"
#include "tests/installer/InstallerFixture.h"
#include "tests/support/ChildProgram.h"

namespace installer_test {
namespace {

using mavrel_installer::ContainerClass;
using mavrel_installer::ContainerLayout;
using mavrel_installer::EmbeddedInstallerService;
using mavrel_installer::JournalStep;
using mavrel_installer::RegistryDatabase;
using mavrel_installer::RegistryStore;

JournalStep rename(std::string source, std::string target) {
  return {JournalStep::Action::Rename, std::move(source), std::move(target)};
}
JournalStep remove(std::string path) {
  return {JournalStep::Action::Remove, std::move(path), {}};
}

class InstallJournalTest : public ::testing::Test {
 protected:
  std::string path(const std::string& relative) const { return root_ + "/" + relative; }
  bool perform(std::vector<JournalStep> steps, CVError* error = nullptr) {
    return mavrel_installer::performJournalSteps(layout_, steps, error);
  }

  TemporaryDirectory directory_;
  std::string root_ = std::filesystem::canonical(directory_.path()).string();
  ContainerLayout layout_{root_, "home"};
};

TEST_F(InstallJournalTest, StepsCanBePerformedAgainWithoutHarm) {
  writeFile(path("a/item/file"), "content");
  makeDirectories(path("b"));
  const std::vector<JournalStep> steps{rename("a/item", "b/item"), remove("a")};
  ASSERT_TRUE(perform(steps));
  EXPECT_EQ(readFile(path("b/item/file")), "content");
  EXPECT_FALSE(pathExists(path("a")));
  // Again, as recovery does: everything has happened already.
  EXPECT_TRUE(perform(steps));
  EXPECT_EQ(readFile(path("b/item/file")), "content");
  // Neither end there: passed over.
  EXPECT_TRUE(perform({rename("gone/x", "b/x")}));
  // A rename never overwrites.
  writeFile(path("a/item"), "one");
  CVError error;
  EXPECT_FALSE(perform(steps, &error));
  EXPECT_TRUE(error.isPOSIX(EEXIST)) << error.description();
  EXPECT_EQ(readFile(path("a/item")), "one");
  EXPECT_EQ(readFile(path("b/item/file")), "content");
}

TEST_F(InstallJournalTest, StepsThatLeaveTheRootAreRefused) {
  TemporaryDirectory outside;
  writeFile(outside / "keep", "x");
  writeFile(path("a"), "a");
  const std::string sibling = outside.path().substr(outside.path().find_last_of('/') + 1);
  for (const JournalStep& step :
       {remove("../" + sibling + "/keep"), remove(outside / "keep"), remove(""),
        remove("a/../../" + sibling), rename("a", "../" + sibling + "/a")}) {
    CVError error;
    EXPECT_FALSE(perform({step}, &error)) << step.source << " " << step.target;
    EXPECT_TRUE(error.isPOSIX(EINVAL)) << error.description();
  }
  EXPECT_EQ(readFile(outside / "keep"), "x");
  EXPECT_EQ(readFile(path("a")), "a");
}

TEST_F(InstallJournalTest, RecoveryReplaysEntriesPutsStagingBackKeepsWhatFailsAndSweepsTheRest) {
  const std::string staging = "home/staging";
  makeDirectories(path(staging));
  CVError error;
  auto store =
      RegistryStore::open(path("registry.sqlite"), RegistryDatabase::Access::ReadWrite, &error);
  ASSERT_TRUE(store) << error.description();
  // Consumed staging directories with their records: one to put back, one
  // whose place is taken, one recorded under another name (an earlier
  // install's) and one claiming a protected place; an install to finish, one
  // that cannot go on, and a leftover.
  writeFile(path("home/Applications/C/Staging"), "something took its place");
  for (const auto& [name, recordedName, origin] :
       {std::tuple("UNDO", "UNDO", "home/Applications/A/Staging"),
        std::tuple("BLOCKED", "BLOCKED", "home/Applications/C/Staging"),
        std::tuple("STALE", "EARLIER", "home/Applications/D/Staging"),
        std::tuple("FORGED", "FORGED", "containers/F")}) {
    writeFile(path(staging + "/" + name + "/Payload/x.app/Info.plist"), name);
    ASSERT_TRUE(mavrel_installer::recordStagingOrigin(path(staging + "/" + name), recordedName,
                                                      origin, &error))
        << error.description();
  }
  writeFile(path(staging + "/FINISH/b.app/Info.plist"), "b");
  writeFile(path(staging + "/STUCK/c.app/Info.plist"), "c");
  writeFile(path(staging + "/LEFTOVER/junk"), "junk");
  makeDirectories(path("containers"));
  makeDirectories(path("home/Applications/D"));
  {
    mavrel_installer::WriteTransaction transaction(store->database());
    ASSERT_TRUE(transaction.begin(&error));
    for (const auto& [identifier, source, target] :
         {std::tuple("b", "/FINISH", "containers/B"),
          std::tuple("c", "/STUCK", "home/Applications/C/Staging")})
      ASSERT_TRUE(
          store->addJournal(identifier, std::vector{rename(staging + source, target)}, &error));
    ASSERT_TRUE(transaction.commit(&error)) << error.description();
  }
  makeDirectories(path("home/Applications/A"));

  const std::string containers = path("containers");
  const auto isProtected = [&](const std::string& place) {
    return mavrel_installer::pathIsWithin(place, containers);
  };
  mavrel_installer::RecoveryReport report;
  ASSERT_TRUE(mavrel_installer::recoverPendingInstalls(*store, layout_, path(staging), isProtected,
                                                       &report, &error))
      << error.description();
  EXPECT_EQ(std::tuple(report.restored, report.finished, report.failed, report.swept),
            std::tuple(1u, 1u, 2u, 3u));
  EXPECT_EQ(readFile(path("home/Applications/A/Staging/Payload/x.app/Info.plist")), "UNDO");
  EXPECT_FALSE(
      mavrel_installer::recordedStagingOrigin(path("home/Applications/A/Staging"), "UNDO"));
  EXPECT_EQ(readFile(path("containers/B/b.app/Info.plist")), "b");
  EXPECT_FALSE(pathExists(path("home/Applications/D/Staging")));
  EXPECT_FALSE(pathExists(path("containers/F")));
  // What could not go on keeps the only copy of its bundle, and the stuck
  // install its entry.
  EXPECT_EQ(readFile(path(staging + "/STUCK/c.app/Info.plist")), "c");
  EXPECT_EQ(readFile(path(staging + "/BLOCKED/Payload/x.app/Info.plist")), "BLOCKED");
  EXPECT_EQ(entriesOf(path(staging)), (std::vector<std::string>{"BLOCKED", "STUCK"}));
  std::vector<mavrel_installer::JournalEntry> left;
  ASSERT_TRUE(store->listJournal(left, &error));
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].identifier, "c");
}

constexpr int kKilled = 86;
constexpr int kScenarioComplete = 0;

// The child's fault handler: ends the process at the Nth point.
long pointsLeft = 0;
void killAtNthPoint(std::string_view) {
  if (--pointsLeft == 0) ::_exit(kKilled);
}

// The customer packages of the scenario, by the container they are staged in.
const std::pair<std::string, BundleShape> kPackages[] = {
    {"A1",
     {.identifier = "com.example.alpha",
      .version = "2",
      .groups = {"group.example.shared", "group.example.alpha"}}},
    {"B1", {.identifier = "com.example.beta", .groups = {"group.example.shared"}}},
    {"A2", {.identifier = "com.example.alpha", .version = "3", .groups = {"group.example.alpha"}}}};

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
  for (const auto& [container, shape] : kPackages) {
    if (!install(scenario.staging(container), customerOptions(shape.identifier))) return step;
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
    for (const auto& [container, shape] : kPackages)
      writeBundle(image.staging(container) + "/Payload/" + nameOf(shape) + ".app", shape);
    writeFile(image.staging("A1") + "/Manifest.plist", "manifest");
    writeFile(image.staging("B1") + "/Payload/beta.vpnplugin/Info.plist", "plug-in");
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

  TemporaryDirectory templateDirectory_;
  std::string template_;
};

std::set<std::string> entriesAsPaths(const std::string& directory) {
  std::set<std::string> paths;
  for (const std::string& name : entriesOf(directory))
    paths.insert(directory + "/" + name);
  return paths;
}

void checkInvariants(const Scenario& scenario, long killAt) {
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
  EXPECT_TRUE(killAt != 0 || pathExists(alphaData + "/Documents/user.txt")) << alphaData;
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
  for (const auto& [container, shape] : kPackages) {
    const std::string staging = scenario.staging(container);
    const std::string bundle = staging + "/Payload/" + nameOf(shape) + ".app";
    if (pathExists(bundle)) {
      EXPECT_TRUE(pathExists(bundle + "/Info.plist")) << staging;
    } else {
      EXPECT_EQ(kinds[shape.identifier], "application") << staging << " is gone";
    }
    if (!pathExists(staging)) continue;
    EXPECT_TRUE(service->installApplication(CVURL::fileURLWithPath(staging, true),
                                            customerOptions(shape.identifier), &error, {}))
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
