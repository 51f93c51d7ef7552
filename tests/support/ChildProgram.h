// Runs a program as a child process, for tests that drive the project's own
// programs or an independent checker.
#pragma once

#include <string>
#include <vector>

namespace testing_support {

struct ProgramRun {
  int exitCode = -1;  // -1 when the child did not exit normally
  std::string out;
  std::string err;
};

// Runs `program` (looked up in PATH when it has no slash) with `arguments`
// and waits for it. With a `scratchDirectory`, standard output and error are
// captured through files there; without one they are discarded. A program
// that cannot be started fails the test and gives exit code -1.
ProgramRun runProgram(const std::string& program, const std::vector<std::string>& arguments,
                      const std::string& scratchDirectory = "");

}  // namespace testing_support
