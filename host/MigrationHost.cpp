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
#include "host/ParallelFor.h"
#include "host/PlanCommand.h"
#include "host/PluginLoader.h"
#include "host/ProgressDisplay.h"
#include "host/ProgressTracker.h"
#include "host/RecoverCommand.h"
#include "host/RootDirectory.h"
#include "host/RunReport.h"
#include "host/SafetyNet.h"
#include "host/UserDataVerification.h"
#include "installer/EmbeddedInstallerService.h"
#include "installer/RegistryListing.h"
#include "platform/DeviceRoot.h"
#include "platform/Log.h"
#include "platform/SystemVersion.h"
#include "shared/configuration/CVGlobalConfiguration.h"

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

int setUpFailure(std::FILE* err, std::string_view reason) {
  printLine(err, "mavrel: " + std::string(reason));
  return kExitUsageOrSetUp;
}

// A set-up migrator and the entry count it announced while setting up.
struct ReadyMigrator {
  LoadedMigrator loaded;
  std::optional<std::uint64_t> announcedTotal;
};

// Runs one migrator's pass with the progress shown on `out`.
bool runPass(ReadyMigrator& ready, ProgressTracker& tracker, std::FILE* out) {
  MavrelMigrator& migrator = *ready.loaded.migrator;
  tracker.beginPass(ready.announcedTotal, /*observed=*/true);
  const bool live = ::isatty(::fileno(out)) == 1;
  if (live) {
    tracker.setApplicationListener({});
    const LiveProgressDisplay display(tracker, migrator, out);
    return migrator.performMigration();
  }
  tracker.setApplicationListener(
      [out](const ProgressSnapshot& snapshot) { printLine(out, formatApplicationLine(snapshot)); });
  const bool succeeded = migrator.performMigration();
  tracker.setApplicationListener({});
  return succeeded;
}

