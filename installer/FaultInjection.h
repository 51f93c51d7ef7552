// A seam for crash tests: the installer passes a named point before and after
// every step that changes the disk or the registry, and a test may install a
// handler there (typically one that ends the process at the Nth point).
//
// Without a handler a point costs one atomic load. The handler is process-wide
// and is called on the installing thread.
#pragma once

#include <string_view>

namespace mavrel_installer {

using FaultHandler = void (*)(std::string_view point);

// Installs `handler` (nullptr removes it) and returns the previous one.
FaultHandler setFaultHandler(FaultHandler handler);

void faultPoint(std::string_view point);

// A seam for failure tests: at a point where a step may fail, the installer
// asks the handler, which answers an errno value to fail the step with, or 0
// to let it run.
using FailureHandler = int (*)(std::string_view point);

// Installs `handler` (nullptr removes it) and returns the previous one.
FailureHandler setFailureHandler(FailureHandler handler);

// The errno value the step at `point` is to fail with, or 0.
int injectedFailure(std::string_view point);

}  // namespace mavrel_installer
