// CVFileManager's data-protection class operations and placeholder marks.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

#include "platform/Value.h"
#include "platform/linux/PlaceholderAttribute.h"
#include "platform/linux/ProtectionClassTesting.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/filemanager/FileManagerTestHelpers.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace filemanager_test;
using namespace testing_support;

constexpr const char* kGetFunction = "-[CVFileManager dataProtectionClassOfItemAtURL:class:error:]";
constexpr const char* kSetFunction =
    "-[CVFileManager setDataProtectionClassOfItemAtURL:toClass:ifPredicate:error:]";
constexpr const char* kMarkFunction = "-[CVFileManager markBundleAsPlaceholder:withError:]";

class ProtectionAndPlaceholderTest : public ::testing::Test {
 protected:
  std::int32_t classOf(const std::string& relative) {
    std::int32_t protectionClass = -100;
    CVError error;
    EXPECT_TRUE(
        manager_.dataProtectionClassOfItemAtURL(temp_.fileURL(relative), &protectionClass, &error))
        << error.description();
    return protectionClass;
  }

  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

// --- Protection classes ---

TEST_F(ProtectionAndPlaceholderTest, ClassSetOnFilesAndDirectoriesReadsBack) {
  writeFile(temp_ / "file", "x");
  makeDirectories(temp_ / "dir");
  EXPECT_EQ(classOf("file"), 3);  // the default class of an item never set
  CVError error = sentinelError();

  EXPECT_TRUE(
      manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 4, nullptr, &error));
  EXPECT_TRUE(manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("dir"), 1, nullptr, &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(classOf("file"), 4);
  EXPECT_EQ(classOf("dir"), 1);
}

TEST_F(ProtectionAndPlaceholderTest, PredicateSeesTheCurrentClassAndDecides) {
  writeFile(temp_ / "file", "x");
  ASSERT_TRUE(
      manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 2, nullptr, nullptr));
  std::int32_t seen = -1;
  const std::function<bool(std::int32_t)> refuse = [&](std::int32_t current) {
    seen = current;
    return false;
  };
  const std::function<bool(std::int32_t)> accept = [](std::int32_t current) {
    return current == 2;
  };
  CVError error = sentinelError();

  EXPECT_TRUE(
      manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 4, &refuse, &error));
  EXPECT_EQ(seen, 2);
  EXPECT_EQ(classOf("file"), 2);

  EXPECT_TRUE(
      manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 4, &accept, &error));
  EXPECT_EQ(classOf("file"), 4);
  EXPECT_EQ(error, sentinelError());
}

TEST_F(ProtectionAndPlaceholderTest, LinksAndMissingItemsFailToOpen) {
  writeFile(temp_ / "file", "x");
  makeSymlink(temp_ / "file", temp_ / "link");
  CapturedLog log(platform::installerLog());
  std::int32_t protectionClass = -100;
  CVError error;

  EXPECT_FALSE(
      manager_.dataProtectionClassOfItemAtURL(temp_.fileURL("link"), &protectionClass, &error));
  EXPECT_TRUE(error.isPOSIX(ELOOP)) << error.description();
  EXPECT_EQ(error.localizedDescription(),
            "Failed to open " + (temp_ / "link") + " : " + std::strerror(ELOOP));
  EXPECT_EQ(*error.userInfo().findString("FunctionName"), kGetFunction);
  EXPECT_EQ(protectionClass, -100);

  EXPECT_FALSE(
      manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("absent"), 2, nullptr, &error));
  EXPECT_TRUE(error.isPOSIX(ENOENT)) << error.description();
  EXPECT_EQ(error.localizedDescription(),
            "Failed to open " + (temp_ / "absent") + " : No such file or directory");
  EXPECT_EQ(*error.userInfo().findString("FunctionName"), kSetFunction);

  EXPECT_EQ(log.count(), 0u) << log.dump();  // the records are not logged
  EXPECT_EQ(classOf("file"), 3);             // the link's target was not touched
}

TEST_F(ProtectionAndPlaceholderTest, ClassThatCannotBeSetFails) {
  writeFile(temp_ / "file", "x");
  makeImmutable(temp_ / "file");
  CVError error;

  EXPECT_FALSE(
      manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 2, nullptr, &error));

  EXPECT_TRUE(error.isPOSIX(EPERM)) << error.description();
  EXPECT_EQ(error.localizedDescription(),
            "Failed to setclass(2) on file " + (temp_ / "file") + ": Operation not permitted");
}

