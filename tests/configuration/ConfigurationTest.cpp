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

void storePreference(const DeviceImage& image, std::string_view key, const CVValue& value) {
  platform::PreferencesStore store(image.root().homeURL());
  ASSERT_TRUE(store.setValue(key, value, kCVPreferencesDomain, platform::kPreferencesCurrentUser,
                             platform::kPreferencesCurrentHost));
}

// Each stored preference, what the configuration makes of it, and its notice:
// the flags need a stored boolean (the number 0 is not false, "YES" and 1 are
// not true), the number of installations any number. The other settings keep
// their defaults, which are silent.
TEST(ConfigurationPreferencesTest, OnlyValuesOfTheRightTypeCountAndEachIsAnnounced) {
  const auto settings = [](const CVGlobalConfiguration& c) {
    return std::vector<long>{c.lowerInstallPriority(), c.skipDeviceFamilyCheck(),
                             c.skipThinningCheck(), c.nSimultaneousInstallations()};
  };
  const struct {
    const char* key;
    CVValue value;
    std::size_t setting;
    long expected;
    const char* notice;
  } cases[] = {
      {"", CVValue(), 0, 1, ""},  // nothing stored
      {"LowerInstallPriority", CVValue(0), 0, 1, ""},
      {"LowerInstallPriority", CVValue(false), 0, 0,
       "Not running installation at background priority because of a set default"},
      {"SkipDeviceFamilyCheck", CVValue("YES"), 1, 0, ""},
      {"SkipDeviceFamilyCheck", CVValue(true), 1, 1,
       "Skipping device family check because of a set default"},
      {"SkipThinningCheck", CVValue(1), 2, 0, ""},
      {"SkipThinningCheck", CVValue(true), 2, 1,
       "Skipping device thinning check because of a set default"},
      {"SimultaneousInstallsNumber", CVValue("8"), 3, 4, ""},
      {"SimultaneousInstallsNumber", CVValue(-3), 3, -3,
       "Setting simultaneous installations allowed to -3"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(std::string(each.key) + " = " + each.value.description());
    DeviceImage image;
    if (*each.key) storePreference(image, each.key, each.value);
    CapturedLog log(platform::installerLog());
    std::vector<long> expected{1, 0, 0, 4};
    expected[each.setting] = each.expected;
    EXPECT_EQ(settings(CVGlobalConfiguration(image.root())), expected);
    std::vector<std::tuple<int, std::string, std::string>> lines, got;
    if (*each.notice)
      lines.emplace_back(kLogLevelNotice, each.notice, "-[CVGlobalConfiguration init]");
    for (const auto& line : log.lines())
      got.emplace_back(line.level, line.message, line.function);
    EXPECT_EQ(got, lines);
  }
}

TEST(ConfigurationTest, FixedListsAndThePluginContainerFlag) {
  DeviceImage image;
  CVGlobalConfiguration configuration(image.root());
  // Only this test notices a user data item or a metadata item gone missing;
  // the other fixed locations, lists and owners fail the migration and
  // installer tests.
  EXPECT_EQ(configuration.appUserDataItemNames(),
            (std::vector<std::string>{"Documents", "Library", "tmp", "Pormex"}));
  EXPECT_EQ(configuration.appBundleMetadataItemNames(),
            (std::vector<std::string>{"Manifest.plist", "SorvikArtwork", "SorvikMetadata.plist",
                                      "GeoJSON"}));
  // One set for the whole process.
  EXPECT_EQ(&configuration.installationBlacklist(),
            &CVGlobalConfiguration(image.root()).installationBlacklist());

  EXPECT_FALSE(configuration.haveUpdatedPluginContainersWithParentID());
  configuration.setHaveUpdatedPluginContainersWithParentID(true);
  EXPECT_TRUE(configuration.haveUpdatedPluginContainersWithParentID());
  // Another instance sees it: the value lives in the store, not in the object.
  EXPECT_TRUE(CVGlobalConfiguration(image.root()).haveUpdatedPluginContainersWithParentID());
  configuration.setHaveUpdatedPluginContainersWithParentID(false);
  EXPECT_FALSE(configuration.haveUpdatedPluginContainersWithParentID());
  // Any present value other than the boolean false counts as true.
  storePreference(image, "UpdatedPluginContainersWithParentID", CVValue("no"));
  EXPECT_TRUE(configuration.haveUpdatedPluginContainersWithParentID());
}

// Paths the image stores are device paths, read under the root; the written
// form is the device path again.
TEST(DeviceRootPathsTest, StoredPathsLeadUnderTheRoot) {
  const platform::DeviceRoot root("/images/one");
  const std::pair<const char*, const char*> cases[] = {
      {"/private/var/mobile/Library/X", "/images/one/private/var/mobile/Library/X"},
      {"/var/mobile/Library/X", "/images/one/private/var/mobile/Library/X"},
      {"/var", "/images/one/private/var"},
      {"/tmp/x", "/images/one/private/var/tmp/x"},
      {"/etc/hosts", "/images/one/private/etc/hosts"},
      {"/variable/x", "/images/one/variable/x"},
      {"/images/one/private/var/mobile", "/images/one/private/var/mobile"},
      {"/images/onex/y", "/images/one/images/onex/y"},
      {"/", "/images/one"},
      {"/var/mobile/../../../etc", "(refused)"},
      {"relative/path", "(refused)"},
      {"", "(refused)"},
  };
  for (const auto& [stored, host] : cases) {
    std::string problem;
    const auto hostPath = root.hostPathForDevicePath(stored, &problem);
    EXPECT_EQ(hostPath.value_or("(refused)"), host) << problem;
    if (!hostPath) {
      EXPECT_FALSE(problem.empty()) << stored;
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
