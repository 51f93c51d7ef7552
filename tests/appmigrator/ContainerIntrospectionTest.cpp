// Classification of legacy entries, the migration marker, and the order of
// the work list.
#include <gtest/gtest.h>

#include <functional>

#include "tests/appmigrator/MigratorFixture.h"

namespace {

class ContainerIntrospectionTest : public MigratorTest {
 protected:
  void SetUp() override {
    makeDirectories(image_.legacyDirectory());
    migrator_ = makeMigrator();
    ASSERT_NE(migrator_, nullptr);
  }

  std::optional<CVDictionary> introspect(std::string_view name, bool* early = nullptr) {
    bool ignored = false;
    return migrator_->_introspectContainer(directoryURL(container(name)), early ? early : &ignored);
  }

  CVDictionary markerRecord(std::string_view name, const std::string& bundle,
                            std::string_view type = "App") const {
    return CVDictionary{{"ContainerPath", container(name)},
                        {"BundlePath", container(name) + "/" + bundle},
                        {"BundleIdentifier", "com.example.foo"},
                        {"ContainerType", std::string(type)}};
  }

  std::unique_ptr<CVAppMigrator> migrator_;
};

// A plug-in alone is announced and is the only bundle of its record.
TEST_F(ContainerIntrospectionTest, APluginAloneIsTheOnlyBundleOfItsRecord) {
  image_.writeBundle(container("V") + "/Bar.vpnplugin", "com.example.bar");
  const auto record = introspect("V");
  ASSERT_TRUE(record.has_value());
  EXPECT_FALSE(record->contains("SecondBundlePath"));
  EXPECT_TRUE(logged(kLogLevelNotice,
                     "CVAppMigrator: Found vpn plugin " + container("V") + "/Bar.vpnplugin"));
}

// Entries that give no record: removed when nothing in them can be migrated,
// left when a link makes them suspect; each says why.
TEST_F(ContainerIntrospectionTest, EntriesWithoutARecordAreRemovedOrLeftWithTheirMessage) {
  const std::string real = image_.rootPath() + "/Real.app";
  image_.writeBundle(real, "com.example.real");
  const std::string marker = "/com.zentrel.corvane.container_migrator.plist";
  struct Case {
    std::string name;
    std::function<void(const std::string& path)> make;
    bool stays;
    int level;
    std::string message;  // "" when none is checked
  };
  const std::vector<Case> cases = {
      // The extension test is case-sensitive.
      {"Upper", [&](auto& p) { image_.writeBundle(p + "/Foo.APP", "com.example.upper"); }, false, 0,
       ""},
      {"NoId",
       [&](auto& p) {
         image_.writeBundle(p + "/Foo.app", CVDictionary{{"QXBundleName", "Foo"}});
       },
       false, kLogLevelError,
       "Could not get identifier for bundle at " + container("NoId") + "/Foo.app"},
      {"NoId2", [&](auto& p) { image_.writeBundle(p + "/Foo.app", CVDictionary{}); }, false,
       kLogLevelError,
       "No app or vpn bundle found in container " + container("NoId2") + " ; removing it"},
      {"Bad",
       [](auto& p) {
         writeFile(p + "/Foo.app/Info.plist", "bplist00\xff\xff garbage");
         makeDirectories(p + "/Documents");
       },
       false, 0, ""},
      {"stray.bin", [](auto& p) { writeFile(p, "x"); }, false, kLogLevelError,
       "Found regular file at " + container("stray.bin") + " ; removing"},
      {"Gone", [](auto&) {}, false, kLogLevelNotice,
       "Got ENOENT when introspecting " + container("Gone") +
           " ; ignoring (likely raced with corvaned)"},
      {"LinkedApp",
       [&](auto& p) {
         makeDirectories(p + "/Documents");
         makeSymlink(real, p + "/Foo.app");
       },
       true, kLogLevelError,
       "Skipping container with app symlink at " + container("LinkedApp") + "/Foo.app"},
      {"LinkedPlugin",
       [&](auto& p) {
         image_.writeBundle(p + "/Foo.app", "com.example.foo");
         makeSymlink(real, p + "/Bar.vpnplugin");
       },
       true, kLogLevelError,
       "VPN plugin was symlink; skipping container " + container("LinkedPlugin") +
           "/Bar.vpnplugin"},
      {"LinkedMarker",
       [&](auto& p) {
         makeDirectories(p);
         makeSymlink(real + "/Info.plist", p + marker);
       },
       true, kLogLevelError,
       "Migration marker was symlink; skipping container " + container("LinkedMarker") + marker},
      {"Unloadable",
       [&](auto& p) {
         image_.writeBundle(p + "/Foo.app", "com.example.foo");
         image_.writePlist(p + marker, CVArray{"not", "a", "dictionary"});
       },
       true, kLogLevelError,
       "Failed to load migration marker file from file://" + container("Unloadable") + marker},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.make(container(c.name));
    EXPECT_FALSE(introspect(c.name).has_value());
    EXPECT_EQ(pathExists(container(c.name)), c.stays);
    if (!c.message.empty()) {
      EXPECT_TRUE(logged(c.level, "CVAppMigrator: " + c.message)) << log_.dump();
    }
  }
  // The target of the linked bundle was never touched.
  EXPECT_TRUE(pathExists(real + "/Info.plist"));
  EXPECT_TRUE(pathExists(container("Unloadable") + "/Foo.app"));
}

TEST_F(ContainerIntrospectionTest, MarkerWinsOverTheScanAndItsTypeDecidesTheOrder) {
  CVDictionary saved = markerRecord("M", "Gone.app");
  saved.set("Extra", 42);
  makeDirectories(container("M"));
  migrator_->_writeMigrationMarker(saved, directoryURL(container("M")));
  image_.writeBundle(container("M") + "/Other.app", "com.example.other");
  bool early = false;
  // Returned as read, extra keys included, though its bundle is gone.
  EXPECT_EQ(introspect("M", &early), saved) << log_.dump();
  EXPECT_TRUE(early);

  image_.writePlist(markerPath("M"), markerRecord("M", "b.app", "Whatever"));
  ASSERT_TRUE(introspect("M", &early).has_value());
  EXPECT_FALSE(early);
}

// Each malformed marker reports the first check it fails, and only that one.
TEST_F(ContainerIntrospectionTest, MarkerChecksRunInOrder) {
  const std::string marker = image_.rootPath() + "/marker.plist";
  const std::string from = " from migration marker file " + marker;
  const std::pair<CVDictionary, std::string> cases[] = {
      {{{"ContainerPath", "/c"}, {"BundleIdentifier", "x"}}, "Failed to get bundle path" + from},
      {{{"BundlePath", "/b"}, {"ContainerPath", "/c"}, {"BundleIdentifier", "x"}},
       "Failed to get container type" + from},
      {{{"BundlePath", "/b"}, {"ContainerType", "App"}, {"BundleIdentifier", "x"}},
       "Failed to get container path" + from},
      {{{"BundlePath", "/b"}, {"ContainerType", "App"}, {"ContainerPath", 3}},
       "Failed to get container path" + from},
      {{{"BundlePath", "/b"}, {"ContainerType", "App"}, {"ContainerPath", "/c"}},
       "Failed to get container bundle ID" + from},
      {{{"BundlePath", "/b"},
        {"ContainerType", "App"},
        {"ContainerPath", "/c"},
        {"BundleIdentifier", "x"},
        {"SecondBundlePath", 7}},
       "Second bundle path was not a string: 7"},
  };
  for (const auto& [content, message] : cases) {
    image_.writePlist(marker, content);
    log_.clear();
    const CVURL url = CVURL::fileURLWithPath(marker, false);
    EXPECT_FALSE(migrator_->_loadAndValidateMigrationMarkerAtURL(url).has_value());
    ASSERT_EQ(log_.count(), 1u) << log_.dump();
    EXPECT_TRUE(logged(kLogLevelError, "CVAppMigrator: " + message)) << log_.dump();
  }
}

// The marker stores device paths, so a copied or moved image resumes; it is
// read back as the record stood.
TEST_F(ContainerIntrospectionTest, MarkerIsWrittenWithDevicePathsAndReadBackAsTheRecordStood) {
  CVDictionary info = markerRecord("W", "Foo.app");
  info.set("SecondBundlePath", container("W") + "/Bar.vpnplugin");
  makeDirectories(container("W"));
  migrator_->_writeMigrationMarker(info, directoryURL(container("W")));
  const std::string device = "/private/var/mobile/Applications/W";
  EXPECT_EQ(image_.readPlistDictionary(markerPath("W")),
            (CVDictionary{{"ContainerPath", device},
                          {"BundlePath", device + "/Foo.app"},
                          {"SecondBundlePath", device + "/Bar.vpnplugin"},
                          {"BundleIdentifier", "com.example.foo"},
                          {"ContainerType", "App"}}));
  // Nothing is left aside.
  EXPECT_EQ(entriesOf(container("W")),
            std::vector<std::string>{"com.zentrel.corvane.container_migrator.plist"});
  EXPECT_EQ(introspect("W"), info);

  migrator_->_writeMigrationMarker(info, directoryURL(container("Missing")));
  EXPECT_TRUE(logged(kLogLevelError,
                     "CVAppMigrator: Failed to write out container marker dictionary... "
                     "hopefully we don't need it to recover."));
}

// A marker describes the container it lies in, whatever form its paths take;
// one that names another place is not loaded, and the container is left.
TEST_F(ContainerIntrospectionTest, MarkerPathsMustDescribeItsOwnContainer) {
  const std::string apps = "/private/var/mobile/Applications";
  const std::tuple<std::string, std::string, bool> cases[] = {
      {apps + "/M", apps + "/M/Foo.app", true},
      {"/var/mobile/Applications/M", "/var/mobile/Applications/M/Foo.app", true},
      {container("M"), container("M") + "/Foo.app", true},
      {"/", apps + "/M/Foo.app", false},
      {"/private/var/mobile", apps + "/M/Foo.app", false},
      {"/private/var/mobile/Containers/Data", apps + "/M/Foo.app", false},
      {apps + "/N", apps + "/N/Foo.app", false},
      {apps + "/M", apps + "/N/Foo.app", false},
      {apps + "/M", apps + "/M/../N/Foo.app", false},
      {apps + "/M", apps + "/M", false},
      {apps + "/M", "Foo.app", false},
  };
  for (const auto& [containerPath, bundlePath, loaded] : cases) {
    SCOPED_TRACE(containerPath + " " + bundlePath);
    image_.writeBundle(container("M") + "/Foo.app", "com.example.foo");
    image_.writePlist(markerPath("M"), CVDictionary{{"ContainerPath", containerPath},
                                                    {"BundlePath", bundlePath},
                                                    {"BundleIdentifier", "com.example.foo"},
                                                    {"ContainerType", "App"}});
    log_.clear();
    const auto record = introspect("M");
    ASSERT_EQ(record.has_value(), loaded) << log_.dump();
    if (loaded) {
      EXPECT_EQ(*record, markerRecord("M", "Foo.app"));
    } else {
      EXPECT_TRUE(log_.containsFragment("does not describe its container")) << log_.dump();
      EXPECT_TRUE(pathExists(container("M") + "/Foo.app"));
    }
  }
}

}  // namespace
