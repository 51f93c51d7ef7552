#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/ProcessServices.h"
#include "platform/ThreadName.h"
#include "shared/support/CVCrashTesting.h"
#include "shared/support/CVProcessGuards.h"

namespace {

// Taken by the first crashing thread and never released.
constinit std::mutex crashLock;

std::atomic<CVCrashAbortHook> abortHook{nullptr};

std::string crashMessage(const platform::ExceptionRecord& exception) {
  std::string message = "** INTERNAL ERROR: Uncaught Exception **\nException: ";
  if (const std::string threadName = platform::currentThreadName(); !threadName.empty())
    message += "<" + threadName + "> ";
  if (exception.name) message += *exception.name + ": ";
  if (exception.reason) message += *exception.reason;
  message += "\nStack:\n";
  if (exception.callStackSymbols) {
    bool first = true;
    for (const std::string& symbol : *exception.callStackSymbols) {
      if (!first) message += '\n';
      message += symbol;
      first = false;
    }
  }
  return message;
}

// Copies `message` into memory that is never freed: the annotation must point
// at it after the process is dead.
const char* leakedCopy(const std::string& message) {
  char* copy = static_cast<char*>(std::malloc(message.size() + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, message.c_str(), message.size() + 1);
  return copy;
}

void writeToStandardError(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

CVCrashAbortHook CVSetCrashAbortHookForTesting(CVCrashAbortHook hook) {
  return abortHook.exchange(hook);
}

void CVCrashOnException(const platform::ExceptionRecord& exception) {
  const std::string message = crashMessage(exception);
  crashLock.lock();  // never unlocked: later crashing threads wait here for the abort
  if (const char* recorded = leakedCopy(message)) platform::setCrashAnnotationMessage(recorded);
  writeToStandardError(message);
  writeToStandardError("\n");
  if (const CVCrashAbortHook hook = abortHook.load()) hook();
  std::abort();
}
