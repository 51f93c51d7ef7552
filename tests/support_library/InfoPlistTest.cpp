// Reading bundles' Info.plist files: whole, filtered, and hostile.
#include <gtest/gtest.h>

#include "platform/Bundle.h"
#include "platform/Log.h"
#include "shared/support/CVInfoPlist.h"
#include "tests/support/DeviceImage.h"

namespace {

using platform::kLogLevelDebug;
using platform::kLogLevelError;
using namespace testing_support;

class InfoPlistTest : public ::testing::Test {
 protected:
  CVURL bundleURL(std::string_view name) const {
    return CVURL::fileURLWithPath(image_.rootPath() + "/" + std::string(name), true);
  }
  DeviceImage image_;
};

// The whole read has no bookkeeping entry (the platform's own read does carry
// one); a filtered read keeps only the keys that exist; a bundle replaced on
// disk is read anew.
TEST_F(InfoPlistTest, WholeAndFilteredReads) {
  const CVDictionary info{{"QXBundleIdentifier", "com.example.foo"},
                          {"QXBundleExecutable", "Foo"},
                          {"QXBundleIconFiles", CVArray{"Icon", "Icon@2x"}}};
  image_.writeBundle(bundleURL("Foo.app").path(), info);
  EXPECT_EQ(CVLoadInfoPlist(bundleURL("Foo.app"), nullptr), info);
  const auto bundle = platform::Bundle::create(bundleURL("Foo.app"));
  ASSERT_NE(bundle, nullptr);
  EXPECT_TRUE(bundle->infoDictionary()->contains("QXBundleInfoPlistURL"));

  const CVSet keys{"QXBundleIdentifier", "QXBundleVersion"}, absent{"Nothing"};
  EXPECT_EQ(CVLoadInfoPlist(bundleURL("Foo.app"), &keys),
            (CVDictionary{{"QXBundleIdentifier", "com.example.foo"}}));
  EXPECT_EQ(CVLoadInfoPlist(bundleURL("Foo.app"), &absent), CVDictionary{});

  image_.writeBundle(bundleURL("Foo.app").path(), "com.example.new");
  EXPECT_EQ(*CVLoadInfoPlist(bundleURL("Foo.app"), nullptr)->findString("QXBundleIdentifier"),
            "com.example.new");
}

TEST_F(InfoPlistTest, MissingInfoPlistIsOnlyATrace) {
  makeDirectories(bundleURL("Bare.app").path());
  {
    CapturedLog log(platform::installerLog());
    EXPECT_FALSE(CVLoadInfoPlist(bundleURL("Bare.app"), nullptr).has_value());
    EXPECT_EQ(log.count(), 0u) << log.dump();
  }
  CapturedLog verbose(platform::installerLog(), kLogLevelDebug);
  EXPECT_FALSE(CVLoadInfoPlist(bundleURL("Bare.app"), nullptr).has_value());
  ASSERT_EQ(verbose.count(), 1u);
  EXPECT_TRUE(verbose.contains(kLogLevelDebug, "Missing Info.plist at file://" +
                                                   bundleURL("Bare.app").path() + "/Info.plist"));
  EXPECT_EQ(verbose.lines()[0].function, "CVLoadInfoPlist");
}

TEST_F(InfoPlistTest, HostileInfoPlistsYieldNothingWithAReason) {
  const std::string base = image_.rootPath();
  // In place of the file: a directory, and a link out of the bundle.
  makeDirectories(base + "/Directory.app/Info.plist");
  writeFile(base + "/outside.plist",
            "<?xml version=\"1.0\"?><plist><dict><key>QXBundleIdentifier</key>"
            "<string>com.example.linked</string></dict></plist>");
  makeDirectories(base + "/Link.app");
  makeSymlink(base + "/outside.plist", base + "/Link.app/Info.plist");
  const std::pair<const char*, std::string> cases[] = {
      {"Garbage.app", "\x01\x02 not a plist"},
      {"Truncated.app", "<?xml version=\"1.0\"?><plist><dict><key>"},
      {"BadOffsets.app", "bplist00\x51\x61" + std::string(26, '\xff')},
      {"ArrayRoot.app", "<?xml version=\"1.0\"?><plist><array><string>x</string></array></plist>"},
      {"Directory.app", ""},
      {"Link.app", ""},
  };
  for (const auto& [name, contents] : cases) {
    if (!contents.empty()) writeFile(base + "/" + name + "/Info.plist", contents);
    CapturedLog log(platform::installerLog());
    EXPECT_FALSE(CVLoadInfoPlist(bundleURL(name), nullptr).has_value()) << name;
    // Only the message of the listed failure, nothing besides it.
    ASSERT_EQ(log.count(), 1u) << name << log.dump();
    EXPECT_TRUE(log.containsFragment("QXBundleGetInfoDictionary failed for bundle"))
        << name << log.dump();
    const CVSet keys{"QXBundleIdentifier"};
    EXPECT_FALSE(CVLoadInfoPlist(bundleURL(name), &keys).has_value()) << name;
  }
  // A bundle that is itself a link is refused before its Info.plist is read.
  image_.writeBundle(base + "/Real.app", "com.example.real");
  makeSymlink(base + "/Real.app", base + "/Linked.app");
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(CVLoadInfoPlist(bundleURL("Linked.app"), nullptr).has_value());
  EXPECT_TRUE(log.contains(kLogLevelError,
                           "Failed to create QXBundle from URL file://" + base + "/Linked.app/"))
      << log.dump();
}

}  // namespace
