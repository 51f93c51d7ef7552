// The configuration's preferences, fixed names and the data directory.
#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <set>
#include <thread>

#include "platform/Log.h"
#include "platform/Preferences.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "tests/support/DeviceImage.h"

namespace {

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using namespace testing_support;

class ConfigurationTest : public ::testing::Test {
 protected:
  void setPreference(std::string_view key, CVValue value) {
    platform::PreferencesStore store(image_.root().homeURL());
    ASSERT_TRUE(store.setValue(key, std::move(value), kCVPreferencesDomain,
                               platform::kPreferencesCurrentUser,
                               platform::kPreferencesCurrentHost));
  }

  DeviceImage image_;
  CapturedLog installerLog_{platform::installerLog()};
};

TEST_F(ConfigurationTest, DefaultsWithoutPreferencesAreSilent) {
  CVGlobalConfiguration configuration(image_.root());
  EXPECT_TRUE(configuration.lowerInstallPriority());
  EXPECT_FALSE(configuration.skipDeviceFamilyCheck());
  EXPECT_FALSE(configuration.skipThinningCheck());
  EXPECT_EQ(configuration.nSimultaneousInstallations(), 4);
  EXPECT_EQ(configuration.uid(), 501u);
  EXPECT_EQ(configuration.gid(), 501u);
  EXPECT_EQ(installerLog_.count(), 0u) << installerLog_.dump();
}

TEST_F(ConfigurationTest, OnlyAStoredBooleanFalseLowersNothing) {
  // The number 0 is not the boolean false: background priority stays on.
  setPreference("LowerInstallPriority", CVValue(0));
  EXPECT_TRUE(CVGlobalConfiguration(image_.root()).lowerInstallPriority());
  EXPECT_EQ(installerLog_.count(), 0u);

  setPreference("LowerInstallPriority", CVValue(false));
  EXPECT_FALSE(CVGlobalConfiguration(image_.root()).lowerInstallPriority());
  EXPECT_TRUE(installerLog_.contains(
      kLogLevelNotice, "Not running installation at background priority because of a set default"));
}

TEST_F(ConfigurationTest, SkipFlagsNeedABooleanTrue) {
  setPreference("SkipDeviceFamilyCheck", CVValue("YES"));
  setPreference("SkipThinningCheck", CVValue(1));
  {
    CVGlobalConfiguration configuration(image_.root());
    EXPECT_FALSE(configuration.skipDeviceFamilyCheck());
    EXPECT_FALSE(configuration.skipThinningCheck());
  }
  setPreference("SkipDeviceFamilyCheck", CVValue(true));
  setPreference("SkipThinningCheck", CVValue(true));
  CVGlobalConfiguration configuration(image_.root());
  EXPECT_TRUE(configuration.skipDeviceFamilyCheck());
  EXPECT_TRUE(configuration.skipThinningCheck());
  EXPECT_TRUE(installerLog_.contains(kLogLevelNotice,
                                     "Skipping device family check because of a set default"));
  EXPECT_TRUE(installerLog_.contains(kLogLevelNotice,
                                     "Skipping device thinning check because of a set default"));
  for (const auto& line : installerLog_.lines()) {
    EXPECT_EQ(line.function, "-[CVGlobalConfiguration init]");
  }
}

TEST_F(ConfigurationTest, SimultaneousInstallsTakesAnyNumberAndIgnoresOtherTypes) {
  setPreference("SimultaneousInstallsNumber", CVValue("8"));
  EXPECT_EQ(CVGlobalConfiguration(image_.root()).nSimultaneousInstallations(), 4);
  EXPECT_EQ(installerLog_.count(), 0u);

  setPreference("SimultaneousInstallsNumber", CVValue(-3));
  EXPECT_EQ(CVGlobalConfiguration(image_.root()).nSimultaneousInstallations(), -3);
  EXPECT_TRUE(
      installerLog_.contains(kLogLevelNotice, "Setting simultaneous installations allowed to -3"));
}

TEST_F(ConfigurationTest, PluginContainerFlagIsReadAndWrittenThroughTheStore) {
  CVGlobalConfiguration configuration(image_.root());
  EXPECT_FALSE(configuration.haveUpdatedPluginContainersWithParentID());
  configuration.setHaveUpdatedPluginContainersWithParentID(true);
  EXPECT_TRUE(configuration.haveUpdatedPluginContainersWithParentID());
  // Another instance sees it: the value lives in the store, not in the object.
  EXPECT_TRUE(CVGlobalConfiguration(image_.root()).haveUpdatedPluginContainersWithParentID());
  configuration.setHaveUpdatedPluginContainersWithParentID(false);
  EXPECT_FALSE(configuration.haveUpdatedPluginContainersWithParentID());
  // Any present value other than the boolean false counts as true.
  setPreference("UpdatedPluginContainersWithParentID", CVValue("no"));
  EXPECT_TRUE(configuration.haveUpdatedPluginContainersWithParentID());
}

TEST_F(ConfigurationTest, LegacyLocationsAndFixedLists) {
  CVGlobalConfiguration configuration(image_.root());
  const std::string home = image_.home();
  EXPECT_EQ(configuration.homeDirectory().absoluteString(), "file://" + home + "/");
  EXPECT_EQ(configuration.oldContainerPath().absoluteString(), "file://" + home + "/Applications/");
  EXPECT_EQ(configuration.oldInstallMapPath().absoluteString(),
            "file://" + home + "/Library/Caches/com.zentrel.corvane.plist");
  EXPECT_EQ(configuration.appUserDataItemNames(),
            (std::vector<std::string>{"Documents", "Library", "tmp", "Pormex"}));
  EXPECT_EQ(configuration.appBundleMetadataItemNames(),
            (std::vector<std::string>{"Manifest.plist", "SorvikArtwork", "SorvikMetadata.plist",
                                      "GeoJSON"}));
  EXPECT_EQ(configuration.installationBlacklist(), CVSet{"com.zentrel.Orvos6Updater"});
  // One set for the whole process.
  EXPECT_EQ(&configuration.installationBlacklist(),
            &CVGlobalConfiguration(image_.root()).installationBlacklist());
}

// Paths the image stores are device paths, read under the root; the written
// form is the device path again.
TEST(DeviceRootPathsTest, StoredPathsLeadUnderTheRoot) {
  const platform::DeviceRoot root("/images/one");
  const struct {
    const char* stored;
    const char* host;  // nullptr: refused
  } cases[] = {
      {"/private/var/mobile/Library/X", "/images/one/private/var/mobile/Library/X"},
      {"/var/mobile/Library/X", "/images/one/private/var/mobile/Library/X"},
      {"/var", "/images/one/private/var"},
      {"/tmp/x", "/images/one/private/var/tmp/x"},
      {"/etc/hosts", "/images/one/private/etc/hosts"},
      {"/variable/x", "/images/one/variable/x"},
      {"/images/one/private/var/mobile", "/images/one/private/var/mobile"},
      {"/images/onex/y", "/images/one/images/onex/y"},
      {"/", "/images/one"},
      {"/var/mobile/../../../etc", nullptr},
      {"relative/path", nullptr},
      {"", nullptr},
  };
  for (const auto& c : cases) {
    std::string problem;
    const auto host = root.hostPathForDevicePath(c.stored, &problem);
    if (c.host == nullptr) {
      EXPECT_FALSE(host.has_value()) << c.stored;
      EXPECT_FALSE(problem.empty()) << c.stored;
    } else {
      EXPECT_EQ(host.value_or("(refused: " + problem + ")"), c.host) << c.stored;
    }
  }
  EXPECT_EQ(root.devicePathForHostPath("/images/one/private/var/mobile/A").value_or(""),
            "/private/var/mobile/A");
  EXPECT_EQ(root.devicePathForHostPath("/images/one").value_or(""), "/");
  EXPECT_FALSE(root.devicePathForHostPath("/images/onex/A").has_value());
  std::string problem;
  EXPECT_EQ(platform::DeviceRoot("/").hostPathForDevicePath("/var/x", &problem).value_or(""),
            "/var/x");
}

TEST_F(ConfigurationTest, DeviceRootSlashGivesTheDevicePaths) {
  const platform::DeviceRoot root("/");
  EXPECT_EQ(root.homeURL().absoluteString(), "file:///private/var/mobile/");
  EXPECT_EQ(root.rootURL().absoluteString(), "file:///");
}

TEST_F(ConfigurationTest, DataDirectoryIsCreatedOnEveryCallWithItsClass) {
  CVGlobalConfiguration configuration(image_.root());
  const CVURL first = configuration.dataDirectory();
  EXPECT_EQ(first.path(), image_.dataDirectory());
  ASSERT_TRUE(pathExists(image_.dataDirectory()));
  std::int32_t protectionClass = 0;
  ASSERT_EQ(::getxattr(image_.dataDirectory().c_str(), "user.mavrel.protection-class",
                       &protectionClass, sizeof protectionClass),
            static_cast<ssize_t>(sizeof protectionClass));
  EXPECT_EQ(protectionClass, 4);

  ASSERT_EQ(::rmdir(image_.dataDirectory().c_str()), 0);
  EXPECT_EQ(configuration.dataDirectory(), first);
  EXPECT_TRUE(pathExists(image_.dataDirectory()));
}

TEST_F(ConfigurationTest, DataDirectoryCreationFailureIsLoggedEveryTime) {
  testing_support::makeDirectories(image_.home("Library"));
  writeFile(image_.dataDirectory(), "a file where the directory belongs");
  CVGlobalConfiguration configuration(image_.root());
  EXPECT_EQ(configuration.dataDirectory().path(), image_.dataDirectory());
  EXPECT_EQ(configuration.dataDirectory().path(), image_.dataDirectory());
  std::size_t failures = 0;
  for (const auto& line : installerLog_.lines()) {
    if (line.level == kLogLevelError &&
        line.message.starts_with("Failed to create data dir at \"file://" + image_.dataDirectory() +
                                 "/\": ")) {
      EXPECT_EQ(line.function, "-[CVGlobalConfiguration dataDirectory]");
      ++failures;
    }
  }
  EXPECT_EQ(failures, 2u) << installerLog_.dump();
}

TEST(SharedConfigurationTest, ConcurrentFirstCallsGetOneInstance) {
  std::vector<CVGlobalConfiguration*> seen(8, nullptr);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = &CVGlobalConfiguration::sharedInstance(); });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(std::set<CVGlobalConfiguration*>(seen.begin(), seen.end()).size(), 1u);
}

}  // namespace
