// The last-resort crash path, run in child processes: message, annotation, abort.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "platform/ExceptionRecord.h"
#include "platform/ProcessServices.h"
#include "platform/ThreadName.h"
#include "shared/support/CVCrashTesting.h"
#include "shared/support/CVProcessGuards.h"
#include "tests/support/ChildProgram.h"

namespace {

using platform::ExceptionRecord;

using testing_support::ChildOutcome;

// Runs `body` in a forked child: its report (written by the abort hook) and
// the crash handler's message come back as the child's standard output and
// error.
ChildOutcome runInChild(const std::function<void()>& body) {
  return testing_support::runCapturedInChild([&body] {
    body();
    return 0;
  });
}

// In place of the abort: report the annotation's contents, then leave.
constexpr int kHookExitCode = 42;
void reportAnnotationAndExit() {
  const platform::CrashAnnotation record = platform::crashAnnotationSnapshot();
  std::string report = "version=" + std::to_string(record.version) + "\n";
  report += record.message != 0 ? "message=" + *platform::crashAnnotationMessage() : "no message";
  [[maybe_unused]] const ssize_t ignored = ::write(STDOUT_FILENO, report.data(), report.size());
  ::_exit(kHookExitCode);
}

TEST(CrashOnExceptionTest, WritesTheFullMessageAndAborts) {
  const ChildOutcome outcome = runInChild([] {
    platform::setCurrentThreadName("worker");
    CVCrashOnException(ExceptionRecord{"BadThing", "it broke", std::vector<std::string>{"a", "b"}});
  });
  EXPECT_EQ(outcome.signal, SIGABRT) << outcome.describe();
  EXPECT_EQ(outcome.err,
            "** INTERNAL ERROR: Uncaught Exception **\n"
            "Exception: <worker> BadThing: it broke\n"
            "Stack:\n"
            "a\n"
            "b\n");
}

TEST(CrashOnExceptionTest, RecordsTheMessageInTheAnnotation) {
  const ChildOutcome outcome = runInChild([] {
    CVSetCrashAbortHookForTesting(reportAnnotationAndExit);
    platform::setCurrentThreadName("io");
    CVCrashOnException(ExceptionRecord{"Kind", "why", std::vector<std::string>{"frame 0"}});
  });
  EXPECT_EQ(outcome.exitCode, kHookExitCode);
  EXPECT_EQ(outcome.out,
            "version=5\n"
            "message=** INTERNAL ERROR: Uncaught Exception **\n"
            "Exception: <io> Kind: why\n"
            "Stack:\n"
            "frame 0");
}

TEST(CrashOnExceptionTest, MissingPartsLeaveNoPunctuationBehind) {
  const ChildOutcome outcome = runInChild([] {
    CVSetCrashAbortHookForTesting(reportAnnotationAndExit);
    // Never named by the program: the kernel reports the program's name,
    // which is no thread name.
    CVCrashOnException(ExceptionRecord{});
  });
  EXPECT_EQ(outcome.exitCode, kHookExitCode);
  EXPECT_EQ(outcome.out,
            "version=5\n"
            "message=** INTERNAL ERROR: Uncaught Exception **\n"
            "Exception: \n"
            "Stack:\n");
}

TEST(CrashOnExceptionTest, ReasonWithoutNameAndNameWithoutReason) {
  const ChildOutcome reasonOnly = runInChild([] {
    platform::setCurrentThreadName("");
    CVCrashOnException(ExceptionRecord{std::nullopt, "just why", std::nullopt});
  });
  EXPECT_EQ(reasonOnly.signal, SIGABRT) << reasonOnly.describe();
  EXPECT_EQ(reasonOnly.err,
            "** INTERNAL ERROR: Uncaught Exception **\nException: just why\nStack:\n\n");

  const ChildOutcome nameOnly = runInChild([] {
    platform::setCurrentThreadName("t");
    CVCrashOnException(ExceptionRecord{"Name", std::nullopt, std::vector<std::string>{}});
  });
  EXPECT_EQ(nameOnly.signal, SIGABRT) << nameOnly.describe();
  EXPECT_EQ(nameOnly.err,
            "** INTERNAL ERROR: Uncaught Exception **\nException: <t> Name: \nStack:\n\n");
}

TEST(CrashOnExceptionTest, AnnotationIsEmptyUntilACrash) {
  EXPECT_EQ(platform::crashAnnotationMessage(), std::nullopt);
  EXPECT_EQ(platform::crashAnnotationSnapshot().version, platform::kCrashAnnotationVersion);
}

TEST(ExceptionRecordTest, CapturesTheExceptionBeingHandled) {
  try {
    throw std::runtime_error("disk on fire");
  } catch (...) {
    const ExceptionRecord record = ExceptionRecord::fromCurrentException();
    EXPECT_EQ(record.name, "std::runtime_error");
    EXPECT_EQ(record.reason, "disk on fire");
    ASSERT_TRUE(record.callStackSymbols.has_value());
    EXPECT_FALSE(record.callStackSymbols->empty());
  }
  try {
    throw 7;
  } catch (...) {
    const ExceptionRecord record = ExceptionRecord::fromCurrentException();
    EXPECT_EQ(record.name, "int");
    EXPECT_EQ(record.reason, std::nullopt);
  }
  const ExceptionRecord none = ExceptionRecord::fromCurrentException();
  EXPECT_EQ(none.name, std::nullopt);
  EXPECT_EQ(none.reason, std::nullopt);
}

TEST(ThreadNameTest, LongNamesAreCutAtACharacterBoundary) {
  std::string inherited, plain, accented, cleared;
  std::thread([&] {
    inherited = platform::currentThreadName();
    platform::setCurrentThreadName("abcdefghijklmnopqrstuvwxyz");
    plain = platform::currentThreadName();
    // "é" would straddle the 15-byte limit: it goes as a whole.
    platform::setCurrentThreadName("abcdefghijklmn\xC3\xA9z");
    accented = platform::currentThreadName();
    platform::setCurrentThreadName("");
    cleared = platform::currentThreadName();
  }).join();
  EXPECT_EQ(inherited, "");  // the kernel's inherited name is not the thread's
  EXPECT_EQ(plain, "abcdefghijklmno");
  EXPECT_EQ(accented, "abcdefghijklmn");
  EXPECT_EQ(cleared, "");
}

}  // namespace
