// Runs the trials of a sweep side by side, one worker per workspace, and
// gathers what they found.
//
// Error contract: makeWorkspaces returns an empty list and a reason when a
// workspace cannot be made; runTrials never fails (a trial reports through
// SweepFindings, which is safe to use from every worker).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/reliability/StraceTrace.h"
#include "tests/reliability/SweepSettings.h"
#include "tests/reliability/SweepWorkspace.h"

namespace reliability {

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

// Figures and problems of a sweep.
class SweepFindings {
 public:
  void count(const std::string& figure, std::uint64_t amount = 1);
  void problem(const std::string& trial, const std::string& what);
  // Worth reading but not a failure (a rerun that failed before one
  // succeeded, say).
  void note(const std::string& trial, const std::string& what);
  std::string noteReport(std::size_t limit = 12) const;
  std::vector<std::string> notes() const;
  std::uint64_t figure(const std::string& name) const;
  std::vector<std::string> problems() const;
  // "name: value" lines, sorted by name.
  std::string figures() const;
  // The problems, at most `limit` of them, one paragraph each.
  std::string problemReport(std::size_t limit = 20) const;

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

}  // namespace reliability
