// The configuration's well-known directories and its maps of built-in bundles.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <filesystem>
#include <functional>

#include "platform/Log.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/support/DeviceImage.h"

namespace {

using platform::kLogLevelDebug;
using platform::kLogLevelError;
using namespace testing_support;

std::optional<std::int32_t> protectionClassOf(const std::string& path) {
  std::int32_t value = 0;
  if (::getxattr(path.c_str(), "user.mavrel.protection-class", &value, sizeof value) !=
      static_cast<ssize_t>(sizeof value)) {
    return std::nullopt;
  }
  return value;
}

class WellKnownDirectoriesTest : public ::testing::Test {
 protected:
  DeviceImage image_;
  CVGlobalConfiguration configuration_{image_.root()};
};

TEST_F(WellKnownDirectoriesTest, CreatedDirectoriesHaveTheirModeAndClass) {
  for (const auto& [url, relative, protectionClass] :
       std::vector<std::tuple<CVURL, std::string, std::optional<std::int32_t>>>{
           {configuration_.carrierBundlesDirectory(), "Library/Carrier Bundles", std::nullopt},
           {configuration_.stagingRoot(), "Library/Caches/com.zentrel.mobile.corvaned.staging", 4},
           {configuration_.logDirectory(), "Library/Logs/Corvane", 4},
           {configuration_.dataDirectory(), "Library/Corvane", 4},
           {configuration_.cachesDirectory(), "Library/Caches", std::nullopt},
           {configuration_.archiveDirectory(), "Media/ApplicationArchives", 4}}) {
    const std::string path = image_.home(relative);
    EXPECT_EQ(url.path(), path);
    EXPECT_TRUE(url.isDirectory());
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0) << path;
    EXPECT_EQ(status.st_mode & (S_IFMT | 07777), S_IFDIR | 0755u) << path;
    EXPECT_EQ(protectionClassOf(path), protectionClass) << path;
  }
}

// The application directories, and that they are not made, are checked by
// the bundle-map tests below, which read them.
TEST_F(WellKnownDirectoriesTest, FrameworkAndFactoryDirectoriesAreNamedUnderTheRoot) {
  const std::string root = image_.rootPath();
  EXPECT_EQ(configuration_.factoryMountDirectory().absoluteString(),
            "file://" + root + "/var/factory_mount/");
  EXPECT_EQ(configuration_.developerFrameworksRootDirectory().path(), root + "/Developer");
  CVSet frameworks;
  for (const char* place : {"System/Library/Frameworks", "System/Library/PrivateFrameworks",
                            "ZentrelInternal/Frameworks", "ZentrelInternal/PrivateFrameworks"})
    frameworks.add(CVURL::fileURLWithPath(root + "/" + place, true));
  EXPECT_EQ(configuration_.allFrameworksDirectories(), frameworks);
}

TEST_F(WellKnownDirectoriesTest, RemovedDirectoryIsMadeAgainAndFailuresLoggedPerCall) {
  const CVURL first = configuration_.archiveDirectory();
  ASSERT_EQ(::rmdir(first.path().c_str()), 0);
  EXPECT_EQ(configuration_.archiveDirectory(), first);
  EXPECT_TRUE(pathExists(first.path()));

  // A regular file where a parent of the caches directory belongs: the URL
  // still comes back, and each call logs the caches directory's own (borrowed)
  // message. (An existing item at the path itself would count as success.)
  std::filesystem::remove_all(image_.home("Library"));
  writeFile(image_.home("Library"), "in the way");
  CapturedLog log(platform::installerLog());
  EXPECT_EQ(configuration_.cachesDirectory().path(), image_.home("Library/Caches"));
  EXPECT_EQ(configuration_.cachesDirectory().path(), image_.home("Library/Caches"));
  std::size_t failures = 0;
  for (const auto& line : log.lines()) {
    if (line.function == "-[CVGlobalConfiguration cachesDirectory]" &&
        line.message.starts_with("Failed to create data dir at \"file://" +
                                 image_.home("Library/Caches") + "/\": ")) {
      ++failures;
    }
  }
  EXPECT_EQ(failures, 2u) << log.dump();
}

