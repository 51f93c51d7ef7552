// The last-resort crash path, run in child processes: message, annotation, abort.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "platform/ExceptionRecord.h"
#include "platform/ProcessServices.h"
#include "platform/ThreadName.h"
#include "platform/linux/FileDescriptor.h"
#include "shared/support/CVCrashTesting.h"
#include "shared/support/CVProcessGuards.h"

namespace {

using platform::ExceptionRecord;
using platform::sys::UniqueFd;

struct ChildOutcome {
  int status = 0;
  std::string standardError;
  std::string report;  // what the child wrote to its report pipe
};

// The child's end of the report pipe; set in the child only.
int reportDescriptor = -1;

std::string readAll(int fd) {
  std::string text;
  char chunk[512];
  for (;;) {
    const ssize_t count = ::read(fd, chunk, sizeof chunk);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(chunk, static_cast<std::size_t>(count));
  }
  return text;
}

// Runs `body` in a forked child whose standard error goes to a pipe, and waits.
ChildOutcome runInChild(const std::function<void()>& body) {
  int errorPipe[2];
  int reportPipe[2];
  if (::pipe(errorPipe) != 0 || ::pipe(reportPipe) != 0) {
    ADD_FAILURE() << "pipe failed";
    return {};
  }
  UniqueFd errorRead(errorPipe[0]), errorWrite(errorPipe[1]);
  UniqueFd reportRead(reportPipe[0]), reportWrite(reportPipe[1]);
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(errorWrite.get(), STDERR_FILENO);
    reportDescriptor = reportWrite.get();
    body();
    ::_exit(0);
  }
  errorWrite.reset();
  reportWrite.reset();
  ChildOutcome outcome;
  if (child < 0) {
    ADD_FAILURE() << "fork failed";
    return outcome;
  }
  outcome.standardError = readAll(errorRead.get());
  outcome.report = readAll(reportRead.get());
  while (::waitpid(child, &outcome.status, 0) < 0 && errno == EINTR) {
  }
  return outcome;
}

bool abortedBySignal(int status) {
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
}

// In place of the abort: report the annotation's contents, then leave.
constexpr int kHookExitCode = 42;
void reportAnnotationAndExit() {
  const platform::CrashAnnotation record = platform::crashAnnotationSnapshot();
  std::string report = "version=" + std::to_string(record.version) + "\n";
  report += record.message != 0 ? "message=" + *platform::crashAnnotationMessage() : "no message";
  [[maybe_unused]] const ssize_t ignored = ::write(reportDescriptor, report.data(), report.size());
  ::_exit(kHookExitCode);
}

TEST(CrashOnExceptionTest, WritesTheFullMessageAndAborts) {
  const ChildOutcome outcome = runInChild([] {
    platform::setCurrentThreadName("worker");
    CVCrashOnException(ExceptionRecord{"BadThing", "it broke", std::vector<std::string>{"a", "b"}});
  });
  EXPECT_TRUE(abortedBySignal(outcome.status)) << "status " << outcome.status;
  EXPECT_EQ(outcome.standardError,
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
  ASSERT_TRUE(WIFEXITED(outcome.status)) << "status " << outcome.status;
  EXPECT_EQ(WEXITSTATUS(outcome.status), kHookExitCode);
  EXPECT_EQ(outcome.report,
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
  EXPECT_EQ(WEXITSTATUS(outcome.status), kHookExitCode);
  EXPECT_EQ(outcome.report,
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
  EXPECT_TRUE(abortedBySignal(reasonOnly.status));
  EXPECT_EQ(reasonOnly.standardError,
            "** INTERNAL ERROR: Uncaught Exception **\nException: just why\nStack:\n\n");

  const ChildOutcome nameOnly = runInChild([] {
    platform::setCurrentThreadName("t");
    CVCrashOnException(ExceptionRecord{"Name", std::nullopt, std::vector<std::string>{}});
  });
  EXPECT_TRUE(abortedBySignal(nameOnly.status));
  EXPECT_EQ(nameOnly.standardError,
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
