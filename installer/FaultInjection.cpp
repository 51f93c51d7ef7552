#include "installer/FaultInjection.h"

#include <atomic>

namespace mavrel_installer {
namespace {
std::atomic<FaultHandler> currentHandler{nullptr};
}  // namespace

FaultHandler setFaultHandler(FaultHandler handler) {
  return currentHandler.exchange(handler);
}

void faultPoint(std::string_view point) {
  if (const FaultHandler handler = currentHandler.load(std::memory_order_relaxed)) handler(point);
}

}  // namespace mavrel_installer