// A link in the image on the way to a directory the installer writes in
// leads out of it: nothing is made there and its class is not touched, with
// or without confinement, and the failure is logged.
TEST_F(WellKnownDirectoriesTest, ALinkOutOfTheImageOnTheWayIsRefusedBeforeAnythingChanges) {
  struct Case {
    std::string linked;  // under the home
    std::function<CVURL(CVGlobalConfiguration&)> directory;
    std::string function;
  };
  const std::vector<Case> cases = {
      {"Library/Caches", [](auto& c) { return c.stagingRoot(); },
       "-[CVGlobalConfiguration cachesDirectory]"},
      {"Library/Caches/com.zentrel.mobile.corvaned.staging",
       [](auto& c) { return c.stagingRoot(); }, "-[CVGlobalConfiguration stagingRoot]"},
      {"Library/Corvane", [](auto& c) { return c.dataDirectory(); },
       "-[CVGlobalConfiguration dataDirectory]"},
      {"Library", [](auto& c) { return c.logDirectory(); },
       "-[CVGlobalConfiguration logDirectory]"},
  };
  for (const Case& each : cases) {
    DeviceImage image;
    testing_support::TemporaryDirectory outside;
    makeDirectories(std::filesystem::path(image.home(each.linked)).parent_path().string());
    makeSymlink(outside.path(), image.home(each.linked));
    CVGlobalConfiguration configuration{image.root()};
    CapturedLog log(platform::installerLog());

    each.directory(configuration);

    EXPECT_TRUE(std::filesystem::is_empty(outside.path())) << each.linked;
    EXPECT_EQ(protectionClassOf(outside.path()), std::nullopt) << each.linked;
    const auto lines = log.lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                            [&](const auto& line) {
                              return line.level == kLogLevelError && line.function == each.function;
                            }))
        << each.linked << log.dump();
  }
}

class BuiltInBundleMapsTest : public WellKnownDirectoriesTest {
 protected:
  void app(const std::string& directory, const std::string& name, const std::string& identifier,
           std::optional<std::string> version = std::nullopt) {
    CVDictionary info{{"QXBundleIdentifier", identifier}, {"QXBundleName", name}};
    if (version) info.set("QXBundleVersion", *version);
    image_.writeBundle(image_.rootPath() + "/" + directory + "/" + name, info);
  }
};

TEST_F(BuiltInBundleMapsTest, SystemMapHoldsIdentifierVersionAndURL) {
  app("Applications", "Clock.app", "com.zentrel.clock", "3");
  app("Applications", "Notes.App", "com.zentrel.upper");  // not "app": left out
  makeDirectories(image_.rootPath() + "/Applications/NoId.app");
  image_.writePlist(image_.rootPath() + "/Applications/NoId.app/Info.plist",
                    CVDictionary{{"QXBundleName", "x"}});
  makeSymlink(image_.rootPath() + "/Applications/Clock.app",
              image_.rootPath() + "/Applications/Linked.app");

  CapturedLog log(platform::installerLog(), kLogLevelDebug);
  const auto map = configuration_.systemAppBundleIDToInfoMap();
  ASSERT_NE(map, nullptr);
  ASSERT_EQ(map->count(), 1u) << map->description();
  const CVDictionary* clock = map->findDictionary("com.zentrel.clock");
  ASSERT_NE(clock, nullptr);
  EXPECT_EQ(*clock, (CVDictionary{{"QXBundleIdentifier", "com.zentrel.clock"},
                                  {"QXBundleVersion", "3"},
                                  {"com.zentrel.Corvane.bundleURL",
                                   CVURL::fileURLWithPath(
                                       image_.rootPath() + "/Applications/Clock.app", true)}}));
  EXPECT_TRUE(log.contains(kLogLevelDebug, "Failed to get QXBundleIdentifier from bundle file://" +
                                               image_.rootPath() + "/Applications/NoId.app/"))
      << log.dump();
}

