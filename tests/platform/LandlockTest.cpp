// Write confinement: inside the allowed directory everything works (renames
// between its directories included), outside it nothing changes, reading goes
// on. Each case runs in a forked child, since a confinement cannot be undone.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/Landlock.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

// Confines a child to `writable`, runs the steps and returns one line per step
// whose result (0 for success, else errno) is not among those wanted, or "".
using Step = std::tuple<std::string, std::function<int()>, std::vector<int>>;
std::string inConfinedChild(const std::vector<std::string>& writable,
                            const std::vector<Step>& steps, bool expectConfined = true) {
  const ChildOutcome outcome = runCapturedInChild([&] {
    CVError error;
    if (platform::sys::confineWritesBeneath(writable, &error) != expectConfined) {
      std::printf("confinement: %s\n", error.description().c_str());
      return 0;
    }
    if (!expectConfined && error.localizedDescription().find(writable.back()) == std::string::npos)
      std::printf("error does not name the path: %s\n", error.description().c_str());
    if (!expectConfined && platform::sys::isConfinementUnavailable(error))
      std::printf("a missing path is reported as no Landlock\n");
    for (const auto& [what, step, wanted] : steps) {
      const int got = step() == 0 ? 0 : errno;
      if (std::find(wanted.begin(), wanted.end(), got) == wanted.end())
        std::printf("%s: got %d\n", what.c_str(), got);
    }
    return 0;
  });
  return outcome.out + (outcome.exitCode == 0 ? "" : "child did not finish\n");
}

int opened(const std::string& path, int flags) {
  return platform::sys::UniqueFd(::open(path.c_str(), flags | O_CLOEXEC, 0644)).valid() ? 0 : -1;
}

class LandlockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (platform::sys::landlockABIVersion() < 2) GTEST_SKIP() << "no usable Landlock here";
    writeFile(allowed_ / "old.txt", "inside");
    writeFile(outside_ / "keep.txt", "outside");
    makeDirectories(allowed_ / "sub");
  }
  TemporaryDirectory allowed_;
  TemporaryDirectory outside_;
};

TEST_F(LandlockTest, WritesOnlyBeneathTheAllowedDirectories) {
  const std::string in = allowed_.path(), out = outside_.path();
  const int create = O_WRONLY | O_CREAT | O_EXCL;
  const std::vector<Step> steps = {
      // Inside: create, rename between directories, remove.
      {"create inside", [&] { return opened(in + "/new.txt", create); }, {0}},
      {"mkdir inside", [&] { return ::mkdir((in + "/dir").c_str(), 0755); }, {0}},
      {"rename inside",
       [&] { return ::rename((in + "/old.txt").c_str(), (in + "/sub/old.txt").c_str()); },
       {0}},
      {"unlink inside", [&] { return ::unlink((in + "/new.txt").c_str()); }, {0}},
      // Outside: no creation, removal, writing or renaming in or out.
      {"create outside", [&] { return opened(out + "/new.txt", create); }, {EACCES}},
      {"mkdir outside", [&] { return ::mkdir((out + "/dir").c_str(), 0755); }, {EACCES}},
      {"unlink outside", [&] { return ::unlink((out + "/keep.txt").c_str()); }, {EACCES}},
      {"open for writing outside", [&] { return opened(out + "/keep.txt", O_WRONLY); }, {EACCES}},
      {"rename out of the outside directory",
       [&] { return ::rename((out + "/keep.txt").c_str(), (in + "/stolen.txt").c_str()); },
       {EACCES, EXDEV}},
      // Reading is not confined.
      {"read outside", [&] { return opened(out + "/keep.txt", O_RDONLY); }, {0}},
  };
  EXPECT_EQ(inConfinedChild({in}, steps), "");
  EXPECT_EQ(readFile(outside_ / "keep.txt"), "outside");
  EXPECT_FALSE(pathExists(outside_ / "new.txt"));
  EXPECT_EQ(readFile(allowed_ / "sub/old.txt"), "inside");
}

TEST_F(LandlockTest, ARuleThatCannotBeMadeConfinesNothingAndNamesThePath) {
  const std::string unconfined = outside_ / "free.txt";
  EXPECT_EQ(inConfinedChild({allowed_.path(), allowed_ / "missing"},
                            {{"create outside, unconfined",
                              [&] { return opened(unconfined, O_WRONLY | O_CREAT | O_EXCL); },
                              {0}}},
                            false),
            "");
}

}  // namespace
