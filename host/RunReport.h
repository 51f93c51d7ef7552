// `mavrel migrate --report FILE`: the JSON report of a run, and the console
// summary that says the same in a few lines.
//
// The report is one JSON object:
//   "tool" ("mavrel"), "toolVersion", "schemaVersion" (kRunReportSchemaVersion),
//   "root", "startedAt" (ISO 8601 local time with its zone,
//   "2026-11-21T08:32:00+01:00"), "durationSeconds",
//   "succeeded" (true exactly when "exitCode" is 0), "exitCode",
//   "error" (null for a run that succeeded; otherwise one line saying what
//   failed or why the run was refused or stopped),
//   "interrupted" (null, or the signal that stopped the run: "SIGINT", "SIGTERM"),
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
// Error contract: writeRunReport writes through the report file opened
// before the migration began (openReportFile; the migration is confined and
// may not create files beside it, so a crash while it is written can leave it
// cut short), atomically (platform/FileIO.h) when no file was opened, or
// through standard output for "-" and its aliases (OutputPath.h); it returns
// false with a one-line reason naming the file when it cannot.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "host/EntryRecorder.h"
#include "host/OutcomeTotals.h"
#include "host/SafetyNet.h"
#include "host/UserDataVerification.h"
#include "platform/linux/FileDescriptor.h"

namespace mavrel_host {

using platform::sys::UniqueFd;

inline constexpr std::uint64_t kRunReportSchemaVersion = 2;

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
  std::string error;
  std::optional<std::string> interruptedBy;
  std::optional<SafetyNetResult> safetyNet;

  OutcomeTotals totals() const;
};

std::string formatRunReportJSON(const RunReport& report);
// Opens (making it when missing, never through a final link) the report
// file, so that the confined migration can write it at the end.
UniqueFd openReportFile(const std::string& path, std::string* reason);
// `reportFile` is the descriptor openReportFile gave, or -1.
bool writeRunReport(int reportFile, const std::string& path, const RunReport& report,
                    std::string* reason);

// Whether the pass returned true, none of its entries failed or was left and
// no two moved their data to one place:
// what the summary calls "succeeded" and exit code 0 requires.
bool passSucceeded(const MigratorRun& run, const std::vector<RecordedEntry>& entries);

// The lines after one migrator's pass: the summary line (never "succeeded"
// when an entry of the pass failed or was left), the outcome counts, one line
// per failed or left entry, and, for a failed pass, the errors that belong to
// no entry (`outsideErrors`). Each line ends with a newline; messages are
// shown in plain words (plainMessage).
std::string formatPassSummary(const MigratorRun& run, const std::vector<RecordedEntry>& entries,
                              const std::vector<std::string>& outsideErrors,
                              std::string_view logPath);

// A log message as a person reads it: without the "CVAppMigrator: " prefix,
// on one line, file URLs as paths, a listed array as a comma-separated list,
// and the installer's staging copy of a bundle (".../corvaned.staging/<id>/
// Payload/...") or the container's own "Staging/Payload" named by the
// bundle's place in `entryPath` ("" when the message belongs to no entry).
std::string plainMessage(std::string_view message, std::string_view entryPath);

// One line saying what failed in a run whose passes ended with `exitCode` 1:
// the entries that failed or were left, and the passes that failed.
std::string describeFailedRun(const RunReport& report);

// "2026-11-21T08:32:00+01:00": ISO 8601 in local time with the zone's offset.
std::string formatISOTime(std::time_t when);

}  // namespace mavrel_host
