// Safe harbors: recorded for an existing directory inside the device root,
// refused (and said why) otherwise.
#include <gtest/gtest.h>

#include "installer/RegistryListing.h"
#include "tests/installer/InstallerFixture.h"
#include "tests/support/TestSupport.h"

namespace installer_test {
namespace {

using namespace testing_support;

class SafeHarborTest : public InstallerFixture {
 protected:
  bool registers(const std::string& path, const std::string& identifier = "com.example.app") {
    const CVDictionary options{{"Reason", CVValue("absent")}};
    return service_->CorvaneRegisterSafeHarborForContainerType(
        path, identifier, platform::kSafeHarborContainerType, &options);
  }
  std::vector<mavrel_installer::ListedHarbor> harbors() {
    CVError error;
    const auto listing = mavrel_installer::readRegistryListing(*configuration_, &error);
    EXPECT_TRUE(listing) << error.description();
    return listing ? listing->harbors : std::vector<mavrel_installer::ListedHarbor>();
  }
};

TEST_F(SafeHarborTest, AnExistingDirectoryInsideTheRootIsRecordedAndMovedOnRequest) {
  makeDirectories(home("Harbors/Game"));
  makeDirectories(home("Harbors/Game2"));
  CapturedLog log(platform::installerLog());
  EXPECT_TRUE(registers(home("Harbors/Game") + "/", "com.example.game"));
  ASSERT_EQ(harbors().size(), 1u);
  EXPECT_EQ(harbors()[0].identifier, "com.example.game");
  EXPECT_EQ(harbors()[0].containerType, platform::kSafeHarborContainerType);
  // The listing shows paths under the image's root as configured.
  EXPECT_EQ(harbors()[0].path, image_.home("Harbors/Game"));
  EXPECT_TRUE(registers(home("Harbors/Game2"), "com.example.game"));
  reopen();
  ASSERT_EQ(harbors().size(), 1u);
  EXPECT_EQ(harbors()[0].path, image_.home("Harbors/Game2"));
  EXPECT_FALSE(log.containsFragment("Refusing")) << log.dump();
}

TEST_F(SafeHarborTest, WhatIsNotADirectoryInsideTheRootIsRefusedWithItsReason) {
  TemporaryDirectory outside;
  writeFile(home("file"), "x");
  makeDirectories(outside / "dir");
  makeSymlink(outside / "dir", home("Escape"));
  // The root and outside are siblings: climb out of the root by dots.
  const std::string sibling = outside.path().substr(outside.path().find_last_of('/') + 1);
  const std::string prefix = "Refusing safe harbor for com.example.app at ";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {home("Gone"), prefix + home("Gone") + ": No such file or directory"},
      {home("file"), prefix + home("file") + ": not a directory"},
      // Absolute paths are taken inside the image.
      {outside / "dir", prefix + (outside / "dir") + ": No such file or directory"},
      {home("Escape"), prefix + home("Escape") + ": " + (outside / "dir") +
                           " lies outside the device root " + root()},
      {home("../../../../" + sibling + "/dir"),
       prefix + home("../../../../" + sibling + "/dir") + ": the path has a '..' component"},
  };
  for (const auto& [path, message] : cases) {
    CapturedLog log(platform::installerLog());
    EXPECT_FALSE(registers(path)) << path;
    ASSERT_EQ(log.count(), 1u) << log.dump();
    EXPECT_EQ(log.lines()[0].level, 3);
    EXPECT_EQ(log.lines()[0].message, message);
  }
  EXPECT_TRUE(harbors().empty());
}

}  // namespace
}  // namespace installer_test
