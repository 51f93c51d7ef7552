// The fixture the crash and fault sweeps share: their settings, one workspace
// per worker (under the directory the settings name), and the findings with
// their report.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/reliability/SweepRunner.h"
#include "tests/reliability/SweepSettings.h"
#include "tests/reliability/SweepWorkspace.h"
#include "tests/support/TestSupport.h"

namespace reliability {

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
