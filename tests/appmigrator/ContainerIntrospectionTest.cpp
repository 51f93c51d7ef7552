// Classification of legacy entries and the migration marker.
#include <gtest/gtest.h>

#include "shared/filemanager/CVFileManager.h"
#include "tests/appmigrator/MigratorFixture.h"

namespace {

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using namespace testing_support;

class ContainerIntrospectionTest : public MigratorTest {
 protected:
  void SetUp() override {
    makeDirectories(image_.legacyDirectory());
    migrator_ = makeMigrator();
    ASSERT_NE(migrator_, nullptr);
  }

  std::optional<CVDictionary> introspect(std::string_view name, bool* early) {
    *early = false;
    return migrator_->_introspectContainer(CVURL::fileURLWithPath(container(name), true), early);
  }

  std::unique_ptr<CVAppMigrator> migrator_;
};

TEST_F(ContainerIntrospectionTest, ApplicationWithVPNPluginInEitherOrder) {
  // Directory order is the file system's, so build both layouts and check
  // that the result does not depend on it.
  for (const char* name : {"AppFirst", "PluginFirst"}) {
    image_.writeBundle(container(name) + "/Foo.app", "com.example.foo");
    image_.writeBundle(container(name) + "/Bar.vpnplugin", "com.example.bar");
    bool early = false;
    const auto record = introspect(name, &early);
    ASSERT_TRUE(record.has_value()) << log_.dump();
    EXPECT_TRUE(early);
    EXPECT_EQ(*record->findString("ContainerType"), "App");
    EXPECT_EQ(*record->findString("BundleIdentifier"), "com.example.foo");
    EXPECT_EQ(*record->findString("BundlePath"), container(name) + "/Foo.app");
    EXPECT_EQ(*record->findString("SecondBundlePath"), container(name) + "/Bar.vpnplugin");
    EXPECT_EQ(*record->findString("ContainerPath"), container(name));
  }
}

TEST_F(ContainerIntrospectionTest, VPNOnlyContainerIsOrderedLate) {
  image_.writeBundle(container("V") + "/Bar.vpnplugin", "com.example.bar");
  bool early = true;
  const auto record = introspect("V", &early);
  ASSERT_TRUE(record.has_value());
  EXPECT_FALSE(early);
  EXPECT_EQ(*record->findString("ContainerType"), "VPNBundle");
  EXPECT_FALSE(record->contains("SecondBundlePath"));
  EXPECT_TRUE(log_.contains(
      kLogLevelNotice, "CVAppMigrator: Found vpn plugin " + container("V") + "/Bar.vpnplugin"));
}

TEST_F(ContainerIntrospectionTest, ContainersWithoutUsableBundlesAreRemoved) {
  // The extension test is case-sensitive.
  image_.writeBundle(container("Upper") + "/Foo.APP", "com.example.upper");
  bool early = false;
  EXPECT_FALSE(introspect("Upper", &early).has_value());
  EXPECT_FALSE(pathExists(container("Upper")));

  // An application bundle without an identifier does not count.
  image_.writeBundle(container("NoId") + "/Foo.app", CVDictionary{{"QXBundleName", "Foo"}});
  EXPECT_FALSE(introspect("NoId", &early).has_value());
  EXPECT_FALSE(pathExists(container("NoId")));
  EXPECT_TRUE(log_.contains(
      kLogLevelError,
      "CVAppMigrator: Could not get identifier for bundle at " + container("NoId") + "/Foo.app"));
  EXPECT_TRUE(
      log_.contains(kLogLevelError, "CVAppMigrator: No app or vpn bundle found in container " +
                                        container("NoId") + " ; removing it"));
}

TEST_F(ContainerIntrospectionTest, MalformedInfoPlistIsNoIdentifierAndNeverACrash) {
  makeDirectories(container("Bad") + "/Foo.app");
  writeFile(container("Bad") + "/Foo.app/Info.plist", "bplist00\xff\xff garbage");
  makeDirectories(container("Bad") + "/Documents");
  bool early = false;
  EXPECT_FALSE(introspect("Bad", &early).has_value());
  EXPECT_FALSE(pathExists(container("Bad")));
}

TEST_F(ContainerIntrospectionTest, StrayRegularFileIsRemoved) {
  writeFile(container("stray.bin"), "x");
  bool early = false;
  EXPECT_FALSE(introspect("stray.bin", &early).has_value());
  EXPECT_FALSE(pathExists(container("stray.bin")));
  EXPECT_TRUE(log_.contains(kLogLevelError, "CVAppMigrator: Found regular file at " +
                                                container("stray.bin") + " ; removing"));
}

TEST_F(ContainerIntrospectionTest, VanishedContainerIsIgnored) {
  bool early = false;
  EXPECT_FALSE(introspect("Gone", &early).has_value());
  EXPECT_TRUE(log_.contains(kLogLevelNotice, "CVAppMigrator: Got ENOENT when introspecting " +
                                                 container("Gone") +
                                                 " ; ignoring (likely raced with corvaned)"));
}

TEST_F(ContainerIntrospectionTest, SymbolicLinksMakeTheContainerStay) {
  makeDirectories(container("LinkedApp"));
  image_.writeBundle(image_.rootPath() + "/Real.app", "com.example.real");
  makeSymlink(image_.rootPath() + "/Real.app", container("LinkedApp") + "/Foo.app");
  makeDirectories(container("LinkedApp") + "/Documents");

  image_.writeBundle(container("LinkedPlugin") + "/Foo.app", "com.example.foo");
  makeSymlink(image_.rootPath() + "/Real.app", container("LinkedPlugin") + "/Bar.vpnplugin");

  makeDirectories(container("LinkedMarker"));
  writeFile(image_.rootPath() + "/marker.plist", "");
  makeSymlink(image_.rootPath() + "/marker.plist",
              container("LinkedMarker") + "/com.zentrel.corvane.container_migrator.plist");

  bool early = false;
  for (const char* name : {"LinkedApp", "LinkedPlugin", "LinkedMarker"}) {
    EXPECT_FALSE(introspect(name, &early).has_value()) << name;
    EXPECT_TRUE(pathExists(container(name))) << name;
  }
  EXPECT_TRUE(
      log_.contains(kLogLevelError, "CVAppMigrator: Skipping container with app symlink at " +
                                        container("LinkedApp") + "/Foo.app"));
  EXPECT_TRUE(
      log_.contains(kLogLevelError, "CVAppMigrator: VPN plugin was symlink; skipping container " +
                                        container("LinkedPlugin") + "/Bar.vpnplugin"));
  EXPECT_TRUE(log_.contains(kLogLevelError,
                            "CVAppMigrator: Migration marker was symlink; skipping container " +
                                container("LinkedMarker") +
                                "/com.zentrel.corvane.container_migrator.plist"));
  // The target of the linked bundle was never touched.
  EXPECT_TRUE(pathExists(image_.rootPath() + "/Real.app/Info.plist"));
}

TEST_F(ContainerIntrospectionTest, MarkerOutlivesItsBundleAndWinsOverTheScan) {
  const CVDictionary saved{{"ContainerPath", container("M")},
                           {"BundlePath", container("M") + "/Gone.app"},
                           {"BundleIdentifier", "com.example.gone"},
                           {"ContainerType", "App"},
                           {"Extra", 42}};
  makeDirectories(container("M"));
  migrator_->_writeMigrationMarker(saved, CVURL::fileURLWithPath(container("M"), true));
  image_.writeBundle(container("M") + "/Other.app", "com.example.other");

  bool early = false;
  const auto record = introspect("M", &early);
  ASSERT_TRUE(record.has_value()) << log_.dump();
  // Returned as read, extra keys included.
  EXPECT_EQ(*record, saved);
  EXPECT_TRUE(early);
}

TEST_F(ContainerIntrospectionTest, MarkerOfAnyOtherTypeIsOrderedLate) {
  makeDirectories(container("M"));
  image_.writePlist(container("M") + "/com.zentrel.corvane.container_migrator.plist",
                    CVDictionary{{"ContainerPath", container("M")},
                                 {"BundlePath", container("M") + "/b.app"},
                                 {"BundleIdentifier", "com.example.v"},
                                 {"ContainerType", "Whatever"}});
  bool early = true;
  ASSERT_TRUE(introspect("M", &early).has_value());
  EXPECT_FALSE(early);
}

TEST_F(ContainerIntrospectionTest, UnloadableMarkerDiscardsTheRecordButKeepsTheContainer) {
  image_.writeBundle(container("M") + "/Foo.app", "com.example.foo");
  image_.writePlist(container("M") + "/com.zentrel.corvane.container_migrator.plist",
                    CVArray{"not", "a", "dictionary"});
  bool early = false;
  EXPECT_FALSE(introspect("M", &early).has_value());
  EXPECT_TRUE(pathExists(container("M") + "/Foo.app"));
  EXPECT_TRUE(log_.contains(kLogLevelError,
                            "CVAppMigrator: Failed to load migration marker file from file://" +
                                container("M") + "/com.zentrel.corvane.container_migrator.plist"));
}

// Each malformed marker reports the first check it fails, and only that one.
TEST_F(ContainerIntrospectionTest, MarkerChecksRunInOrder) {
  const std::string marker = image_.rootPath() + "/marker.plist";
  const CVURL markerURL = CVURL::fileURLWithPath(marker, false);
  struct Case {
    CVDictionary content;
    std::string message;
  };
  const std::vector<Case> cases = {
      {CVDictionary{{"ContainerPath", "/c"}, {"BundleIdentifier", "x"}},
       "CVAppMigrator: Failed to get bundle path from migration marker file " + marker},
      {CVDictionary{{"BundlePath", "/b"}, {"ContainerPath", "/c"}, {"BundleIdentifier", "x"}},
       "CVAppMigrator: Failed to get container type from migration marker file " + marker},
      {CVDictionary{{"BundlePath", "/b"}, {"ContainerType", "App"}, {"BundleIdentifier", "x"}},
       "CVAppMigrator: Failed to get container path from migration marker file " + marker},
      {CVDictionary{{"BundlePath", "/b"}, {"ContainerType", "App"}, {"ContainerPath", 3}},
       "CVAppMigrator: Failed to get container path from migration marker file " + marker},
      {CVDictionary{{"BundlePath", "/b"}, {"ContainerType", "App"}, {"ContainerPath", "/c"}},
       "CVAppMigrator: Failed to get container bundle ID from migration marker file " + marker},
      {CVDictionary{{"BundlePath", "/b"},
                    {"ContainerType", "App"},
                    {"ContainerPath", "/c"},
                    {"BundleIdentifier", "x"},
                    {"SecondBundlePath", 7}},
       "CVAppMigrator: Second bundle path was not a string: 7"},
  };
  for (const Case& each : cases) {
    image_.writePlist(marker, each.content);
    log_.clear();
    EXPECT_FALSE(migrator_->_loadAndValidateMigrationMarkerAtURL(markerURL).has_value());
    ASSERT_EQ(log_.count(), 1u) << log_.dump();
    EXPECT_TRUE(log_.contains(kLogLevelError, each.message)) << log_.dump();
  }
}

// The marker stores device paths, so a copied or moved image resumes; it is
// read back as the record stood.
TEST_F(ContainerIntrospectionTest, MarkerIsWrittenWithDevicePathsAndReadBackAsTheRecordStood) {
  const CVDictionary info{{"ContainerPath", container("W")},
                          {"BundlePath", container("W") + "/Foo.app"},
                          {"SecondBundlePath", container("W") + "/Bar.vpnplugin"},
                          {"BundleIdentifier", "com.example.foo"},
                          {"ContainerType", "App"}};
  makeDirectories(container("W"));
  migrator_->_writeMigrationMarker(info, CVURL::fileURLWithPath(container("W"), true));
  const std::string device = "/private/var/mobile/Applications/W";
  EXPECT_EQ(
      image_.readPlistDictionary(container("W") + "/com.zentrel.corvane.container_migrator.plist"),
      (CVDictionary{{"ContainerPath", device},
                    {"BundlePath", device + "/Foo.app"},
                    {"SecondBundlePath", device + "/Bar.vpnplugin"},
                    {"BundleIdentifier", "com.example.foo"},
                    {"ContainerType", "App"}}));
  // Nothing was left aside.
  const auto entries = CVFileManager::defaultManager().urlsForItemsInDirectoryAtURL(
      CVURL::fileURLWithPath(container("W"), true), false, nullptr);
  ASSERT_TRUE(entries.has_value());
  EXPECT_EQ(entries->size(), 1u);
  bool early = false;
  EXPECT_EQ(introspect("W", &early), info);
}

// A marker describes the container it lies in, whatever form its paths take;
// one that names another place is not loaded, and the container is left.
TEST_F(ContainerIntrospectionTest, MarkerPathsMustDescribeItsOwnContainer) {
  const std::string home = "/private/var/mobile";
  struct Case {
    std::string containerPath;
    std::string bundlePath;
    bool loaded;
  };
  const Case cases[] = {
      {home + "/Applications/M", home + "/Applications/M/Foo.app", true},
      {"/var/mobile/Applications/M", "/var/mobile/Applications/M/Foo.app", true},
      {container("M"), container("M") + "/Foo.app", true},
      {"/", home + "/Applications/M/Foo.app", false},
      {home, home + "/Applications/M/Foo.app", false},
      {home + "/Containers/Data", home + "/Applications/M/Foo.app", false},
      {home + "/Applications/N", home + "/Applications/N/Foo.app", false},
      {home + "/Applications/M", home + "/Applications/N/Foo.app", false},
      {home + "/Applications/M", home + "/Applications/M/../N/Foo.app", false},
      {home + "/Applications/M", home + "/Applications/M", false},
      {home + "/Applications/M", "Foo.app", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.containerPath + " " + c.bundlePath);
    image_.writeBundle(container("M") + "/Foo.app", "com.example.foo");
    image_.writePlist(container("M") + "/com.zentrel.corvane.container_migrator.plist",
                      CVDictionary{{"ContainerPath", c.containerPath},
                                   {"BundlePath", c.bundlePath},
                                   {"BundleIdentifier", "com.example.foo"},
                                   {"ContainerType", "App"}});
    log_.clear();
    bool early = false;
    const auto record = introspect("M", &early);
    ASSERT_EQ(record.has_value(), c.loaded) << log_.dump();
    if (c.loaded) {
      EXPECT_EQ(*record->findString("ContainerPath"), container("M"));
      EXPECT_EQ(*record->findString("BundlePath"), container("M") + "/Foo.app");
    } else {
      EXPECT_TRUE(log_.containsFragment("does not describe its container")) << log_.dump();
      EXPECT_TRUE(pathExists(container("M") + "/Foo.app"));
    }
  }
}

TEST_F(ContainerIntrospectionTest, FailedMarkerWriteIsLoggedAndNotFatal) {
  migrator_->_writeMigrationMarker(CVDictionary{{"ContainerPath", "/x"}},
                                   CVURL::fileURLWithPath(container("Missing"), true));
  EXPECT_TRUE(log_.contains(kLogLevelError,
                            "CVAppMigrator: Failed to write out container marker dictionary... "
                            "hopefully we don't need it to recover."));
}

class WorkListOrderTest : public MigratorTest {};

TEST_F(WorkListOrderTest, ApplicationsComeFirstInReverseListingOrder) {
  image_.writeBundle(container("A") + "/A.app", "com.example.a");
  image_.writeBundle(container("B") + "/B.app", "com.example.b");
  image_.writeBundle(container("V") + "/V.vpnplugin", "com.example.v");
  writeFile(container("WhereDidMyApplicationsGo.txt"), "");
  makeDirectories(container("Empty"));

  auto migrator = makeMigrator();
  ASSERT_NE(migrator, nullptr);
  const std::vector<CVURL> listing = *migrator->itemsToMigrate();
  EXPECT_FALSE(migrator->performMigration());

  // The expected order follows the listing: applications in reverse listing
  // order at the front, then VPN-only containers.
  std::vector<std::string> applications;
  for (const CVURL& entry : listing) {
    if (entry.lastPathComponent() == "A")
      applications.insert(applications.begin(), "com.example.a");
    if (entry.lastPathComponent() == "B")
      applications.insert(applications.begin(), "com.example.b");
  }
  std::vector<std::string> migrated;
  for (const auto& line : log_.lines()) {
    const std::string prefix = "CVAppMigrator: Migrating ";
    if (line.message.starts_with(prefix) && line.message.find(" at ") != std::string::npos &&
        !line.message.starts_with("CVAppMigrator: Migrating safe")) {
      migrated.push_back(
          line.message.substr(prefix.size(), line.message.find(" at ") - prefix.size()));
    }
  }
  applications.push_back("com.example.v");
  EXPECT_EQ(migrated, applications) << log_.dump();

  // Every entry was counted once; the stray note and the empty container are gone.
  EXPECT_EQ(migrator->countItemsMigrated(), listing.size());
  EXPECT_FALSE(pathExists(container("WhereDidMyApplicationsGo.txt")));
  EXPECT_FALSE(pathExists(container("Empty")));
  EXPECT_TRUE(pathExists(container("A")));
}

}  // namespace
