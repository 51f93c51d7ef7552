// CVFileManager::copyItemAtURL over a tree with every kind of item: the copy
// must equal the source item by item (metadata to the nanosecond, extended
// attributes and ACLs, bytes, links, holes, hard links), on one file system
// and across two, and agree with `cp -a` as an independent oracle.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "shared/filemanager/CVFileManager.h"
#include "tests/filemanager/CopyTestTrees.h"
#include "tests/support/TestSupport.h"
#include "tests/support/TreeSnapshot.h"

namespace {

using namespace filemanager_test;
using namespace testing_support;

class CopyOracleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeDirectories(temp_ / "outside");
    ASSERT_NO_FATAL_FAILURE(makeRichTree(source(), temp_ / "outside"));
  }

  std::string source() const { return temp_ / "source"; }
  CVURL sourceURL() const { return temp_.directoryURL("source"); }

  // The copy's sparse file keeps its holes: it takes about as many blocks
  // as the source's, far fewer than its size.
  static void expectHolesKept(const TreeSnapshot& original, const TreeSnapshot& copy) {
    const auto& want = original.at(kSparseFile);
    const auto& got = copy.at(kSparseFile);
    EXPECT_LT(got.blocks * 512, kSparseFileSize / 8) << "the holes were filled";
    EXPECT_LE(got.blocks, want.blocks + 64);
  }

  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

TEST_F(CopyOracleTest, CopyEqualsTheSourceItemByItemAndLeavesTheSourceAsItWas) {
  const TreeSnapshot before = snapshotTree(source());

  CVError error;
  ASSERT_TRUE(manager_.copyItemAtURL(sourceURL(), temp_.directoryURL("copy"), &error))
      << error.description();

  const TreeSnapshot copy = snapshotTree(temp_ / "copy");
  EXPECT_EQ(listed(differences(before, copy)), "");
  expectHolesKept(before, copy);
  // The source was read without touching its access times, except those of
  // links, whose content cannot be read any other way.
  EXPECT_EQ(listed(differences(before, snapshotTree(source()), AccessTimes::IgnoredOnLinks)), "");

  // The file with a name outside the tree is a file of its own in the copy,
  // and the three names inside it stay one file.
  struct stat status {};
  ASSERT_EQ(::lstat((temp_ / "copy/shared-outside").c_str(), &status), 0);
  EXPECT_EQ(status.st_nlink, 1u);
  ASSERT_EQ(::lstat((temp_ / "copy/nested/one").c_str(), &status), 0);
  EXPECT_EQ(status.st_nlink, 3u);
}

TEST_F(CopyOracleTest, CopyAgreesWithCpArchive) {
  ASSERT_TRUE(manager_.copyItemAtURL(sourceURL(), temp_.directoryURL("ours"), nullptr));
  const std::string command = "cp -a '" + source() + "' '" + (temp_ / "oracle") + "'";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;

  const TreeSnapshot ours = snapshotTree(temp_ / "ours");
  const TreeSnapshot oracle = snapshotTree(temp_ / "oracle");
  // cp ran after our copy had read the links.
  EXPECT_EQ(listed(differences(oracle, ours, AccessTimes::IgnoredOnLinks)), "");
  EXPECT_LE(ours.at(kSparseFile).blocks, oracle.at(kSparseFile).blocks + 64);
}

TEST_F(CopyOracleTest, CopyToAnotherFileSystemEqualsTheSource) {
  const OtherDeviceDirectory other(temp_.path());
  if (!other.available()) GTEST_SKIP() << "no second file system (/dev/shm) to copy to";
  const TreeSnapshot before = snapshotTree(source());

  CVError error;
  ASSERT_TRUE(
      manager_.copyItemAtURL(sourceURL(), CVURL::fileURLWithPath(other / "copy", true), &error))
      << error.description();

  const TreeSnapshot copy = snapshotTree(other / "copy");
  EXPECT_EQ(listed(differences(before, copy)), "");
  expectHolesKept(before, copy);
}

}  // namespace
