// The one child-process runner of the tests: a program (the project's own,
// strace, an independent checker) or a function run in a forked child.
//
// runChild never throws and never fails the running test; a program that
// cannot be started gives `started` false and the reason in `err`.
// runProgram and runMavrel fail the test when the program cannot start.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace testing_support {

struct ChildOptions {
  // Extra "NAME=value" entries; they replace entries of the same name in the
  // test's own environment.
  std::vector<std::string> environment;
  // Where standard output and error go ("" discards them).
  std::string outPath;
  std::string errPath;
  std::chrono::milliseconds timeout{60000};
  // When set, the child's process group is sent SIGKILL this long after the
  // start (a kill at a random instant); the outcome then says `killedByUs`.
  std::chrono::microseconds killAfter{0};
};

struct ChildOutcome {
  bool started = false;
  int exitCode = -1;  // -1 unless the child exited normally
  int signal = 0;     // the signal that ended it, or 0
  bool timedOut = false;
  bool killedByUs = false;  // ended by the `killAfter` kill
  std::string out;
  std::string err;
  std::chrono::microseconds elapsed{0};

  bool exited() const { return exitCode >= 0; }
  std::string describe() const;
};
using ProgramRun = ChildOutcome;

// Runs `program` (looked up in PATH when it has no slash) in a process group
// of its own, so that a child that hangs is ended with whatever it started.
ChildOutcome runChild(const std::string& program, const std::vector<std::string>& arguments,
                      const ChildOptions& options = ChildOptions());

// With a `scratchDirectory`, standard output and error are captured through
// files there; without one they are discarded.
ProgramRun runProgram(const std::string& program, const std::vector<std::string>& arguments,
                      const std::string& scratchDirectory = "");

#ifdef MAVREL_BINARY_DIR
inline ProgramRun runMavrel(const std::vector<std::string>& arguments,
                            const std::string& scratchDirectory) {
  return runProgram(MAVREL_BINARY_DIR "/bin/mavrel", arguments, scratchDirectory);
}
#endif

// Runs `body` in a forked child (for what must not happen in the test's own
// process: a chroot, dropped privileges, a kill, an abort) and gives its exit
// code, or 128 + the signal that ended it.
int runInChild(const std::function<int()>& body);
// The same, with the child's standard output and error captured: `exitCode`
// or `signal` says how it ended.
ChildOutcome runCapturedInChild(const std::function<int()>& body);

}  // namespace testing_support
