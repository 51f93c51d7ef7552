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
// the crash handler's message come back as the child's standard output and error.
ChildOutcome runInChild(const std::function<void()>& body) {
  return testing_support::runCapturedInChild([&body] { return body(), 0; });
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

// The message reaches the standard error and the annotation before the
// abort; missing parts leave no punctuation behind, and a thread never named
// by the program (the kernel reports the program's name) has no name in it.
TEST(CrashOnExceptionTest, WritesTheFullMessageAndAborts) {
  EXPECT_EQ(platform::crashAnnotationMessage(), std::nullopt) << "empty until a crash";
  const struct {
    const char* thread;  // nullptr: never named
    ExceptionRecord record;
    const char* message;
  } cases[] = {
      {"worker", ExceptionRecord{"BadThing", "it broke", std::vector<std::string>{"a", "b"}},
       "Exception: <worker> BadThing: it broke\nStack:\na\nb"},
      {"", ExceptionRecord{std::nullopt, "just why", std::nullopt},
       "Exception: just why\nStack:\n"},
      {"t", ExceptionRecord{"Name", std::nullopt, std::vector<std::string>{}},
       "Exception: <t> Name: \nStack:\n"},
      {nullptr, ExceptionRecord{}, "Exception: \nStack:\n"},
  };
  const std::string header = "** INTERNAL ERROR: Uncaught Exception **\n";
  for (const auto& each : cases) {
    const ChildOutcome outcome = runInChild([&each] {
      CVSetCrashAbortHookForTesting(reportAnnotationAndExit);
      if (each.thread) platform::setCurrentThreadName(each.thread);
      CVCrashOnException(each.record);
    });
    EXPECT_EQ(std::tuple(outcome.exitCode, outcome.err, outcome.out),
              std::tuple(kHookExitCode, header + each.message + "\n",
                         "version=5\nmessage=" + header + each.message));
  }
  EXPECT_EQ(runInChild([] { CVCrashOnException(ExceptionRecord{}); }).signal, SIGABRT);
  EXPECT_EQ(platform::crashAnnotationSnapshot().version, platform::kCrashAnnotationVersion);
}

TEST(ExceptionRecordTest, CapturesTheExceptionBeingHandled) {
  try {
    throw std::runtime_error("disk on fire");
  } catch (...) {
    const ExceptionRecord record = ExceptionRecord::fromCurrentException();
    EXPECT_EQ(std::tuple(record.name, record.reason),
              std::tuple("std::runtime_error", "disk on fire"));
    EXPECT_FALSE(record.callStackSymbols.value_or(std::vector<std::string>{}).empty());
  }
  try {
    throw 7;
  } catch (...) {
    const ExceptionRecord record = ExceptionRecord::fromCurrentException();
    EXPECT_EQ(std::tuple(record.name, record.reason), std::tuple("int", std::nullopt));
  }
  const ExceptionRecord none = ExceptionRecord::fromCurrentException();
  EXPECT_EQ(std::tuple(none.name, none.reason), std::tuple(std::nullopt, std::nullopt));
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
