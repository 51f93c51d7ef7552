// Counted high-usage assertions: only the outermost pair reaches the CPU-usage monitor.
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "platform/ProcessServices.h"
#include "shared/support/CVProcessGuards.h"

namespace {

using platform::cpuUsageMonitorRecord;

TEST(ResourceAssertionTest, AssertionsNest) {
  const auto before = cpuUsageMonitorRecord();

  EXPECT_EQ(CVAssertHighResourceUsage(), 0);  // the platform call's result
  auto record = cpuUsageMonitorRecord();
  EXPECT_EQ(record.disableCalls, before.disableCalls + 1);
  EXPECT_EQ(record.lastProcessId, ::getpid());
  EXPECT_TRUE(record.disabled);

  EXPECT_EQ(CVAssertHighResourceUsage(), 2);
  EXPECT_EQ(CVClearResourceAssertion(), 1);
  record = cpuUsageMonitorRecord();
  EXPECT_EQ(record.disableCalls, before.disableCalls + 1);
  EXPECT_EQ(record.restoreCalls, before.restoreCalls);
  EXPECT_TRUE(record.disabled) << "an inner clear must leave the monitor lifted";

  EXPECT_EQ(CVClearResourceAssertion(), 0);  // the platform call's result
  record = cpuUsageMonitorRecord();
  EXPECT_EQ(record.restoreCalls, before.restoreCalls + 1);
  EXPECT_EQ(record.lastProcessId, ::getpid());
  EXPECT_FALSE(record.disabled);
}

TEST(ResourceAssertionTest, ClearWithoutAssertionGoesNegativeWithoutPlatformCall) {
  const auto before = cpuUsageMonitorRecord();
  EXPECT_EQ(CVClearResourceAssertion(), -1);
  // Back to zero by counting up: 0 is the new count here, not a platform call.
  EXPECT_EQ(CVAssertHighResourceUsage(), 0);
  const auto after = cpuUsageMonitorRecord();
  EXPECT_EQ(after.disableCalls, before.disableCalls);
  EXPECT_EQ(after.restoreCalls, before.restoreCalls);
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

}  // namespace
