// The install journal's steps and the recovery that replays them.
#include <gtest/gtest.h>

#include "installer/InstallJournal.h"
#include "tests/installer/InstallerFixture.h"

namespace installer_test {
namespace {

using mavrel_installer::ContainerLayout;
using mavrel_installer::JournalPurpose;
using mavrel_installer::JournalStep;
using mavrel_installer::RegistryDatabase;
using mavrel_installer::RegistryStore;

JournalStep rename(std::string source, std::string target) {
  return {JournalStep::Action::Rename, std::move(source), std::move(target)};
}
JournalStep remove(std::string path) {
  return {JournalStep::Action::Remove, std::move(path), {}};
}

class InstallJournalTest : public ::testing::Test {
 protected:
  std::string path(const std::string& relative) const { return root_ + "/" + relative; }
  bool perform(std::vector<JournalStep> steps, CVError* error = nullptr) {
    return mavrel_installer::performJournalSteps(layout_, steps, error);
  }

  TemporaryDirectory directory_;
  std::string root_ = std::filesystem::canonical(directory_.path()).string();
  ContainerLayout layout_{root_, "home"};
};

TEST_F(InstallJournalTest, StepsCanBePerformedAgainWithoutHarm) {
  writeFile(path("a/item/file"), "content");
  makeDirectories(path("b"));
  const std::vector<JournalStep> steps{rename("a/item", "b/item"), remove("a")};
  ASSERT_TRUE(perform(steps));
  EXPECT_EQ(readFile(path("b/item/file")), "content");
  EXPECT_FALSE(pathExists(path("a")));
  // Again, as recovery does: everything has happened already.
  EXPECT_TRUE(perform(steps));
  EXPECT_EQ(readFile(path("b/item/file")), "content");
  // Neither end there: passed over.
  EXPECT_TRUE(perform({rename("gone/x", "b/x")}));
  // A rename never overwrites.
  writeFile(path("a/item"), "one");
  CVError error;
  EXPECT_FALSE(perform(steps, &error));
  EXPECT_TRUE(error.isPOSIX(EEXIST)) << error.description();
  EXPECT_EQ(readFile(path("a/item")), "one");
  EXPECT_EQ(readFile(path("b/item/file")), "content");
}

TEST_F(InstallJournalTest, StepsThatLeaveTheRootAreRefused) {
  TemporaryDirectory outside;
  writeFile(outside / "keep", "x");
  writeFile(path("a"), "a");
  const std::string sibling = outside.path().substr(outside.path().find_last_of('/') + 1);
  for (const JournalStep& step :
       {remove("../" + sibling + "/keep"), remove(outside / "keep"), remove(""),
        remove("a/../../" + sibling), rename("a", "../" + sibling + "/a")}) {
    CVError error;
    EXPECT_FALSE(perform({step}, &error)) << step.source << " " << step.target;
    EXPECT_TRUE(error.isPOSIX(EINVAL)) << error.description();
  }
  EXPECT_EQ(readFile(outside / "keep"), "x");
  EXPECT_EQ(readFile(path("a")), "a");
}

TEST_F(InstallJournalTest, RecoveryReplaysEntriesKeepsWhatFailsAndSweepsTheRest) {
  const std::string staging = "home/staging";
  makeDirectories(path(staging));
  CVError error;
  auto store =
      RegistryStore::open(path("registry.sqlite"), RegistryDatabase::Access::ReadWrite, &error);
  ASSERT_TRUE(store) << error.description();
  // An install to undo, one to finish, one that cannot go on, and a leftover.
  writeFile(path(staging + "/UNDO/Payload/a.app/Info.plist"), "a");
  writeFile(path(staging + "/FINISH/b.app/Info.plist"), "b");
  writeFile(path(staging + "/STUCK/c.app/Info.plist"), "c");
  writeFile(path("home/Applications/C/Staging"), "something took its place");
  writeFile(path(staging + "/LEFTOVER/junk"), "junk");
  makeDirectories(path("containers"));
  {
    mavrel_installer::WriteTransaction transaction(store->database());
    ASSERT_TRUE(transaction.begin(&error));
    ASSERT_TRUE(store->addJournal(
        "a", JournalPurpose::Restore,
        std::vector{rename(staging + "/UNDO", "home/Applications/A/Staging")}, &error));
    ASSERT_TRUE(store->addJournal("b", JournalPurpose::Finish,
                                  std::vector{rename(staging + "/FINISH", "containers/B")},
                                  &error));
    ASSERT_TRUE(store->addJournal(
        "c", JournalPurpose::Restore,
        std::vector{rename(staging + "/STUCK", "home/Applications/C/Staging")}, &error));
    ASSERT_TRUE(transaction.commit(&error)) << error.description();
  }
  makeDirectories(path("home/Applications/A"));

  mavrel_installer::RecoveryReport report;
  ASSERT_TRUE(
      mavrel_installer::recoverPendingInstalls(*store, layout_, path(staging), &report, &error))
      << error.description();
  EXPECT_EQ(std::tuple(report.restored, report.finished, report.failed, report.swept),
            std::tuple(1u, 1u, 1u, 1u));
  EXPECT_EQ(readFile(path("home/Applications/A/Staging/Payload/a.app/Info.plist")), "a");
  EXPECT_EQ(readFile(path("containers/B/b.app/Info.plist")), "b");
  // The stuck install keeps its entry and the only copy of its bundle.
  EXPECT_EQ(readFile(path(staging + "/STUCK/c.app/Info.plist")), "c");
  EXPECT_EQ(entriesOf(path(staging)), std::vector<std::string>{"STUCK"});
  std::vector<mavrel_installer::JournalEntry> left;
  ASSERT_TRUE(store->listJournal(left, &error));
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].identifier, "c");
}

}  // namespace
}  // namespace installer_test
