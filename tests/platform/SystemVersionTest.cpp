// The device's system version dictionary, read from its file on every call.
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/PropertyList.h"
#include "platform/SystemVersion.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

class SystemVersionTest : public ::testing::Test {
 protected:
  std::string versionPath() const {
    return root_ / "System/Library/CoreServices/SystemBuild.plist";
  }
  void writeVersion(const CVValue& value) {
    makeDirectories(root_ / "System/Library/CoreServices");
    writeFile(versionPath(), platform::encodeXMLPropertyList(value));
  }

  TemporaryDirectory root_;
  platform::DeviceSystemVersion version_{root_.url()};
};

TEST_F(SystemVersionTest, ThePresentFileIsReadWholeOnEveryCall) {
  EXPECT_EQ(version_.fileURL(), CVURL::fileURLWithPath(versionPath(), false));
  const CVDictionary contents{{"ProductBuildVersion", "x"},
                              {std::string(platform::kSystemBuildVersionKey), "21A329"}};
  writeVersion(CVValue(contents));
  CapturedLog log(platform::installerLog());
  EXPECT_EQ(version_.copySystemVersionDictionary().keys(), contents.keys());
  writeVersion(CVValue(CVDictionary{{"SystemBuildVersion", "2B2"}}));
  EXPECT_EQ(version_.copySystemVersionDictionary(), (CVDictionary{{"SystemBuildVersion", "2B2"}}));
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

// What cannot be read gives an empty dictionary and one line: (file contents,
// or none; level; message start).
TEST_F(SystemVersionTest, UnreadableFilesGiveAnEmptyDictionaryAndOneLine) {
  const std::vector<std::tuple<std::optional<std::string>, int, std::string>> cases = {
      {std::nullopt, platform::kLogLevelNotice, "No system version file at " + versionPath()},
      {"<plist><dict><key>SystemBuildVersion</key>", platform::kLogLevelError,
       "Failed to read system version from " + versionPath() + " : "},
      {platform::encodeXMLPropertyList(CVValue(CVArray{"21A329"})), platform::kLogLevelError,
       "Failed to read system version from " + versionPath() + " : "}};
  for (const auto& [contents, level, message] : cases) {
    if (contents) {
      makeDirectories(root_ / "System/Library/CoreServices");
      writeFile(versionPath(), *contents);
    }
    CapturedLog log(platform::installerLog());
    EXPECT_TRUE(version_.copySystemVersionDictionary().empty());
    ASSERT_EQ(log.count(), 1u) << log.dump();
    EXPECT_EQ(log.lines()[0].level, level);
    EXPECT_EQ(log.lines()[0].message.rfind(message, 0), 0u) << log.dump();
  }
}

}  // namespace
