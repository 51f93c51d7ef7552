// CVFileManager removal: single items, whole trees (with the error callback and
// the immutable and deep cases), and what is logged.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/Value.h"
#include "platform/linux/FileDescriptor.h"
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

// ---- removeItemAtURL: files, links, whole trees and their errors.
constexpr const char* kRemoveFunction = "-[CVFileManager removeItemAtURL:error:]";
constexpr const char* kCallbackFunction = "_treewipe_error_callback";

class RemoveItemTest : public ::testing::Test {
 protected:
  CVFileManager& manager_ = CVFileManager::defaultManager();
  TemporaryDirectory temp_;
};

TEST_F(RemoveItemTest, FilesLinksAndMissingPathsGoWithoutTouchingWhatLinksPointTo) {
  writeFile(temp_ / "file", "contents");
  writeFile(temp_ / "target/keep", "kept");
  makeSymlink(temp_ / "target", temp_ / "link");
  CapturedLog log(platform::installerLog());
  CVError error = sentinelError();

  EXPECT_TRUE(manager_.removeItemAtURL(temp_.directoryURL("absent"), &error));
  EXPECT_TRUE(manager_.removeItemAtURL(temp_.fileURL("file"), &error));
  // Marked as a directory URL, as a caller who trusts the link might pass it.
  EXPECT_TRUE(manager_.removeItemAtURL(temp_.directoryURL("link"), &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(entryNames(temp_.path()), std::set<std::string>{"target"});
  EXPECT_EQ(readFile(temp_ / "target/keep"), "kept");
  EXPECT_EQ(log.count(), 0u) << log.dump();

  // A nil URL and a path through a file fail, logging nothing.
  EXPECT_FALSE(manager_.removeItemAtURL(CVURL(), &error));
  expectPosixError(error, EFAULT, "nil url passed to -removeItemAtURL:error:", kRemoveFunction);
  EXPECT_FALSE(manager_.removeItemAtURL(CVURL(), nullptr));
  const CVURL below = temp_.fileURL("target/keep/below");
  EXPECT_FALSE(manager_.removeItemAtURL(below, &error));
  expectPosixError(error, ENOTDIR,
                   "treewipe of " + below.description() + " failed: Not a directory",
                   kRemoveFunction);
  EXPECT_EQ(readFile(temp_ / "target/keep"), "kept");
  EXPECT_EQ(log.count(), 0u) << log.dump();
}

TEST_F(RemoveItemTest, RemovesAWholeTreeWithoutFollowingLinksOutOfIt) {
  writeFile(temp_ / "outside/file", "outside");
  makeDirectories(temp_ / "root/a/b/c");
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
  makeDeepTree(temp_ / "deep", 3000);  // deeper than PATH_MAX and the descriptor window
  CVError error = sentinelError();

  EXPECT_TRUE(manager_.removeItemAtURL(temp_.directoryURL("root"), &error));
  EXPECT_TRUE(manager_.removeItemAtURL(temp_.directoryURL("deep"), &error));

  EXPECT_EQ(error, sentinelError());
  EXPECT_EQ(entryNames(temp_.path()), std::set<std::string>{"outside"});
  EXPECT_EQ(entryNames(temp_ / "outside"), std::set<std::string>{"file"});
  EXPECT_EQ(readFile(temp_ / "outside/file"), "outside");
}

TEST_F(RemoveItemTest, UndeletableEntryFailsWithItsErrorAfterRemovingEverythingElse) {
  makeDirectories(temp_ / "root/gone/x/y");
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
  EXPECT_EQ(entryNames(temp_ / "root"), std::set<std::string>{"keep"});
  EXPECT_EQ(entryNames(temp_ / "root/keep"), std::set<std::string>{"locked"});
  EXPECT_TRUE(log.contains(
      3, "treewipe hit error for " + (temp_ / "root/keep/locked") + " : Operation not permitted"))
      << log.dump();
  EXPECT_TRUE(
      log.contains(3, "treewipe hit error for " + (temp_ / "root/keep") + " : Directory not empty"))
      << log.dump();
  for (const auto& line : log.lines())
    EXPECT_EQ(line.function, kCallbackFunction);
}

using Report = std::pair<std::string, int>;  // path, error number

// Records every report; can act on the tree when called.
struct Recorder {
  std::vector<Report> reports;
  std::function<void(const std::string& path)> onReport;

  static int callback(sys::TreeWipeState* state, const char* path, void* context) {
    auto* self = static_cast<Recorder*>(context);
    int errorNumber = 0;
    EXPECT_EQ(sys::treeWipeStateGetErrorNumber(state, &errorNumber), 0);
    self->reports.emplace_back(path, errorNumber);
    if (self->onReport) self->onReport(path);
    return sys::kTreeWipeProceed;
  }

  sys::TreeWipeStatePtr install() {
    sys::TreeWipeStatePtr state = sys::treeWipeStateAlloc();
    EXPECT_EQ(sys::treeWipeStateSetErrorCallback(state.get(), &Recorder::callback), 0);
    EXPECT_EQ(sys::treeWipeStateSetErrorContext(state.get(), this), 0);
    return state;
  }

  bool reported(const std::string& path, int errorNumber) const {
    for (const Report& report : reports) {
      if (report == Report(path, errorNumber)) return true;
    }
    return false;
  }
};

std::string repeat(const std::string& part, int times) {
  std::string result;
  for (int i = 0; i < times; ++i)
    result += part;
  return result;
}

class TreeWipeTest : public ::testing::Test {
 protected:
  TemporaryDirectory temp_;
};

// As the recovery of an interrupted run uses it, without a callback.
TEST_F(TreeWipeTest, WithoutCallbackReturnsTheFirstErrorAfterRemovingTheRest) {
  writeFile(temp_ / "root/sub/deeper/file", "");
  writeFile(temp_ / "root/locked", "");
  makeImmutable(temp_ / "root/locked");
  errno = 0;
  EXPECT_EQ(sys::treeWipe((temp_ / "root").c_str(), nullptr, sys::kTreeWipeRecursive), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(entryNames(temp_ / "root"), std::set<std::string>{"locked"});
  errno = 0;
  EXPECT_EQ(sys::treeWipe((temp_ / "absent").c_str(), nullptr, sys::kTreeWipeRecursive), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(TreeWipeTest, RemovesATreeDeeperThanTheDescriptorLimit) {
  makeDirectories(temp_ / "deep");
  makeDeepTree(temp_ / "deep", 600);
  {
    // Few descriptors are in use at this point; leave room for a handful.
    const sys::UniqueFd probe(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_LT(probe.get(), 24);
  }
  Recorder recorder;
  const sys::TreeWipeStatePtr state = recorder.install();
  int result = 0;
  {
    ScopedDescriptorLimit limit(32);
    result = sys::treeWipe((temp_ / "deep").c_str(), state.get(), sys::kTreeWipeRecursive);
  }

  EXPECT_EQ(result, 0);
  EXPECT_TRUE(recorder.reports.empty()) << recorder.reports.front().first.substr(0, 200);
  EXPECT_FALSE(pathExists(temp_ / "deep"));
}

TEST_F(TreeWipeTest, LinkSwappedInForADirectoryDuringTheWalkIsRemovedNotFollowed) {
  makeDirectories(temp_ / "canary");
  writeFile(temp_ / "canary/keep", "kept");
  makeDirectories(temp_ / "root/sub");
  writeFile(temp_ / "root/sub/file", "");
  writeFile(temp_ / "root/locked", "");
  makeImmutable(temp_ / "root/locked");
  // The locked file is reported while "root" is being read, after "sub" has
  // been seen as a directory and before the walk goes into it: swap it then.
  Recorder recorder;
  recorder.onReport = [&](const std::string& path) {
    if (path != temp_ / "root/locked") return;
    ASSERT_EQ(std::rename((temp_ / "root/sub").c_str(), (temp_ / "moved-sub").c_str()), 0);
    makeSymlink(temp_ / "canary", temp_ / "root/sub");
  };
  const sys::TreeWipeStatePtr state = recorder.install();

  EXPECT_EQ(sys::treeWipe((temp_ / "root").c_str(), state.get(), sys::kTreeWipeRecursive), 0);

  EXPECT_EQ(readFile(temp_ / "canary/keep"), "kept");
  EXPECT_EQ(entryNames(temp_ / "root"), std::set<std::string>{"locked"});
  EXPECT_TRUE(pathExists(temp_ / "moved-sub/file"));
  EXPECT_EQ(recorder.reports,
            (std::vector<Report>{{temp_ / "root/locked", EPERM}, {temp_ / "root", ENOTEMPTY}}));
}

TEST_F(TreeWipeTest, EntryVanishingDuringTheWalkIsReportedAsENOENT) {
  makeDirectories(temp_ / "root/vanishing");
  writeFile(temp_ / "root/locked", "");
  makeImmutable(temp_ / "root/locked");
  Recorder recorder;
  recorder.onReport = [&](const std::string& path) {
    if (path == temp_ / "root/locked") ::rmdir((temp_ / "root/vanishing").c_str());
  };
  const sys::TreeWipeStatePtr state = recorder.install();

  EXPECT_EQ(sys::treeWipe((temp_ / "root").c_str(), state.get(), sys::kTreeWipeRecursive), 0);

  EXPECT_TRUE(recorder.reported(temp_ / "root/vanishing", ENOENT));
}

// While the walk is 300 levels down, the ancestors near the root have their
// descriptors closed. A directory among them is moved out of the tree: the
// way back up must notice that ".." now leads elsewhere, finish the rest of
// the tree from the root, and leave the directory it was moved to alone.
TEST_F(TreeWipeTest, DirectoryMovedOutOfTheTreeBelowClosedAncestorsIsNotFollowedOut) {
  makeDirectories(temp_ / "root");
  makeDeepTree(temp_ / "root", 300);
  const std::string level9 = temp_ / "root" + repeat("/d", 9);
  makeDirectories(level9 + "/sibling");
  writeFile(level9 + "/sibling/file", "");
  makeDirectories(temp_ / "outside");
  writeFile(temp_ / "outside/keep", "kept");
  const std::string deepest = temp_ / "root" + repeat("/d", 300);
  makeImmutable(deepest + "/leaf");

  Recorder recorder;
  recorder.onReport = [&](const std::string& path) {
    if (path != deepest + "/leaf") return;
    ASSERT_EQ(std::rename((level9 + "/d").c_str(), (temp_ / "outside/moved").c_str()), 0);
  };
  const sys::TreeWipeStatePtr state = recorder.install();

  EXPECT_EQ(sys::treeWipe((temp_ / "root").c_str(), state.get(), sys::kTreeWipeRecursive), 0);

  EXPECT_FALSE(pathExists(temp_ / "root"));
  EXPECT_EQ(entryNames(temp_ / "outside"), (std::set<std::string>{"keep", "moved"}));
  EXPECT_EQ(readFile(temp_ / "outside/keep"), "kept");
  EXPECT_TRUE(pathExists(temp_ / "outside/moved" + repeat("/d", 290) + "/leaf"));
  EXPECT_TRUE(recorder.reported(level9 + "/d", ENOENT));
}

int report(sys::TreeWipeState* state, int errorNumber, const char* path, int* firstError) {
  EXPECT_EQ(sys::treeWipeStateSetErrorNumber(state, errorNumber), 0);
  return treewipe_error_callback(state, path, firstError);
}

// Keeps the first error number, logs every report but a vanished entry, and
// counts an unreadable number as vanished; removeItemAtURL treats a kept
// ENOENT as success.
TEST(TreeWipeErrorCallbackTest, KeepsTheFirstNumberAndLogsAllButVanishedEntries) {
  const sys::TreeWipeStatePtr state = sys::treeWipeStateAlloc();
  const struct {
    std::vector<std::pair<int, const char*>> reports;  // (error number or 0 for none, path)
    int firstError;
    std::vector<std::string> messages;
  } cases[] = {
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
  };
  for (const auto& each : cases) {
    CapturedLog log(platform::installerLog());
    int firstError = 0;
    for (const auto& [number, path] : each.reports) {
      EXPECT_EQ(number ? report(state.get(), number, path, &firstError)
                       : treewipe_error_callback(nullptr, path, &firstError),
                sys::kTreeWipeProceed);
    }
    EXPECT_EQ(firstError, each.firstError);
    EXPECT_EQ(log.messages(), each.messages);
    for (const auto& line : log.lines())
      EXPECT_EQ(std::tuple(line.level, line.function),
                std::tuple(3, std::string(kCallbackFunction)));
  }
  // Without a context the report is still logged.
  CapturedLog log(platform::installerLog());
  EXPECT_EQ(report(state.get(), EIO, "/r/y", nullptr), sys::kTreeWipeProceed);
  EXPECT_EQ(log.messages(),
            std::vector<std::string>{"treewipe hit error for /r/y : Input/output error"});
}

}  // namespace
