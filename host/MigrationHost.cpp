#include "host/MigrationHost.h"

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/AppsCommand.h"
#include "host/Confinement.h"
#include "host/DataUsage.h"
#include "host/DroppingLogSink.h"
#include "host/EntryRecorder.h"
#include "host/FileSystemCheck.h"
#include "host/HostLogs.h"
#include "host/Interruption.h"
#include "host/OutputPath.h"
#include "host/ParallelFor.h"
#include "host/PlanCommand.h"
#include "host/PluginLoader.h"
#include "host/ProgressDisplay.h"
#include "host/ProgressTracker.h"
#include "host/RecoverCommand.h"
#include "host/RootDirectory.h"
#include "host/RunObserver.h"
#include "host/RunReport.h"
#include "host/SafetyNet.h"
#include "host/UserDataVerification.h"
#include "installer/EmbeddedInstallerService.h"
#include "installer/RegistryListing.h"
#include "platform/DeviceRoot.h"
#include "platform/Log.h"
#include "platform/SystemVersion.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "shared/filemanager/CVFileManager.h"

namespace mavrel_host {
namespace {

// Staging goes here so that it stays on the image's file system.
constexpr std::string_view kTemporaryDirectory = "private/var/tmp/mavrel";
constexpr mode_t kTemporaryDirectoryMode = 0700;

void printText(std::FILE* stream, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stream);
}

void printLine(std::FILE* stream, std::string_view text) {
  printText(stream, text);
  std::fputc('\n', stream);
  std::fflush(stream);
}

// How long a stop asked for by a signal waits for the entry under way.
constexpr std::chrono::seconds kInterruptionGrace{10};

// Where the person running the program reads what it says: standard output
// on a terminal, standard error otherwise (standard output then stays free
// for a report written through it). With --quiet, only errors and the final
// line are printed.
class Console {
 public:
  Console(std::FILE* out, std::FILE* err, bool quiet)
      : stream_(::isatty(::fileno(out)) == 1 ? out : err), err_(err), quiet_(quiet) {}

  std::FILE* stream() const { return stream_; }
  bool live() const { return !quiet_ && ::isatty(::fileno(stream_)) == 1; }
  bool quiet() const { return quiet_; }
  void line(std::string_view text) const {
    if (!quiet_) printLine(stream_, text);
  }
  void text(std::string_view text) const {
    if (quiet_) return;
    printText(stream_, text);
    std::fflush(stream_);
  }
  void error(std::string_view text) const { printLine(err_, "mavrel: " + std::string(text)); }
  void finalLine(std::string_view text) const { printLine(stream_, text); }
  std::FILE* errors() const { return err_; }

 private:
  std::FILE* stream_;
  std::FILE* err_;
  bool quiet_;
};

// A set-up migrator and the entry count it announced while setting up.
struct ReadyMigrator {
  LoadedMigrator loaded;
  std::optional<std::uint64_t> announcedTotal;
};

// Everything the end of a run needs, whichever way it ends.
struct MigrationRun {
  MigrationRun(const MigrateOptions& given, std::FILE* out, std::FILE* err)
      : options(given), console(out, err, given.quiet), progress(given.progressFD) {}

