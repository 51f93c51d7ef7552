// Failing file-system calls during `mavrel migrate` (docs/RELIABILITY.md):
// whatever fails, the run ends by itself and says so, no user data is lost
// beyond the migration's own rules, nothing outside changes, reruns finish.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <tuple>

#include "tests/reliability/Sweep.h"

namespace reliability {
namespace {

// The kinds of call that fail, as the system calls strace knows them by.
const std::map<std::string, std::vector<std::string>>& faultKinds() {
  static const std::map<std::string, std::vector<std::string>> kinds = {
      {"open", {"open", "openat"}},
      {"read", {"read", "pread64"}},
      {"write", {"write", "pwrite64"}},
      {"fsync", {"fsync", "fdatasync"}},
      {"rename", {"rename", "renameat", "renameat2"}},
      {"mkdir", {"mkdir", "mkdirat"}},
      {"unlink", {"unlink", "unlinkat", "rmdir"}},
      {"getdents", {"getdents64"}},
      {"statx", {"statx", "newfstatat", "lstat", "stat"}},
      {"setxattr", {"setxattr", "lsetxattr", "fsetxattr"}},
      {"link", {"link", "linkat"}},
  };
  return kinds;
}

const std::pair<const char*, int> kErrors[] = {
    {"EIO", EIO}, {"ENOSPC", ENOSPC}, {"EACCES", EACCES}};

struct FaultTrial {
  std::string kind;
  std::string call;
  std::string errorName;  // "EIO", "ENOSPC", "EACCES"
  int errorNumber = 0;
  bool persistent = false;
  std::size_t ordinal = 0;

  std::string describe() const {
    return errorName + " on " + call + " #" + std::to_string(ordinal) +
           (persistent ? " and every later one" : " once");
  }
};

// Every call of every kind that the migration itself makes.
std::vector<FaultTrial> faultTrials(const Trace& trace, const std::string& root) {
  // The migration starts with the first call that names the image (reads
  // of the command line by the sanitizer runtime aside).
  const auto namesTheImage = [&root](const TracedCall& call) {
    return call.name != "read" && call.name != "pread64" &&
           std::ranges::any_of(call.arguments, [&root](const std::string& argument) {
             return argument.find(root) != std::string::npos;
           });
  };
  const std::size_t start = std::ranges::find_if(trace.calls, namesTheImage) - trace.calls.begin();
  std::map<std::pair<int, std::string>, std::size_t> ordinals;
  std::vector<FaultTrial> trials;
  for (std::size_t i = 0; i < trace.calls.size(); ++i) {
    const TracedCall& call = trace.calls[i];
    const std::size_t ordinal = ++ordinals[{call.pid, call.name}];
    if (i < start || !trace.byFirstThread(call)) continue;
    // The sanitizer runtime probes memory by writing to a pipe of its own;
    // failing that write stops the runtime, not the migration.
    if (!call.arguments.empty() && call.arguments[0].find("<pipe:") != std::string::npos) continue;
    std::string kind;
    for (const auto& [name, calls] : faultKinds())
      if (std::ranges::find(calls, call.name) != calls.end()) kind = name;
    for (const auto& [errorName, number] : kErrors)
      for (const bool persistent : {false, true})
        trials.push_back({kind, call.name, errorName, number, persistent, ordinal});
  }
  return trials;
}

class FaultInjectionTest : public SweepTest {
 protected:
  // Known findings (docs/RELIABILITY.md) fail only with MAVREL_RELIABILITY_STRICT.
  void checkImage(SweepWorkspace& workspace, const std::string& when, bool finished = false) {
    ImageCheck check = workspace.check(finished);
    countFiles(check);
    if (!check.lossesByRule.empty()) count("trials losing files under a rule of the migration");
    if (!strict_ && !check.missingContainers.empty()) {
      count("checks finding a registered container missing after a failed install");
      note(when, "registered but missing: " + check.missingContainers.front());
      check.missingContainers.clear();
    }
    if (!strict_ && !check.stranded.empty()) {
      count("checks finding data at its legacy place after a run that succeeded");
      note(when, "still at the legacy place: " + check.stranded.front());
      check.stranded.clear();
    }
    if (!check.clean()) problem(when, check.describe());
  }