TEST_F(ProtectionAndPlaceholderTest, WithoutUserAttributesAClassIsAcceptedAndKeptNowhere) {
  writeFile(temp_ / "file", "x");
  makeDirectories(temp_ / "dir");
  CapturedLog log(platform::installerLog());
  const platform::sys::ScopedProtectionClassFault unsupported(EOPNOTSUPP);
  CVError error;
  EXPECT_TRUE(manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 4, nullptr, &error))
      << error.description();
  const std::function<bool(std::int32_t)> seen = [](std::int32_t current) { return current == 3; };
  EXPECT_TRUE(manager_.setDataProtectionClassOfItemAtURL(temp_.fileURL("file"), 1, &seen, &error))
      << error.description();
  EXPECT_TRUE(manager_.createDirectoryAtURL(temp_.fileURL("dir/sub"), true, 0755, 4, &error))
      << error.description();
  EXPECT_EQ(classOf("file"), 3);
  EXPECT_EQ(classOf("dir/sub"), 3);
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

// --- Placeholder marks ---

TEST_F(ProtectionAndPlaceholderTest, MarkingTwiceSucceedsAndTheMarkIsFourBytesOfOne) {
  makeDirectories(temp_ / "App.app");
  EXPECT_FALSE(manager_.bundleAtURLIsPlaceholder(temp_.directoryURL("App.app")));
  CVError error = sentinelError();

  EXPECT_TRUE(manager_.markBundleAsPlaceholder(temp_.directoryURL("App.app"), &error));
  EXPECT_TRUE(manager_.markBundleAsPlaceholder(temp_.directoryURL("App.app"), &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_TRUE(manager_.bundleAtURLIsPlaceholder(temp_.directoryURL("App.app")));
  std::array<std::byte, 8> value{};
  ASSERT_EQ(platform::sys::readPlaceholderAttribute((temp_ / "App.app").c_str(), value), 4);
  std::uint32_t number = 0;
  std::memcpy(&number, value.data(), sizeof number);
  EXPECT_EQ(number, 1u);
}

TEST_F(ProtectionAndPlaceholderTest, OnlyAFourByteAttributeCountsAsAMarkWhateverItHolds) {
  makeDirectories(temp_ / "Long.app");
  makeDirectories(temp_ / "Zero.app");
  const std::array<std::byte, 8> eightBytes{std::byte{1}};
  const std::array<std::byte, 4> zero{};
  ASSERT_EQ(platform::sys::writePlaceholderAttribute((temp_ / "Long.app").c_str(), eightBytes), 0);
  ASSERT_EQ(platform::sys::writePlaceholderAttribute((temp_ / "Zero.app").c_str(), zero), 0);

  EXPECT_FALSE(manager_.bundleAtURLIsPlaceholder(temp_.directoryURL("Long.app")));
  EXPECT_TRUE(manager_.bundleAtURLIsPlaceholder(temp_.directoryURL("Zero.app")));
  EXPECT_FALSE(manager_.bundleAtURLIsPlaceholder(temp_.directoryURL("Missing.app")));
}

TEST_F(ProtectionAndPlaceholderTest, MarkThatCannotBeSetIsCode4AndLogged) {
  makeDirectories(temp_ / "App.app");
  makeSymlink(temp_ / "App.app", temp_ / "Link.app");  // not followed; Linux refuses it
  CapturedLog log(platform::installerLog());
  CVError error;

  EXPECT_FALSE(manager_.markBundleAsPlaceholder(temp_.directoryURL("Link.app"), &error));

  const std::string description =
      "Could't set placeholder EA on \"" + (temp_ / "Link.app") + "\": " + std::strerror(EPERM);
  EXPECT_EQ(error.domain(), "CVInstallerErrorDomain");
  EXPECT_EQ(error.code(), 4);
  EXPECT_EQ(error.localizedDescription(), description);
  EXPECT_TRUE(error.underlyingError().isPOSIX(EPERM)) << error.description();
  EXPECT_EQ(*error.userInfo().findString("FunctionName"), kMarkFunction);
  ASSERT_EQ(log.count(), 1u) << log.dump();
  EXPECT_TRUE(log.containsFragment(": " + description)) << log.dump();
  EXPECT_FALSE(manager_.bundleAtURLIsPlaceholder(temp_.directoryURL("App.app")));

  EXPECT_FALSE(manager_.markBundleAsPlaceholder(temp_.directoryURL("Missing.app"), nullptr));
}

}  // namespace