  const MigrateOptions& options;
  Console console;
  ProgressStream progress;
  RunReport report;
  bool reportChecked = false;
  // The report file, opened before the confinement; invalid for standard
  // output or when no report was asked for.
  UniqueFd reportFile;
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
  std::optional<HostLogs> logs;
  std::shared_ptr<EntryRecorder> recorder;
  // The migrator whose pass is under way, for an interruption's message.
  std::string passUnderWay;
  std::optional<std::uint64_t> passTotal;
};

// Writes the logs out, the report and the last progress event, and prints
// the final line. Returns `exitCode`.
int endRun(MigrationRun& run, int exitCode, std::string_view finalLine) {
  std::string reason;
  if (run.recorder) run.report.entries = run.recorder->entries();
  if (run.logs) {
    // A lost log line is worth a warning but does not change the outcome.
    for (FileLogSink* sink : {run.logs->migration.get(), run.logs->installer.get()}) {
      if (!sink->finish(&reason)) run.console.error("warning: " + reason);
    }
  }
  run.report.exitCode = exitCode;
  if (exitCode != kExitSucceeded && run.report.error.empty())
    run.report.error = std::string(finalLine);
  if (run.options.reportPath && run.reportChecked) {
    run.report.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - run.start).count();
    if (writeRunReport(run.reportFile.get(), *run.options.reportPath, run.report, &reason)) {
      if (!checkOutputPath("--report", *run.options.reportPath, &reason)
               .value_or(OutputPath{})
               .standardOutput)
        run.console.line("Report written to " + *run.options.reportPath);
    } else {
      run.console.error("warning: " + reason);
    }
  }
  run.progress.end(exitCode, run.report.interruptedBy, run.report.error);
  if (!finalLine.empty()) {
    if (exitCode == kExitUsageOrSetUp) {
      run.console.error(finalLine);
    } else {
      run.console.finalLine(finalLine);
    }
  }
  return exitCode;
}

// A run refused before or during set-up.
int refuse(MigrationRun& run, std::string_view reason) {
  run.report.error = std::string(reason);
  return endRun(run, kExitUsageOrSetUp, reason);
}

// The end of a run stopped by a signal: at a safe point, or at once.
[[noreturn]] void endInterrupted(MigrationRun& run, int signal, bool atSafePoint) {
  silenceLiveProgress();
  if (run.console.live()) printText(run.console.stream(), "\r\x1b[K");
  const std::vector<RecordedEntry> entries =
      run.recorder ? run.recorder->entries() : std::vector<RecordedEntry>();
  std::uint64_t dealtWith = 0;
  for (const RecordedEntry& entry : entries) {
    if (entry.migrator == run.passUnderWay) ++dealtWith;
  }
  const std::string name = signalName(signal);
  std::string what = "interrupted by " + name;
  if (!run.passUnderWay.empty()) {
    what += " during the pass of " + run.passUnderWay + ", after " + std::to_string(dealtWith) +
            (run.passTotal ? " of " + std::to_string(*run.passTotal) : std::string()) +
            " legacy entries";
  }
  what += atSafePoint ? " (between two entries)" : " (in the middle of an entry)";
  run.report.interruptedBy = name;
  run.report.error = what;
  const int exitCode = 128 + signal;
  endRun(run, exitCode,
         "mavrel: " + what +
             ". What was done is kept; run the same command again to resume the migration.");
  std::fflush(nullptr);
  std::_Exit(exitCode);
}

// Runs one migrator's pass with the progress shown on the console.
bool runPass(ReadyMigrator& ready, ProgressTracker& tracker, const Console& console) {
  MavrelMigrator& migrator = *ready.loaded.migrator;
  tracker.beginPass(ready.announcedTotal, /*observed=*/true);
  if (console.live()) {
    tracker.setApplicationListener({});
    const LiveProgressDisplay display(tracker, migrator, console.stream());
    return migrator.performMigration();
  }
  if (!console.quiet()) {
    tracker.setApplicationListener([&console](const ProgressSnapshot& snapshot) {
      console.line(formatApplicationLine(snapshot));
    });
  }
  const bool succeeded = migrator.performMigration();
  tracker.setApplicationListener({});
  return succeeded;
}

// Loads every plug-in, or none: a plug-in that fails to set up fails the run.
std::optional<std::vector<ReadyMigrator>> loadMigrators(const std::vector<std::string>& paths,
                                                        const MavrelHostServices& services,
                                                        ProgressTracker& tracker,
                                                        std::string* reason) {
  std::vector<ReadyMigrator> migrators;
  for (const std::string& path : paths) {
    tracker.reset();
    auto loaded = loadMigrator(path, services, reason);
    if (!loaded) return std::nullopt;
    migrators.push_back(ReadyMigrator{std::move(*loaded), tracker.snapshot().total});
  }
  return migrators;
}

