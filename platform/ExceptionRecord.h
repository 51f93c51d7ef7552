// ExceptionRecord: what the program knows about an exception that nobody
// caught: its name (the kind of failure), its reason (the human-readable text)
// and the call-stack symbols of the place where it was raised. Each part may
// be missing.
//
// Error contract: nothing here fails or throws.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace platform {

struct ExceptionRecord {
  std::optional<std::string> name;
  std::optional<std::string> reason;
  std::optional<std::vector<std::string>> callStackSymbols;

  // A record of the exception being handled (inside a catch block or a
  // terminate handler): the exception's type as its name, what() as its reason
  // for a std::exception, and the calling thread's current call stack. Without
  // an exception being handled, a record without name or reason.
  static ExceptionRecord fromCurrentException();
};

// The symbols of the calling thread's stack, innermost frame first (this
// function's own frame excluded).
std::vector<std::string> currentCallStackSymbols();

}  // namespace platform
