// The configuration's preferences, fixed names and the data directory.
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "platform/Log.h"
#include "platform/Preferences.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "tests/support/DeviceImage.h"

namespace {

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
  EXPECT_EQ(std::tuple(configuration.uid(), configuration.gid()), std::tuple(501u, 501u));
  EXPECT_EQ(installerLog_.count(), 0u) << installerLog_.dump();
}

// Each stored preference, what the configuration makes of it, and its notice:
// the flags need a stored boolean (the number 0 is not false, "YES" and 1 are
// not true), the number of installations any number.
TEST(ConfigurationPreferencesTest, OnlyValuesOfTheRightTypeCountAndEachIsAnnounced) {
  using Getter = long (*)(const CVGlobalConfiguration&);
  const Getter lower = [](const CVGlobalConfiguration& c) -> long {
    return c.lowerInstallPriority();
  };
  const Getter family = [](const CVGlobalConfiguration& c) -> long {
    return c.skipDeviceFamilyCheck();
  };
  const Getter thinning = [](const CVGlobalConfiguration& c) -> long {
    return c.skipThinningCheck();
  };
  const Getter installs = [](const CVGlobalConfiguration& c) -> long {
    return c.nSimultaneousInstallations();
  };
  const struct {
    const char* key;
    CVValue value;
    Getter getter;
    long expected;
    const char* notice;
  } cases[] = {
      {"LowerInstallPriority", CVValue(0), lower, 1, ""},
      {"LowerInstallPriority", CVValue(false), lower, 0,
       "Not running installation at background priority because of a set default"},
      {"SkipDeviceFamilyCheck", CVValue("YES"), family, 0, ""},
      {"SkipDeviceFamilyCheck", CVValue(true), family, 1,
       "Skipping device family check because of a set default"},
      {"SkipThinningCheck", CVValue(1), thinning, 0, ""},
      {"SkipThinningCheck", CVValue(true), thinning, 1,
       "Skipping device thinning check because of a set default"},
      {"SimultaneousInstallsNumber", CVValue("8"), installs, 4, ""},
      {"SimultaneousInstallsNumber", CVValue(-3), installs, -3,
       "Setting simultaneous installations allowed to -3"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(std::string(each.key) + " = " + each.value.description());
    DeviceImage image;
    platform::PreferencesStore store(image.root().homeURL());
    ASSERT_TRUE(store.setValue(each.key, each.value, kCVPreferencesDomain,
                               platform::kPreferencesCurrentUser,
                               platform::kPreferencesCurrentHost));
    CapturedLog log(platform::installerLog());
    EXPECT_EQ(each.getter(CVGlobalConfiguration(image.root())), each.expected);
    std::vector<std::tuple<int, std::string, std::string>> expected, got;
    if (*each.notice)
      expected.emplace_back(kLogLevelNotice, each.notice, "-[CVGlobalConfiguration init]");
    for (const auto& line : log.lines())
      got.emplace_back(line.level, line.message, line.function);
    EXPECT_EQ(got, expected);
  }
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
  const platform::DeviceRoot slash("/");
  EXPECT_EQ(slash.hostPathForDevicePath("/var/x", &problem).value_or(""), "/var/x");
  EXPECT_EQ(slash.homeURL().absoluteString(), "file:///private/var/mobile/");
  EXPECT_EQ(slash.rootURL().absoluteString(), "file:///");
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
