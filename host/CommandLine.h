// The host's command line:
//
//   mavrel migrate --root DIR [--log-json FILE] [--installer-log-json FILE]
//                  [--log-level N] [--plugin-dir DIR] [--verify] [--report FILE]
//                  [--force] [--quiet] [--progress-fd N] [--no-safety-net]
//   mavrel recover --root DIR [--run ID] [--to DIR [--move]] | --purge [--run ID]
//   mavrel plan --root DIR [--json]
//   mavrel apps --root DIR [--json]
//   mavrel --help | mavrel COMMAND --help | mavrel --version | mavrel -V
//
// Error contract: parseCommandLine never exits and never touches the file
// system; a malformed command line gives a ParsedCommand of kind Error whose
// message names the option (or word) at fault. Whether --root names a
// directory is checked later, by resolveRootDirectory (RootDirectory.h).
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "host/RecoverOptions.h"

namespace mavrel_host {

struct MigrateOptions {
  std::string root;
  std::optional<std::string> migrationLogJSON;
  std::optional<std::string> installerLogJSON;
  std::optional<int> logLevel;
  std::optional<std::string> pluginDirectory;
  // Check every user-data file at its new place after the pass.
  bool verify = false;
  // Where to write the JSON report of the run.
  std::optional<std::string> reportPath;
  // Migrate a directory that does not look like a device image.
  bool force = false;
  // Print only errors and the final line.
  bool quiet = false;
  // A descriptor, open for writing, that gets one JSON object per event.
  std::optional<int> progressFD;
  // Keep a hard link of every user-data file until the pass is over (SafetyNet.h).
  bool safetyNet = true;
};

struct AppsOptions {
  std::string root;
  bool json = false;
};

// `plan` takes the same options as `apps`.
using PlanOptions = AppsOptions;

struct ParsedCommand {
  enum class Kind {
    Migrate,
    Apps,
    Plan,
    Recover,
    Help,
    MigrateHelp,
    AppsHelp,
    PlanHelp,
    RecoverHelp,
    Version,
    Error
  };
  Kind kind = Kind::Error;
  MigrateOptions options;  // meaningful for Migrate
  AppsOptions apps;        // meaningful for Apps and Plan
  RecoverOptions recover;  // meaningful for Recover
  std::string error;       // meaningful for Error: one line, without the program name
  // Meaningful for Error: the short usage of the command at fault (the
  // general one when no command was recognised), ending with a newline.
  std::string_view usage;
};

// `arguments` excludes the program name (argv[1] onwards).
ParsedCommand parseCommandLine(std::span<const std::string_view> arguments);

// Texts printed by --help, migrate --help, plan --help, apps --help and --version.
std::string_view generalUsageText();
std::string_view migrateUsageText();
std::string_view planUsageText();
std::string_view appsUsageText();
std::string versionText();
// The version alone ("0.1.0"), as JSON documents carry it.
std::string_view toolVersion();

}  // namespace mavrel_host