// Loads every plug-in, or none: a plug-in that fails to set up fails the run.
std::optional<std::vector<ReadyMigrator>> loadMigrators(const MigrateOptions& options,
                                                        const MavrelHostServices& services,
                                                        ProgressTracker& tracker,
                                                        std::string* reason) {
  const std::string directory =
      options.pluginDirectory ? *options.pluginDirectory : defaultPluginDirectory();
  const auto paths = findPlugins(directory, reason);
  if (!paths) return std::nullopt;
  if (paths->empty()) {
    *reason = "no plug-ins (*.migrator) found in '" + directory + "'";
    return std::nullopt;
  }
  std::vector<ReadyMigrator> migrators;
  for (const std::string& path : *paths) {
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
UserDataManifest recordUserData(std::FILE* out) {
  const auto drop = std::make_shared<DroppingLogSink>();
  const platform::ScopedLogSink quiet(platform::migrationLog(), drop, std::nullopt);
  UserDataManifest manifest =
      collectUserDataManifest(CVGlobalConfiguration::sharedInstance(), defaultWorkerCount());
  printLine(out, "Recorded " + std::to_string(manifest.fileCount()) + " user-data files (" +
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

// Everything after the logs are open: services, plug-ins, passes, and the
// check of the user data. What the run did goes into `report`.
int migrateWithLogs(const std::string& root, const MigrateOptions& options,
                    ProgressTracker& tracker, EntryRecorder& recorder, const std::string& logPath,
                    RunReport& report, std::FILE* out, std::FILE* err) {
  const platform::DeviceRoot deviceRoot(root);
  std::optional<UserDataManifest> manifest;
  if (options.verify) manifest = recordUserData(out);
  CVError installerError;
  const auto installer = mavrel_installer::EmbeddedInstallerService::open(
      CVGlobalConfiguration::sharedInstance(), &installerError);
  if (!installer) {
    return setUpFailure(
        err, "cannot open the application registry: " + installerError.localizedDescription());
  }
  const platform::DeviceSystemVersion systemVersion(deviceRoot.rootURL());
  MavrelHostServices services;
  services.installer = installer.get();
  services.registry = installer.get();
  services.systemVersion = &systemVersion;
  services.temporaryDirectory =
      deviceRoot.rootURL().URLByAppendingPathComponent(kTemporaryDirectory, true);
  services.observer = &recorder;

  printLine(out, "Migrating device image at " + root);
  std::string reason;
  auto migrators = loadMigrators(options, services, tracker, &reason);
  if (!migrators) return setUpFailure(err, reason);
  // Once nothing can stop the passes, so that a failed set-up leaves no net.
  std::optional<SafetyNet> net;
  if (options.safetyNet) net = laySafetyNet(root, out, err);

  int exitCode = kExitSucceeded;
  for (ReadyMigrator& ready : *migrators) {
    MigratorRun run;
    run.name = ready.loaded.migrator->dataClassName();
    run.entriesFound = ready.announcedTotal;
    recorder.beginMigrator(run.name);
    const auto start = std::chrono::steady_clock::now();
    run.succeeded = runPass(ready, tracker, out);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    printText(out, formatPassSummary(run, recorder.entries(), logPath));
    std::fflush(out);
    // A failed or left entry fails the run even when the pass returned true
    // (a pass may finish its work list and still report true).
    if (!passSucceeded(run, recorder.entries())) exitCode = kExitMigrationFailed;
    report.migrators.push_back(std::move(run));
  }
  if (manifest) {
    const VerificationResult result = verifyUserData(
        *manifest, *installer, whatTheRunSays(recorder.entries()), defaultWorkerCount());
    printText(out, formatVerification(result, exitCode == kExitSucceeded));
    std::fflush(out);
    if (result.dataLost()) exitCode = kExitUserDataLost;
    report.verification = result;
  }
  if (net) {
    net->settle(CVGlobalConfiguration::sharedInstance(), recorder.entries());
    printText(out, formatSafetyNetSettled(net->result(), root));
    std::fflush(out);
    report.safetyNet = net->result();
  }
  // The migrators go before their modules are closed, and both before the
  // services they were given.
  migrators->clear();
  return exitCode;
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
  const std::time_t runTime = std::time(nullptr);
  const auto runStart = std::chrono::steady_clock::now();

  std::string reason;
  const auto root = resolveRootDirectory(options.root, &reason);
  if (!root) {
    printLine(err, "mavrel: option '--root': " + reason);
    printLine(err, "Run 'mavrel migrate --help' for usage.");
    return kExitUsageOrSetUp;
  }
  if (options.reportPath && !checkReportDestination(*options.reportPath, &reason)) {
    printLine(err, "mavrel: " + reason);
    return kExitUsageOrSetUp;
  }
  // Before anything is made in the image: a link there must not lead out.
  if (!confineWrites(writablePlacesForMigration(*root, options), err, &reason))
    return setUpFailure(err, reason);
  // Before anything reads the configuration or touches the file manager.
  platform::setProcessDeviceRoot(platform::DeviceRoot(*root));
  if (!checkOneFileSystem(*root, &reason)) return setUpFailure(err, reason);

  if (!makeDirectoryInsideRoot(*root, kTemporaryDirectory, kTemporaryDirectoryMode, &reason)
           .valid())
    return setUpFailure(err, reason);
  const std::string temporaryPath =
      *root + (*root == "/" ? "" : "/") + std::string(kTemporaryDirectory);
  ::setenv("TMPDIR", temporaryPath.c_str(), 1);

  auto logs = openHostLogs(*root, options, runTime, &reason);
  if (!logs) return setUpFailure(err, reason);

  RunReport report;
  report.root = *root;
  report.startedAt = runTime;
  report.migrationLog = logs->migration->textPath();
  report.installerLog = logs->installer->textPath();
  report.migrationLogJSON = options.migrationLogJSON;
  report.installerLogJSON = options.installerLogJSON;
  int exitCode = kExitSucceeded;
  {
    // Log lines go through the recorder, then the tracker, then the files;
    // the recorder passes the plug-in's reports on to the tracker.
    auto tracker = std::make_shared<ProgressTracker>(logs->migration);
    auto recorder = std::make_shared<EntryRecorder>(tracker, tracker.get());
    const platform::ScopedLogSink migrationSink(platform::migrationLog(), recorder,
                                                logs->migrationHandleLevel);
    const platform::ScopedLogSink installerSink(platform::installerLog(), logs->installer,
                                                logs->installerHandleLevel);
    exitCode = migrateWithLogs(*root, options, *tracker, *recorder, logs->migration->textPath(),
                               report, out, err);
    report.entries = recorder->entries();
  }

  // A lost log line is worth a warning but does not change the migration's
  // outcome.
  for (FileLogSink* sink : {logs->migration.get(), logs->installer.get()}) {
    if (!sink->finish(&reason)) printLine(err, "mavrel: warning: " + reason);
  }
  if (options.reportPath) {
    report.exitCode = exitCode;
    report.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - runStart).count();
    if (writeRunReport(*options.reportPath, report, &reason)) {
      printLine(out, "Report written to " + *options.reportPath);
    } else {
      printLine(err, "mavrel: warning: " + reason);
    }
  }
  return exitCode;
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
      printText(err, generalUsageText());
      return kExitUsageOrSetUp;
    case ParsedCommand::Kind::Migrate:
      break;
  }
  return runMigrate(command.options, out, err);
}

}  // namespace mavrel_host