// The manifest of the user data, taken with the migration log quiet: the
// classification that names each container's application writes the pass's
// notices there.
UserDataManifest recordUserData(const Console& console) {
  const auto drop = std::make_shared<DroppingLogSink>();
  const platform::ScopedLogSink quiet(platform::migrationLog(), drop, std::nullopt);
  UserDataManifest manifest =
      collectUserDataManifest(CVGlobalConfiguration::sharedInstance(), defaultWorkerCount());
  console.line("Recorded " + std::to_string(manifest.fileCount()) + " user-data files (" +
               formatBytes(manifest.byteCount()) + ") to verify after the migration");
  return manifest;
}

// A hard link of every user-data file before the pass; a run whose net
// cannot be made goes on without one.
std::optional<SafetyNet> laySafetyNet(const std::string& root, std::FILE* out, std::FILE* err) {
  std::string reason;
  auto net =
      SafetyNet::lay(root, CVGlobalConfiguration::sharedInstance(), std::time(nullptr), &reason);
  if (!net) {
    printLine(err, "mavrel: warning: no safety net: " + reason);
    return std::nullopt;
  }
  printText(out, formatSafetyNetLaid(net->result()));
  std::fflush(out);
  return net;
}

// Empties the host's scratch directory in the image. Nothing in it outlives
// the run that made it, and whatever the image put there (a link leading out
// of it, where the placeholders are staged) must not be built upon. The
// removal never follows a link.
bool clearScratchDirectory(const std::string& path, std::string* reason) {
  CVFileManager& fileManager = CVFileManager::defaultManager();
  CVError error;
  const auto entries = fileManager.urlsForItemsInDirectoryAtURL(CVURL::fileURLWithPath(path, true),
                                                                /*ignoringSymlinks=*/false, &error);
  bool cleared = entries.has_value();
  for (const CVURL& entry : entries.value_or(std::vector<CVURL>())) {
    cleared = fileManager.removeItemAtURL(entry, &error);
    if (!cleared) break;
  }
  if (cleared) return true;
  *reason = "cannot empty the scratch directory " + path + ": " + error.localizedDescription();
  return false;
}

// What the run says of each container and harbor, for the verification.
RunStatement whatTheRunSays(const std::vector<RecordedEntry>& entries) {
  RunStatement statement;
  for (const RecordedEntry& entry : entries) {
    const MavrelEntryOutcome outcome = entry.result.outcome;
    if (outcome == MavrelEntryOutcome::Migrated || outcome == MavrelEntryOutcome::PlaceholderOnly ||
        outcome == MavrelEntryOutcome::RefusedAsBuiltIn)
      statement.movedContainers.insert(entry.path);
  }
  CVError error;
  if (const auto listing =
          mavrel_installer::readRegistryListing(CVGlobalConfiguration::sharedInstance(), &error)) {
    for (const mavrel_installer::ListedHarbor& harbor : listing->harbors)
      statement.registeredHarbors.insert(harbor.identifier);
  }
  return statement;
}

// The final line of a run whose passes all ended.
std::string finalLineFor(const MigrationRun& run, int exitCode) {
  const RunReport& report = run.report;
  const std::string log = run.logs ? run.logs->migration->textPath() : std::string();
  switch (exitCode) {
    case kExitSucceeded:
      if (report.totals().entries() == 0)
        return "Nothing to migrate: " + report.root +
               " has no legacy containers (it was migrated already, or never had any).";
      return "Migration of " + report.root +
             " succeeded: " + std::to_string(report.totals().entries()) +
             " legacy entries dealt with (" + describeOutcomeTotals(report.totals()) + ").";
    case kExitUserDataLost:
      return "Migration of " + report.root +
             " finished, but user data is missing, changed or left behind (see above); keep the "
             "image as it "
             "is and see " +
             log + ".";
    default:
      return "Migration of " + report.root + " failed: " + describeFailedRun(report) + ". See " +
             log +
             "; fix what is named above and run the same command again (what was migrated stays "
             "migrated).";
  }
}

