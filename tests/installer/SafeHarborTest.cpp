// Safe harbors: recorded for an existing directory inside the device root,
// refused (and said why) otherwise.
#include <gtest/gtest.h>

#include "installer/RegistryListing.h"
#include "platform/PropertyList.h"
#include "tests/installer/InstallerFixture.h"
#include "tests/support/TestSupport.h"

namespace installer_test {
namespace {

using namespace testing_support;

class SafeHarborTest : public InstallerFixture {
 protected:
  bool registers(const std::string& path, const std::string& identifier = "com.example.app",
                 const CVDictionary* options = nullptr) {
    return service_->CorvaneRegisterSafeHarborForContainerType(
        path, identifier, platform::kSafeHarborContainerType, options);
  }
  std::vector<mavrel_installer::ListedHarbor> harbors() {
    CVError error;
    const auto listing = mavrel_installer::readRegistryListing(*configuration_, &error);
    EXPECT_TRUE(listing) << error.description();
    return listing ? listing->harbors : std::vector<mavrel_installer::ListedHarbor>();
  }
  TemporaryDirectory outside_;
};

TEST_F(SafeHarborTest, RecordsAnExistingDirectoryInsideTheRoot) {
  makeDirectories(home("Harbors/Game"));
  CapturedLog log(platform::installerLog());
  const CVDictionary options{{"Reason", CVValue("absent")}};
  EXPECT_TRUE(registers(home("Harbors/Game") + "/", "com.example.game", &options));
  EXPECT_FALSE(log.containsFragment("Refusing")) << log.dump();

  auto recorded = harbors();
  ASSERT_EQ(recorded.size(), 1u);
  EXPECT_EQ(recorded[0].identifier, "com.example.game");
  EXPECT_EQ(recorded[0].containerType, platform::kSafeHarborContainerType);
  // The listing shows paths under the image's root as configured.
  EXPECT_EQ(recorded[0].path, image_.home("Harbors/Game"));

  // Registering again moves the harbor; it survives reopening.
  makeDirectories(home("Harbors/Game2"));
  EXPECT_TRUE(registers(home("Harbors/Game2"), "com.example.game"));
  reopen();
  recorded = harbors();
  ASSERT_EQ(recorded.size(), 1u);
  EXPECT_EQ(recorded[0].path, image_.home("Harbors/Game2"));
}

TEST_F(SafeHarborTest, RefusesWhatIsNotADirectoryInsideTheRootAndSaysWhy) {
  writeFile(home("file"), "x");
  makeDirectories(outside_ / "dir");
  makeSymlink(outside_ / "dir", home("Escape"));
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(registers(home("Gone")));
  EXPECT_TRUE(log.contains(3, "Refusing safe harbor for com.example.app at " + home("Gone") +
                                  ": No such file or directory"))
      << log.dump();
  EXPECT_FALSE(registers(home("file")));
  EXPECT_TRUE(log.contains(
      3, "Refusing safe harbor for com.example.app at " + home("file") + ": not a directory"))
      << log.dump();
  EXPECT_FALSE(registers(outside_ / "dir"));
  EXPECT_FALSE(registers(home("Escape")));
  // The root and outside_ are siblings: climb out of the root by dots.
  const std::string sibling = outside_.path().substr(outside_.path().find_last_of('/') + 1);
  EXPECT_FALSE(registers(home("../../../../" + sibling + "/dir")));
  EXPECT_TRUE(log.containsFragment("lies outside the device root " + root())) << log.dump();
  EXPECT_TRUE(harbors().empty());
}

}  // namespace
}  // namespace installer_test
