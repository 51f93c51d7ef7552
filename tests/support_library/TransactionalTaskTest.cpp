// Tasks run on a serial queue inside transactions: order, pairing, lifetime.
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/ProcessServices.h"
#include "shared/support/CVProcessGuards.h"

namespace {

using platform::DispatchQueue;
using platform::transactionCount;

TEST(TransactionalTaskTest, TransactionIsOpenFromSubmissionUntilTheTaskHasRun) {
  const std::int64_t before = transactionCount();
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  std::vector<std::int64_t> seenByTasks;
  {
    DispatchQueue queue("cv.test.gate");
    CVRunTransactionalTask(queue, [opened] { opened.wait(); });
    for (int i = 0; i < 3; ++i)
      CVRunTransactionalTask(queue, [&seenByTasks] { seenByTasks.push_back(transactionCount()); });
    // Every call returned while the first task still blocks the queue, and each
    // began its transaction on this thread before queueing.
    EXPECT_EQ(transactionCount(), before + 4);
    gate.set_value();
  }
  // Each task runs inside its own transaction; the ones before it have ended.
  EXPECT_EQ(seenByTasks, (std::vector<std::int64_t>{before + 3, before + 2, before + 1}));
  EXPECT_EQ(transactionCount(), before);
}

TEST(TransactionalTaskTest, TaskIsKeptAliveUntilItRunsThenReleased) {
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  std::weak_ptr<int> watch;
  int seen = 0;
  {
    DispatchQueue queue("cv.test.life");
    CVRunTransactionalTask(queue, [opened] { opened.wait(); });
    auto state = std::make_shared<int>(41);
    watch = state;
    CVRunTransactionalTask(queue, [state, &seen] { seen = *state + 1; });
    state.reset();  // the caller lets go before the task has run
    EXPECT_FALSE(watch.expired());
    gate.set_value();
  }
  EXPECT_EQ(seen, 42);
  EXPECT_TRUE(watch.expired()) << "the queue must not keep a task after running it";
}

TEST(TransactionalTaskTest, SubmissionsFromManyThreadsKeepEachThreadsOrder) {
  const std::int64_t before = transactionCount();
  constexpr int kThreads = 4;
  constexpr int kTasksPerThread = 200;
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
  for (const auto& [thread, sequence] : ran) {
    ASSERT_EQ(sequence, next[static_cast<std::size_t>(thread)]) << "thread " << thread;
    ++next[static_cast<std::size_t>(thread)];
  }
  EXPECT_EQ(transactionCount(), before);
}

// A task may queue more work, which still runs before the queue goes; an
// empty task still pairs its transaction.
TEST(TransactionalTaskTest, NestedAndEmptyTasksPairTheirTransactions) {
  const std::int64_t before = transactionCount();
  std::vector<int> ran;
  {
    DispatchQueue queue("cv.test.nest");
    CVRunTransactionalTask(queue, [&] {
      ran.push_back(1);
      CVRunTransactionalTask(queue, [&ran] { ran.push_back(2); });
    });
    CVRunTransactionalTask(queue, std::function<void()>());
  }
  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
  EXPECT_EQ(transactionCount(), before);
}

}  // namespace