// Everything after the logs are open: services, plug-ins, passes, and the
// check of the user data.
int migrateWithLogs(MigrationRun& run, const std::string& root,
                    const std::vector<std::string>& pluginPaths, ProgressTracker& tracker,
                    InterruptionWatch& interruption) {
  const MigrateOptions& options = run.options;
  EntryRecorder& recorder = *run.recorder;
  const platform::DeviceRoot deviceRoot(root);
  std::optional<UserDataManifest> manifest;
  if (options.verify) manifest = recordUserData(run.console);
  CVError installerError;
  mavrel_installer::InstallerServiceOptions installerOptions;
  // The migrator stages its placeholders there and removes them afterwards.
  installerOptions.temporaryDirectory =
      deviceRoot.rootURL().URLByAppendingPathComponent(kTemporaryDirectory, true).path();
  const auto installer = mavrel_installer::EmbeddedInstallerService::open(
      CVGlobalConfiguration::sharedInstance(), &installerError, installerOptions);
  if (!installer)
    return refuse(run,
                  "cannot open the application registry: " + installerError.localizedDescription());
  const platform::DeviceSystemVersion systemVersion(deviceRoot.rootURL());
  RunObserver observer(recorder, &run.progress, &interruption);
  MavrelHostServices services;
  services.installer = installer.get();
  services.registry = installer.get();
  services.systemVersion = &systemVersion;
  services.temporaryDirectory =
      deviceRoot.rootURL().URLByAppendingPathComponent(kTemporaryDirectory, true);
  services.observer = &observer;

  run.console.line("Migrating device image at " + root);
  std::string reason;
  auto migrators = loadMigrators(pluginPaths, services, tracker, &reason);
  if (!migrators) return refuse(run, reason);
  // Once nothing can stop the passes, so that a failed set-up leaves no net.
  std::optional<SafetyNet> net;
  if (options.safetyNet) net = laySafetyNet(root, run.console.stream(), run.console.errors());

  const std::string logPath = run.logs->migration->textPath();
  int exitCode = kExitSucceeded;
  for (ReadyMigrator& ready : *migrators) {
    MigratorRun pass;
    pass.name = ready.loaded.migrator->dataClassName();
    pass.entriesFound = ready.announcedTotal;
    recorder.beginMigrator(pass.name);
    run.passUnderWay = pass.name;
    run.passTotal = ready.announcedTotal;
    run.progress.passBegan(pass.name, ready.announcedTotal);
    const auto start = std::chrono::steady_clock::now();
    pass.succeeded = runPass(ready, tracker, run.console);
    pass.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.console.text(formatPassSummary(pass, recorder.entries(),
                                       recorder.errorsOutsideEntries(pass.name), logPath));
    // A failed or left entry fails the run even when the pass returned true
    // (a pass may finish its work list and still report true).
    const bool passed = passSucceeded(pass, recorder.entries());
    if (!passed) exitCode = kExitMigrationFailed;
    run.progress.passEnded(pass.name, passed);
    run.report.migrators.push_back(std::move(pass));
  }
  run.passUnderWay.clear();
  // The migrators go before their modules are closed, and both before the
  // services they were given: here, as soon as the passes are over, so that
  // what they hold (a migrator keeps the whole install map) is given back
  // before the checks and the net's settling take theirs.
  migrators->clear();
  if (manifest) {
    const VerificationResult result = verifyUserData(
        *manifest, *installer, whatTheRunSays(run.recorder->entries()), defaultWorkerCount());
    run.console.text(formatVerification(result, exitCode == kExitSucceeded));
    if (result.dataLost()) exitCode = kExitUserDataLost;
    run.report.verification = result;
  }
  if (net) {
    net->settle(CVGlobalConfiguration::sharedInstance(), recorder.entries());
    run.console.text(formatSafetyNetSettled(net->result(), root));
    run.report.safetyNet = net->result();
  }
  return exitCode;
}

