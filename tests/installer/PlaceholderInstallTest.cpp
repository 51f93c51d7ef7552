// Placeholder installs: a copied, marked bundle with its store metadata, a
// data container, and a customer install taking its place later.
#include <gtest/gtest.h>

#include "shared/filemanager/CVFileManager.h"
#include "tests/installer/InstallerFixture.h"
#include "tests/support/TestSupport.h"

namespace installer_test {
namespace {

using namespace testing_support;

class PlaceholderInstallTest : public InstallerFixture {
 protected:
  // Where the migrator stages placeholders: its temporary directory, which
  // need not be inside the image.
  TemporaryDirectory temporary_;
};

TEST_F(PlaceholderInstallTest, CopiesMarksAndStoresTheMetadataBesideTheBundle) {
  BundleSpec spec{"com.example.maps"};
  spec.executable.clear();
  const std::string package = makePlaceholderPackage(temporary_.path(), spec);
  writeFile(package + "/Icon.png", "png bytes");
  const CVData metadata{'<', 'p', 'l', 'i', 's', 't', 0x00, 0xFF};

  const InstallOutcome outcome = installPlaceholder(package, "com.example.maps", metadata);
  ASSERT_TRUE(outcome.succeeded) << outcome.dump();
  EXPECT_EQ(*outcome.progress.back().findString(platform::kProgressStatusKey), "InstallComplete");

  const auto placeholder = record("com.example.maps");
  ASSERT_TRUE(placeholder);
  EXPECT_EQ(placeholder->bundleType, "Placeholder");
  EXPECT_TRUE(placeholder->foundBackingBundle);
  const std::string container = placeholder->bundleContainerURL.path();
  EXPECT_EQ(entriesOf(container),
            (std::vector<std::string>{"SorvikMetadata.plist", "com.example.maps.app"}));
  EXPECT_EQ(placeholder->bundleURL.path(), container + "/com.example.maps.app");
  EXPECT_TRUE(CVFileManager::defaultManager().bundleAtURLIsPlaceholder(placeholder->bundleURL));
  EXPECT_EQ(readFile(container + "/com.example.maps.app/Icon.png"), "png bytes");
  const std::string stored = readFile(container + "/SorvikMetadata.plist");
  EXPECT_EQ(CVData(stored.begin(), stored.end()), metadata);
  EXPECT_EQ(entriesOf(placeholder->dataContainerURL.path()),
            (std::vector<std::string>{"Documents", "Library", "tmp"}));

  // The caller's package is only read: it stays, unmarked.
  EXPECT_TRUE(pathExists(package + "/Info.plist"));
  EXPECT_FALSE(CVFileManager::defaultManager().bundleAtURLIsPlaceholder(
      CVURL::fileURLWithPath(package, true)));
  EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
  EXPECT_TRUE(service_->isApplicationInstalled("com.example.maps"));
}

TEST_F(PlaceholderInstallTest, WithoutMetadataNothingIsStoredBesideTheBundle) {
  const std::string package = makePlaceholderPackage(temporary_.path(), {"com.example.bare"});
  ASSERT_TRUE(installPlaceholder(package, "com.example.bare").succeeded);
  EXPECT_EQ(entriesOf(record("com.example.bare")->bundleContainerURL.path()),
            std::vector<std::string>{"com.example.bare.app"});
}

TEST_F(PlaceholderInstallTest, ACustomerInstallReplacesThePlaceholderAndKeepsTheData) {
  const std::string package = makePlaceholderPackage(temporary_.path(), {"com.example.chat"});
  ASSERT_TRUE(installPlaceholder(package, "com.example.chat").succeeded);
  const auto placeholder = record("com.example.chat");
  ASSERT_TRUE(placeholder);
  // What the migrator moves in between.
  writeFile(placeholder->dataContainerURL.path() + "/Documents/history.db", "hello");

  const InstallOutcome outcome = installCustomer(
      stageCustomerPackage("P1", {"com.example.chat"}, false, {"SorvikMetadata.plist"}),
      "com.example.chat");
  ASSERT_TRUE(outcome.succeeded) << outcome.dump();
  const auto installed = record("com.example.chat");
  ASSERT_TRUE(installed);
  EXPECT_EQ(installed->bundleType, "User");
  EXPECT_EQ(installed->dataContainerURL, placeholder->dataContainerURL);
  EXPECT_EQ(readFile(installed->dataContainerURL.path() + "/Documents/history.db"), "hello");
  EXPECT_FALSE(pathExists(placeholder->bundleContainerURL.path()));
  EXPECT_FALSE(CVFileManager::defaultManager().bundleAtURLIsPlaceholder(installed->bundleURL));
  EXPECT_EQ(entriesOf(bundleContainers()).size(), 1u);
  EXPECT_EQ(entriesOf(dataContainers()).size(), 1u);
}

TEST_F(PlaceholderInstallTest, APlaceholderReplacesAPlaceholderButNeverAnApplication) {
  BundleSpec first{"com.example.news"};
  first.version = "1";
  ASSERT_TRUE(
      installPlaceholder(makePlaceholderPackage(temporary_.path(), first), "com.example.news")
          .succeeded);
  const auto before = record("com.example.news");

  TemporaryDirectory again;
  BundleSpec second{"com.example.news"};
  second.version = "2";
  ASSERT_TRUE(installPlaceholder(makePlaceholderPackage(again.path(), second), "com.example.news")
                  .succeeded);
  const auto after = record("com.example.news");
  EXPECT_EQ(after->dataContainerURL, before->dataContainerURL);
  EXPECT_NE(after->bundleContainerURL, before->bundleContainerURL);
  EXPECT_FALSE(pathExists(before->bundleContainerURL.path()));

  ASSERT_TRUE(installCustomer(stageCustomerPackage("N1", {"com.example.news"}), "com.example.news")
                  .succeeded);
  const auto installed = record("com.example.news");
  TemporaryDirectory third;
  const InstallOutcome refused = installPlaceholder(
      makePlaceholderPackage(third.path(), {"com.example.news"}), "com.example.news");
  EXPECT_FALSE(refused.succeeded);
  EXPECT_EQ(refused.errorName(), "ApplicationAlreadyInstalled");
  EXPECT_EQ(record("com.example.news")->bundleContainerURL, installed->bundleContainerURL);
  EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
}

TEST_F(PlaceholderInstallTest, ChecksTheCopyItInstalls) {
  const std::string mismatched = makePlaceholderPackage(temporary_.path(), {"com.example.a"});
  EXPECT_EQ(installPlaceholder(mismatched, "com.example.b").errorName(),
            "BundleIdentifierMismatch");

  const std::string escaping = makePlaceholderPackage(temporary_.path(), {"com.example.c"});
  testing_support::makeSymlink("/etc", escaping + "/etc");
  EXPECT_EQ(installPlaceholder(escaping, "com.example.c").errorName(), "InvalidSymlink");

  CVDictionary blacklisted = placeholderOptions("com.zentrel.Orvos6Updater");
  blacklisted.remove(platform::kSkipBlacklistOptionKey);
  EXPECT_EQ(
      install(makePlaceholderPackage(temporary_.path(), {"com.zentrel.Orvos6Updater"}), blacklisted)
          .errorName(),
      "ApplicationBlacklisted");

  EXPECT_EQ(installPlaceholder(temporary_ / "missing.app", "com.example.d").errorName(),
            "InvalidInstallSource");
  // Nothing of the refused installs is left anywhere.
  EXPECT_EQ(entriesOf(bundleContainers()), std::vector<std::string>{});
  EXPECT_EQ(entriesOf(dataContainers()), std::vector<std::string>{});
  EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
}

}  // namespace
}  // namespace installer_test
