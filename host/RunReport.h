// `mavrel migrate --report FILE`: the JSON report of a run, and the console
// summary that says the same in a few lines.
//
// The report is one JSON object:
//   "root", "startedAt" (local time, "2026-11-21 08:32:00"), "durationSeconds",
//   "succeeded" (every pass returned true and no entry failed or was left),
//   "exitCode",
//   "migrators": [{"name", "succeeded", "durationSeconds", "entriesFound"}],
//   "entries": [{"migrator", "path", "identifier", "outcome", "failedStep",
//                "message", "container", "durationSeconds"}]
//     outcome: "migrated", "placeholder-only", "refused-built-in", "failed",
//     "removed" or "left"; failedStep (EntryOutcomeNames.h) only for "failed";
//     container: "removed" or "kept",
//   "conflicts": [{"migrator", "identifier", "paths"}]: one identifier's data
//     moved from two containers, the later replacing the earlier,
//   "totals": {"entries", "migrated", "placeholderOnly", "refusedBuiltIn",
//              "failed", "removed", "left"},
//   "logs": {"migration", "installer", "migrationJSON", "installerJSON"},
//   "verification": null, or {"files", "bytes", "verified", "verifiedBytes",
//                   "stillInLegacy", "leftBehind", "missing", "changed",
//                   "unreadableBefore", "removedByDesign",
//                   "missingExamples", "changedExamples", "leftBehindExamples"},
//   "safetyNet": null (--no-safety-net, or no net could be made), or
//                {"runId", "directory", "adopted", "linked", "notLinked",
//                 "notLinkedExamples", "keptFiles", "keptBytes",
//                 "kept": [{"legacyPath", "files", "bytes", "reason", "examples"}],
//                 "problem"} (SafetyNet.h).
// A missing string is null.
//
// Error contract: writeRunReport writes atomically (platform/FileIO.h) and
// returns false with a one-line reason naming the file when it cannot.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "host/EntryRecorder.h"
#include "host/OutcomeTotals.h"
#include "host/SafetyNet.h"
#include "host/UserDataVerification.h"

namespace mavrel_host {

struct MigratorRun {
  std::string name;
  bool succeeded = false;
  double seconds = 0;
  std::optional<std::uint64_t> entriesFound;
};

struct RunReport {
  std::string root;
  std::time_t startedAt = 0;
  double seconds = 0;
  int exitCode = 0;
  std::vector<MigratorRun> migrators;
  std::vector<RecordedEntry> entries;
  std::string migrationLog;
  std::string installerLog;
  std::optional<std::string> migrationLogJSON;
  std::optional<std::string> installerLogJSON;
  std::optional<VerificationResult> verification;
  std::optional<SafetyNetResult> safetyNet;

  OutcomeTotals totals() const;
  // Every pass returned true and no entry failed or was left in place.
  bool succeeded() const;
};

std::string formatRunReportJSON(const RunReport& report);
bool writeRunReport(const std::string& path, const RunReport& report, std::string* reason);

// Whether the pass returned true, none of its entries failed or was left and
// no two moved their data to one place:
// what the summary calls "succeeded" and exit code 0 requires.
bool passSucceeded(const MigratorRun& run, const std::vector<RecordedEntry>& entries);

// The lines after one migrator's pass: the summary line (never "succeeded"
// when an entry of the pass failed or was left), the outcome counts, and one
// line per failed or left entry. Each line ends with a newline.
std::string formatPassSummary(const MigratorRun& run, const std::vector<RecordedEntry>& entries,
                              std::string_view logPath);

// Whether the report file's directory exists, so that a run is not started
// whose report cannot be written; a one-line reason otherwise.
bool checkReportDestination(const std::string& path, std::string* reason);

}  // namespace mavrel_host
