#include "installer/FaultInjection.h"

#include <atomic>

namespace mavrel_installer {
namespace {
std::atomic<FaultHandler> currentHandler{nullptr};
std::atomic<FailureHandler> currentFailureHandler{nullptr};
}  // namespace

FaultHandler setFaultHandler(FaultHandler handler) {
  return currentHandler.exchange(handler);
}

void faultPoint(std::string_view point) {
  if (const FaultHandler handler = currentHandler.load(std::memory_order_relaxed)) handler(point);
}

FailureHandler setFailureHandler(FailureHandler handler) {
  return currentFailureHandler.exchange(handler);
}

int injectedFailure(std::string_view point) {
  const FailureHandler handler = currentFailureHandler.load(std::memory_order_relaxed);
  return handler ? handler(point) : 0;
}

}  // namespace mavrel_installer
