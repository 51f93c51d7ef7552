// Customer installs through the service's interface: where everything lands,
// what the caller is told, and that a refused package is given back intact.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "installer/FaultInjection.h"
#include "installer/InstallErrors.h"
#include "platform/PropertyList.h"
#include "shared/filemanager/CVErrors.h"
#include "tests/installer/InstallerFixture.h"
#include "tests/support/LegacyImage.h"
#include "tests/support/TestSupport.h"

namespace installer_test {
namespace {

using namespace testing_support;

// Every item below `directory`, for before/after comparisons: the installer
// may move a refused package and give it back, and takes ownership of it
// while it checks it, so times and owners are left out.
std::map<std::string, std::string> treeOf(const std::string& directory) {
  TreeDescription how;
  how.times = false;
  how.ownersAndAttributes = false;
  how.relativeKeys = true;
  return describeTree(directory, how);
}

class CustomerInstallTest : public InstallerFixture {};

TEST_F(CustomerInstallTest, PutsBundlePluginAndMetadataInABundleContainerAndMakesTheDataContainer) {
  BundleSpec spec{"com.example.notes"};
  spec.shortVersion = "2.5";
  const std::string staging = stageCustomerPackage(
      "C1", spec, /*withVPNPlugin=*/true, {"Manifest.plist", "SorvikMetadata.plist", "GeoJSON"});
  writeFile(staging + "/Unrelated.txt", "not installed");

  const InstallOutcome outcome = installCustomer(staging, "com.example.notes");
  ASSERT_TRUE(outcome.succeeded) << outcome.dump();

  // Progress advances and ends complete.
  ASSERT_FALSE(outcome.progress.empty());
  long last = -1;
  for (const CVDictionary& progress : outcome.progress) {
    const CVNumber* percent = progress.findNumber(platform::kProgressPercentCompleteKey);
    ASSERT_NE(percent, nullptr) << progress.description();
    EXPECT_GE(percent->int64Value(), last);
    last = percent->int64Value();
    EXPECT_NE(progress.findString(platform::kProgressStatusKey), nullptr);
    EXPECT_EQ(progress.find(platform::kProgressErrorKey), nullptr);
  }
  EXPECT_EQ(last, 100);
  EXPECT_EQ(*outcome.progress.back().findString(platform::kProgressStatusKey), "InstallComplete");

  const auto installed = record("com.example.notes");
  ASSERT_TRUE(installed);
  EXPECT_EQ(installed->bundleIdentifier, "com.example.notes");
  EXPECT_EQ(installed->bundleType, "User");
  EXPECT_TRUE(installed->foundBackingBundle);
  const std::string container = installed->bundleContainerURL.path();
  EXPECT_EQ(CVURL::fileURLWithPath(container, true).URLByDeletingLastPathComponent().path(),
            bundleContainers());
  EXPECT_EQ(installed->bundleURL.path(), container + "/notes.app");
  EXPECT_EQ(entriesOf(container),
            (std::vector<std::string>{"GeoJSON", "Manifest.plist", "SorvikMetadata.plist",
                                      "notes.app", "notes.vpnplugin"}));
  EXPECT_EQ(readFile(container + "/notes.app/Main"), "#!binary com.example.notes");
  EXPECT_EQ(readFile(container + "/Manifest.plist"),
            "metadata Manifest.plist of com.example.notes");

  const std::string data = installed->dataContainerURL.path();
  EXPECT_EQ(CVURL::fileURLWithPath(data, true).URLByDeletingLastPathComponent().path(),
            dataContainers());
  EXPECT_EQ(entriesOf(data), (std::vector<std::string>{"Documents", "Library", "tmp"}));
  EXPECT_EQ(entriesOf(data + "/Library"), (std::vector<std::string>{"Caches", "Preferences"}));
  ASSERT_TRUE(installed->groupContainerURLs);
  EXPECT_TRUE(installed->groupContainerURLs->empty());

  // A privileged installer gives what it installs to the owner of installed items.
  if (::geteuid() == 0) {
    for (const std::string& item :
         {container, container + "/notes.app", container + "/notes.app/Main", data,
          data + "/Library/Caches"}) {
      struct stat status {};
      ASSERT_EQ(::lstat(item.c_str(), &status), 0) << item;
      EXPECT_EQ(status.st_uid, 501u) << item;
      EXPECT_EQ(status.st_gid, 501u) << item;
    }
  }

  // The staging directory was consumed whole, and nothing is left in flight.
  EXPECT_FALSE(pathExists(staging));
  EXPECT_EQ(entriesOf(home("Applications/C1")), std::vector<std::string>{});
  EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
  EXPECT_TRUE(service_->isApplicationInstalled("com.example.notes"));
  EXPECT_FALSE(service_->isApplicationInstalled("com.example.other"));
  EXPECT_FALSE(record("com.example.other"));

  // Still there after the registry is opened again.
  reopen();
  const auto again = record("com.example.notes");
  ASSERT_TRUE(again);
  EXPECT_EQ(again->bundleContainerURL, installed->bundleContainerURL);
  EXPECT_EQ(again->dataContainerURL, installed->dataContainerURL);
}

TEST_F(CustomerInstallTest, RefusedPackagesAreReportedByNameAndGivenBackIntact) {
  struct Case {
    std::string name;
    std::function<std::string()> stage;  // returns the staging directory
    std::string identifier;
    std::string expectedError;
    bool verify = true;
    bool skipBlacklist = true;
  };
  const auto stage = [this](const std::string& container, BundleSpec spec) {
    return [this, container, spec] { return stageCustomerPackage(container, spec); };
  };
  BundleSpec noExecutable{"com.example.noexec"};
  noExecutable.executable.clear();
  const std::vector<Case> cases = {
      {"identifier mismatch", stage("M1", {"com.example.real"}), "com.example.asked",
       "BundleIdentifierMismatch"},
      {"no executable named", stage("M2", noExecutable), "com.example.noexec",
       "MissingBundleExecutable"},
      {"blacklisted", stage("M3", {"com.zentrel.Orvos6Updater"}), "com.zentrel.Orvos6Updater",
       "ApplicationBlacklisted", true, /*skipBlacklist=*/false},
      {"unreadable Info.plist",
       [this] {
         const std::string staging = stageCustomerPackage("M4", {"com.example.broken"});
         writeFile(staging + "/Payload/broken.app/Info.plist", "not a property list");
         return staging;
       },
       "com.example.broken", "InfoPlistUnreadable"},
      {"executable is a directory",
       [this] {
         BundleSpec spec{"com.example.direxec"};
         spec.executable = "Main";
         const std::string staging = stageCustomerPackage("M5", spec);
         std::filesystem::remove(staging + "/Payload/direxec.app/Main");
         makeDirectories(staging + "/Payload/direxec.app/Main");
         return staging;
       },
       "com.example.direxec", "MissingBundleExecutable"},
      {"two applications",
       [this] {
         const std::string staging = stageCustomerPackage("M6", {"com.example.one"});
         writeBundle(staging + "/Payload/two.app", {"com.example.two"});
         return staging;
       },
       "com.example.one", "UnexpectedPayloadContents"},
      {"stray file in the payload",
       [this] {
         const std::string staging = stageCustomerPackage("M7", {"com.example.stray"});
         writeFile(staging + "/Payload/readme.txt", "x");
         return staging;
       },
       "com.example.stray", "UnexpectedPayloadContents"},
      {"no payload",
       [this] {
         const std::string staging = home("Applications/M8/Staging");
         makeDirectories(staging);
         writeFile(staging + "/Manifest.plist", "x");
         return staging;
       },
       "com.example.none", "MissingPayload"},
      {"link out of the bundle",
       [this] {
         const std::string staging = stageCustomerPackage("M9", {"com.example.escape"});
         makeSymlink("/etc/passwd", staging + "/Payload/escape.app/Secrets");
         return staging;
       },
       "com.example.escape", "InvalidSymlink"},
      {"link out of a metadata item",
       [this] {
         const std::string staging = stageCustomerPackage("M10", {"com.example.artwork"});
         makeDirectories(staging + "/SorvikArtwork");
         makeSymlink("../../../../../../../../../etc", staging + "/SorvikArtwork/up");
         return staging;
       },
       "com.example.artwork", "InvalidSymlink"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    const std::string staging = each.stage();
    const auto before = treeOf(staging);
    CVDictionary options = customerOptions(each.identifier);
    options.set(std::string(platform::kVerifyForMigratorOptionKey), CVValue(each.verify));
    options.set(std::string(platform::kSkipBlacklistOptionKey), CVValue(each.skipBlacklist));
    const InstallOutcome outcome = install(staging, options);
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(outcome.errorName(), each.expectedError) << outcome.dump();
    // The failure's dictionary and record.
    const CVDictionary& failure = outcome.progress.back();
    EXPECT_NE(failure.findString(platform::kProgressErrorDescriptionKey), nullptr);
    ASSERT_NE(failure.findString(platform::kProgressErrorDetailKey), nullptr);
    EXPECT_FALSE(failure.findString(platform::kProgressErrorDetailKey)->empty());
    EXPECT_EQ(outcome.error.domain(), CVInstallerErrorDomain);
    EXPECT_GT(outcome.error.code(), 0);
    // The state before: the package back where it was, nothing registered or made.
    EXPECT_EQ(treeOf(staging), before);
    EXPECT_FALSE(service_->isApplicationInstalled(each.identifier));
    EXPECT_EQ(entriesOf(bundleContainers()), std::vector<std::string>{});
    EXPECT_EQ(entriesOf(dataContainers()), std::vector<std::string>{});
    EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
  }
}

TEST_F(CustomerInstallTest, OptionsDecideWhatIsChecked) {
  // Without "VerifyForMigrator" a bundle without executable is installed.
  BundleSpec noExecutable{"com.example.plain"};
  noExecutable.executable.clear();
  CVDictionary options = customerOptions("com.example.plain");
  options.remove(platform::kVerifyForMigratorOptionKey);
  EXPECT_TRUE(install(stageCustomerPackage("O1", noExecutable), options).succeeded);

  // "SkipBlacklist" lets a blacklisted identifier through.
  EXPECT_TRUE(installCustomer(stageCustomerPackage("O2", {"com.zentrel.Orvos6Updater"}),
                              "com.zentrel.Orvos6Updater")
                  .succeeded);

  // Malformed options fail before anything is touched.
  const std::string staging = stageCustomerPackage("O3", {"com.example.opts"});
  CVDictionary noIdentifier = customerOptions("x");
  noIdentifier.remove(platform::kBundleIdentifierOptionKey);
  EXPECT_EQ(install(staging, noIdentifier).errorName(), "InvalidInstallOptions");
  CVDictionary badType = customerOptions("com.example.opts");
  badType.set(std::string(platform::kPackageTypeOptionKey), CVValue("Developer"));
  EXPECT_EQ(install(staging, badType).errorName(), "InvalidInstallOptions");
  EXPECT_TRUE(pathExists(staging + "/Payload/opts.app/Info.plist"));
}

TEST_F(CustomerInstallTest, ConsumesOnlyStagingDirectoriesInsideTheImage) {
  testing_support::TemporaryDirectory outside;
  writeBundle(outside / "Staging/Payload/out.app", {"com.example.out"});
  EXPECT_EQ(installCustomer(outside / "Staging", "com.example.out").errorName(),
            "InvalidInstallSource");
  EXPECT_TRUE(pathExists(outside / "Staging/Payload/out.app/Info.plist"));

  // A link inside the image that leads out is judged by where it leads.
  makeDirectories(home("Applications/L1"));
  makeSymlink(outside / "Staging", home("Applications/L1/Staging"));
  EXPECT_EQ(installCustomer(home("Applications/L1/Staging"), "com.example.out").errorName(),
            "InvalidInstallSource");
  EXPECT_TRUE(pathExists(outside / "Staging/Payload/out.app/Info.plist"));

  // The installer's own places are not packages.
  EXPECT_EQ(installCustomer(root(), "com.example.out").errorName(), "InvalidInstallSource");
  EXPECT_EQ(installCustomer(bundleContainers(), "com.example.out").errorName(),
            "InvalidInstallSource");
  EXPECT_EQ(installCustomer(home("Applications/Missing/Staging"), "com.example.out").errorName(),
            "InvalidInstallSource");
}

TEST_F(CustomerInstallTest, ANewVersionReplacesTheBundleAndKeepsTheData) {
  BundleSpec first{"com.example.game"};
  first.version = "10";
  ASSERT_TRUE(installCustomer(stageCustomerPackage("V1", first, false, {"Manifest.plist"}),
                              "com.example.game")
                  .succeeded);
  const auto before = record("com.example.game");
  ASSERT_TRUE(before);
  writeFile(before->dataContainerURL.path() + "/Documents/save.dat", "level 7");

  BundleSpec second{"com.example.game"};
  second.version = "11";
  const InstallOutcome outcome =
      installCustomer(stageCustomerPackage("V2", second), "com.example.game");
  ASSERT_TRUE(outcome.succeeded) << outcome.dump();
  const auto after = record("com.example.game");
  ASSERT_TRUE(after);
  EXPECT_EQ(after->dataContainerURL, before->dataContainerURL);
  EXPECT_EQ(readFile(after->dataContainerURL.path() + "/Documents/save.dat"), "level 7");
  EXPECT_NE(after->bundleContainerURL, before->bundleContainerURL);
  EXPECT_FALSE(pathExists(before->bundleContainerURL.path()));
  EXPECT_EQ(entriesOf(bundleContainers()).size(), 1u);
  const auto info = platform::readPropertyListDictionary(
      CVURL::fileURLWithPath(after->bundleURL.path() + "/Info.plist", false), nullptr);
  ASSERT_TRUE(info);
  EXPECT_EQ(*info->findString("QXBundleVersion"), "11");
}

TEST_F(CustomerInstallTest, LeftoversThatCannotBeRemovedAfterRegistrationAreCleanupOnly) {
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
  EXPECT_TRUE(pathExists(installed->bundleURL.path() + "/Info.plist"));
  EXPECT_TRUE(pathExists(container + "/Leftover"));
  // The journal kept the removals: the next opening performs them.
  reopen();
  EXPECT_FALSE(pathExists(container + "/Leftover"));
  EXPECT_FALSE(pathExists(container + "/Payload"));
  EXPECT_TRUE(pathExists(installed->bundleURL.path() + "/Info.plist"));
}

}  // namespace
}  // namespace installer_test
