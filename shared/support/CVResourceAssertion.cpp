#include <atomic>

#include "platform/ProcessServices.h"
#include "shared/support/CVProcessGuards.h"

namespace {

// How many assertions are outstanding, process-wide. Sequentially consistent
// read-modify-writes act as full barriers.
std::atomic<std::int32_t> highUsageCount{0};

}  // namespace

std::int32_t CVAssertHighResourceUsage() {
  const std::int32_t count = highUsageCount.fetch_add(1, std::memory_order_seq_cst) + 1;
  if (count == 1) return platform::disableCPUUsageMonitor(platform::currentProcessId());
  return count;
}

std::int32_t CVClearResourceAssertion() {
  const std::int32_t count = highUsageCount.fetch_sub(1, std::memory_order_seq_cst) - 1;
  if (count == 0) return platform::restoreCPUUsageMonitorDefaults(platform::currentProcessId());
  return count;
}
