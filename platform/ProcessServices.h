// Process-level platform services used by the support library's process guards:
// the CPU-usage monitor, the count of in-flight IPC transactions and the
// crash-report annotation record.
//
// On Linux there is no CPU-usage monitor that ends busy processes, so the two
// monitor calls only record that they were made (tests and the host can read
// the record) and report success. The transaction count is a real
// process-wide counter: the host reads it to know whether work is in flight.
// The annotation record lives in the "crash_info" section of the platform
// library, where a crash handler or a debugger finds it in a dead process.
//
// Error contract: nothing here fails or throws. Every function may be called
// from any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace platform {

// --- CPU-usage monitor ---

// Lifts the CPU-usage monitor for process `pid`. Returns 0 (success).
int disableCPUUsageMonitor(pid_t pid);
// Puts back the CPU-usage monitor's default limits for process `pid`. Returns 0.
int restoreCPUUsageMonitorDefaults(pid_t pid);

// What the monitor calls have done so far in this process.
struct CPUUsageMonitorRecord {
  std::uint64_t disableCalls = 0;
  std::uint64_t restoreCalls = 0;
  pid_t lastProcessId = 0;  // the pid given to the latest call; 0 before any
  bool disabled = false;    // whether the latest call was a disable
};
CPUUsageMonitorRecord cpuUsageMonitorRecord();

// The calling process's id.
pid_t currentProcessId();

// --- IPC transactions ---

// One begin per unit of in-flight work, one end when it is done.
void beginTransaction();
void endTransaction();
// The number of transactions begun and not yet ended.
std::int64_t transactionCount();

// --- Crash-report annotation ---

// The published layout, version 5: every field is 64 bits wide; string fields
// hold the address of a NUL-terminated UTF-8 string, or 0.
struct CrashAnnotation {
  std::uint64_t version;
  std::uint64_t message;
  std::uint64_t signature_string;
  std::uint64_t backtrace;
  std::uint64_t message2;
  std::uint64_t thread;
  std::uint64_t dialog_mode;
  std::uint64_t abort_cause;
};
inline constexpr std::uint64_t kCrashAnnotationVersion = 5;

// Stores the address of `message` in the record's message field. The text must
// stay valid for the rest of the process's life.
void setCrashAnnotationMessage(const char* message);
// The text the message field points to, or nullopt when none was set.
std::optional<std::string> crashAnnotationMessage();
// The record's current contents.
CrashAnnotation crashAnnotationSnapshot();

}  // namespace platform
