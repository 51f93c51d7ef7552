// Ctrl-C (SIGINT) and SIGTERM during a migration.
//
// The first signal asks the run to stop at the next safe point: between two
// legacy entries, where everything done so far is complete and what is left
// resumes from the migration markers when the same command runs again. The
// migrating thread reaches one each time the plug-in reports an entry begun
// or finished and calls atSafePoint(). A second signal, or no safe point
// within the grace period, stops the run at once from the watcher thread.
// Either way the stopper given to the constructor ends the run (writes what
// there is to write and ends the process); it does not return.
//
// Only one InterruptionWatch exists at a time. The signal handler only
// records the signal and wakes the watcher thread through a pipe.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>

#include "platform/linux/FileDescriptor.h"

namespace mavrel_host {

using platform::sys::UniqueFd;

// "SIGINT", "SIGTERM", or "signal N".
std::string signalName(int signal);

class InterruptionWatch {
 public:
  // `stop` gets the signal number and whether it was called at a safe point;
  // it must not return.
  using Stopper = std::function<void(int signal, bool atSafePoint)>;

  // Installs the handlers and starts the watcher; `notices` gets one line when
  // the first signal arrives. `grace`: how long to wait for a safe point.
  InterruptionWatch(std::FILE* notices, std::chrono::seconds grace, Stopper stop);
  // Puts the previous handlers back and stops the watcher.
  ~InterruptionWatch();
  InterruptionWatch(const InterruptionWatch&) = delete;
  InterruptionWatch& operator=(const InterruptionWatch&) = delete;

  // On the migrating thread, at a safe point: stops the run when asked to.
  void atSafePoint();

  // Claims the end of the run for the caller; false when the other side (the
  // watcher, stopping at once) has claimed it already. The run's normal end
  // claims it before writing its report, so that a late signal cannot end the
  // run a second time.
  bool claimEnd();

 private:
  void watch();

  std::FILE* notices_;
  std::chrono::seconds grace_;
  Stopper stop_;
  std::atomic<bool> ended_{false};
  UniqueFd wakeRead_;
  std::thread watcher_;  // last: started once the members it uses exist
};

}  // namespace mavrel_host