TEST_F(BuiltInBundleMapsTest, LaterBundleWithTheSameIdentifierWins) {
  app("Developer/Applications", "A.app", "com.example.same", "1");
  app("Developer/Applications", "B.app", "com.example.same", "2");
  const auto listing = CVFileManager::defaultManager().urlsForItemsInDirectoryAtURL(
      configuration_.developerAppsDirectory(), /*ignoringSymlinks=*/true, nullptr);
  ASSERT_TRUE(listing.has_value());
  const auto map =
      configuration_._bundleIDMapForAppsInDirectory(configuration_.developerAppsDirectory());
  ASSERT_TRUE(map.has_value());
  const std::string expectedVersion = listing->back().lastPathComponent() == "A.app" ? "1" : "2";
  EXPECT_EQ(*map->findDictionary("com.example.same")->findString("QXBundleVersion"),
            expectedVersion);
}

TEST_F(BuiltInBundleMapsTest, MissingDirectoryIsSilentUnreadableOneIsLogged) {
  CapturedLog log(platform::installerLog());
  EXPECT_EQ(configuration_.internalAppBundleIDToInfoMap(), nullptr);
  EXPECT_EQ(log.count(), 0u);
  writeFile(image_.rootPath() + "/Applications", "not a directory");
  EXPECT_EQ(configuration_.systemAppBundleIDToInfoMap(), nullptr);
  EXPECT_TRUE(log.containsFragment("Failed to search for apps in file://" + image_.rootPath() +
                                   "/Applications/ : Error Domain=POSIXErrorDomain Code=20"))
      << log.dump();
  // A failed scan is retried at the next call.
  ASSERT_EQ(::unlink((image_.rootPath() + "/Applications").c_str()), 0);
  app("Applications", "Clock.app", "com.zentrel.clock");
  ASSERT_NE(configuration_.systemAppBundleIDToInfoMap(), nullptr);
}

// Maps are kept until a rescan; the framework set survives only a rescan of
// the core services; built-in applications leave out the core services.
TEST_F(BuiltInBundleMapsTest, MapsAreCachedUntilARescan) {
  app("Applications", "Clock.app", "com.zentrel.clock");
  app("ZentrelInternal/Applications", "Probe.app", "com.zentrel.probe");
  app("Developer/Applications", "Tool.app", "com.zentrel.tool");
  app("System/Library/CoreServices", "Springboard.app", "com.zentrel.springboard");
  image_.writeBundle(image_.rootPath() + "/System/Library/Frameworks/Kit.framework",
                     "com.zentrel.kit");
  image_.writeBundle(image_.rootPath() + "/ZentrelInternal/PrivateFrameworks/Debug.framework",
                     "com.zentrel.debug");
  image_.writeBundle(image_.rootPath() + "/Developer/Frameworks/Dev.framework", "com.zentrel.dev");
  EXPECT_NE(
      configuration_.coreServicesAppBundleIDToInfoMap()->findDictionary("com.zentrel.springboard"),
      nullptr);
  EXPECT_EQ(configuration_.builtInApplicationBundleIDs(),
            (CVSet{"com.zentrel.clock", "com.zentrel.probe", "com.zentrel.tool"}));
  const auto before = configuration_.systemAppBundleIDToInfoMap();
  const auto frameworks = configuration_.builtInFrameworkBundleIDs();
  EXPECT_EQ(*frameworks, (CVSet{"com.zentrel.kit", "com.zentrel.debug"}));

  app("Applications", "Maps.app", "com.zentrel.maps");
  EXPECT_EQ(configuration_.systemAppBundleIDToInfoMap(), before);
  configuration_.reScanCoreServicesApps();
  EXPECT_EQ(configuration_.builtInFrameworkBundleIDs(), frameworks);
  configuration_.reScanSystemApps();
  EXPECT_NE(configuration_.builtInFrameworkBundleIDs(), frameworks);
  const auto after = configuration_.systemAppBundleIDToInfoMap();
  EXPECT_NE(after, before);
  EXPECT_EQ(after->count(), 2u);
}

}  // namespace
