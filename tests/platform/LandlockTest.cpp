// Write confinement: inside the allowed directory everything works (renames
// between its directories included), outside it nothing changes, reading goes
// on. Each case runs in a forked child, since a confinement cannot be undone.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "platform/linux/Landlock.h"
#include "tests/support/ChildProgram.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace testing_support;

// Runs `body` in a child (the confinement cannot be undone) and returns
// what it reported: one line per failed expectation, or "" when all held.
std::string inChild(const std::function<std::string()>& body) {
  const testing_support::ChildOutcome outcome = testing_support::runCapturedInChild([&body] {
    const std::string report = body();
    std::fwrite(report.data(), 1, report.size(), stdout);
    return 0;
  });
  return outcome.out + (outcome.exitCode == 0 ? "" : "child did not finish\n");
}

// "" when the call gave `expected` (0 for success), else a line saying what happened.
std::string expectResult(const char* what, int result, int expected) {
  const int got = result == 0 ? 0 : errno;
  if (got == expected) return "";
  return std::string(what) + ": got " + (got == 0 ? "success" : std::to_string(got)) + ", wanted " +
         (expected == 0 ? "success" : std::to_string(expected)) + "\n";
}

int createFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  ::close(fd);
  return 0;
}

class LandlockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (platform::sys::landlockABIVersion() < 2) GTEST_SKIP() << "no usable Landlock here";
    writeFile(allowed_ / "old.txt", "inside");
    writeFile(outside_ / "keep.txt", "outside");
    testing_support::makeDirectories(allowed_ / "sub");
  }

  TemporaryDirectory allowed_;
  TemporaryDirectory outside_;
};

TEST_F(LandlockTest, WritesOnlyBeneathTheAllowedDirectories) {
  const std::string report = inChild([&] {
    CVError error;
    const std::vector<std::string> writable{allowed_.path()};
    if (!platform::sys::confineWritesBeneath(writable, &error))
      return "not confined: " + error.description() + "\n";
    std::string failures;
    // Inside: create, rename between directories, remove.
    failures += expectResult("create inside", createFile(allowed_ / "new.txt"), 0);
    failures += expectResult("mkdir inside", ::mkdir((allowed_ / "dir").c_str(), 0755), 0);
    failures += expectResult(
        "rename inside",
        ::rename((allowed_ / "old.txt").c_str(), (allowed_ / "sub/old.txt").c_str()), 0);
    failures += expectResult("unlink inside", ::unlink((allowed_ / "new.txt").c_str()), 0);
    // Outside: no creation, removal, writing or renaming in or out.
    failures += expectResult("create outside", createFile(outside_ / "new.txt"), EACCES);
    failures += expectResult("mkdir outside", ::mkdir((outside_ / "dir").c_str(), 0755), EACCES);
    failures += expectResult("unlink outside", ::unlink((outside_ / "keep.txt").c_str()), EACCES);
    const int writer = ::open((outside_ / "keep.txt").c_str(), O_WRONLY | O_CLOEXEC);
    failures += expectResult("open for writing outside", writer < 0 ? -1 : 0, EACCES);
    if (writer >= 0) ::close(writer);
    const int moved = ::rename((outside_ / "keep.txt").c_str(), (allowed_ / "stolen.txt").c_str());
    if (moved == 0 || (errno != EACCES && errno != EXDEV))
      failures += "rename out of the outside directory was not refused\n";
    // Reading is not confined.
    const int reader = ::open((outside_ / "keep.txt").c_str(), O_RDONLY | O_CLOEXEC);
    failures += expectResult("read outside", reader < 0 ? -1 : 0, 0);
    if (reader >= 0) ::close(reader);
    return failures;
  });
  EXPECT_EQ(report, "");
  EXPECT_EQ(readFile(outside_ / "keep.txt"), "outside");
  EXPECT_FALSE(pathExists(outside_ / "new.txt"));
  EXPECT_EQ(readFile(allowed_ / "sub/old.txt"), "inside");
}

TEST_F(LandlockTest, ARuleThatCannotBeMadeConfinesNothingAndNamesThePath) {
  const std::string missing = allowed_ / "missing";
  const std::string report = inChild([&] {
    CVError error;
    const std::vector<std::string> writable{allowed_.path(), missing};
    if (platform::sys::confineWritesBeneath(writable, &error)) return std::string("confined\n");
    std::string failures;
    if (error.localizedDescription().find(missing) == std::string::npos)
      failures += "error does not name the path: " + error.description() + "\n";
    if (platform::sys::isConfinementUnavailable(error))
      failures += "a missing path is reported as no Landlock\n";
    failures += expectResult("create outside, unconfined", createFile(outside_ / "free.txt"), 0);
    return failures;
  });
  EXPECT_EQ(report, "");
}

}  // namespace
