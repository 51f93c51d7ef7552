// Placeholder installs: a copied, marked bundle with its store metadata, a
// data container, and a customer install taking its place later.
#include <gtest/gtest.h>

#include "shared/filemanager/CVFileManager.h"
#include "tests/installer/InstallerFixture.h"

namespace installer_test {
namespace {

const std::vector<std::string> kSkeleton{"Documents", "Library", "tmp"};

class PlaceholderInstallTest : public InstallerFixture {
 protected:
  // Where the migrator stages placeholders: its temporary directory, which
  // need not be inside the image.
  TemporaryDirectory temporary_;
};

TEST_F(PlaceholderInstallTest, CopiesMarksAndStoresTheMetadataBesideTheBundle) {
  const std::string package = makePlaceholderPackage(
      temporary_.path(), {.identifier = "com.example.maps", .executable = ""});
  writeFile(package + "/Icon.png", "png bytes");
  const CVData metadata{'<', 'p', 'l', 'i', 's', 't', 0x00, 0xFF};
  const InstallOutcome outcome = installPlaceholder(package, "com.example.maps", metadata);
  ASSERT_TRUE(outcome.succeeded) << outcome.dump();

  const auto placeholder = record("com.example.maps");
  ASSERT_TRUE(placeholder);
  EXPECT_EQ(placeholder->bundleType, "Placeholder");
  EXPECT_TRUE(placeholder->foundBackingBundle);
  const std::string container = placeholder->bundleContainerURL.path();
  EXPECT_EQ(entriesOf(container),
            (std::vector<std::string>{"SorvikMetadata.plist", "com.example.maps.app"}));
  EXPECT_TRUE(CVFileManager::defaultManager().bundleAtURLIsPlaceholder(placeholder->bundleURL));
  EXPECT_EQ(readFile(container + "/com.example.maps.app/Icon.png"), "png bytes");
  const std::string stored = readFile(container + "/SorvikMetadata.plist");
  EXPECT_EQ(CVData(stored.begin(), stored.end()), metadata);

  // The caller's package is only read: it stays, unmarked.
  EXPECT_TRUE(pathExists(package + "/Info.plist"));
  EXPECT_FALSE(CVFileManager::defaultManager().bundleAtURLIsPlaceholder(
      CVURL::fileURLWithPath(package, true)));
  EXPECT_EQ(entriesOf(stagingRoot()), kNothing);

  // Installed again, a placeholder replaces the placeholder and keeps the data.
  ASSERT_TRUE(installPlaceholder(package, "com.example.maps").succeeded);
  EXPECT_EQ(record("com.example.maps")->dataContainerURL, placeholder->dataContainerURL);
  EXPECT_FALSE(pathExists(container));
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
    const InstallOutcome outcome = installPlaceholder(package, test.identifier);
    ASSERT_TRUE(outcome.succeeded) << outcome.dump();
    EXPECT_FALSE(pathExists(package));  // taken
    const auto placeholder = record(test.identifier);
    // Without metadata nothing is stored beside the bundle.
    EXPECT_EQ(entriesOf(placeholder->bundleContainerURL.path()),
              std::vector<std::string>{test.identifier + ".app"});
    const std::string data = placeholder->dataContainerURL.path();
    EXPECT_EQ(entriesOf(data), kNothing);
    for (const std::string& item : test.userData)
      writeFile(data + "/" + item, "user data");
    if (test.replaced) {
      ASSERT_TRUE(
          installCustomer(stageCustomerPackage(test.identifier, {test.identifier}), test.identifier)
              .succeeded);
    } else {
      reopen();
    }
    EXPECT_EQ(pathExists(placeholder->bundleContainerURL.path()), !test.replaced);
    EXPECT_EQ(record(test.identifier)->dataContainerURL.path(), data);
    EXPECT_EQ(record(test.identifier)->bundleType, test.replaced ? "User" : "Placeholder");
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

}  // namespace
}  // namespace installer_test