  void runTrial(SweepWorkspace& workspace, const FaultTrial& trial) {
    const std::string name = trial.describe();
    Trace trace;
    const ChildOutcome run =
        workspace.migrateInjecting(trial.call, "error=" + trial.errorName,
                                   std::to_string(trial.ordinal) + (trial.persistent ? "+" : ""),
                                   &trace, std::chrono::seconds(60));
    count("trials");
    if (!endedByTheHost(run)) {
      problem(name, "the run " + run.describe() + "\n" + lastLines(run.err, 40));
      return;
    }
    const bool injected =
        std::ranges::any_of(trace.calls, [](const TracedCall& call) { return call.injected; });
    if (!injected) {
      count("trials whose call was not reached");
      return;
    }
    // A write failing from N on also fails the sanitizer runtime's own probe
    // writes, which stops the process: unfinished, and the reruns follow.
    if (run.err.find("SanitizerTool: CHECK failed") != std::string::npos) {
      count("runs the sanitizer runtime stopped (its own probe write failed)");
      checkImage(workspace, name + ", after the run the runtime stopped");
    } else {
      count("runs ending " + std::to_string(run.exitCode) + " after a failed call");
      if (run.exitCode != 0) {
        const std::string logs = workspace.logs();
        if (logs.find(" <3> ") == std::string::npos &&
            run.err.find("mavrel: ") == std::string::npos)
          problem(name, "the run failed (exit " + std::to_string(run.exitCode) +
                            ") without an error line in its logs or on stderr");
        if ((logs + run.err).find(std::strerror(trial.errorNumber)) != std::string::npos)
          count("failed runs naming the error's text");
      }
      checkImage(workspace, name + ", after the failing run", run.exitCode == 0);
      if (run.exitCode == 0) {
        count("reruns to completion: 0");
        return;
      }
    }
    const int runs = rerunUntilSuccess(
        workspace, name,
        [&](const std::string& when, bool finished) { checkImage(workspace, when, finished); },
        !strict_);
    if (runs > 0) count("reruns to completion: " + std::to_string(runs));
  }

  bool strict_ = std::getenv("MAVREL_RELIABILITY_STRICT") != nullptr;
};

TEST_F(FaultInjectionTest, FailedCallsAreReportedLoseNoDataAndAFaultFreeRerunFinishes) {
  std::vector<std::string> traced;
  for (const auto& [kind, names] : faultKinds())
    traced.insert(traced.end(), names.begin(), names.end());
  std::string reason;
  const Trace reference = traceMigration(*workspaces_.front(), traced, &reason);
  ASSERT_FALSE(reference.calls.empty()) << reason;
  std::vector<FaultTrial> trials = faultTrials(reference, workspaces_.front()->root());
  ASSERT_FALSE(trials.empty());
  count("fault trials of the migration", trials.size());
  if (settings_.faultTrials > 0 && trials.size() > settings_.faultTrials) {
    // A sample that keeps every kind: a shuffled round robin over the kinds.
    std::mt19937_64 random(settings_.seed);
    std::shuffle(trials.begin(), trials.end(), random);
    // (round, kind, index): the order of the round robin.
    std::map<std::string, std::size_t> rounds;
    std::vector<std::tuple<std::size_t, std::string, std::size_t>> order;
    for (std::size_t index = 0; index < trials.size(); ++index)
      order.emplace_back(rounds[trials[index].kind]++, trials[index].kind, index);
    std::sort(order.begin(), order.end());
    std::vector<FaultTrial> sample;
    for (std::size_t i = 0; i < settings_.faultTrials; ++i)
      sample.push_back(trials[std::get<2>(order[i])]);
    trials = std::move(sample);
  }
  const auto start = std::chrono::steady_clock::now();
  runTrials(trials.size(), [&](SweepWorkspace& workspace, std::size_t index) {
    runTrial(workspace, trials[index]);
  });
  report("Fault injection", start);
}

}  // namespace
}  // namespace reliability
