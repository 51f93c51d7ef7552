// The stand-in installer: it installs nothing, and it registers a safe harbor
// only for an existing directory inside the device root.
#include <gtest/gtest.h>

#include <filesystem>

#include "installer/MinimalInstallerService.h"
#include "platform/DeviceRoot.h"
#include "shared/filemanager/CVErrors.h"
#include "tests/support/TestSupport.h"

namespace mavrel_installer {
namespace {

using testing_support::CapturedLog;
using testing_support::makeDirectories;
using testing_support::makeSymlink;
using testing_support::TemporaryDirectory;
using testing_support::writeFile;

// One device root for the whole program: the root is set once, before
// anything asks for it, because replaced roots are kept alive for good.
const std::string& sharedBase() {
  static const TemporaryDirectory* const directory = [] {
    static TemporaryDirectory made;
    makeDirectories(made / "image");
    platform::setProcessDeviceRoot(
        platform::DeviceRoot(std::filesystem::canonical(made / "image").string()));
    return &made;
  }();
  static const std::string base = std::filesystem::canonical(directory->path()).string();
  return base;
}

class HarborRuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    base_ = sharedBase();
    // Each test works in directories of its own under the shared root.
    const std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    home_ = root() + "/" + name;
    outside_ = base_ + "/outside-" + name;
    makeDirectories(home_ + "/Harbor");
    makeDirectories(outside_);
  }
  std::string root() const { return base_ + "/image"; }
  bool registers(const std::string& path) {
    return installer_.CorvaneRegisterSafeHarborForContainerType(
        path, "com.example.app", platform::kSafeHarborContainerType, nullptr);
  }

  std::string base_;
  std::string home_;
  std::string outside_;
  MinimalInstallerService installer_;
};

TEST_F(HarborRuleTest, AcceptsAnExistingDirectoryInsideTheRoot) {
  CapturedLog log(platform::installerLog());
  EXPECT_TRUE(registers(home_ + "/Harbor"));
  EXPECT_TRUE(registers(home_ + "/Harbor/"));
  EXPECT_TRUE(registers(root()));
  EXPECT_FALSE(log.containsFragment("Refusing")) << log.dump();
}

TEST_F(HarborRuleTest, RefusesAMissingPathAndSaysWhy) {
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(registers(home_ + "/Gone"));
  EXPECT_TRUE(log.contains(3, "Refusing safe harbor for com.example.app at " + home_ +
                                  "/Gone: No such file or directory"))
      << log.dump();
}

TEST_F(HarborRuleTest, RefusesAFile) {
  writeFile(home_ + "/file", "x");
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(registers(home_ + "/file"));
  EXPECT_TRUE(log.contains(
      3, "Refusing safe harbor for com.example.app at " + home_ + "/file: not a directory"))
      << log.dump();
}

TEST_F(HarborRuleTest, RefusesADirectoryOutsideTheRoot) {
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(registers(outside_));
  // A sibling whose name merely starts with the root's name is outside too.
  makeDirectories(base_ + "/image-other");
  EXPECT_FALSE(registers(base_ + "/image-other"));
  EXPECT_TRUE(log.containsFragment("lies outside the device root " + root())) << log.dump();
}

TEST_F(HarborRuleTest, JudgesLinksAndDotsByWhereTheyLead) {
  makeSymlink(outside_, home_ + "/Escape");
  makeSymlink(home_ + "/Harbor", outside_ + "/Back");
  EXPECT_FALSE(registers(home_ + "/Escape"));
  // home_ is <base>/image/<test>: two levels up is <base>.
  EXPECT_FALSE(registers(home_ + "/../../" + outside_.substr(base_.size() + 1)));
  EXPECT_TRUE(registers(outside_ + "/Back"));
}

TEST(MinimalInstallerServiceTest, KnowsNoApplicationAndInstallsNothing) {
  MinimalInstallerService installer;
  EXPECT_FALSE(installer.isApplicationInstalled("com.example.app"));
  EXPECT_FALSE(installer.bundleRecordForIdentifier("com.example.app"));

  CapturedLog log(platform::installerLog());
  CVError error;
  bool progressCalled = false;
  EXPECT_FALSE(installer.installApplication(CVURL::fileURLWithPath("/staging", true),
                                            CVDictionary{}, &error,
                                            [&](const CVDictionary&) { progressCalled = true; }));
  EXPECT_EQ(error.domain(), CVInstallerErrorDomain);
  EXPECT_EQ(error.code(), kInstallationUnavailableError);
  EXPECT_EQ(error.localizedDescription(), "Installation is not available in this build");
  EXPECT_FALSE(progressCalled);
  EXPECT_TRUE(log.containsFragment("installation is not available")) << log.dump();
  // Without an error place the call still fails, and does not crash.
  EXPECT_FALSE(installer.installApplication(CVURL::fileURLWithPath("/staging", true),
                                            CVDictionary{}, nullptr, {}));

  EXPECT_TRUE(installer.CorvaneUpdateContainerDataProtectionForMigratorOnly(CVDictionary{}));
}

}  // namespace
}  // namespace mavrel_installer
