// The frame of the crash and fault sweeps: their settings, one workspace per
// worker, trials run side by side, the findings with their report, and the
// fixture the sweeps share.
//
// How large the sweeps are: ctest runs the "ci" mode: the
// exhaustive crash sweep and a sample of the fault injections over a small
// image. tests/reliability/run-sweeps sets the environment for the longer
// modes:
//
//   MAVREL_RELIABILITY_MODE     ci (default), sampled or exhaustive
//   MAVREL_RELIABILITY_APPS     applications of the image
//   MAVREL_RELIABILITY_VPN      VPN-only containers of the image
//   MAVREL_RELIABILITY_SEED     the image's seed, and the sampling's
//   MAVREL_RELIABILITY_POINTS   kill points (sampled) / fault trials (sampled, ci)
//   MAVREL_RELIABILITY_RANDOM_KILLS  kills at random instants (sampled)
//   MAVREL_RELIABILITY_WORKERS  trials run side by side (default 2)
//   MAVREL_RELIABILITY_STRICT   set: the fault sweep's known findings fail too
//   MAVREL_RELIABILITY_NOTES    a file every note of every sweep is added to
//   MAVREL_RELIABILITY_DIR      where the workspaces go (default: /dev/shm when
//                               it has 512 MiB free and takes user extended
//                               attributes, else $TMPDIR)
//
// The workspaces go to memory by default: creating a file on the disks these
// sweeps run on costs half a millisecond, and a trial restores its image and
// migrates it several times, so a sweep on tmpfs runs about five times
// faster. What the sweeps test (kills, failing calls, the order of calls)
// does not depend on the file system.
//
// Error contract: a malformed variable is reported by sweepSettings() in
// `error` and the defaults are kept; makeWorkspaces returns an empty list and
// a reason when a workspace cannot be made; runTrials never fails (a trial
// reports through SweepFindings, which is safe to use from every worker).
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tests/reliability/StraceTrace.h"
#include "tests/reliability/SweepWorkspace.h"
#include "tests/support/TestSupport.h"

namespace reliability {

enum class SweepMode { CI, Sampled, Exhaustive };

struct SweepSettings {
  SweepMode mode = SweepMode::CI;
  ImageSettings image;
  std::size_t workers = 2;
  std::string workspaceParent;
  // Sampled mode: kill points drawn from the strace sweep, and kills at
  // random instants of plain runs.
  std::size_t sampledKillPoints = 600;
  std::size_t randomInstantKills = 150;
  // Every how many kill points the run after a success is checked for
  // changing nothing (1: after every one).
  std::size_t idempotenceEvery = 1;
  // Fault trials (call kind x errno x once/persistent x N) run; 0: all.
  std::size_t faultTrials = 0;
  std::string error;

  std::string describe() const;
};

SweepSettings sweepSettings();

std::vector<std::unique_ptr<SweepWorkspace>> makeWorkspaces(const std::string& base,
                                                            const SweepSettings& settings,
                                                            std::string* reason);

// Calls `trial` for every index below `count`, spread over the workspaces
// (each used by one thread at a time).
void runTrials(const std::vector<std::unique_ptr<SweepWorkspace>>& workspaces, std::size_t count,
               const std::function<void(SweepWorkspace&, std::size_t index)>& trial);

// A traced run of the whole migration on a freshly restored image: every
// call of `traced` with its arguments and results.
Trace traceMigration(SweepWorkspace& workspace, const std::vector<std::string>& traced,
                     std::string* reason);

// Figures, problems and notes of a sweep.
class SweepFindings {
 public:
  void count(const std::string& figure, std::uint64_t amount = 1);
  void problem(const std::string& trial, const std::string& what);
  // Worth reading but not a failure (a rerun that failed before one
  // succeeded, say).
  void note(const std::string& trial, const std::string& what);
  std::uint64_t figure(const std::string& name) const;
  std::vector<std::string> problems() const;
  std::vector<std::string> notes() const;
  // "name: value" lines, sorted by name.
  std::string figures() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::uint64_t> figures_;
  std::vector<std::string> problems_;
  std::vector<std::string> notes_;
};

// Plain runs of the migration until one succeeds, at most `maxReruns`,
// with `check(when, finished)` after each (`finished`: that run succeeded). A rerun that fails is
// counted under its first error line (paths made generic). When none succeeds and the legacy
// containers left hold nothing but markers and aside files of interrupted
// atomic writes, that outcome is counted (the migration's rules keep a
// container with unknown items); anything else is a problem. Returns the
// number of runs it took, or 0.
// With `unfinishedIsFinding`, a trial that never succeeds is counted and
// noted rather than made a problem (the fault sweep's known outcomes).
int rerunUntilSuccess(SweepWorkspace& workspace, SweepFindings& findings, const std::string& trial,
                      int maxReruns,
                      const std::function<void(const std::string& when, bool finished)>& check,
                      bool unfinishedIsFinding = false);

// The last lines of a text, for problem reports.
std::string lastLines(const std::string& text, std::size_t lines);

class SweepTest : public ::testing::Test {
 protected:
  void SetUp() override;

  // Counts what every check finds the same way in both sweeps: files
  // verified, lost, lost under a rule of the migration, and verified where
  // the listing names no owner.
  void countFiles(const ImageCheck& check);
  // The figure "seconds": wall time since `start`.
  void countSecondsSince(std::chrono::steady_clock::time_point start);
  // Prints the figures and notes under `title`; a lost file or a problem
  // fails the test.
  void report(const std::string& title);

  SweepSettings settings_;
  std::optional<testing_support::TemporaryDirectory> base_;
  std::vector<std::unique_ptr<SweepWorkspace>> workspaces_;
  SweepFindings findings_;
};

}  // namespace reliability
