// The process guards: counted high-usage assertions, transactional tasks and
// the last-resort crash path (run in child processes: message, annotation, abort).
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/ExceptionRecord.h"
#include "platform/ProcessServices.h"
#include "platform/ThreadName.h"
#include "shared/support/CVCrashTesting.h"
#include "shared/support/CVProcessGuards.h"
#include "tests/support/ChildProgram.h"

namespace {

using platform::cpuUsageMonitorRecord;
using platform::DispatchQueue;
using platform::ExceptionRecord;
using platform::transactionCount;
using testing_support::runCapturedInChild;

TEST(ResourceAssertionTest, AssertionsNestAndAnUnmatchedClearGoesNegative) {
  const auto before = cpuUsageMonitorRecord();
  using Calls = std::tuple<std::uint64_t, std::uint64_t, bool>;  // disables, restores, lifted
  const auto calls = [&before] {
    const auto record = cpuUsageMonitorRecord();
    EXPECT_EQ(record.lastProcessId, ::getpid());
    return Calls(record.disableCalls - before.disableCalls,
                 record.restoreCalls - before.restoreCalls, record.disabled);
  };
  EXPECT_EQ(CVAssertHighResourceUsage(), 0);  // the platform call's result
  EXPECT_EQ(calls(), Calls(1, 0, true));
  EXPECT_EQ(CVAssertHighResourceUsage(), 2);
  EXPECT_EQ(CVClearResourceAssertion(), 1);
  EXPECT_EQ(calls(), Calls(1, 0, true)) << "an inner clear must leave the monitor lifted";
  EXPECT_EQ(CVClearResourceAssertion(), 0);  // the platform call's result
  EXPECT_EQ(calls(), Calls(1, 1, false));

  // Without an assertion: no platform call, and back to zero by counting up
  // (0 is the new count here, not a platform call).
  EXPECT_EQ(CVClearResourceAssertion(), -1);
  EXPECT_EQ(CVAssertHighResourceUsage(), 0);
  EXPECT_EQ(calls(), Calls(1, 1, false));
}

TEST(ResourceAssertionTest, CountStaysExactUnderConcurrentUse) {
  ASSERT_EQ(CVAssertHighResourceUsage(), 0);  // held: nobody else reaches 0 or 1
  const auto held = cpuUsageMonitorRecord();
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([] {
        for (int i = 0; i < 2'000; ++i) {
          CVAssertHighResourceUsage();
          CVClearResourceAssertion();
        }
      });
    }
  }
  const auto after = cpuUsageMonitorRecord();
  EXPECT_EQ(after.disableCalls, held.disableCalls);
  EXPECT_EQ(after.restoreCalls, held.restoreCalls);
  // A lost update would leave the count above or below 1 here.
  EXPECT_EQ(CVClearResourceAssertion(), 0);
  EXPECT_EQ(cpuUsageMonitorRecord().restoreCalls, held.restoreCalls + 1);
}

// A gate holds the queue while the tasks are submitted. A task may queue
// more work, which still runs before the queue goes; an empty task still
// pairs its transaction; a task is kept alive until it has run, then released.
TEST(TransactionalTaskTest, EachTaskHasATransactionFromSubmissionUntilItHasRun) {
  const std::int64_t before = transactionCount();
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  std::vector<std::int64_t> seenByTasks;
  std::vector<int> ran;
  std::weak_ptr<int> watch;
  {
    DispatchQueue queue("cv.test.gate");
    CVRunTransactionalTask(queue, [opened] { opened.wait(); });
    for (int i = 0; i < 3; ++i)
      CVRunTransactionalTask(queue, [&seenByTasks] { seenByTasks.push_back(transactionCount()); });
    auto state = std::make_shared<int>(41);
    watch = state;
    CVRunTransactionalTask(queue, [state, &ran] { ran.push_back(*state); });
    state.reset();  // the caller lets go before the task has run
    CVRunTransactionalTask(queue,
                           [&] { CVRunTransactionalTask(queue, [&ran] { ran.push_back(42); }); });
    CVRunTransactionalTask(queue, std::function<void()>());
    // Every call returned while the first task still blocks the queue, and
    // each began its transaction on this thread before queueing.
    EXPECT_EQ(transactionCount(), before + 7);
    EXPECT_FALSE(watch.expired());
    gate.set_value();
  }
  // Each task runs inside its own transaction; the ones before it have ended.
  EXPECT_EQ(seenByTasks, (std::vector<std::int64_t>{before + 6, before + 5, before + 4}));
  EXPECT_EQ(ran, (std::vector<int>{41, 42}));
  EXPECT_TRUE(watch.expired()) << "the queue must not keep a task after running it";
  EXPECT_EQ(transactionCount(), before);
}

