// VPN plug-ins known under their own identifiers: the record of a plug-in
// installed with its application, its data container, a package holding a
// plug-in alone, and a registry written before plug-ins were recorded.
#include <gtest/gtest.h>

#include "installer/RegistryDatabase.h"
#include "tests/installer/InstallerFixture.h"
#include "tests/support/TestSupport.h"

namespace installer_test {
namespace {

using namespace testing_support;

constexpr const char* kApplication = "com.example.notes";
// The plug-in InstallerFixture::stageCustomerPackage ships with an application.
constexpr const char* kPlugin = "com.example.notes.vpn";

class VPNPluginTest : public InstallerFixture {
 protected:
  void installApplicationWithPlugin() {
    const std::string staging =
        stageCustomerPackage("C1", BundleSpec{kApplication}, /*withVPNPlugin=*/true);
    const InstallOutcome outcome = installCustomer(staging, kApplication);
    ASSERT_TRUE(outcome.succeeded) << outcome.dump();
  }

  // A legacy container's staging directory whose "Payload" holds a plug-in alone.
  std::string stagePluginPackage(const std::string& container, const std::string& identifier) {
    const std::string staging = home("Applications/" + container + "/Staging");
    BundleSpec plugin{identifier};
    plugin.executable.clear();
    writeBundle(staging + "/Payload/notes.vpnplugin", plugin);
    writeFile(staging + "/Payload/notes.vpnplugin/Marker", "legacy copy");
    return staging;
  }
};

TEST_F(VPNPluginTest, APluginInstalledWithItsApplicationHasARecordAndADataContainerOfItsOwn) {
  installApplicationWithPlugin();
  const auto application = record(kApplication);
  ASSERT_TRUE(application);

  const auto plugin = record(kPlugin);
  ASSERT_TRUE(plugin);
  EXPECT_EQ(plugin->bundleIdentifier, kPlugin);
  EXPECT_EQ(plugin->bundleType, "VPNPlugin");
  EXPECT_EQ(plugin->bundleURL.path(), application->bundleContainerURL.path() + "/notes.vpnplugin");
  EXPECT_EQ(plugin->bundleContainerURL, application->bundleContainerURL);
  EXPECT_TRUE(plugin->foundBackingBundle);
  ASSERT_TRUE(plugin->groupContainerURLs);
  EXPECT_TRUE(plugin->groupContainerURLs->empty());
  // A data container of its own, made on first need, the same ever after.
  ASSERT_FALSE(plugin->dataContainerURL.isNil());
  EXPECT_NE(plugin->dataContainerURL, application->dataContainerURL);
  EXPECT_EQ(CVURL::fileURLWithPath(plugin->dataContainerURL.path(), true)
                .URLByDeletingLastPathComponent()
                .path(),
            dataContainers());
  EXPECT_EQ(entriesOf(plugin->dataContainerURL.path()),
            (std::vector<std::string>{"Documents", "Library", "tmp"}));
  EXPECT_EQ(record(kPlugin)->dataContainerURL, plugin->dataContainerURL);
  // A plug-in is not an application.
  EXPECT_FALSE(service_->isApplicationInstalled(kPlugin));

  reopen();
  const auto again = record(kPlugin);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->dataContainerURL, plugin->dataContainerURL);
  EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
}

TEST_F(VPNPluginTest, APackageHoldingAKnownPluginAloneIsConsumedAndTheInstalledCopyStays) {
  installApplicationWithPlugin();
  const std::string installedBundle = record(kPlugin)->bundleURL.path();
  const std::string staging = stagePluginPackage("V1", kPlugin);

  const InstallOutcome outcome = installCustomer(staging, kPlugin);
  ASSERT_TRUE(outcome.succeeded) << outcome.dump();
  EXPECT_EQ(*outcome.progress.back().findString(platform::kProgressStatusKey), "InstallComplete");
  EXPECT_FALSE(pathExists(staging));
  EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
  EXPECT_EQ(record(kPlugin)->bundleURL.path(), installedBundle);
  EXPECT_FALSE(pathExists(installedBundle + "/Marker"));
}

// A crash while the legacy copy was being discarded leaves an empty
// "Payload"; the resumed request gets the same answer.
TEST_F(VPNPluginTest, AnEmptyPackageAskedForAKnownPluginIsAcceptedAgain) {
  installApplicationWithPlugin();
  const std::string installedBundle = record(kPlugin)->bundleURL.path();
  const std::string staging = home("Applications/V1/Staging");
  makeDirectories(staging + "/Payload");
  reopen();

  const InstallOutcome outcome = installCustomer(staging, kPlugin);
  ASSERT_TRUE(outcome.succeeded) << outcome.dump();
  EXPECT_FALSE(pathExists(staging));
  EXPECT_TRUE(pathExists(installedBundle + "/Info.plist"));
  EXPECT_EQ(record(kPlugin)->bundleURL.path(), installedBundle);

  // Not for a plug-in nobody installed.
  makeDirectories(staging + "/Payload");
  const InstallOutcome unknown = installCustomer(staging, "com.example.unknown.vpn");
  EXPECT_FALSE(unknown.succeeded);
  EXPECT_EQ(unknown.errorName(), "EmptyPayload") << unknown.dump();
  EXPECT_TRUE(pathExists(staging + "/Payload"));
}

TEST_F(VPNPluginTest, APackageHoldingAnUnknownOrMisnamedPluginAloneIsRefusedAndKept) {
  installApplicationWithPlugin();
  {
    const std::string staging = stagePluginPackage("V1", "com.example.unknown.vpn");
    const InstallOutcome outcome = installCustomer(staging, "com.example.unknown.vpn");
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(outcome.errorName(), "UnexpectedPayloadContents") << outcome.dump();
    EXPECT_EQ(readFile(staging + "/Payload/notes.vpnplugin/Marker"), "legacy copy");
  }
  {
    // Asked for the known plug-in, but the bundle is another one.
    const std::string staging = stagePluginPackage("V2", "com.example.other.vpn");
    const InstallOutcome outcome = installCustomer(staging, kPlugin);
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(outcome.errorName(), "BundleIdentifierMismatch") << outcome.dump();
    EXPECT_EQ(readFile(staging + "/Payload/notes.vpnplugin/Marker"), "legacy copy");
  }
  EXPECT_FALSE(record("com.example.unknown.vpn"));
}

TEST_F(VPNPluginTest, ANewVersionWithoutThePluginForgetsIt) {
  installApplicationWithPlugin();
  ASSERT_TRUE(record(kPlugin));
  BundleSpec next{kApplication};
  next.version = "2";
  const InstallOutcome outcome = installCustomer(stageCustomerPackage("C2", next), kApplication);
  ASSERT_TRUE(outcome.succeeded) << outcome.dump();
  EXPECT_FALSE(record(kPlugin));
}

TEST_F(VPNPluginTest, ARegistryWrittenBeforePluginsWereRecordedIsUpgradedWhenOpened) {
  installApplicationWithPlugin();
  closeService();
  CVError error;
  {
    auto registry = mavrel_installer::RegistryDatabase::open(
        registryPath(), mavrel_installer::RegistryDatabase::Access::ReadWrite, &error);
    ASSERT_TRUE(registry) << error.description();
    ASSERT_TRUE(registry->execute("DROP TABLE plugins; PRAGMA user_version = 1", &error))
        << error.description();
  }
  openService();
  ASSERT_TRUE(record(kApplication));
  EXPECT_FALSE(record(kPlugin));  // not known until its application is installed again
  installApplicationWithPlugin();
  EXPECT_TRUE(record(kPlugin));
}

}  // namespace
}  // namespace installer_test
