// Installs through the service's interface: customer packages (where
// everything lands, refused packages given back intact, the install asked for
// again after a crash), placeholders, and the image's built-in applications.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "installer/FaultInjection.h"
#include "installer/GroupContainers.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/installer/InstallerFixture.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TreeSnapshot.h"

namespace installer_test {
namespace {

// The plug-in stageCustomerPackage ships with "com.example.notes".
constexpr const char* kPlugin = "com.example.notes.vpn";
const std::vector<std::string> kSkeleton{"Documents", "Library", "tmp"};
const std::vector<std::string> kStagingOnly{"Staging"};

using CustomerInstallTest = InstallerFixture;

// The tree the fault handler below makes immutable.
std::string lockedTree;

TEST_F(CustomerInstallTest, PutsBundleAndPluginInABundleContainerAndMakesTheDataContainers) {
  const InstallOutcome outcome = installStaged(
      "C1",
      {.identifier = "com.example.notes", .groups = {"group.example.notes", "group.example.mail"}},
      true);
  ASSERT_TRUE(outcome.succeeded);
  EXPECT_EQ(outcome.progress.back().findNumber(platform::kProgressPercentCompleteKey)->int64Value(),
            100);
  EXPECT_EQ(*outcome.progress.back().findString(platform::kProgressStatusKey), "InstallComplete");

  const auto installed = record("com.example.notes");
  ASSERT_TRUE(installed);
  // The groups keep the order of the entitlements.
  EXPECT_EQ(installed->groupContainerURLs->keys(),
            (std::vector<std::string>{"group.example.notes", "group.example.mail"}));
  const std::string container = installed->bundleContainerURL.path();
  const std::string data = installed->dataContainerURL.path();
  EXPECT_EQ(std::filesystem::path(container).parent_path().string(), bundleContainers());
  EXPECT_EQ(std::filesystem::path(data).parent_path().string(), dataContainers());
  EXPECT_EQ(installed->bundleURL.path(), container + "/notes.app");
  EXPECT_EQ(readFile(container + "/notes.app/Main"), "#!binary com.example.notes");
  EXPECT_EQ(entriesOf(data), kSkeleton);
  // A privileged installer gives what it installs to the owner of installed items.
  for (const std::string& item : {container + "/notes.app/Main", data + "/Library/Caches"}) {
    struct stat status {};
    ASSERT_EQ(::lstat(item.c_str(), &status), 0) << item;
    EXPECT_TRUE(::geteuid() != 0 || (status.st_uid == 501u && status.st_gid == 501u)) << item;
  }
  // The staging directory was consumed whole.
  EXPECT_EQ(entriesOf(home("Applications/C1")), kNothing);
  // The VPN plug-in has a record, in the application's bundle container, and
  // a data container of its own; it is not an application.
  const auto plugin = record(kPlugin);
  ASSERT_TRUE(plugin);
  EXPECT_EQ(plugin->bundleURL.path(), container + "/notes.vpnplugin");
  EXPECT_EQ(plugin->bundleContainerURL, installed->bundleContainerURL);
  EXPECT_NE(plugin->dataContainerURL, installed->dataContainerURL);
  EXPECT_EQ(entriesOf(plugin->dataContainerURL.path()), kSkeleton);
  EXPECT_FALSE(service_->isApplicationInstalled(kPlugin));
  // Nothing is left in flight.
  EXPECT_EQ(entriesOf(stagingRoot()), kNothing);
  reopen();
  EXPECT_EQ(record("com.example.notes")->dataContainerURL, installed->dataContainerURL);
  EXPECT_EQ(record(kPlugin)->dataContainerURL, plugin->dataContainerURL);
  EXPECT_EQ(entriesOf(dataContainers()).size(), 2u);
}

// A legacy package holding a plug-in alone: consumed when it is the known
// plug-in (the installed copy stays), refused and kept otherwise.
TEST_F(CustomerInstallTest, APackageHoldingAVPNPluginAlone) {
  installStaged("C1", {"com.example.notes"}, true);
  const std::string installedBundle = record(kPlugin)->bundleURL.path();
  // (container, identifier in the bundle, identifier asked for, error or "")
  const std::vector<std::tuple<std::string, std::string, std::string, std::string>> cases = {
      {"V1", kPlugin, kPlugin, ""},
      {"V2", "com.example.unknown.vpn", "com.example.unknown.vpn", "UnexpectedPayloadContents"},
      {"V3", "com.example.other.vpn", kPlugin, "BundleIdentifierMismatch"},
  };
  for (const auto& [container, identifier, asked, error] : cases) {
    const std::string plugin = staging(container) + "/Payload/notes.vpnplugin";
    writeBundle(plugin, {.identifier = identifier, .executable = ""});
    writeFile(plugin + "/Marker", "legacy copy");
    const InstallOutcome outcome = installCustomer(staging(container), asked);
    EXPECT_EQ(outcome.errorName(), error) << outcome.dump();
    EXPECT_EQ(pathExists(plugin + "/Marker"), !error.empty());
  }
  EXPECT_EQ(record(kPlugin)->bundleURL.path(), installedBundle);
  EXPECT_FALSE(pathExists(installedBundle + "/Marker"));
  EXPECT_FALSE(record("com.example.unknown.vpn"));
  EXPECT_EQ(entriesOf(stagingRoot()), kNothing);
}

TEST_F(CustomerInstallTest, AVPNPluginIsForgottenByANewVersionWithoutItAndByAnOlderRegistry) {
  installStaged("C1", {"com.example.notes"}, true);
  installStaged("C2", {.identifier = "com.example.notes", .version = "2"});
  EXPECT_FALSE(record(kPlugin));
  installStaged("C1", {"com.example.notes"}, true);
  closeService();
  ASSERT_TRUE(executeOnRegistry(
      "DROP TABLE plugins; DROP TABLE placeholder_metadata; PRAGMA user_version = 1"));
  EXPECT_EQ(placeholderMetadata("com.example.notes"), std::nullopt);  // read as it is
  openService();
  ASSERT_TRUE(record("com.example.notes"));
  EXPECT_FALSE(record(kPlugin));  // not known until its application is installed again
  installStaged("C1", {"com.example.notes"}, true);
  EXPECT_TRUE(record(kPlugin));
}

TEST_F(CustomerInstallTest, RefusedPackagesAreReportedByNameAndGivenBackIntact) {
  BundleShape crowded{"com.example.crowded"};
  for (std::size_t index = 0; index <= mavrel_installer::kMaximumApplicationGroups; ++index)
    crowded.groups.push_back("group.example." + std::to_string(index));
  using Change = std::function<void(const std::string& staging)>;
  const auto link = [](std::string target, std::string at) -> Change {
    return [=](const std::string& staging) {
      makeDirectories(std::filesystem::path(staging + "/" + at).parent_path());
      makeSymlink(target, staging + "/" + at);
    };
  };
  const auto write = [](std::string at, std::string contents) -> Change {
    return [=](const std::string& staging) { writeFile(staging + "/" + at, contents); };
  };
  // (the package staged, unless the identifier is empty; a change in the
  // staging directory; the error; the identifier asked for when not the package's)
  const std::vector<std::tuple<BundleShape, Change, std::string, std::string>> cases = {
      {{"com.example.real"}, {}, "BundleIdentifierMismatch", "com.example.asked"},
      {{"com.zentrel.Orvos6Updater"}, {}, "ApplicationBlacklisted", ""},
      {{"com.example.bad"}, write("Payload/bad.app/Info.plist", "x"), "InfoPlistUnreadable", ""},
      {{"com.example.direxec"},
       [](const std::string& s) {
         std::filesystem::remove(s + "/Payload/direxec.app/Main");
         makeDirectories(s + "/Payload/direxec.app/Main");
       },
       "MissingBundleExecutable",
       ""},
      {{"com.example.one"},
       [](const std::string& s) { writeBundle(s + "/Payload/two.app", {"com.example.two"}); },
       "UnexpectedPayloadContents",
       ""},
      {{}, write("Manifest.plist", "x"), "MissingPayload", "com.example.none"},
      {{"com.example.esc"}, link("/etc/passwd", "Payload/esc.app/Secrets"), "InvalidSymlink", ""},
      {{"com.example.art"},
       link("../../../../../../../../../etc", "SorvikArtwork/up"),
       "InvalidSymlink",
       ""},
      {crowded, {}, "TooManyApplicationGroups", ""},
  };
  // The installer takes the package while it checks it (its owners and times
  // change); everything else must come back as it was.
  const auto package = [](const std::string& staging) {
    TreeSnapshot snapshot = snapshotTree(staging);
    for (auto& [path, item] : snapshot)
      item.uid = item.gid = 0;
    return snapshot;
  };
  int container = 0;
  for (const auto& [bundle, change, expectedError, asked] : cases) {
    SCOPED_TRACE(expectedError);
    const std::string identifier = asked.empty() ? bundle.identifier : asked;
    const std::string name = "M" + std::to_string(++container);
    if (!bundle.identifier.empty()) stageCustomerPackage(name, bundle);
    if (change) change(staging(name));
    const TreeSnapshot before = package(staging(name));
    CVDictionary options = customerOptions(identifier);
    if (expectedError == "ApplicationBlacklisted")
      options.set(std::string(platform::kSkipBlacklistOptionKey), CVValue(false));
    const InstallOutcome outcome = install(staging(name), options);
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(outcome.errorName(), expectedError) << outcome.dump();
    const CVDictionary& failure = outcome.progress.back();
    EXPECT_NE(failure.findString(platform::kProgressErrorDescriptionKey), nullptr);
    ASSERT_NE(failure.findString(platform::kProgressErrorDetailKey), nullptr);
    EXPECT_FALSE(failure.findString(platform::kProgressErrorDetailKey)->empty());
    EXPECT_EQ(outcome.error.domain(), CVInstallerErrorDomain);
    EXPECT_GT(outcome.error.code(), 0);
    // The state before: the package back where it was, nothing registered or made.
    EXPECT_EQ(listed(differences(before, package(staging(name)),
                                 AccessTimes::AndModificationTimesIgnored)),
              "");
    EXPECT_FALSE(service_->isApplicationInstalled(identifier));
    for (const std::string& place :
         {bundleContainers(), dataContainers(), groupContainers(), stagingRoot()})
      EXPECT_EQ(entriesOf(place), kNothing) << place;
  }
}

TEST_F(CustomerInstallTest, OptionsDecideWhatIsCheckedAndOnlyPackagesInTheImageAreTaken) {
  // Without "VerifyForMigrator" a bundle without executable is installed;
  // "SkipBlacklist" lets a blacklisted identifier through.
  CVDictionary options = customerOptions("com.example.plain");
  options.remove(platform::kVerifyForMigratorOptionKey);
  EXPECT_TRUE(
      install(stageCustomerPackage("O1", {.identifier = "com.example.plain", .executable = ""}),
              options)
          .succeeded);
  installStaged("O2", {"com.zentrel.Orvos6Updater"});

  const std::string staging = stageCustomerPackage("O3", {"com.example.opts"});
  CVDictionary noIdentifier = customerOptions("x");
  noIdentifier.remove(platform::kBundleIdentifierOptionKey);
  CVDictionary badType = customerOptions("com.example.opts");
  badType.set(std::string(platform::kPackageTypeOptionKey), CVValue("Developer"));
  TemporaryDirectory outside;
  writeBundle(outside / "Staging/Payload/out.app", {"com.example.out"});
  makeDirectories(home("Applications/L1"));
  makeSymlink(outside / "Staging", home("Applications/L1/Staging"));
  const CVDictionary out = customerOptions("com.example.out");
  const std::vector<std::tuple<std::string, CVDictionary, std::string>> cases = {
      {staging, noIdentifier, "InvalidInstallOptions"},
      {staging, badType, "InvalidInstallOptions"},
      {outside / "Staging", out, "InvalidInstallSource"},
      // A link inside the image that leads out is judged by where it leads.
      {home("Applications/L1/Staging"), out, "InvalidInstallSource"},
      // The installer's own places are not packages.
      {root(), out, "InvalidInstallSource"},
      {bundleContainers(), out, "InvalidInstallSource"},
      {home("Applications/Missing/Staging"), out, "InvalidInstallSource"},
  };
  for (const auto& [path, caseOptions, expected] : cases)
    EXPECT_EQ(install(path, caseOptions).errorName(), expected) << path;
  EXPECT_TRUE(pathExists(staging + "/Payload/opts.app/Info.plist"));
  EXPECT_TRUE(pathExists(outside / "Staging/Payload/out.app/Info.plist"));
}

TEST_F(CustomerInstallTest, StepsThatFailAfterRegistrationAreDoneAtTheNextOpening) {
  const std::string staging = stageCustomerPackage("Game", BundleShape{"com.example.game"});
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
  const std::string container = installed->bundleContainerURL.path();
  EXPECT_TRUE(pathExists(container + "/Leftover"));
  // The journal kept the removals: the next opening performs them.
  reopen();
  EXPECT_FALSE(pathExists(container + "/Leftover"));
  EXPECT_FALSE(pathExists(container + "/Payload"));
  EXPECT_TRUE(pathExists(installed->bundleURL.path() + "/Info.plist"));

  // A step that puts the install in place fails after registration: the
  // caller is told, and the next opening finishes the install.
  const std::string next =
      stageCustomerPackage("Game2", {.identifier = "com.example.game", .version = "2"});
  lockedTree = stagingRoot();
  if (runProgram("chattr", {"+i", lockedTree}).exitCode != 0) GTEST_SKIP() << "no chattr +i here";
  runProgram("chattr", {"-i", lockedTree});
  const auto faults = mavrel_installer::setFaultHandler([](std::string_view point) {
    if (point == "registration committed") runProgram("chattr", {"-R", "+i", lockedTree});
  });
  const InstallOutcome unfinished = installCustomer(next, "com.example.game");
  mavrel_installer::setFaultHandler(faults);
  runProgram("chattr", {"-R", "-i", lockedTree});
  EXPECT_EQ(unfinished.errorName(), "InstallFinishFailed") << unfinished.dump();
  reopen();
  EXPECT_EQ(entriesOf(stagingRoot()), kNothing);
  EXPECT_EQ(record("com.example.game")->dataContainerURL, installed->dataContainerURL);
  const std::string info = record("com.example.game")->bundleURL.path() + "/Info.plist";
  EXPECT_EQ(*image_.readPlistDictionary(info).findString("QXBundleVersion"), "2");
}

// The install asked for again with an empty "Payload" after a crash between
// a completed install and the caller's next step: what was done is answered
// as before, anything else is refused and left alone.
TEST_F(CustomerInstallTest, AnEmptyPayloadGetsTheAnswerOfTheCompletedInstallOrIsRefused) {
  writeBuiltInApplication({"com.zentrel.weather"});
  reopenWithNewConfiguration();
  installStaged("R1", {"com.example.todo"});
  installStaged("R2", {"com.example.notes"}, true);
  ASSERT_TRUE(installPlaceholder({"com.example.held"}).succeeded);
  const auto todo = record("com.example.todo");
  const auto plugin = record("com.example.notes.vpn");
  reopen();  // the crash
  // (container, identifier, error or "" when it succeeds)
  const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
      {"R1", "com.example.todo", ""},
      {"R2", "com.example.notes.vpn", ""},
      {"W1", "com.zentrel.weather", "ApplicationAlreadyInstalled"},
      {"R3", "com.example.todo", "EmptyPayload"},         // another staging directory
      {"R2", "com.example.other", "EmptyPayload"},        // another identifier
      {"R4", "com.example.held", "EmptyPayload"},         // only held by a placeholder
      {"R5", "com.example.never", "EmptyPayload"},        // never installed
      {"R6", "com.example.unknown.vpn", "EmptyPayload"},  // a plug-in nobody installed
  };
  for (const auto& [container, identifier, error] : cases) {
    SCOPED_TRACE(container + " " + identifier);
    makeDirectories(staging(container) + "/Payload");
    const InstallOutcome outcome = installCustomer(staging(container), identifier);
    EXPECT_EQ(outcome.errorName(), error) << outcome.dump();
    // Refused, the empty payload stays; answered, the staging directory is consumed.
    const bool refused = error == "EmptyPayload";
    EXPECT_EQ(pathExists(staging(container) + "/Payload"), refused);
    EXPECT_EQ(entriesOf(home("Applications/" + container)), refused ? kStagingOnly : kNothing);
    if (error.empty()) {
      EXPECT_EQ(*outcome.progress.back().findString(platform::kProgressStatusKey),
                "InstallComplete");
    }
  }
  EXPECT_EQ(record("com.example.todo")->bundleContainerURL, todo->bundleContainerURL);
  EXPECT_EQ(record("com.example.notes.vpn")->bundleURL, plugin->bundleURL);
  EXPECT_TRUE(pathExists(plugin->bundleURL.path() + "/Info.plist"));
  EXPECT_EQ(entriesOf(stagingRoot()), kNothing);
}

// ---- Placeholders

using PlaceholderInstallTest = InstallerFixture;

TEST_F(PlaceholderInstallTest, CopiesMarksAndRegistersTheMetadataWithTheBundle) {
  const std::string package = makePlaceholderPackage(
      temporary_.path(), {.identifier = "com.example.maps", .executable = ""});
  writeFile(package + "/Icon.png", "png bytes");
  const CVData metadata{'<', 'p', 'l', 'i', 's', 't', 0x00, 0xFF};
  const InstallOutcome outcome = installPlaceholder(package, "com.example.maps", metadata);
  ASSERT_TRUE(outcome.succeeded) << outcome.dump();

  const auto placeholder = record("com.example.maps");
  ASSERT_TRUE(placeholder);
  EXPECT_TRUE(placeholder->foundBackingBundle);
  const std::string container = placeholder->bundleContainerURL.path();
  EXPECT_EQ(entriesOf(container), (std::vector<std::string>{"com.example.maps.app"}));
  EXPECT_TRUE(CVFileManager::defaultManager().bundleAtURLIsPlaceholder(placeholder->bundleURL));
  EXPECT_EQ(readFile(container + "/com.example.maps.app/Icon.png"), "png bytes");
  EXPECT_EQ(placeholderMetadata("com.example.maps"), metadata);

  // The caller's package is only read: it stays, unmarked.
  EXPECT_TRUE(pathExists(package + "/Info.plist"));
  EXPECT_FALSE(CVFileManager::defaultManager().bundleAtURLIsPlaceholder(
      CVURL::fileURLWithPath(package, true)));
  EXPECT_EQ(entriesOf(stagingRoot()), kNothing);

  // Installed again, a placeholder replaces the placeholder and keeps the
  // data; its own metadata (empty, then none) replaces the first one's.
  ASSERT_TRUE(installPlaceholder(package, "com.example.maps", CVData()).succeeded);
  EXPECT_EQ(record("com.example.maps")->dataContainerURL, placeholder->dataContainerURL);
  EXPECT_FALSE(pathExists(container));
  EXPECT_EQ(placeholderMetadata("com.example.maps"), CVData());
  ASSERT_TRUE(installPlaceholder(package, "com.example.maps").succeeded);
  EXPECT_EQ(placeholderMetadata("com.example.maps"), std::nullopt);
}

// A package in the device's temporary directory is taken, not copied, and
// given back when the install fails; the skeleton entries the user data
// leaves missing are made, and only those, when the placeholder is replaced
// or the session ends without a replacement.
TEST_F(PlaceholderInstallTest, TakesPackagesFromTheTemporaryDirectoryAndCompletesTheDataLater) {
  const std::string temporary = root() + "/private/var/tmp/mavrel";
  makeDirectories(temporary);
  options_.temporaryDirectory = temporary;
  reopen();
  struct Case {
    std::string identifier;
    std::vector<std::string> userData;      // made in the data container before the end
    bool replaced;                          // by a customer install, else by reopening
    std::vector<std::string> libraryAfter;  // entries of "Library" at the end
  };
  const Case cases[] = {
      {"com.example.one", {}, false, {"Caches", "Preferences"}},
      {"com.example.two", {"Library/Cookies"}, true, {"Cookies"}},
      {"com.example.three", {"Documents/a.txt"}, false, {"Caches", "Preferences"}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.identifier);
    const std::string package = makePlaceholderPackage(temporary, {test.identifier});
    const InstallOutcome outcome =
        installPlaceholder(package, test.identifier, CVData{'m', 'e', 't', 'a'});
    ASSERT_TRUE(outcome.succeeded) << outcome.dump();
    EXPECT_FALSE(pathExists(package));  // taken
    const auto placeholder = record(test.identifier);
    // Nothing is stored beside the bundle.
    EXPECT_EQ(entriesOf(placeholder->bundleContainerURL.path()),
              std::vector<std::string>{test.identifier + ".app"});
    const std::string data = placeholder->dataContainerURL.path();
    EXPECT_EQ(entriesOf(data), kNothing);
    for (const std::string& item : test.userData)
      writeFile(data + "/" + item, "user data");
    if (test.replaced) {
      installStaged(test.identifier, {test.identifier});
    } else {
      reopen();
    }
    EXPECT_EQ(pathExists(placeholder->bundleContainerURL.path()), !test.replaced);
    EXPECT_EQ(record(test.identifier)->dataContainerURL.path(), data);
    EXPECT_EQ(record(test.identifier)->bundleType, test.replaced ? "User" : "Placeholder");
    // The application that replaces a placeholder takes none of its metadata.
    EXPECT_EQ(placeholderMetadata(test.identifier).has_value(), !test.replaced);
    EXPECT_EQ(entriesOf(data), kSkeleton);
    EXPECT_EQ(entriesOf(data + "/Library"), test.libraryAfter);
  }
  // A refused package is given back; a placeholder never replaces an application.
  const std::string other = makePlaceholderPackage(temporary, {"com.example.other"});
  EXPECT_EQ(installPlaceholder(other, "com.example.four").errorName(), "BundleIdentifierMismatch");
  const std::string late = makePlaceholderPackage(temporary, {"com.example.two"});
  EXPECT_EQ(installPlaceholder(late, "com.example.two").errorName(), "ApplicationAlreadyInstalled");
  EXPECT_TRUE(pathExists(other + "/Info.plist") && pathExists(late + "/Info.plist"));
  EXPECT_EQ(entriesOf(stagingRoot()), kNothing);
}

TEST_F(PlaceholderInstallTest, ChecksTheCopyItInstalls) {
  const std::string escaping = makePlaceholderPackage(temporary_.path(), {"com.example.c"});
  makeSymlink("/etc", escaping + "/etc");
  CVDictionary blacklisted = placeholderOptions("com.zentrel.Orvos6Updater");
  blacklisted.remove(platform::kSkipBlacklistOptionKey);
  const std::vector<std::pair<InstallOutcome, std::string>> cases = {
      {installPlaceholder(escaping, "com.example.c"), "InvalidSymlink"},
      {install(makePlaceholderPackage(temporary_.path(), {"com.zentrel.Orvos6Updater"}),
               blacklisted),
       "ApplicationBlacklisted"},
      {installPlaceholder(temporary_ / "missing.app", "com.example.d"), "InvalidInstallSource"},
  };
  for (const auto& [outcome, expected] : cases)
    EXPECT_EQ(outcome.errorName(), expected) << outcome.dump();
  // Nothing of the refused installs is left anywhere.
  for (const std::string& place : {bundleContainers(), dataContainers(), stagingRoot()})
    EXPECT_EQ(entriesOf(place), kNothing) << place;
}

// ---- Built-in applications

class BuiltInApplicationTest : public InstallerFixture {
 protected:
  void SetUp() override {
    InstallerFixture::SetUp();
    weatherBundle_ = writeBuiltInApplication({.identifier = "com.zentrel.weather",
                                              .version = "500",
                                              .groups = {"group.zentrel.weather"}});
    writeBuiltInApplication({"com.zentrel.clock"});
    reopenWithNewConfiguration();
  }
  bool updateProtection(bool withOption) {
    return service_->CorvaneUpdateContainerDataProtectionForMigratorOnly(
        withOption
            ? CVDictionary{{std::string(platform::kCVUpdateSystemAppDataContainerDataProtection),
                            CVValue(true)}}
            : CVDictionary{});
  }
  std::string weatherBundle_;
};

// A built-in is a system application whose data container is made on first
// need; a legacy copy of it gives its data and is refused, and not kept, so
// that its container can go.
TEST_F(BuiltInApplicationTest, ALegacyCopyGivesItsDataAndIsRefusedAsAlreadyInstalled) {
  EXPECT_TRUE(service_->isApplicationInstalled("com.zentrel.weather"));
  EXPECT_EQ(entriesOf(dataContainers()), kNothing);
  const auto weather = record("com.zentrel.weather");
  ASSERT_TRUE(weather && weather->groupContainerURLs);
  EXPECT_EQ(std::tuple(weather->bundleType, weather->bundleURL.path(), weather->foundBackingBundle,
                       weather->bundleContainerURL.isNil()),
            std::tuple(std::string("System"), weatherBundle_, true, true));
  EXPECT_EQ(entriesOf(weather->dataContainerURL.path()), kSkeleton);
  EXPECT_EQ(weather->groupContainerURLs->keys(), std::vector<std::string>{"group.zentrel.weather"});
  writeFile(weather->dataContainerURL.path() + "/Documents/cities.plist", "Oslo");

  const std::string staging =
      stageCustomerPackage("W1", {"com.zentrel.weather"}, false, {"Manifest.plist"});
  EXPECT_EQ(installCustomer(staging, "com.zentrel.weather").errorName(),
            "ApplicationAlreadyInstalled");
  EXPECT_EQ(entriesOf(home("Applications/W1")), kNothing);
  EXPECT_EQ(installPlaceholder({"com.zentrel.clock"}).errorName(), "ApplicationAlreadyInstalled");
  reopen();
  const auto after = record("com.zentrel.weather");
  EXPECT_EQ(after->bundleType, "System");
  EXPECT_EQ(after->dataContainerURL, weather->dataContainerURL);
  EXPECT_EQ(readFile(after->dataContainerURL.path() + "/Documents/cities.plist"), "Oslo");
  EXPECT_EQ(entriesOf(bundleContainers()), kNothing);
  EXPECT_EQ(entriesOf(dataContainers()).size(), 1u);
}

TEST_F(BuiltInApplicationTest, DataProtectionIsSetOnTheSystemDataContainersTheRegistryKnows) {
  const auto weather = record("com.zentrel.weather");
  installStaged("U1", {"com.example.user"});
  const auto user = record("com.example.user");
  EXPECT_TRUE(updateProtection(false));
  EXPECT_EQ(protectionClassOf(weather->dataContainerURL.path()), std::nullopt)
      << "without the option nothing is updated";
  EXPECT_TRUE(updateProtection(true));
  EXPECT_EQ(protectionClassOf(weather->dataContainerURL.path()),
            mavrel_installer::kSystemDataContainerProtectionClass);
  EXPECT_EQ(protectionClassOf(user->dataContainerURL.path()), std::nullopt);
  // The clock never needed a container, so none was made for the update.
  EXPECT_EQ(entriesOf(dataContainers()).size(), 2u);

  // It fails only when the registry cannot be read: another connection takes
  // the registry's tables away underneath the service.
  ASSERT_TRUE(executeOnRegistry("DROP TABLE application_groups; DROP TABLE applications;"));
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(updateProtection(true));
  EXPECT_TRUE(log.containsFragment("Could not read the application registry")) << log.dump();
}

}  // namespace
}  // namespace installer_test
