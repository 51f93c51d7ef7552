// Runs the built mavrel program as a child process, for end-to-end tests.
#pragma once

#include <string>
#include <vector>

namespace host_test {

struct ProgramRun {
  int exitCode = -1;  // -1 when the child did not exit normally
  std::string out;
  std::string err;
};

// Runs MAVREL_BINARY_DIR "/bin/mavrel" with `arguments`; its standard output
// and error are captured through files in `scratchDirectory`.
ProgramRun runMavrel(const std::vector<std::string>& arguments,
                     const std::string& scratchDirectory);

}  // namespace host_test
