// Runs the built mavrel program as a child process, for end-to-end tests.
#pragma once

#include <string>
#include <vector>

#include "tests/support/ChildProgram.h"

namespace host_test {

using testing_support::ProgramRun;

// Runs MAVREL_BINARY_DIR "/bin/mavrel" with `arguments`; its standard output
// and error are captured through files in `scratchDirectory`.
inline ProgramRun runMavrel(const std::vector<std::string>& arguments,
                            const std::string& scratchDirectory) {
  return testing_support::runProgram(MAVREL_BINARY_DIR "/bin/mavrel", arguments, scratchDirectory);
}

}  // namespace host_test
