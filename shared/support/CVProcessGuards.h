// Process guards: protect the process while long or critical work runs.
//
// - A counted assertion lifts the platform's CPU-usage monitor while heavy work
//   is under way. Assertions nest: only the first assertion and the last
//   clearing reach the platform. The count is one process-wide atomic 32-bit
//   counter; the platform calls happen outside any lock, so an assert and a
//   clear racing at the 0/1 boundary may reach the platform in either order.
// - CVRunTransactionalTask runs a task on a queue inside an IPC transaction, so
//   the platform knows the process is busy until the task has run.
// - CVCrashOnException turns an uncaught exception into a crash report with a
//   readable message, then aborts.
//
// Error contract: nothing here fails or throws. All four may be called from any
// thread.
#pragma once

#include <cstdint>
#include <functional>

#include "platform/DispatchQueue.h"
#include "platform/ExceptionRecord.h"

// Raises the count. Returns the platform call's result when this call took the
// count from 0 to 1 (the monitor was lifted), otherwise the new count.
std::int32_t CVAssertHighResourceUsage();

// Lowers the count. Returns the platform call's result when this call took the
// count to 0 (the monitor's defaults were restored), otherwise the new count
// (-1 for a clear without an assertion, with no platform call).
std::int32_t CVClearResourceAssertion();

// Begins a transaction on the calling thread, then queues `task` on `queue` and
// returns at once. The transaction ends on the queue right after the task has
// run: one begin and one end per call. An empty task runs nothing but still
// pairs its transaction.
void CVRunTransactionalTask(platform::DispatchQueue& queue, std::function<void()> task);

// Records the message
//   ** INTERNAL ERROR: Uncaught Exception **
//   Exception: <thread name> name: reason
//   Stack:
//   symbol lines
// (the thread name in angle brackets only when the thread has one, "name: "
// only when the exception has a name, the reason only when it has one) in the
// crash-report annotation, writes it to standard error and aborts. A second
// thread crashing meanwhile blocks for good, so only the first message is
// recorded.
[[noreturn]] void CVCrashOnException(const platform::ExceptionRecord& exception);
