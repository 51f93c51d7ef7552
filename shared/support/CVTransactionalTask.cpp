#include <memory>
#include <utility>

#include "platform/ProcessServices.h"
#include "shared/support/CVProcessGuards.h"

namespace {

// Ends the transaction when the wrapper is done with its task, whichever way
// the task leaves.
struct TransactionEnd {
  TransactionEnd() = default;
  TransactionEnd(const TransactionEnd&) = delete;
  TransactionEnd& operator=(const TransactionEnd&) = delete;
  ~TransactionEnd() { platform::endTransaction(); }
};

}  // namespace

void CVRunTransactionalTask(platform::DispatchQueue& queue, std::function<void()> task) {
  platform::beginTransaction();
  queue.async([task = std::move(task)] {
    const TransactionEnd end;
    if (task) task();
  });
}
