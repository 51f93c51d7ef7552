// The image's built-in applications: installed system applications to the
// registry, with data containers made on first need; a legacy copy of one is
// refused as "ApplicationAlreadyInstalled"; the data-protection update.
#include <gtest/gtest.h>

#include <cstring>

#include "installer/RegistryDatabase.h"
#include "platform/linux/ExtendedAttributes.h"
#include "platform/linux/ProtectionClass.h"
#include "tests/installer/InstallerFixture.h"

namespace installer_test {
namespace {

std::optional<std::int32_t> protectionClassOf(const std::string& path) {
  std::vector<char> value;
  std::int32_t number = 0;
  if (platform::sys::getAttribute(platform::sys::AttributeItem::link(path.c_str()),
                                  platform::sys::kProtectionClassAttributeName, value) != 0 ||
      value.size() != sizeof number)
    return std::nullopt;
  std::memcpy(&number, value.data(), sizeof number);
  return number;
}

class BuiltInApplicationTest : public InstallerFixture {
 protected:
  void SetUp() override {
    InstallerFixture::SetUp();
    weatherBundle_ = writeBuiltInApplication({.identifier = "com.zentrel.weather",
                                              .version = "500",
                                              .groups = {"group.zentrel.weather"}});
    writeBuiltInApplication({"com.zentrel.clock"});
    reopenWithNewConfiguration();
  }
  bool updateProtection(bool withOption) {
    return service_->CorvaneUpdateContainerDataProtectionForMigratorOnly(
        withOption
            ? CVDictionary{{std::string(platform::kCVUpdateSystemAppDataContainerDataProtection),
                            CVValue(true)}}
            : CVDictionary{});
  }
  std::string weatherBundle_;
};

// A built-in is a system application whose data container is made on first
// need; a legacy copy of it gives its data and is refused, and not kept, so
// that its container can go.
TEST_F(BuiltInApplicationTest, ALegacyCopyGivesItsDataAndIsRefusedAsAlreadyInstalled) {
  EXPECT_TRUE(service_->isApplicationInstalled("com.zentrel.weather"));
  EXPECT_EQ(entriesOf(dataContainers()), kNothing);
  const auto weather = record("com.zentrel.weather");
  ASSERT_TRUE(weather && weather->groupContainerURLs);
  EXPECT_EQ(std::tuple(weather->bundleType, weather->bundleURL.path(), weather->foundBackingBundle,
                       weather->bundleContainerURL.isNil()),
            std::tuple(std::string("System"), weatherBundle_, true, true));
  EXPECT_EQ(entriesOf(weather->dataContainerURL.path()),
            (std::vector<std::string>{"Documents", "Library", "tmp"}));
  EXPECT_EQ(weather->groupContainerURLs->keys(), std::vector<std::string>{"group.zentrel.weather"});
  writeFile(weather->dataContainerURL.path() + "/Documents/cities.plist", "Oslo");

  const std::string staging =
      stageCustomerPackage("W1", {"com.zentrel.weather"}, false, {"Manifest.plist"});
  EXPECT_EQ(installCustomer(staging, "com.zentrel.weather").errorName(),
            "ApplicationAlreadyInstalled");
  EXPECT_EQ(entriesOf(home("Applications/W1")), kNothing);
  TemporaryDirectory temporary;
  EXPECT_EQ(installPlaceholder(makePlaceholderPackage(temporary.path(), {"com.zentrel.clock"}),
                               "com.zentrel.clock")
                .errorName(),
            "ApplicationAlreadyInstalled");
  reopen();
  const auto after = record("com.zentrel.weather");
  EXPECT_EQ(after->bundleType, "System");
  EXPECT_EQ(after->dataContainerURL, weather->dataContainerURL);
  EXPECT_EQ(readFile(after->dataContainerURL.path() + "/Documents/cities.plist"), "Oslo");
  EXPECT_EQ(entriesOf(bundleContainers()), kNothing);
  EXPECT_EQ(entriesOf(dataContainers()).size(), 1u);
}

TEST_F(BuiltInApplicationTest, DataProtectionIsSetOnTheSystemDataContainersTheRegistryKnows) {
  const auto weather = record("com.zentrel.weather");
  ASSERT_TRUE(installCustomer(stageCustomerPackage("U1", {"com.example.user"}), "com.example.user")
                  .succeeded);
  const auto user = record("com.example.user");
  EXPECT_TRUE(updateProtection(false));
  EXPECT_EQ(protectionClassOf(weather->dataContainerURL.path()), std::nullopt)
      << "without the option nothing is updated";
  EXPECT_TRUE(updateProtection(true));
  EXPECT_EQ(protectionClassOf(weather->dataContainerURL.path()),
            mavrel_installer::kSystemDataContainerProtectionClass);
  EXPECT_EQ(protectionClassOf(user->dataContainerURL.path()), std::nullopt);
  // The clock never needed a container, so none was made for the update.
  EXPECT_EQ(entriesOf(dataContainers()).size(), 2u);

  // It fails only when the registry cannot be read: another connection takes
  // the registry's tables away underneath the service.
  CVError error;
  ASSERT_TRUE(mavrel_installer::RegistryDatabase::open(
                  registryPath(), mavrel_installer::RegistryDatabase::Access::ReadWrite, &error)
                  ->execute("DROP TABLE application_groups; DROP TABLE applications;", &error))
      << error.description();
  CapturedLog log(platform::installerLog());
  EXPECT_FALSE(updateProtection(true));
  EXPECT_TRUE(log.containsFragment("Could not read the application registry")) << log.dump();
}

}  // namespace
}  // namespace installer_test