// The only test that submits from many threads at once (run under
// ThreadSanitizer too): each thread's tasks run in its order, every
// transaction pairs.
TEST(TransactionalTaskTest, SubmissionsFromManyThreadsKeepEachThreadsOrder) {
  const std::int64_t before = transactionCount();
  constexpr int kThreads = 4, kTasksPerThread = 200;
  std::vector<std::pair<int, int>> ran;  // (thread, sequence), worker-only until joined
  {
    DispatchQueue queue("cv.test.many");
    std::vector<std::jthread> submitters;
    for (int t = 0; t < kThreads; ++t) {
      submitters.emplace_back([&queue, &ran, t] {
        for (int i = 0; i < kTasksPerThread; ++i)
          CVRunTransactionalTask(queue, [&ran, t, i] { ran.emplace_back(t, i); });
      });
    }
    submitters.clear();  // joins the submitters; the queue then drains
  }
  ASSERT_EQ(ran.size(), static_cast<std::size_t>(kThreads * kTasksPerThread));
  std::vector<int> next(kThreads, 0);
  for (const auto& [thread, sequence] : ran)
    ASSERT_EQ(sequence, next[static_cast<std::size_t>(thread)]++) << "thread " << thread;
  EXPECT_EQ(transactionCount(), before);
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
    // The child's report (written by the abort hook) comes back as its standard
    // output, the crash handler's message as its standard error.
    const auto outcome = runCapturedInChild([&each]() -> int {
      CVSetCrashAbortHookForTesting(reportAnnotationAndExit);
      if (each.thread) platform::setCurrentThreadName(each.thread);
      CVCrashOnException(each.record);
    });
    EXPECT_EQ(std::tuple(outcome.exitCode, outcome.err, outcome.out),
              std::tuple(kHookExitCode, header + each.message + "\n",
                         "version=5\nmessage=" + header + each.message));
  }
  EXPECT_EQ(runCapturedInChild([]() -> int { CVCrashOnException(ExceptionRecord{}); }).signal,
            SIGABRT);
  EXPECT_EQ(platform::crashAnnotationSnapshot().version, platform::kCrashAnnotationVersion);
}

TEST(ExceptionRecordTest, CapturesTheExceptionBeingHandled) {
  const auto recordOf = [](auto thrown) {
    try {
      throw thrown;
    } catch (...) {
      return ExceptionRecord::fromCurrentException();
    }
  };
  const ExceptionRecord error = recordOf(std::runtime_error("disk on fire")), number = recordOf(7);
  EXPECT_EQ(std::tuple(error.name, error.reason), std::tuple("std::runtime_error", "disk on fire"));
  EXPECT_FALSE(error.callStackSymbols.value_or(std::vector<std::string>{}).empty());
  EXPECT_EQ(std::tuple(number.name, number.reason), std::tuple("int", std::nullopt));
  const ExceptionRecord none = ExceptionRecord::fromCurrentException();
  EXPECT_EQ(std::tuple(none.name, none.reason), std::tuple(std::nullopt, std::nullopt));
}

TEST(ThreadNameTest, LongNamesAreCutAtACharacterBoundary) {
  std::vector<std::string> names;
  std::thread([&names] {
    names.push_back(platform::currentThreadName());
    // "é" would straddle the 15-byte limit: it goes as a whole.
    for (const char* name : {"abcdefghijklmnopqrstuvwxyz", "abcdefghijklmn\xC3\xA9z", ""}) {
      platform::setCurrentThreadName(name);
      names.push_back(platform::currentThreadName());
    }
  }).join();
  // The first: the kernel's inherited name is not the thread's.
  EXPECT_EQ(names, (std::vector<std::string>{"", "abcdefghijklmno", "abcdefghijklmn", ""}));
}

}  // namespace