// Opens the JSON log file of `option` (or none), before anything else is written.
std::optional<std::optional<AppendOnlyFile>> openJSONLog(std::string_view option,
                                                         const std::optional<std::string>& path,
                                                         std::string* reason) {
  if (!path) return std::optional<AppendOnlyFile>();
  const auto destination = checkOutputPath(option, *path, reason);
  if (!destination) return std::nullopt;
  auto file = destination->standardOutput ? AppendOnlyFile::standardOutput(reason)
                                          : AppendOnlyFile::open(*path, reason);
  if (!file) {
    *reason = "option '" + std::string(option) + "': " + *reason;
    return std::nullopt;
  }
  return file;
}

}  // namespace

void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

int runMigrate(const MigrateOptions& options, std::FILE* out, std::FILE* err) {
  raiseDescriptorLimit();
  MigrationRun run(options, out, err);
  const std::time_t runTime = std::time(nullptr);
  run.report.root = options.root;
  run.report.startedAt = runTime;
  run.report.migrationLogJSON = options.migrationLogJSON;
  run.report.installerLogJSON = options.installerLogJSON;

  // Every option and output path is checked before anything is written.
  std::string reason;
  if (options.reportPath) {
    const auto destination = checkOutputPath("--report", *options.reportPath, &reason);
    if (!destination) {
      run.console.error(reason);
      return kExitUsageOrSetUp;
    }
    // Opened now: once confined, the run may write this file and nothing
    // else outside the image.
    if (!destination->standardOutput) {
      run.reportFile = openReportFile(*options.reportPath, &reason);
      if (!run.reportFile.valid()) {
        run.console.error(reason);
        return kExitUsageOrSetUp;
      }
    }
    run.reportChecked = true;
  }
  if (options.progressFD && !isWritableDescriptor(*options.progressFD)) {
    return refuse(run, "option '--progress-fd': descriptor " + std::to_string(*options.progressFD) +
                           " is not open for writing");
  }
  const auto root = resolveRootDirectory(options.root, &reason);
  if (!root) {
    run.report.error = "option '--root': " + reason;
    run.console.error(run.report.error);
    printText(err, "Run 'mavrel migrate --help' for usage.\n");
    return endRun(run, kExitUsageOrSetUp, "");
  }
  run.report.root = *root;
  if (!options.force && !holdsDeviceImage(*root, &reason)) {
    return refuse(run, "option '--root': " + reason +
                           "; nothing was written. Check the path, or add --force to migrate it "
                           "anyway.");
  }
  for (const auto& [option, path] : {std::pair{"--log-json", options.migrationLogJSON},
                                     std::pair{"--installer-log-json", options.installerLogJSON}}) {
    if (path && !checkOutputPath(option, *path, &reason)) return refuse(run, reason);
  }
  const std::string pluginDirectory =
      options.pluginDirectory ? *options.pluginDirectory : defaultPluginDirectory();
  const auto pluginPaths = findPlugins(pluginDirectory, &reason);
  if (!pluginPaths) return refuse(run, "option '--plugin-dir': " + reason);
  if (pluginPaths->empty())
    return refuse(
        run, "option '--plugin-dir': no plug-ins (*.migrator) found in '" + pluginDirectory + "'");
  const std::string lockPath = platform::DeviceRoot(*root).homeURL().path() + "/Library/Corvane/" +
                               std::string(mavrel_installer::kRegistryLockFileName);
  if (registryLockIsHeld(lockPath)) {
    return refuse(run, "the application registry of " + *root +
                           " is in use by another installer (a migration may be running): " +
                           lockPath + " is locked; nothing was written");
  }

  // The JSON logs are opened before the confinement, which then needs no rule for them.
  JSONLogFiles json;
  auto migrationJSON = openJSONLog("--log-json", options.migrationLogJSON, &reason);
  if (!migrationJSON) return refuse(run, reason);
  json.migration = std::move(*migrationJSON);
  auto installerJSON = openJSONLog("--installer-log-json", options.installerLogJSON, &reason);
  if (!installerJSON) return refuse(run, reason);
  json.installer = std::move(*installerJSON);

  // Before anything is made in the image: a link there must not lead out.
  if (!confineWrites(writablePlacesForMigration(*root, options), err, &reason))
    return refuse(run, reason);
  // Before anything reads the configuration or touches the file manager.
  platform::setProcessDeviceRoot(platform::DeviceRoot(*root));
  if (!checkOneFileSystem(*root, &reason)) return refuse(run, reason);

  if (!makeDirectoryInsideRoot(*root, kTemporaryDirectory, kTemporaryDirectoryMode, &reason)
           .valid())
    return refuse(run, reason);
  const std::string temporaryPath =
      *root + (*root == "/" ? "" : "/") + std::string(kTemporaryDirectory);
  if (!clearScratchDirectory(temporaryPath, &reason)) return refuse(run, reason);
  ::setenv("TMPDIR", temporaryPath.c_str(), 1);

  run.logs = openHostLogs(*root, options, runTime, std::move(json), &reason);
  if (!run.logs) return refuse(run, reason);
  run.report.migrationLog = run.logs->migration->textPath();
  run.report.installerLog = run.logs->installer->textPath();
  run.progress.start(*root);

  int exitCode = kExitSucceeded;
  {
    // Log lines go through the recorder, then the tracker, then the files;
    // the recorder passes the plug-in's reports on to the tracker.
    auto tracker = std::make_shared<ProgressTracker>(run.logs->migration);
    run.recorder = std::make_shared<EntryRecorder>(tracker, tracker.get());
    const platform::ScopedLogSink migrationSink(platform::migrationLog(), run.recorder,
                                                run.logs->migrationHandleLevel);
    const platform::ScopedLogSink installerSink(platform::installerLog(), run.logs->installer,
                                                run.logs->installerHandleLevel);
    InterruptionWatch interruption(
        run.console.errors(), kInterruptionGrace,
        [&run](int signal, bool atSafePoint) { endInterrupted(run, signal, atSafePoint); });
    exitCode = migrateWithLogs(run, *root, *pluginPaths, *tracker, interruption);
    // A stop at once from the watcher may be under way: it ends the process.
    if (!interruption.claimEnd()) {
      for (;;)
        ::pause();
    }
    if (exitCode == kExitUsageOrSetUp) return exitCode;  // refused and ended already
  }
  run.report.entries = run.recorder->entries();
  if (exitCode == kExitMigrationFailed) run.report.error = describeFailedRun(run.report);
  if (exitCode == kExitUserDataLost)
    run.report.error = "user data is missing, changed or left behind";
  return endRun(run, exitCode, finalLineFor(run, exitCode));
}

