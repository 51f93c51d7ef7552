// CVFileManager's removal and the tree wipe beneath it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/TreeWipe.h"
#include "shared/filemanager/CVFileManager.h"
#include "shared/filemanager/CVTreeWipeErrorCallback.h"
#include "tests/filemanager/FileManagerTestHelpers.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace filemanager_test;
using namespace testing_support;
namespace sys = platform::sys;
using filemanager_detail::treewipe_error_callback;

constexpr const char* kRemoveFunction = "-[CVFileManager removeItemAtURL:error:]";
constexpr const char* kCallbackFunction = "_treewipe_error_callback";

using RemoveItemTest = FileManagerFixture;

TEST_F(RemoveItemTest, FilesLinksAndMissingPathsGoWithoutTouchingWhatLinksPointTo) {
  writeFile(temp_ / "file", "contents");
  writeFile(temp_ / "target/keep", "kept");
  makeSymlink(temp_ / "target", temp_ / "link");
  CapturedLog log(platform::installerLog());
  CVError error = sentinelError();
  EXPECT_TRUE(manager_.removeItemAtURL(url("absent/"), &error));
  EXPECT_TRUE(manager_.removeItemAtURL(url("file"), &error));
  // Marked as a directory URL, as a caller who trusts the link might pass it.
  EXPECT_TRUE(manager_.removeItemAtURL(url("link/"), &error));
  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(entriesOf(temp_.path()), std::vector<std::string>{"target"});
  EXPECT_EQ(readFile(temp_ / "target/keep"), "kept");

  // A nil URL and a path through a file fail, logging nothing.
  EXPECT_FALSE(manager_.removeItemAtURL(CVURL(), &error));
  expectPosixError(error, EFAULT, "nil url passed to -removeItemAtURL:error:", kRemoveFunction);
  EXPECT_FALSE(manager_.removeItemAtURL(CVURL(), nullptr));
  const CVURL below = url("target/keep/below");
  EXPECT_FALSE(manager_.removeItemAtURL(below, &error));
  expectPosixError(error, ENOTDIR,
                   "treewipe of " + below.description() + " failed: Not a directory",
                   kRemoveFunction);
  EXPECT_EQ(readFile(temp_ / "target/keep"), "kept");
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

// The deep tree is longer than PATH_MAX and deeper than the descriptors the
// walk may hold with the limit lowered.
TEST_F(RemoveItemTest, RemovesAWholeTreeWithoutFollowingLinksOutOfIt) {
  writeFile(temp_ / "outside/file", "outside");
  makeDirectories(temp_ / "root/a/empty");
  writeFile(temp_ / "root/a/b/c/file", "x");
  for (int i = 0; i < 500; ++i)
    writeFile(temp_ / ("root/a/many-" + std::to_string(i)), "");
  ASSERT_EQ(::mkfifo((temp_ / "root/a/fifo").c_str(), 0600), 0);
  makeSymlink(temp_ / "outside", temp_ / "root/link-to-directory");
  makeSymlink(temp_ / "outside", temp_ / "root/a/sub");  // a link standing in for a directory
  makeSymlink(temp_ / "outside/file", temp_ / "root/a/b/link-to-file");
  makeSymlink(temp_ / "nowhere", temp_ / "root/dangling");
  makeDirectories(temp_ / "deep");
  makeDeepTree(temp_ / "deep", 3000);
  {
    // Few descriptors are in use at this point; leave room for a handful.
    const sys::UniqueFd probe(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_LT(probe.get(), 24);
  }
  CapturedLog log(platform::installerLog());
  CVError error = sentinelError();
  EXPECT_TRUE(manager_.removeItemAtURL(url("root/"), &error));
  {
    ScopedDescriptorLimit limit(32);
    EXPECT_TRUE(manager_.removeItemAtURL(url("deep/"), &error));
  }
  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(log.count(), 0u) << log.dump().substr(0, 1000);
  EXPECT_EQ(entriesOf(temp_.path()), std::vector<std::string>{"outside"});
  EXPECT_EQ(entriesOf(temp_ / "outside"), std::vector<std::string>{"file"});
  EXPECT_EQ(readFile(temp_ / "outside/file"), "outside");
}

TEST_F(RemoveItemTest, UndeletableEntryFailsWithItsErrorAfterRemovingEverythingElse) {
  writeFile(temp_ / "root/gone/x/y/z", "");
  writeFile(temp_ / "root/file", "");
  writeFile(temp_ / "root/keep/other", "");
  writeFile(temp_ / "root/keep/locked", "");
  makeImmutable(temp_ / "root/keep/locked");
  const CVURL url = temp_.directoryURL("root");
  CapturedLog log(platform::installerLog());
  CVError error;
  EXPECT_FALSE(manager_.removeItemAtURL(url, &error));
  expectPosixError(error, EPERM,
                   "treewipe of " + url.description() + " failed: Operation not permitted",
                   kRemoveFunction);
  // What could go is gone; the locked file keeps its directories.
  EXPECT_EQ(entriesOf(temp_ / "root"), std::vector<std::string>{"keep"});
  EXPECT_EQ(entriesOf(temp_ / "root/keep"), std::vector<std::string>{"locked"});
  EXPECT_EQ(
      log.messages(),
      (std::vector<std::string>{
          "treewipe hit error for " + (temp_ / "root/keep/locked") + " : Operation not permitted",
          "treewipe hit error for " + (temp_ / "root/keep") + " : Directory not empty",
          "treewipe hit error for " + (temp_ / "root") + " : Directory not empty"}));
  for (const auto& line : log.lines())
    EXPECT_EQ(line.function, kCallbackFunction);

  // Without a callback, as the recovery of an interrupted run uses it: the
  // first error after removing the rest.
  writeFile(temp_ / "root/sub/deeper/file", "");
  errno = 0;
  EXPECT_EQ(sys::treeWipe((temp_ / "root").c_str(), nullptr, sys::kTreeWipeRecursive), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(entriesOf(temp_ / "root"), std::vector<std::string>{"keep"});
  EXPECT_EQ(entriesOf(temp_ / "root/keep"), std::vector<std::string>{"locked"});
  errno = 0;
  EXPECT_EQ(sys::treeWipe((temp_ / "absent").c_str(), nullptr, sys::kTreeWipeRecursive), -1);
  EXPECT_EQ(errno, ENOENT);
}

using Report = std::pair<std::string, int>;  // path, error number

// Records every report and lets the test act on the tree when called.
struct Recorder {
  std::vector<Report> reports;
  std::function<void(const std::string& path)> onReport;
  sys::TreeWipeStatePtr state = sys::treeWipeStateAlloc();

  Recorder() {
    EXPECT_EQ(sys::treeWipeStateSetErrorCallback(state.get(), &Recorder::callback), 0);
    EXPECT_EQ(sys::treeWipeStateSetErrorContext(state.get(), this), 0);
  }
  static int callback(sys::TreeWipeState* wipeState, const char* path, void* context) {
    auto* self = static_cast<Recorder*>(context);
    int errorNumber = 0;
    EXPECT_EQ(sys::treeWipeStateGetErrorNumber(wipeState, &errorNumber), 0);
    self->reports.emplace_back(path, errorNumber);
    if (self->onReport) self->onReport(path);
    return sys::kTreeWipeProceed;
  }
  int wipe(const std::string& path) {
    return sys::treeWipe(path.c_str(), state.get(), sys::kTreeWipeRecursive);
  }
};

// The locked file is reported while "root" is being read, after "sub" has
// been seen as a directory and before the walk goes into it: "sub" is then
// swapped for a link to a canary, and a sibling directory vanishes.
TEST(TreeWipeTest, LinkSwappedInOrEntryVanishedDuringTheWalkIsNotFollowed) {
  TemporaryDirectory temp;
  writeFile(temp / "canary/keep", "kept");
  writeFile(temp / "root/sub/file", "");
  makeDirectories(temp / "root/vanishing");
  writeFile(temp / "root/locked", "");
  makeImmutable(temp / "root/locked");
  Recorder recorder;
  recorder.onReport = [&](const std::string& path) {
    if (path != temp / "root/locked") return;
    ASSERT_EQ(std::rename((temp / "root/sub").c_str(), (temp / "moved-sub").c_str()), 0);
    makeSymlink(temp / "canary", temp / "root/sub");
    ASSERT_EQ(::rmdir((temp / "root/vanishing").c_str()), 0);
  };
  EXPECT_EQ(recorder.wipe(temp / "root"), 0);
  EXPECT_EQ(readFile(temp / "canary/keep"), "kept");
  EXPECT_EQ(entriesOf(temp / "root"), std::vector<std::string>{"locked"});
  EXPECT_TRUE(pathExists(temp / "moved-sub/file"));
  EXPECT_EQ(recorder.reports, (std::vector<Report>{{temp / "root/locked", EPERM},
                                                   {temp / "root/vanishing", ENOENT},
                                                   {temp / "root", ENOTEMPTY}}));
}

std::string repeat(const std::string& piece, int times) {
  std::string result;
  for (int i = 0; i < times; ++i)
    result += piece;
  return result;
}

// While the walk is 300 levels down, the ancestors near the root have their
// descriptors closed. A directory among them is moved out of the tree: the
// way back up must notice that ".." now leads elsewhere, finish the rest of
// the tree from the root, and leave the directory it was moved to alone.
TEST(TreeWipeTest, DirectoryMovedOutOfTheTreeBelowClosedAncestorsIsNotFollowedOut) {
  TemporaryDirectory temp;
  makeDirectories(temp / "root");
  makeDeepTree(temp / "root", 300);
  const std::string level9 = temp / "root" + repeat("/d", 9);
  writeFile(level9 + "/sibling/file", "");
  writeFile(temp / "outside/keep", "kept");
  const std::string deepest = temp / "root" + repeat("/d", 300);
  makeImmutable(deepest + "/leaf");
  Recorder recorder;
  recorder.onReport = [&](const std::string& path) {
    if (path != deepest + "/leaf") return;
    ASSERT_EQ(std::rename((level9 + "/d").c_str(), (temp / "outside/moved").c_str()), 0);
  };
  EXPECT_EQ(recorder.wipe(temp / "root"), 0);
  EXPECT_FALSE(pathExists(temp / "root"));
  EXPECT_EQ(entriesOf(temp / "outside"), (std::vector<std::string>{"keep", "moved"}));
  EXPECT_EQ(readFile(temp / "outside/keep"), "kept");
  EXPECT_TRUE(pathExists(temp / "outside/moved" + repeat("/d", 290) + "/leaf"));
  EXPECT_TRUE(std::ranges::count(recorder.reports, Report(level9 + "/d", ENOENT)));
}

// Keeps the first error number, logs every report but a vanished entry, and
// counts an unreadable number as vanished; removeItemAtURL treats a kept
// ENOENT as success.
TEST(TreeWipeErrorCallbackTest, KeepsTheFirstNumberAndLogsAllButVanishedEntries) {
  const sys::TreeWipeStatePtr state = sys::treeWipeStateAlloc();
  // ((error number or 0 for none, path) reported, first error kept, lines)
  using Reports = std::vector<std::pair<int, const char*>>;
  const std::vector<std::tuple<Reports, int, std::vector<std::string>>> cases = {
      {{{EACCES, "/r/a"}, {EPERM, "/r/b"}, {ENOENT, "/r/c"}},
       EACCES,
       {"treewipe hit error for /r/a : Permission denied",
        "treewipe hit error for /r/b : Operation not permitted"}},
      {{{ENOENT, "/r/gone"}, {EPERM, "/r/locked"}},
       ENOENT,
       {"treewipe hit error for /r/locked : Operation not permitted"}},
      {{{0, "/r/x"}},
       ENOENT,
       {"treewipe hit error for /r/x but we failed to get the error number"}},
      {{{-EIO, "/r/y"}}, 0, {"treewipe hit error for /r/y : Input/output error"}},
  };
  for (const auto& [reports, expectedFirstError, messages] : cases) {
    CapturedLog log(platform::installerLog());
    int firstError = 0;
    for (const auto& [number, path] : reports) {
      // A negative number is reported without a context.
      if (number != 0) {
        EXPECT_EQ(sys::treeWipeStateSetErrorNumber(state.get(), std::abs(number)), 0);
      }
      EXPECT_EQ(treewipe_error_callback(number ? state.get() : nullptr, path,
                                        number < 0 ? nullptr : &firstError),
                sys::kTreeWipeProceed);
    }
    EXPECT_EQ(firstError, expectedFirstError);
    EXPECT_EQ(log.messages(), messages);
    for (const auto& line : log.lines())
      EXPECT_EQ(std::tuple(line.level, line.function),
                std::tuple(3, std::string(kCallbackFunction)));
  }
}

}  // namespace
