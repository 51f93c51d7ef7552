// How large the reliability sweeps are. ctest runs the "ci" mode: the
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
// `error` and the defaults are kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/reliability/SweepWorkspace.h"

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

}  // namespace reliability