int runHost(std::span<const std::string_view> arguments, std::FILE* out, std::FILE* err) {
  const ParsedCommand command = parseCommandLine(arguments);
  switch (command.kind) {
    case ParsedCommand::Kind::Help:
      printText(out, generalUsageText());
      return kExitSucceeded;
    case ParsedCommand::Kind::MigrateHelp:
      printText(out, migrateUsageText());
      return kExitSucceeded;
    case ParsedCommand::Kind::AppsHelp:
      printText(out, appsUsageText());
      return kExitSucceeded;
    case ParsedCommand::Kind::Apps:
      return runApps(command.apps, out, err);
    case ParsedCommand::Kind::PlanHelp:
      printText(out, planUsageText());
      return kExitSucceeded;
    case ParsedCommand::Kind::Plan:
      return runPlan(command.apps, out, err);
    case ParsedCommand::Kind::RecoverHelp:
      printText(out, recoverUsageText());
      return kExitSucceeded;
    case ParsedCommand::Kind::Recover:
      return runRecover(command.recover, out, err);
    case ParsedCommand::Kind::Version:
      printText(out, versionText());
      return kExitSucceeded;
    case ParsedCommand::Kind::Error:
      printLine(err, "mavrel: " + command.error);
      printText(err, command.usage);
      return kExitUsageOrSetUp;
    case ParsedCommand::Kind::Migrate:
      break;
  }
  return runMigrate(command.options, out, err);
}

}  // namespace mavrel_host
