// The strace lever of the reliability sweeps: command lines that trace the
// mavrel program, kill it at the Nth call of one system call or make that call
// fail (counted per call and per thread, docs/RELIABILITY.md), and a reader
// for the trace that strace writes ("-f -y -o FILE"). parseTrace never fails:
// lines it cannot read are counted in `unreadLines`.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace reliability {

// The system calls that change what is on the disk (or make it durable), as
// strace names them on x86-64 and aarch64.
const std::vector<std::string>& mutatingSystemCalls();

// One system call of the trace.
struct TracedCall {
  int pid = 0;
  std::string name;
  std::vector<std::string> arguments;  // as strace printed them, split at top-level commas
  std::string result;                  // "0", "3</path>", "-1", "?" (did not return)
  std::string errorName;               // "ENOENT" ... when it failed
  bool injected = false;               // strace made it fail ("(INJECTED)")

  bool failed() const { return !errorName.empty(); }
  bool returned() const { return result != "?"; }
  // The path strace printed for argument `index` ("3</a/b>" gives "/a/b"; a
  // quoted string gives its text), or "".
  std::string pathArgument(std::size_t index) const;
  // The absolute path named by a directory descriptor argument and a path
  // argument (openat, renameat2, ...): the path itself when it is absolute.
  std::string pathAt(std::size_t directoryIndex, std::size_t pathIndex) const;
  // The path of the descriptor returned ("3</a/b>" gives "/a/b"), or "".
  std::string resultPath() const;
  // Whether this call, as traced, changes the disk: every mutating call, and
  // opens that create or truncate.
  bool changesDisk() const;
};

struct Trace {
  std::vector<TracedCall> calls;
  std::size_t unreadLines = 0;
  // Whether `call` was made by the program's first thread, the only one
  // whose calls an injection's `when` singles out (strace counts per thread).
  bool byFirstThread(const TracedCall& call) const {
    return !calls.empty() && call.pid == calls.front().pid;
  }
};

Trace parseTrace(const std::string& text);

// How strace is to run the program.
struct StracePlan {
  std::vector<std::string> traced;  // system calls to trace (and count)
  std::string outputPath;           // "-o" file ("" sends the trace to /dev/null)
  // One injection, or none.
  std::optional<std::string> injectCall;
  std::string injectAction;  // "signal=SIGKILL" or "error=EIO"
  std::string injectWhen;    // "7" or "7+"
};

// The strace arguments (without "strace" itself) that run `program` with
// `arguments` under `plan`.
std::vector<std::string> straceArguments(const StracePlan& plan, const std::string& program,
                                         const std::vector<std::string>& arguments);

}  // namespace reliability
