// The install asked for again with an empty "Payload" after a crash that
// came between a completed install and the caller's next step.
#include <gtest/gtest.h>

#include "tests/installer/InstallerFixture.h"
#include "tests/support/TestSupport.h"

namespace installer_test {
namespace {

using namespace testing_support;

class RepeatedRequestTest : public InstallerFixture {
 protected:
  // What the migrator builds when it resumes: the staging directory again,
  // with nothing left to put into "Payload".
  std::string restage(const std::string& container) {
    const std::string staging = home("Applications/" + container + "/Staging");
    makeDirectories(staging + "/Payload");
    return staging;
  }
};

TEST_F(RepeatedRequestTest, TheSameRequestAfterACompletedInstallSucceedsAndConsumesTheStaging) {
  ASSERT_TRUE(installCustomer(stageCustomerPackage("R1", {"com.example.todo"}), "com.example.todo")
                  .succeeded);
  const auto installed = record("com.example.todo");
  reopen();  // the crash

  const std::string staging = restage("R1");
  const InstallOutcome outcome = installCustomer(staging, "com.example.todo");
  ASSERT_TRUE(outcome.succeeded) << outcome.dump();
  EXPECT_EQ(*outcome.progress.back().findString(platform::kProgressStatusKey), "InstallComplete");
  EXPECT_FALSE(pathExists(staging));
  EXPECT_EQ(entriesOf(home("Applications/R1")), std::vector<std::string>{});
  const auto after = record("com.example.todo");
  EXPECT_EQ(after->bundleContainerURL, installed->bundleContainerURL);
  EXPECT_TRUE(after->foundBackingBundle);
  EXPECT_EQ(entriesOf(stagingRoot()), std::vector<std::string>{});
}

TEST_F(RepeatedRequestTest, AnyOtherEmptyPayloadFailsAndIsLeftAlone) {
  ASSERT_TRUE(installCustomer(stageCustomerPackage("R2", {"com.example.todo"}), "com.example.todo")
                  .succeeded);
  testing_support::TemporaryDirectory temporary;
  ASSERT_TRUE(installPlaceholder(makePlaceholderPackage(temporary.path(), {"com.example.held"}),
                                 "com.example.held")
                  .succeeded);

  struct Case {
    std::string name;
    std::string container;
    std::string identifier;
  };
  const std::vector<Case> cases = {
      {"another staging directory", "R3", "com.example.todo"},
      {"another identifier", "R2", "com.example.other"},
      {"an application only held by a placeholder", "R4", "com.example.held"},
      {"an application never installed", "R5", "com.example.never"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    const std::string staging = restage(each.container);
    const InstallOutcome outcome = installCustomer(staging, each.identifier);
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(outcome.errorName(), "EmptyPayload") << outcome.dump();
    EXPECT_TRUE(pathExists(staging + "/Payload"));
  }
}

}  // namespace
}  // namespace installer_test
