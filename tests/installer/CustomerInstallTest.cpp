// Customer installs through the service's interface: where everything lands,
// what the caller is told, group containers, and that a refused package is
// given back intact.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>

#include "installer/FaultInjection.h"
#include "installer/GroupContainers.h"
#include "installer/InstallErrors.h"
#include "platform/PropertyList.h"
#include "shared/filemanager/CVErrors.h"
#include "tests/installer/InstallerFixture.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/LegacyImage.h"
#include "tests/support/TestSupport.h"

namespace installer_test {
namespace {

using namespace testing_support;

class CustomerInstallTest : public InstallerFixture {};

// The tree the fault handler below makes immutable.
std::string lockedTree;

CVURL groupURL(const platform::BundleRecord& record, const std::string& group) {
  const CVValue* value = record.groupContainerURLs->find(group);
  return value != nullptr && value->asURL() != nullptr ? *value->asURL() : CVURL();
}

TEST_F(CustomerInstallTest, PutsBundlePluginAndMetadataInABundleContainerAndMakesTheDataContainer) {
  const std::string staging = stageCustomerPackage(
      "C1", {"com.example.notes"}, /*withVPNPlugin=*/true, {"Manifest.plist", "GeoJSON"});
  writeFile(staging + "/Unrelated.txt", "not installed");

  const InstallOutcome outcome = installCustomer(staging, "com.example.notes");
  ASSERT_TRUE(outcome.succeeded) << outcome.dump();
  EXPECT_EQ(outcome.progress.back().findNumber(platform::kProgressPercentCompleteKey)->int64Value(),
            100);
  EXPECT_EQ(*outcome.progress.back().findString(platform::kProgressStatusKey), "InstallComplete");

  const auto installed = record("com.example.notes");
  ASSERT_TRUE(installed);
  EXPECT_EQ(installed->bundleType, "User");
  EXPECT_TRUE(installed->foundBackingBundle);
  const std::string container = installed->bundleContainerURL.path();
  EXPECT_EQ(CVURL::fileURLWithPath(container, true).URLByDeletingLastPathComponent().path(),
            bundleContainers());
  EXPECT_EQ(installed->bundleURL.path(), container + "/notes.app");
  EXPECT_EQ(entriesOf(container), (std::vector<std::string>{"GeoJSON", "Manifest.plist",
                                                            "notes.app", "notes.vpnplugin"}));
  EXPECT_EQ(readFile(container + "/notes.app/Main"), "#!binary com.example.notes");
  const std::string data = installed->dataContainerURL.path();
  EXPECT_EQ(CVURL::fileURLWithPath(data, true).URLByDeletingLastPathComponent().path(),
            dataContainers());
  EXPECT_EQ(entriesOf(data), (std::vector<std::string>{"Documents", "Library", "tmp"}));
  EXPECT_EQ(entriesOf(data + "/Library"), (std::vector<std::string>{"Caches", "Preferences"}));
  // A privileged installer gives what it installs to the owner of installed items.
  for (const std::string& item : {container + "/notes.app/Main", data + "/Library/Caches"}) {
    struct stat status {};
    ASSERT_EQ(::lstat(item.c_str(), &status), 0) << item;
    EXPECT_TRUE(::geteuid() != 0 || (status.st_uid == 501u && status.st_gid == 501u)) << item;
  }
  // The staging directory was consumed whole, and nothing is left in flight
  // once the service has closed.
  EXPECT_EQ(entriesOf(home("Applications/C1")), std::vector<std::string>{});
  EXPECT_TRUE(service_->isApplicationInstalled("com.example.notes"));
  EXPECT_FALSE(service_->isApplicationInstalled("com.example.other"));
  closeService();
  EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
  reopen();
  EXPECT_EQ(record("com.example.notes")->dataContainerURL, installed->dataContainerURL);
}

TEST_F(CustomerInstallTest, RefusedPackagesAreReportedByNameAndGivenBackIntact) {
  const auto stage = [this](const std::string& container, BundleSpec bundle,
                            const std::function<void(const std::string&)>& change = {}) {
    return [this, container, bundle, change] {
      const std::string staging = stageCustomerPackage(container, bundle);
      if (change) change(staging);
      return staging;
    };
  };
  BundleSpec crowded{"com.example.crowded"};
  for (std::size_t index = 0; index <= mavrel_installer::kMaximumApplicationGroups; ++index)
    crowded.groups.push_back("group.example." + std::to_string(index));
  struct Case {
    std::string name;
    std::function<std::string()> stage;  // returns the staging directory
    std::string identifier;
    std::string expectedError;
  };
  const std::vector<Case> cases = {
      {"identifier mismatch", stage("M1", {"com.example.real"}), "com.example.asked",
       "BundleIdentifierMismatch"},
      {"blacklisted", stage("M3", {"com.zentrel.Orvos6Updater"}), "com.zentrel.Orvos6Updater",
       "ApplicationBlacklisted"},
      {"unreadable Info.plist",
       stage("M4", {"com.example.broken"},
             [](const std::string& staging) {
               writeFile(staging + "/Payload/broken.app/Info.plist", "not a property list");
             }),
       "com.example.broken", "InfoPlistUnreadable"},
      {"executable is a directory",
       stage("M5", {"com.example.direxec"},
             [](const std::string& s) {
               std::filesystem::remove(s + "/Payload/direxec.app/Main");
               makeDirectories(s + "/Payload/direxec.app/Main");
             }),
       "com.example.direxec", "MissingBundleExecutable"},
      {"two applications",
       stage("M6", {"com.example.one"},
             [](const std::string& staging) {
               writeBundle(staging + "/Payload/two.app", {"com.example.two"});
             }),
       "com.example.one", "UnexpectedPayloadContents"},
      {"no payload",
       [this] {
         writeFile(home("Applications/M8/Staging/Manifest.plist"), "x");
         return home("Applications/M8/Staging");
       },
       "com.example.none", "MissingPayload"},
      {"link out of the bundle",
       stage("M9", {"com.example.escape"},
             [](const std::string& s) {
               makeSymlink("/etc/passwd", s + "/Payload/escape.app/Secrets");
             }),
       "com.example.escape", "InvalidSymlink"},
      {"link out of a metadata item",
       stage("M10", {"com.example.art"},
             [](const std::string& s) {
               makeDirectories(s + "/SorvikArtwork");
               makeSymlink("../../../../../../../../../etc", s + "/SorvikArtwork/up");
             }),
       "com.example.art", "InvalidSymlink"},
      {"more groups than any application has", stage("M11", crowded), "com.example.crowded",
       "TooManyApplicationGroups"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    const std::string staging = each.stage();
    TreeDescription how;
    how.times = false;  // the installer takes the package while it checks it
    how.ownersAndAttributes = false;
    how.relativeKeys = true;
    const auto before = describeTree(staging, how);
    CVDictionary options = customerOptions(each.identifier);
    if (each.identifier == "com.zentrel.Orvos6Updater")
      options.set(std::string(platform::kSkipBlacklistOptionKey), CVValue(false));
    const InstallOutcome outcome = install(staging, options);
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(outcome.errorName(), each.expectedError) << outcome.dump();
    const CVDictionary& failure = outcome.progress.back();
    EXPECT_NE(failure.findString(platform::kProgressErrorDescriptionKey), nullptr);
    ASSERT_NE(failure.findString(platform::kProgressErrorDetailKey), nullptr);
    EXPECT_FALSE(failure.findString(platform::kProgressErrorDetailKey)->empty());
    EXPECT_EQ(outcome.error.domain(), CVInstallerErrorDomain);
    EXPECT_GT(outcome.error.code(), 0);
    // The state before: the package back where it was, nothing registered or made.
    EXPECT_EQ(describeTree(staging, how), before);
    EXPECT_FALSE(service_->isApplicationInstalled(each.identifier));
    EXPECT_EQ(entriesOf(bundleContainers()), std::vector<std::string>{});
    EXPECT_EQ(entriesOf(dataContainers()), std::vector<std::string>{});
    EXPECT_EQ(entriesOf(groupContainers()), std::vector<std::string>{});
    EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
  }
}

TEST_F(CustomerInstallTest, OptionsDecideWhatIsCheckedAndOnlyPackagesInTheImageAreTaken) {
  // Without "VerifyForMigrator" a bundle without executable is installed;
  // "SkipBlacklist" lets a blacklisted identifier through.
  BundleSpec noExecutable{"com.example.plain"};
  noExecutable.executable.clear();
  CVDictionary options = customerOptions("com.example.plain");
  options.remove(platform::kVerifyForMigratorOptionKey);
  EXPECT_TRUE(install(stageCustomerPackage("O1", noExecutable), options).succeeded);
  EXPECT_TRUE(installCustomer(stageCustomerPackage("O2", {"com.zentrel.Orvos6Updater"}),
                              "com.zentrel.Orvos6Updater")
                  .succeeded);

  const std::string staging = stageCustomerPackage("O3", {"com.example.opts"});
  CVDictionary noIdentifier = customerOptions("x");
  noIdentifier.remove(platform::kBundleIdentifierOptionKey);
  CVDictionary badType = customerOptions("com.example.opts");
  badType.set(std::string(platform::kPackageTypeOptionKey), CVValue("Developer"));
  TemporaryDirectory outside;
  writeBundle(outside / "Staging/Payload/out.app", {"com.example.out"});
  makeDirectories(home("Applications/L1"));
  makeSymlink(outside / "Staging", home("Applications/L1/Staging"));
  const std::vector<std::tuple<std::string, CVDictionary, std::string>> cases = {
      {staging, noIdentifier, "InvalidInstallOptions"},
      {staging, badType, "InvalidInstallOptions"},
      {outside / "Staging", customerOptions("com.example.out"), "InvalidInstallSource"},
      // A link inside the image that leads out is judged by where it leads.
      {home("Applications/L1/Staging"), customerOptions("com.example.out"), "InvalidInstallSource"},
      // The installer's own places are not packages.
      {root(), customerOptions("com.example.out"), "InvalidInstallSource"},
      {bundleContainers(), customerOptions("com.example.out"), "InvalidInstallSource"},
      {home("Applications/Missing/Staging"), customerOptions("com.example.out"),
       "InvalidInstallSource"},
  };
  for (const auto& [path, caseOptions, expected] : cases)
    EXPECT_EQ(install(path, caseOptions).errorName(), expected) << path;
  EXPECT_TRUE(pathExists(staging + "/Payload/opts.app/Info.plist"));
  EXPECT_TRUE(pathExists(outside / "Staging/Payload/out.app/Info.plist"));
}

// A new version replaces the bundle and keeps the data container; members of
// a group share one container, and one that leaves it leaves the data behind.
TEST_F(CustomerInstallTest, ANewVersionReplacesTheBundleAndKeepsTheDataAndTheGroups) {
  BundleSpec mail{"com.example.mail"};
  mail.groups = {"group.example.shared", "group.example.mail"};
  BundleSpec calendar{"com.example.calendar"};
  calendar.groups = {"group.example.shared"};
  ASSERT_TRUE(installCustomer(stageCustomerPackage("G1", mail), "com.example.mail").succeeded);
  ASSERT_TRUE(
      installCustomer(stageCustomerPackage("G2", calendar), "com.example.calendar").succeeded);
  const auto before = record("com.example.calendar");
  ASSERT_TRUE(before && before->groupContainerURLs);
  EXPECT_EQ(record("com.example.mail")->groupContainerURLs->keys(),
            (std::vector<std::string>{"group.example.shared", "group.example.mail"}));
  const CVURL shared = groupURL(*before, "group.example.shared");
  EXPECT_EQ(shared, groupURL(*record("com.example.mail"), "group.example.shared"));
  EXPECT_EQ(shared.URLByDeletingLastPathComponent().path(), groupContainers());
  EXPECT_EQ(entriesOf(groupContainers()).size(), 2u);
  writeFile(before->dataContainerURL.path() + "/Documents/save.dat", "level 7");
  writeFile(shared.path() + "/shared.txt", "kept");

  BundleSpec next{"com.example.calendar"};
  next.version = "11";
  ASSERT_TRUE(installCustomer(stageCustomerPackage("G3", next), "com.example.calendar").succeeded);
  const auto after = record("com.example.calendar");
  ASSERT_TRUE(after);
  EXPECT_EQ(after->dataContainerURL, before->dataContainerURL);
  EXPECT_EQ(readFile(after->dataContainerURL.path() + "/Documents/save.dat"), "level 7");
  EXPECT_FALSE(pathExists(before->bundleContainerURL.path()));
  EXPECT_EQ(entriesOf(bundleContainers()).size(), 2u);
  EXPECT_EQ(*platform::readPropertyListDictionary(
                 CVURL::fileURLWithPath(after->bundleURL.path() + "/Info.plist", false), nullptr)
                 ->findString("QXBundleVersion"),
            "11");
  EXPECT_TRUE(after->groupContainerURLs->empty());
  EXPECT_EQ(readFile(shared.path() + "/shared.txt"), "kept");
  EXPECT_EQ(groupURL(*record("com.example.mail"), "group.example.shared"), shared);

  // Only strings of an array name groups; unreadable entitlements mean none.
  const std::string odd = stageCustomerPackage("G4", {"com.example.odd"});
  writePlist(odd + "/Payload/odd.app/Entitlements.plist",
             CVValue(CVDictionary{{"application-groups", CVValue(CVArray{"group.example.odd", 7, "",
                                                                         "group.example.odd"})}}));
  ASSERT_TRUE(installCustomer(odd, "com.example.odd").succeeded);
  EXPECT_EQ(record("com.example.odd")->groupContainerURLs->keys(),
            std::vector<std::string>{"group.example.odd"});
  const std::string broken = stageCustomerPackage("G5", {"com.example.broken"});
  writeFile(broken + "/Payload/broken.app/Entitlements.plist", "garbage");
  ASSERT_TRUE(installCustomer(broken, "com.example.broken").succeeded);
  EXPECT_TRUE(record("com.example.broken")->groupContainerURLs->empty());
}

TEST_F(CustomerInstallTest, StepsThatFailAfterRegistrationAreDoneAtTheNextOpening) {
  const std::string staging = stageCustomerPackage("Game", BundleSpec{"com.example.game"});
  writeFile(staging + "/Leftover/notes.txt", "not installed");
  const auto previous = mavrel_installer::setFailureHandler(
      [](std::string_view point) { return point == "journal removal" ? EBUSY : 0; });
  InstallOutcome outcome;
  {
    CapturedLog log(platform::installerLog());
    outcome = installCustomer(staging, "com.example.game");
    EXPECT_TRUE(log.containsFragment("the next opening of the registry removes it")) << log.dump();
  }
  mavrel_installer::setFailureHandler(previous);
  ASSERT_TRUE(outcome.succeeded) << outcome.dump();
  const auto installed = record("com.example.game");
  ASSERT_TRUE(installed);
  const std::string container = installed->bundleContainerURL.path();
  EXPECT_TRUE(pathExists(container + "/Leftover"));
  // The journal kept the removals: the next opening performs them.
  reopen();
  EXPECT_FALSE(pathExists(container + "/Leftover"));
  EXPECT_FALSE(pathExists(container + "/Payload"));
  EXPECT_TRUE(pathExists(installed->bundleURL.path() + "/Info.plist"));

  // A step that puts the install in place fails after registration: the
  // caller is told, and the next opening finishes the install.
  BundleSpec next{"com.example.game"};
  next.version = "2";
  const std::string nextStaging = stageCustomerPackage("Game2", next);
  lockedTree = stagingRoot();
  if (runProgram("chattr", {"+i", lockedTree}).exitCode != 0) GTEST_SKIP() << "no chattr +i here";
  runProgram("chattr", {"-i", lockedTree});
  const auto faults = mavrel_installer::setFaultHandler([](std::string_view point) {
    if (point == "registration committed") runProgram("chattr", {"-R", "+i", lockedTree});
  });
  const InstallOutcome unfinished = installCustomer(nextStaging, "com.example.game");
  mavrel_installer::setFaultHandler(faults);
  runProgram("chattr", {"-R", "-i", lockedTree});
  EXPECT_EQ(unfinished.errorName(), "InstallFinishFailed") << unfinished.dump();
  reopen();
  EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
  const auto finished = record("com.example.game");
  ASSERT_TRUE(finished);
  EXPECT_EQ(finished->dataContainerURL, installed->dataContainerURL);
  EXPECT_EQ(*platform::readPropertyListDictionary(
                 CVURL::fileURLWithPath(finished->bundleURL.path() + "/Info.plist", false), nullptr)
                 ->findString("QXBundleVersion"),
            "2");
}

}  // namespace
}  // namespace installer_test
