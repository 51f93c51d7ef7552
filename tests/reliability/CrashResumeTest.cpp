// The crash promise of `mavrel migrate` (docs/RELIABILITY.md): killed by
// strace before any call that changes the disk, the run loses no user data,
// touches nothing outside the image, and plain reruns finish the job.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <random>
#include <ranges>
#include <set>

#include "tests/reliability/Sweep.h"

namespace reliability {
namespace {

// One kill point: before the Nth call named `call` (counted per thread, as
// strace counts).
struct KillPoint {
  std::string call;
  std::size_t ordinal = 0;
  std::string expected;  // the call as the reference trace shows it
};

std::string describeCall(const TracedCall& call) {
  std::string text = call.name + "(";
  for (std::size_t i = 0; i < call.arguments.size() && i < 3; ++i) {
    const std::string& argument = call.arguments[i];
    text += (i ? ", " : "") + (argument.size() > 160 ? argument.substr(0, 160) + "..." : argument);
  }
  return text + ")";
}

// Writes to the run's own logs and standard streams: a kill before one of
// them leaves the image as a kill before the next call would.
bool isBookkeepingWrite(const TracedCall& call, const std::string& root) {
  if (call.name != "write" && call.name != "writev") return false;
  const std::string path = call.pathArgument(0);
  return path.rfind(root + "/", 0) != 0 || path.find("/Library/Logs/") != std::string::npos;
}

// Every call of the reference trace that changed the disk, as a kill point.
std::vector<KillPoint> killPoints(const Trace& trace, const std::string& root) {
  std::map<std::pair<int, std::string>, std::size_t> ordinals;
  std::vector<KillPoint> points;
  for (const TracedCall& call : trace.calls) {
    const std::size_t ordinal = ++ordinals[{call.pid, call.name}];
    if (trace.byFirstThread(call) && call.changesDisk() && !call.failed() &&
        !isBookkeepingWrite(call, root))
      points.push_back({call.name, ordinal, describeCall(call)});
  }
  return points;
}

class CrashResumeTest : public SweepTest {
 protected:
  // Right after a kill (`afterKill`), an install the installer journalled but
  // did not finish may name containers that are not in place yet, and a kill
  // inside the registry's first transaction leaves a hot rollback journal that
  // `mavrel apps` (which writes nothing) will not roll back; the next run
  // finishes or repairs both, and the checks after the reruns allow nothing.
  void checkImage(SweepWorkspace& workspace, const std::string& when, bool afterKill,
                  bool finished = false) {
    ImageCheck check = workspace.check(finished);
    if (afterKill && check.pendingInstalls > 0 && !check.missingContainers.empty()) {
      count("containers missing while an install was pending", check.missingContainers.size());
      check.missingContainers.clear();
    }
    if (afterKill && check.listingError.find("(SQLite result 776)") != std::string::npos) {
      count("listings refused after a kill: the registry's first transaction interrupted");
      check.listingError.clear();
    }
    countFiles(check);
    if (!check.clean()) problem(when, check.describe());
  }

  // After a kill: the checks, plain runs until one succeeds, each followed by
  // the checks; then (with `idempotence`) one more, which must change nothing.
  void resumeAndCheck(SweepWorkspace& workspace, const std::string& trial, bool idempotence) {
    checkImage(workspace, trial + ", after the kill", true);
    const int runs =
        rerunUntilSuccess(workspace, trial, [&](const std::string& when, bool finished) {
          checkImage(workspace, when, false, finished);
        });
    if (runs == 0) return;
    count("runs to completion after the kill: " + std::to_string(runs));
    if (!idempotence) return;
    const TreeSnapshot before = workspace.snapshot();
    const ChildOutcome listedBefore = workspace.listApplications();
    const ChildOutcome again = workspace.migrate();
    if (again.exitCode != 0) {
      problem(trial, "the run after a success " + again.describe());
      return;
    }
    std::string difference = testing_support::listed(
        differences(before, workspace.snapshot(), AccessTimes::AndModificationTimesIgnored));
    if (listedBefore.out != workspace.listApplications().out)
      difference += "the registry's listing changed\n";
    if (!difference.empty())
      problem(trial, "the run after a success changed the image:\n" + difference);
  }

