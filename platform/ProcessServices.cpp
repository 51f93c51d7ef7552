#include "platform/ProcessServices.h"

#include <unistd.h>

#include <atomic>
#include <mutex>

// The annotation record. Its symbol name is fixed so that a debugger attached
// to a core file can print it ("p mavrel_crash_annotation") and a crash handler
// can find it through the section's __start_/__stop_ symbols.
extern "C" {
__attribute__((section("crash_info"), used)) platform::CrashAnnotation mavrel_crash_annotation = {
    platform::kCrashAnnotationVersion, 0, 0, 0, 0, 0, 0, 0};
}

namespace platform {
namespace {

std::mutex monitorLock;
CPUUsageMonitorRecord monitorRecord;

std::atomic<std::int64_t> transactions{0};

// The record is written by a crashing thread and read by others (tests, the
// host's crash handler), so every access is atomic.
std::uint64_t loadField(std::uint64_t& field) {
  return std::atomic_ref<std::uint64_t>(field).load(std::memory_order_acquire);
}

}  // namespace

int disableCPUUsageMonitor(pid_t pid) {
  std::lock_guard lock(monitorLock);
  ++monitorRecord.disableCalls;
  monitorRecord.lastProcessId = pid;
  monitorRecord.disabled = true;
  return 0;
}

int restoreCPUUsageMonitorDefaults(pid_t pid) {
  std::lock_guard lock(monitorLock);
  ++monitorRecord.restoreCalls;
  monitorRecord.lastProcessId = pid;
  monitorRecord.disabled = false;
  return 0;
}

CPUUsageMonitorRecord cpuUsageMonitorRecord() {
  std::lock_guard lock(monitorLock);
  return monitorRecord;
}

pid_t currentProcessId() {
  return ::getpid();
}

void beginTransaction() {
  transactions.fetch_add(1, std::memory_order_seq_cst);
}

void endTransaction() {
  transactions.fetch_sub(1, std::memory_order_seq_cst);
}

std::int64_t transactionCount() {
  return transactions.load(std::memory_order_seq_cst);
}

void setCrashAnnotationMessage(const char* message) {
  // A pointer widened to 64 bits: on a 32-bit build the high half is zero.
  const auto address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(message));
  std::atomic_ref<std::uint64_t>(mavrel_crash_annotation.message)
      .store(address, std::memory_order_release);
}

std::optional<std::string> crashAnnotationMessage() {
  const std::uint64_t address = loadField(mavrel_crash_annotation.message);
  if (address == 0) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(static_cast<std::uintptr_t>(address)));
}

CrashAnnotation crashAnnotationSnapshot() {
  CrashAnnotation& record = mavrel_crash_annotation;
  return CrashAnnotation{loadField(record.version),          loadField(record.message),
                         loadField(record.signature_string), loadField(record.backtrace),
                         loadField(record.message2),         loadField(record.thread),
                         loadField(record.dialog_mode),      loadField(record.abort_cause)};
}

}  // namespace platform
