// Runs a program as a child process with a deadline, for the reliability
// sweeps: the child gets a process group of its own, so that a child that
// hangs is ended together with whatever it started (strace and its tracee),
// and the way it ended (exit code, signal, timeout) is reported exactly.
//
// Error contract: runChild never throws and never fails the running test; a
// program that cannot be started gives `started` false and the reason in
// `err`. The caller decides what an outcome means.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace reliability {

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

ChildOutcome runChild(const std::string& program, const std::vector<std::string>& arguments,
                      const ChildOptions& options = ChildOptions());

}  // namespace reliability