  // Kill before the Nth call; returns whether the kill came.
  bool killAt(SweepWorkspace& workspace, const KillPoint& point, const std::string& trial) {
    Trace trace;
    const ChildOutcome run = workspace.migrateInjecting(point.call, "signal=SIGKILL",
                                                        std::to_string(point.ordinal), &trace);
    if (run.signal == SIGKILL) {
      // The call the kill interrupted, as this run made it.
      if (trace.calls.empty() || trace.calls.back().returned())
        problem(trial, "killed, but not on entry of a traced call");
      return true;
    }
    if (endedByTheHost(run)) {
      // This run made fewer such calls than the reference run.
      count("kill points not reached");
      return false;
    }
    problem(trial, "the traced run " + run.describe() + "\n" + lastLines(run.err, 30));
    return false;
  }
};

// The kill points, in families small enough for one test each.
struct Family {
  const char* name;
  std::vector<std::string> calls;  // empty: every call no other family takes
};

const std::vector<Family>& families() {
  static const std::vector<Family> all = {
      {"Creations",
       {"mkdir", "mkdirat", "open", "openat", "openat2", "creat", "link", "linkat", "symlink",
        "symlinkat"}},
      {"RenamesAndRemovals", {"rename", "renameat", "renameat2", "unlink", "unlinkat", "rmdir"}},
      {"FileData",
       {"write", "writev", "pwritev", "pwritev2", "copy_file_range", "sendfile", "ftruncate",
        "truncate", "fallocate"}},
      {"RegistryWrites", {"pwrite64"}},
      {"AttributesModesAndTimes",
       {"setxattr", "lsetxattr", "fsetxattr", "removexattr", "lremovexattr", "fremovexattr",
        "chmod", "fchmod", "fchmodat", "utimensat"}},
      {"Owners", {}},
  };
  return all;
}

bool inFamily(const Family& family, const std::string& call) {
  if (!family.calls.empty()) return std::ranges::find(family.calls, call) != family.calls.end();
  return std::ranges::none_of(families(), [&call](const Family& other) {
    return !other.calls.empty() && inFamily(other, call);
  });
}

void PrintTo(const Family& family, std::ostream* stream) {
  *stream << family.name;
}

class CrashResumeSweep : public CrashResumeTest, public ::testing::WithParamInterface<Family> {};

TEST_P(CrashResumeSweep, EveryKillPointResumesWithoutLossOrOutsideWrites) {
  std::string reason;
  const Trace reference = traceMigration(*workspaces_.front(), mutatingSystemCalls(), &reason);
  ASSERT_FALSE(reference.calls.empty()) << reason;
  std::vector<KillPoint> points = killPoints(reference, workspaces_.front()->root());
  std::erase_if(points, [](const KillPoint& point) { return !inFamily(GetParam(), point.call); });
  ASSERT_FALSE(points.empty());
  const auto pids = reference.calls | std::views::transform(&TracedCall::pid);
  count("threads making traced calls", std::set<int>(pids.begin(), pids.end()).size());
  count("kill points of the migration in this family", points.size());
  if (settings_.mode == SweepMode::Sampled) {
    // The family's share of the sample.
    const std::size_t share = settings_.sampledKillPoints / families().size();
    std::mt19937_64 random(settings_.seed);
    std::shuffle(points.begin(), points.end(), random);
    if (points.size() > share) points.resize(share);
  }

  const auto start = std::chrono::steady_clock::now();
  runTrials(points.size(), [&](SweepWorkspace& workspace, std::size_t index) {
    const KillPoint& point = points[index];
    const std::string trial =
        "kill before " + point.call + " #" + std::to_string(point.ordinal) + " " + point.expected;
    count("kill points tried");
    if (!killAt(workspace, point, trial)) return;
    count("kills");
    resumeAndCheck(workspace, trial, index % settings_.idempotenceEvery == 0);
  });
  count("user-data files of the image", workspaces_.front()->recordedFiles());
  report(std::string("Crash and resume: a kill before every call that changes the disk, ") +
             GetParam().name,
         start);
}

INSTANTIATE_TEST_SUITE_P(Families, CrashResumeSweep, ::testing::ValuesIn(families()),
                         [](const ::testing::TestParamInfo<Family>& family) {
                           return std::string(family.param.name);
                         });

// Kills at random instants of plain (untraced) runs, timed against a run
// that was not killed; only in the sampled and exhaustive modes.
TEST_F(CrashResumeTest, KillsAtRandomInstantsResumeWithoutLoss) {
  if (settings_.mode == SweepMode::CI) GTEST_SKIP() << "run by tests/reliability/run-sweeps";
  std::string reason;
  SweepWorkspace& first = *workspaces_.front();
  ASSERT_TRUE(first.restore(&reason)) << reason;
  const ChildOutcome timed = first.migrate();
  ASSERT_EQ(timed.exitCode, 0) << timed.describe() << timed.out << timed.err;
  const auto duration = timed.elapsed;

  std::mt19937_64 random(settings_.seed + 1);
  std::vector<std::chrono::microseconds> instants;
  std::uniform_int_distribution<long> within(1, static_cast<long>(duration.count()));
  for (std::size_t i = 0; i < settings_.randomInstantKills; ++i)
    instants.emplace_back(within(random));
  runTrials(instants.size(), [&](SweepWorkspace& workspace, std::size_t index) {
    const std::string trial = "kill -9 after " + std::to_string(instants[index].count()) + " us";
    count("random instants tried");
    const ChildOutcome run =
        workspace.migrate(std::nullopt, std::chrono::seconds(120), instants[index]);
    if (run.killedByUs) {
      count("kills");
    } else if (!endedByTheHost(run)) {
      problem(trial, run.describe() + "\n" + lastLines(run.err, 30));
      return;
    }
    resumeAndCheck(workspace, trial, true);
  });
  report("Crash and resume: kill -9 at random instants");
}

}  // namespace
}  // namespace reliability
