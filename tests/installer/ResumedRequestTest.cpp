// The install asked for again with an empty "Payload" after a crash that came
// between a completed install and the caller's next step: what was done is
// answered as before, anything else is refused and left alone.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/installer/InstallerFixture.h"
#include "tests/support/TestSupport.h"

namespace installer_test {
namespace {

using namespace testing_support;

class ResumedRequestTest : public InstallerFixture {};

TEST_F(ResumedRequestTest, AnEmptyPayloadGetsTheAnswerOfTheCompletedInstallOrIsRefused) {
  writeBuiltInApplication({"com.zentrel.weather"});
  reopenWithNewConfiguration();
  ASSERT_TRUE(installCustomer(stageCustomerPackage("R1", {"com.example.todo"}), "com.example.todo")
                  .succeeded);
  ASSERT_TRUE(
      installCustomer(stageCustomerPackage("R2", {"com.example.notes"}, true), "com.example.notes")
          .succeeded);
  TemporaryDirectory temporary;
  ASSERT_TRUE(installPlaceholder(makePlaceholderPackage(temporary.path(), {"com.example.held"}),
                                 "com.example.held")
                  .succeeded);
  // The legacy copy of a built-in is refused and its staging directory consumed.
  EXPECT_EQ(
      installCustomer(stageCustomerPackage("W1", {"com.zentrel.weather"}), "com.zentrel.weather")
          .errorName(),
      "ApplicationAlreadyInstalled");
  const auto todo = record("com.example.todo");
  const auto plugin = record("com.example.notes.vpn");
  reopen();  // the crash

  struct Case {
    std::string container;
    std::string identifier;
    std::string error;  // "" when it succeeds
  };
  const std::vector<Case> cases = {
      {"R1", "com.example.todo", ""},
      {"R2", "com.example.notes.vpn", ""},
      {"W1", "com.zentrel.weather", "ApplicationAlreadyInstalled"},
      {"R3", "com.example.todo", "EmptyPayload"},         // another staging directory
      {"R2", "com.example.other", "EmptyPayload"},        // another identifier
      {"R4", "com.example.held", "EmptyPayload"},         // only held by a placeholder
      {"R5", "com.example.never", "EmptyPayload"},        // never installed
      {"R6", "com.example.unknown.vpn", "EmptyPayload"},  // a plug-in nobody installed
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.container + " " + each.identifier);
    const std::string staging = home("Applications/" + each.container + "/Staging");
    makeDirectories(staging + "/Payload");
    const InstallOutcome outcome = installCustomer(staging, each.identifier);
    EXPECT_EQ(outcome.errorName(), each.error) << outcome.dump();
    if (each.error == "EmptyPayload") {
      EXPECT_TRUE(pathExists(staging + "/Payload"));
      std::filesystem::remove_all(staging);
    } else {
      EXPECT_EQ(entriesOf(home("Applications/" + each.container)), std::vector<std::string>{});
    }
    if (each.error.empty()) {
      EXPECT_EQ(*outcome.progress.back().findString(platform::kProgressStatusKey),
                "InstallComplete");
    }
  }
  EXPECT_EQ(record("com.example.todo")->bundleContainerURL, todo->bundleContainerURL);
  EXPECT_TRUE(record("com.example.todo")->foundBackingBundle);
  EXPECT_EQ(record("com.example.notes.vpn")->bundleURL, plugin->bundleURL);
  EXPECT_TRUE(pathExists(plugin->bundleURL.path() + "/Info.plist"));
  EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
}

}  // namespace
}  // namespace installer_test
