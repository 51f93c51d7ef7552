// Mounts inside a tree: removal, copy, the ownership walk and disk usage
// never cross into a directory mounted there (a bind mount of a directory
// elsewhere on the host). The mount point is an error on that entry and is
// left in place; what lies beyond keeps its files, owner and size.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

#include "shared/filemanager/CVFileManager.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

constexpr std::uint32_t kNewOwner = 501;

struct Operation {
  const char* name;
  // Runs on the tree; true when it reported the failure it must.
  std::function<bool(const TemporaryDirectory& place)> run;
};

void PrintTo(const Operation& operation, std::ostream* out) {
  *out << operation.name;
}

class MountPointTest : public ::testing::TestWithParam<Operation> {
 protected:
  void SetUp() override {
    writeFile(place_ / "outside/canary.txt", "outside the tree");
    writeFile(place_ / "tree/file.txt", "inside");
    makeDirectories(place_ / "tree/sub/mounted");
    if (::mount((place_ / "outside").c_str(), (place_ / "tree/sub/mounted").c_str(), nullptr,
                MS_BIND, nullptr) != 0) {
      GTEST_SKIP() << "no bind mount here: " << std::strerror(errno);
    }
    mounted_ = true;
  }

  void TearDown() override {
    if (mounted_) {
      EXPECT_EQ(::umount2((place_ / "tree/sub/mounted").c_str(), MNT_DETACH), 0)
          << std::strerror(errno);
    }
  }

  // Declared first: the directory goes away after the mount is undone.
  TemporaryDirectory place_;
  bool mounted_ = false;
};

TEST_P(MountPointTest, TheMountIsNotCrossedAndStaysInPlace) {
  EXPECT_TRUE(GetParam().run(place_));
  EXPECT_EQ(readFile(place_ / "outside/canary.txt"), "outside the tree");
  struct stat status {};
  ASSERT_EQ(::stat((place_ / "outside/canary.txt").c_str(), &status), 0);
  EXPECT_NE(status.st_uid, kNewOwner);
  EXPECT_TRUE(pathExists(place_ / "tree/sub/mounted/canary.txt"));
}

CVFileManager& fileManager() {
  return CVFileManager::defaultManager();
}

INSTANTIATE_TEST_SUITE_P(
    Operations, MountPointTest,
    ::testing::Values(
        Operation{"Removal",
                  [](const TemporaryDirectory& place) {
                    CVError error;
                    return !fileManager().removeItemAtURL(place.directoryURL("tree"), &error) &&
                           error.code() == EXDEV && !pathExists(place / "tree/file.txt");
                  }},
        Operation{"Copy",
                  [](const TemporaryDirectory& place) {
                    CVError error;
                    return !fileManager().copyItemAtURL(place.directoryURL("tree"),
                                                        place.directoryURL("copy"), &error) &&
                           error.code() == EXDEV && !pathExists(place / "copy/sub/mounted");
                  }},
        Operation{"Ownership",
                  [](const TemporaryDirectory& place) {
                    CVError error;
                    return !fileManager().standardizeOwnershipAndValidateSymlinksAtURL(
                               place.directoryURL("tree"), kNewOwner, kNewOwner, &error) &&
                           error.code() == EXDEV;
                  }},
        Operation{"DiskUsage",
                  [](const TemporaryDirectory& place) {
                    // The canary is far larger than the tree's own file.
                    writeFile(place / "outside/large.bin", std::string(1 << 20, 'x'));
                    return fileManager().diskUsageForURL(place.directoryURL("tree")) < (1 << 20);
                  }}),
    [](const ::testing::TestParamInfo<Operation>& parameter) {
      return std::string(parameter.param.name);
    });

}  // namespace
