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
  void SetUp() override {
    InstallerFixture::SetUp();
    installApplicationWithPlugin();
  }
  void installApplicationWithPlugin() {
    const InstallOutcome outcome = installCustomer(
        stageCustomerPackage("C1", BundleSpec{kApplication}, /*withVPNPlugin=*/true), kApplication);
    ASSERT_TRUE(outcome.succeeded) << outcome.dump();
  }
};

TEST_F(VPNPluginTest, APluginInstalledWithItsApplicationHasARecordAndADataContainerOfItsOwn) {
  const auto application = record(kApplication);
  const auto plugin = record(kPlugin);
  ASSERT_TRUE(application && plugin);
  EXPECT_EQ(plugin->bundleType, "VPNPlugin");
  EXPECT_EQ(plugin->bundleURL.path(), application->bundleContainerURL.path() + "/notes.vpnplugin");
  EXPECT_EQ(plugin->bundleContainerURL, application->bundleContainerURL);
  EXPECT_TRUE(plugin->foundBackingBundle);
  EXPECT_TRUE(plugin->groupContainerURLs && plugin->groupContainerURLs->empty());
  ASSERT_FALSE(plugin->dataContainerURL.isNil());
  EXPECT_NE(plugin->dataContainerURL, application->dataContainerURL);
  EXPECT_EQ(entriesOf(plugin->dataContainerURL.path()),
            (std::vector<std::string>{"Documents", "Library", "tmp"}));
  EXPECT_FALSE(service_->isApplicationInstalled(kPlugin));  // a plug-in is not an application
  reopen();
  EXPECT_EQ(record(kPlugin)->dataContainerURL, plugin->dataContainerURL);
  EXPECT_EQ(entriesOf(dataContainers()).size(), 2u);
}

// A legacy package holding a plug-in alone: consumed when it is the known
// plug-in (the installed copy stays), refused and kept otherwise.
TEST_F(VPNPluginTest, APackageHoldingAPluginAlone) {
  const std::string installedBundle = record(kPlugin)->bundleURL.path();
  // (container, identifier in the bundle, identifier asked for, error or "")
  const std::vector<std::tuple<std::string, std::string, std::string, std::string>> cases = {
      {"V1", kPlugin, kPlugin, ""},
      {"V2", "com.example.unknown.vpn", "com.example.unknown.vpn", "UnexpectedPayloadContents"},
      {"V3", "com.example.other.vpn", kPlugin, "BundleIdentifierMismatch"},
  };
  for (const auto& [container, identifier, asked, error] : cases) {
    const std::string staging = home("Applications/" + container + "/Staging");
    BundleSpec plugin{identifier};
    plugin.executable.clear();
    writeBundle(staging + "/Payload/notes.vpnplugin", plugin);
    writeFile(staging + "/Payload/notes.vpnplugin/Marker", "legacy copy");
    const InstallOutcome outcome = installCustomer(staging, asked);
    EXPECT_EQ(outcome.errorName(), error) << outcome.dump();
    EXPECT_EQ(pathExists(staging + "/Payload/notes.vpnplugin/Marker"), !error.empty());
  }
  EXPECT_EQ(record(kPlugin)->bundleURL.path(), installedBundle);
  EXPECT_FALSE(pathExists(installedBundle + "/Marker"));
  EXPECT_FALSE(record("com.example.unknown.vpn"));
  closeService();
  EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
}

TEST_F(VPNPluginTest, APluginIsForgottenByANewVersionWithoutItAndByAnOlderRegistry) {
  BundleSpec next{kApplication};
  next.version = "2";
  ASSERT_TRUE(installCustomer(stageCustomerPackage("C2", next), kApplication).succeeded);
  EXPECT_FALSE(record(kPlugin));

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
