// The error callback of removeItemAtURL, driven directly: which error number
// it keeps and what it logs.
#include <gtest/gtest.h>

#include <cerrno>

#include "platform/linux/TreeWipe.h"
#include "shared/filemanager/CVTreeWipeErrorCallback.h"
#include "tests/support/TestSupport.h"

namespace {

namespace sys = platform::sys;
using filemanager_detail::treewipe_error_callback;
using namespace testing_support;

int report(sys::TreeWipeState* state, int errorNumber, const char* path, int* firstError) {
  EXPECT_EQ(sys::treeWipeStateSetErrorNumber(state, errorNumber), 0);
  return treewipe_error_callback(state, path, firstError);
}

TEST(TreeWipeErrorCallbackTest, KeepsOnlyTheFirstNumberAndLogsAllButVanishedEntries) {
  CapturedLog log(platform::installerLog());
  const sys::TreeWipeStatePtr state = sys::treeWipeStateAlloc();
  int firstError = 0;

  EXPECT_EQ(report(state.get(), EACCES, "/r/a", &firstError), sys::kTreeWipeProceed);
  EXPECT_EQ(report(state.get(), EPERM, "/r/b", &firstError), sys::kTreeWipeProceed);
  EXPECT_EQ(report(state.get(), ENOENT, "/r/c", &firstError), sys::kTreeWipeProceed);

  EXPECT_EQ(firstError, EACCES);
  ASSERT_EQ(log.count(), 2u) << log.dump();
  EXPECT_TRUE(log.contains(3, "treewipe hit error for /r/a : Permission denied"));
  EXPECT_TRUE(log.contains(3, "treewipe hit error for /r/b : Operation not permitted"));
  EXPECT_EQ(log.lines()[0].function, "_treewipe_error_callback");
}

TEST(TreeWipeErrorCallbackTest, AFirstVanishedEntryMasksLaterFailures) {
  CapturedLog log(platform::installerLog());
  const sys::TreeWipeStatePtr state = sys::treeWipeStateAlloc();
  int firstError = 0;

  EXPECT_EQ(report(state.get(), ENOENT, "/r/gone", &firstError), sys::kTreeWipeProceed);
  EXPECT_EQ(report(state.get(), EPERM, "/r/locked", &firstError), sys::kTreeWipeProceed);

  // removeItemAtURL treats a kept ENOENT as success.
  EXPECT_EQ(firstError, ENOENT);
  EXPECT_EQ(log.messages(),
            std::vector<std::string>{"treewipe hit error for /r/locked : Operation not permitted"});
}

TEST(TreeWipeErrorCallbackTest, UnreadableErrorNumberCountsAsVanished) {
  CapturedLog log(platform::installerLog());
  int firstError = 0;

  EXPECT_EQ(treewipe_error_callback(nullptr, "/r/x", &firstError), sys::kTreeWipeProceed);

  EXPECT_EQ(firstError, ENOENT);
  EXPECT_TRUE(log.contains(3, "treewipe hit error for /r/x but we failed to get the error number"))
      << log.dump();
}

TEST(TreeWipeErrorCallbackTest, WorksWithoutAContext) {
  const sys::TreeWipeStatePtr state = sys::treeWipeStateAlloc();
  CapturedLog log(platform::installerLog());
  EXPECT_EQ(report(state.get(), EIO, "/r/y", nullptr), sys::kTreeWipeProceed);
  EXPECT_TRUE(log.contains(3, "treewipe hit error for /r/y : Input/output error"));
}

}  // namespace
