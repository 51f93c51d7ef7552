#include "host/RunReport.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <regex>

#include "host/CommandLine.h"
#include "host/EntryConflicts.h"
#include "host/EntryOutcomeNames.h"
#include "host/LogFile.h"
#include "host/OutputPath.h"
#include "host/ProgressDisplay.h"
#include "installer/InstallerFiles.h"
#include "platform/FileIO.h"
#include "platform/JSONWriter.h"

namespace mavrel_host {
namespace {

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

std::string formatISOTime(std::time_t when) {
  std::tm parts{};
  localtime_r(&when, &parts);
  char text[40];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &parts);
  std::string iso = text;
  // strftime writes the offset as "+0100"; ISO 8601's extended form is "+01:00".
  if (iso.size() >= 5) iso.insert(iso.size() - 2, ":");
  return iso;
}

std::string formatRunReportJSON(const RunReport& report) {
  platform::JSONWriter json;
  json.beginObject();
  json.member("tool", "mavrel");
  json.member("toolVersion", toolVersion());
  json.member("schemaVersion", kRunReportSchemaVersion);
  json.member("root", report.root);
  json.member("startedAt", formatISOTime(report.startedAt));
  json.member("durationSeconds", report.seconds);
  json.member("succeeded", report.exitCode == 0);
  json.member("exitCode", static_cast<std::uint64_t>(report.exitCode));
  json.key("error").stringOrNull(report.error);
  optionalString(json, "interrupted", report.interruptedBy);
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

UniqueFd openReportFile(const std::string& path, std::string* reason) {
  UniqueFd file(
      ::open(absolutePath(path).c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!file.valid())
    *reason = "option '--report': cannot open '" + path + "': " + std::strerror(errno);
  return file;
}

namespace {

// Replaces what the open report file holds with `text`, durably.
bool writeThrough(int reportFile, const std::string& path, const std::string& text,
                  std::string* reason) {
  const auto fail = [&] {
    *reason = "cannot write the report '" + path + "': " + std::strerror(errno);
    return false;
  };
  if (::ftruncate(reportFile, 0) != 0) return fail();
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = ::pwrite(reportFile, text.data() + written, text.size() - written,
                                   static_cast<off_t>(written));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return fail();
    written += static_cast<std::size_t>(count);
  }
  if (::fsync(reportFile) != 0) return fail();
  return true;
}

}  // namespace

bool writeRunReport(int reportFile, const std::string& path, const RunReport& report,
                    std::string* reason) {
  const std::string text = formatRunReportJSON(report);
  if (const auto destination = checkOutputPath("--report", path, reason);
      destination && destination->standardOutput) {
    std::fflush(stdout);
    auto standardOutput = AppendOnlyFile::standardOutput(reason);
    if (!standardOutput) return false;
    if (!standardOutput->write(text.ends_with('\n') ? text : text + "\n")) {
      *reason = "cannot write the report to standard output: " +
                std::string(std::strerror(standardOutput->firstError()));
      return false;
    }
    return true;
  } else if (!destination) {
    return false;
  }
  if (reportFile >= 0) return writeThrough(reportFile, path, text, reason);
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

std::string plainMessage(std::string_view message, std::string_view entryPath) {
  std::string text(message);
  constexpr std::string_view kPrefix = "CVAppMigrator: ";
  if (text.starts_with(kPrefix)) text.erase(0, kPrefix.size());
  // An array's description: "(\n    item,\n    item\n)".
  static const std::regex array(R"(\(\n([\s\S]*?)\n\))");
  std::string joined;
  std::sregex_iterator it(text.begin(), text.end(), array), end;
  std::size_t last = 0;
  for (; it != end; ++it) {
    joined += text.substr(last, static_cast<std::size_t>(it->position()) - last);
    std::string items = (*it)[1];
    static const std::regex separator(R"(\s*,\s*\n\s*)");
    items = std::regex_replace(items, separator, ", ");
    joined += items;
    last = static_cast<std::size_t>(it->position() + it->length());
  }
  text = joined + text.substr(last);
  static const std::regex space(R"(\s+)");
  text = std::regex_replace(text, space, " ");
  static const std::regex url("file://");
  text = std::regex_replace(text, url, "");
  if (!entryPath.empty()) {
    const std::string place = std::string(entryPath) + "/";
    static const std::regex installerStaging(
        R"([^ ]*/com\.zentrel\.mobile\.corvaned\.staging/[^/ ]+/Payload/)");
    text = std::regex_replace(text, installerStaging, place);
    std::string ownStaging = place + "Staging/Payload/";
    for (std::size_t at = text.find(ownStaging); at != std::string::npos;
         at = text.find(ownStaging, at))
      text.replace(at, ownStaging.size(), place);
  }
  const std::size_t first = text.find_first_not_of(' ');
  const std::size_t lastCharacter = text.find_last_not_of(' ');
  return first == std::string::npos ? std::string() : text.substr(first, lastCharacter - first + 1);
}

std::string describeFailedRun(const RunReport& report) {
  std::size_t failed = 0, left = 0;
  for (const RecordedEntry& entry : report.entries) {
    if (entry.result.outcome == MavrelEntryOutcome::Failed) ++failed;
    if (entry.result.outcome == MavrelEntryOutcome::Left) ++left;
  }
  std::vector<std::string> parts;
  if (failed > 0)
    parts.push_back(std::to_string(failed) + (failed == 1 ? " legacy entry" : " legacy entries") +
                    " failed");
  if (left > 0)
    parts.push_back(std::to_string(left) +
                    (left == 1 ? " legacy entry was" : " legacy entries were") + " left in place");
  for (const MigratorRun& run : report.migrators) {
    if (!run.succeeded) parts.push_back("the pass of " + run.name + " reported failure");
  }
  for (const EntryConflict& conflict : findEntryConflicts(report.entries))
    parts.push_back("the data of " + conflict.identifier + " came from " +
                    std::to_string(conflict.paths.size()) + " containers (a conflict)");
  if (parts.empty()) return "the migration failed";
  std::string text = parts.front();
  for (std::size_t i = 1; i < parts.size(); ++i)
    text += (i + 1 == parts.size() ? " and " : ", ") + parts[i];
  return text;
}

std::string formatPassSummary(const MigratorRun& run, const std::vector<RecordedEntry>& entries,
                              const std::vector<std::string>& outsideErrors,
                              std::string_view logPath) {
  OutcomeTotals totals;
  std::string details;
  for (const RecordedEntry& entry : entries) {
    if (entry.migrator != run.name) continue;
    totals.add(entry.result.outcome);
    if (!entryFailed(entry)) continue;
    const std::string who =
        entry.identifier.empty() ? entry.path : entry.identifier + " (" + entry.path + ")";
    details +=
        "  " +
        std::string(entry.result.outcome == MavrelEntryOutcome::Failed
                        ? "failed at " + std::string(stepDescription(entry.result.failedStep))
                        : std::string("left in place")) +
        ": " + who;
    if (!entry.message.empty()) details += ": " + plainMessage(entry.message, entry.path);
    details += '\n';
  }
  const bool succeeded = passSucceeded(run, entries);
  if (!succeeded) {
    std::vector<std::string> shown;
    for (const std::string& error : outsideErrors) {
      // The pass's closing line says only that it failed, and "Migration of X
      // at Y failed" repeats an entry's failure; what failed is named above.
      if (error.find("Returning migration failed") != std::string::npos) continue;
      if (error.starts_with("CVAppMigrator: Migration of ") && error.ends_with(" failed")) continue;
      std::string line = plainMessage(error, "");
      if (std::find(shown.begin(), shown.end(), line) == shown.end()) shown.push_back(line);
    }
    constexpr std::size_t kShownErrors = 5;
    for (std::size_t i = 0; i < shown.size() && i < kShownErrors; ++i)
      details += "  failed outside any single entry: " + shown[i] + "\n";
    if (shown.size() > kShownErrors)
      details +=
          "  ... and " + std::to_string(shown.size() - kShownErrors) + " more errors in the log\n";
  }
  std::string text =
      formatSummaryLine(run.name, succeeded, std::chrono::duration<double>(run.seconds), logPath) +
      "\n";
  if (totals.entries() > 0) {
    text += "  " + std::to_string(totals.entries()) +
            " legacy entries: " + describeOutcomeTotals(totals) + "\n";
  }
  return text + details + formatEntryConflicts(conflictsOfPass(run, entries));
}

}  // namespace mavrel_host
