#include "host/RunReport.h"

#include <algorithm>
#include <filesystem>

#include "host/EntryConflicts.h"
#include "host/EntryOutcomeNames.h"
#include "host/ProgressDisplay.h"
#include "installer/InstallerFiles.h"
#include "platform/FileIO.h"
#include "platform/JSONWriter.h"

namespace mavrel_host {
namespace {

std::string localTime(std::time_t when) {
  std::tm parts{};
  localtime_r(&when, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

void optionalString(platform::JSONWriter& json, std::string_view name,
                    const std::optional<std::string>& v) {
  json.key(name);
  if (v) {
    json.value(*v);
  } else {
    json.null();
  }
}

bool entryFailed(const RecordedEntry& entry) {
  return entry.result.outcome == MavrelEntryOutcome::Failed ||
         entry.result.outcome == MavrelEntryOutcome::Left;
}

std::string absolutePath(const std::string& path) {
  std::error_code error;
  const auto absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.lexically_normal().string();
}

void writeVerification(platform::JSONWriter& json, const VerificationResult& result) {
  json.beginObject()
      .member("files", result.files)
      .member("bytes", result.bytes)
      .member("verified", result.verified)
      .member("verifiedBytes", result.verifiedBytes)
      .member("stillInLegacy", result.stillInLegacy)
      .member("leftBehind", result.leftBehind)
      .member("missing", result.missing)
      .member("changed", result.changed)
      .member("unreadableBefore", result.unreadableBefore)
      .member("removedByDesign", result.removedByDesign);
  json.key("missingExamples").strings(result.missingExamples);
  json.key("changedExamples").strings(result.changedExamples);
  json.key("leftBehindExamples").strings(result.leftBehindExamples);
  json.endObject();
}

}  // namespace

OutcomeTotals RunReport::totals() const {
  OutcomeTotals totals;
  for (const RecordedEntry& entry : entries)
    totals.add(entry.result.outcome);
  return totals;
}

bool RunReport::succeeded() const {
  for (const MigratorRun& run : migrators) {
    if (!run.succeeded) return false;
  }
  for (const RecordedEntry& entry : entries) {
    if (entryFailed(entry)) return false;
  }
  return findEntryConflicts(entries).empty();
}

std::string formatRunReportJSON(const RunReport& report) {
  platform::JSONWriter json;
  json.beginObject();
  json.member("root", report.root);
  json.member("startedAt", localTime(report.startedAt));
  json.member("durationSeconds", report.seconds);
  json.member("succeeded", report.succeeded());
  json.member("exitCode", static_cast<std::uint64_t>(report.exitCode));
  json.key("migrators").beginArray();
  for (const MigratorRun& run : report.migrators) {
    json.beginObject()
        .member("name", run.name)
        .member("succeeded", run.succeeded)
        .member("durationSeconds", run.seconds);
    json.key("entriesFound");
    if (run.entriesFound) {
      json.value(*run.entriesFound);
    } else {
      json.null();
    }
    json.endObject();
  }
  json.endArray();
  json.key("entries").beginArray();
  for (const RecordedEntry& entry : report.entries) {
    json.beginObject().member("migrator", entry.migrator).member("path", entry.path);
    json.key("identifier").stringOrNull(entry.identifier);
    json.member("outcome", outcomeName(entry.result.outcome));
    json.key("failedStep");
    if (entry.result.outcome == MavrelEntryOutcome::Failed) {
      json.value(stepName(entry.result.failedStep));
    } else {
      json.null();
    }
    json.key("message").stringOrNull(entry.message);
    json.member("container", containerFateName(entry.result.containerRemoved));
    json.member("durationSeconds", entry.seconds);
    json.endObject();
  }
  json.endArray();
  json.key("conflicts").beginArray();
  for (const EntryConflict& conflict : findEntryConflicts(report.entries)) {
    json.beginObject().member("migrator", conflict.migrator);
    json.member("identifier", conflict.identifier);
    json.key("paths").strings(conflict.paths);
    json.endObject();
  }
  json.endArray();
  json.key("totals").beginObject();
  writeOutcomeTotals(json, report.totals());
  json.endObject();
  json.key("logs").beginObject();
  json.member("migration", report.migrationLog).member("installer", report.installerLog);
  optionalString(json, "migrationJSON", report.migrationLogJSON);
  optionalString(json, "installerJSON", report.installerLogJSON);
  json.endObject();
  json.key("verification");
  if (report.verification) {
    writeVerification(json, *report.verification);
  } else {
    json.null();
  }
  json.key("safetyNet");
  if (report.safetyNet) {
    writeSafetyNetJSON(json, *report.safetyNet);
  } else {
    json.null();
  }
  json.endObject();
  return json.text();
}

bool checkReportDestination(const std::string& path, std::string* reason) {
  const std::string absolute = absolutePath(path);
  const std::string directory = std::filesystem::path(absolute).parent_path().string();
  if (mavrel_installer::itemKindAtPath(absolute) == mavrel_installer::ItemKind::Directory) {
    *reason = "option '--report': '" + path + "' is a directory";
    return false;
  }
  const auto resolved = mavrel_installer::canonicalPath(directory);
  if (!resolved ||
      mavrel_installer::itemKindAtPath(*resolved) != mavrel_installer::ItemKind::Directory) {
    *reason = "option '--report': the directory of '" + path + "' does not exist";
    return false;
  }
  return true;
}

bool writeRunReport(const std::string& path, const RunReport& report, std::string* reason) {
  const std::string text = formatRunReportJSON(report);
  CVError error;
  const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(text.data()),
                                            text.size());
  if (!platform::writeFileAtomically(CVURL::fileURLWithPath(absolutePath(path), false), bytes,
                                     &error)) {
    *reason = "cannot write the report '" + path + "': " + error.localizedDescription();
    return false;
  }
  return true;
}

std::vector<EntryConflict> conflictsOfPass(const MigratorRun& run,
                                           const std::vector<RecordedEntry>& entries) {
  std::vector<EntryConflict> conflicts = findEntryConflicts(entries);
  std::erase_if(conflicts,
                [&run](const EntryConflict& conflict) { return conflict.migrator != run.name; });
  return conflicts;
}

bool passSucceeded(const MigratorRun& run, const std::vector<RecordedEntry>& entries) {
  return run.succeeded &&
         std::none_of(entries.begin(), entries.end(),
                      [&](const RecordedEntry& entry) {
                        return entry.migrator == run.name && entryFailed(entry);
                      }) &&
         conflictsOfPass(run, entries).empty();
}

std::string formatPassSummary(const MigratorRun& run, const std::vector<RecordedEntry>& entries,
                              std::string_view logPath) {
  OutcomeTotals totals;
  std::string details;
  for (const RecordedEntry& entry : entries) {
    if (entry.migrator != run.name) continue;
    totals.add(entry.result.outcome);
    if (!entryFailed(entry)) continue;
    const std::string who = entry.identifier.empty() ? entry.path : entry.identifier;
    details +=
        "  " +
        std::string(entry.result.outcome == MavrelEntryOutcome::Failed
                        ? "failed at " + std::string(stepDescription(entry.result.failedStep))
                        : std::string("left in place")) +
        ": " + who;
    if (!entry.message.empty()) details += ": " + entry.message;
    details += '\n';
  }
  std::string text = formatSummaryLine(run.name, passSucceeded(run, entries),
                                       std::chrono::duration<double>(run.seconds), logPath) +
                     "\n";
  if (totals.entries() > 0) {
    text += "  " + std::to_string(totals.entries()) +
            " legacy entries: " + describeOutcomeTotals(totals) + "\n";
  }
  return text + details + formatEntryConflicts(conflictsOfPass(run, entries));
}

}  // namespace mavrel_host
