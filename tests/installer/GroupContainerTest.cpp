// Group containers: made on first use, shared by every member of a group,
// kept when an application leaves it.
#include <gtest/gtest.h>

#include "installer/GroupContainers.h"
#include "tests/installer/InstallerFixture.h"
#include "tests/support/TestSupport.h"

namespace installer_test {
namespace {

using namespace testing_support;

class GroupContainerTest : public InstallerFixture {};

CVURL groupURL(const platform::BundleRecord& record, const std::string& group) {
  const CVValue* value = record.groupContainerURLs->find(group);
  return value != nullptr && value->asURL() != nullptr ? *value->asURL() : CVURL();
}

TEST_F(GroupContainerTest, MembersOfAGroupShareOneContainer) {
  BundleSpec mail{"com.example.mail"};
  mail.groups = {"group.example.shared", "group.example.mail"};
  BundleSpec calendar{"com.example.calendar"};
  calendar.groups = {"group.example.shared"};
  ASSERT_TRUE(installCustomer(stageCustomerPackage("G1", mail), "com.example.mail").succeeded);
  ASSERT_TRUE(
      installCustomer(stageCustomerPackage("G2", calendar), "com.example.calendar").succeeded);

  const auto mailRecord = record("com.example.mail");
  const auto calendarRecord = record("com.example.calendar");
  ASSERT_TRUE(mailRecord && mailRecord->groupContainerURLs);
  ASSERT_TRUE(calendarRecord && calendarRecord->groupContainerURLs);
  EXPECT_EQ(mailRecord->groupContainerURLs->keys(),
            (std::vector<std::string>{"group.example.shared", "group.example.mail"}));
  EXPECT_EQ(calendarRecord->groupContainerURLs->keys(),
            std::vector<std::string>{"group.example.shared"});
  const CVURL shared = groupURL(*mailRecord, "group.example.shared");
  EXPECT_EQ(shared, groupURL(*calendarRecord, "group.example.shared"));
  EXPECT_NE(shared, groupURL(*mailRecord, "group.example.mail"));
  EXPECT_TRUE(shared.isDirectory());
  EXPECT_EQ(shared.URLByDeletingLastPathComponent().path(), groupContainers());
  EXPECT_EQ(entriesOf(groupContainers()).size(), 2u);

  // An application that leaves a group does not take the group's data along.
  writeFile(shared.path() + "/shared.txt", "kept");
  BundleSpec calendarAlone{"com.example.calendar"};
  ASSERT_TRUE(
      installCustomer(stageCustomerPackage("G3", calendarAlone), "com.example.calendar").succeeded);
  EXPECT_TRUE(record("com.example.calendar")->groupContainerURLs->empty());
  EXPECT_TRUE(pathExists(shared.path() + "/shared.txt"));
  EXPECT_EQ(groupURL(*record("com.example.mail"), "group.example.shared"), shared);
}

TEST_F(GroupContainerTest, OnlyStringsOfAnArrayNameGroups) {
  const std::string staging = stageCustomerPackage("G4", {"com.example.odd"});
  writePlist(staging + "/Payload/odd.app/Entitlements.plist",
             CVValue(CVDictionary{{"application-groups",
                                   CVValue(CVArray{CVValue("group.example.odd"), CVValue(7),
                                                   CVValue(""), CVValue("group.example.odd")})}}));
  ASSERT_TRUE(installCustomer(staging, "com.example.odd").succeeded);
  EXPECT_EQ(record("com.example.odd")->groupContainerURLs->keys(),
            std::vector<std::string>{"group.example.odd"});

  // Entitlements that cannot be read mean no group, and the install goes on.
  const std::string broken = stageCustomerPackage("G5", {"com.example.broken"});
  writeFile(broken + "/Payload/broken.app/Entitlements.plist", "garbage");
  ASSERT_TRUE(installCustomer(broken, "com.example.broken").succeeded);
  EXPECT_TRUE(record("com.example.broken")->groupContainerURLs->empty());
}

// Every group costs a directory and registry rows: an application naming more
// groups than any real one does is refused, and nothing is made for it.
TEST_F(GroupContainerTest, ApplicationOverTheGroupLimitIsRefused) {
  BundleSpec crowded{"com.example.crowded"};
  for (std::size_t index = 0; index <= mavrel_installer::kMaximumApplicationGroups; ++index)
    crowded.groups.push_back("group.example." + std::to_string(index));
  const InstallOutcome outcome =
      installCustomer(stageCustomerPackage("G6", crowded), "com.example.crowded");
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.errorName(), "TooManyApplicationGroups") << outcome.dump();
  EXPECT_NE(outcome.dump().find("crowded.app"), std::string::npos) << outcome.dump();
  EXPECT_FALSE(record("com.example.crowded"));
  EXPECT_TRUE(entriesOf(groupContainers()).empty());
}

}  // namespace
}  // namespace installer_test
