#include "host/CommandLine.h"

#include <charconv>

#include "host/RecoverCommand.h"
#include "platform/Version.h"

namespace mavrel_host {
namespace {

constexpr int kMinimumLogLevel = 0;
constexpr int kMaximumLogLevel = 7;

constexpr std::string_view kMigrateShortUsage =
    "usage: mavrel migrate --root DIR [--report FILE] [--verify] [--quiet] [options]\n"
    "Run 'mavrel migrate --help' for every option, 'mavrel plan --root DIR' to see first\n"
    "what a migration would do.\n";
constexpr std::string_view kPlanShortUsage =
    "usage: mavrel plan --root DIR [--json]\n"
    "Run 'mavrel plan --help' for more.\n";
constexpr std::string_view kAppsShortUsage =
    "usage: mavrel apps --root DIR [--json]\n"
    "Run 'mavrel apps --help' for more.\n";
constexpr std::string_view kGeneralShortUsage =
    "usage: mavrel migrate|plan|apps --root DIR [options]\n"
    "Run 'mavrel --help' for the commands.\n";

ParsedCommand failure(std::string message, std::string_view usage = kGeneralShortUsage) {
  ParsedCommand command;
  command.kind = ParsedCommand::Kind::Error;
  command.error = std::move(message);
  command.usage = usage;
  return command;
}

ParsedCommand migrateFailure(std::string message) {
  return failure(std::move(message), kMigrateShortUsage);
}

std::optional<int> parseDescriptor(std::string_view text) {
  int value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, code] = std::from_chars(text.data(), end, value);
  if (text.empty() || code != std::errc() || stop != end || value < 0) return std::nullopt;
  return value;
}

ParsedCommand ofKind(ParsedCommand::Kind kind) {
  ParsedCommand command;
  command.kind = kind;
  return command;
}

std::optional<int> parseLevel(std::string_view text) {
  int value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, code] = std::from_chars(text.data(), end, value);
  if (text.empty() || code != std::errc() || stop != end) return std::nullopt;
  if (value < kMinimumLogLevel || value > kMaximumLogLevel) return std::nullopt;
  return value;
}

// Parses the words after "migrate".
ParsedCommand parseMigrate(std::span<const std::string_view> words) {
  ParsedCommand command = ofKind(ParsedCommand::Kind::Migrate);
  MigrateOptions& options = command.options;
  bool haveRoot = false;

  for (std::size_t i = 0; i < words.size(); ++i) {
    std::string_view word = words[i];
    if (word == "--help" || word == "-h") return ofKind(ParsedCommand::Kind::MigrateHelp);
    bool* flag = word == "--verify"                  ? &options.verify
                 : word == "--force"                 ? &options.force
                 : word == "--quiet" || word == "-q" ? &options.quiet
                                                     : nullptr;
    if (flag != nullptr) {
      if (*flag) return migrateFailure("option '" + std::string(word) + "' given more than once");
      *flag = true;
      continue;
    }
    if (word == "--dry-run" || word == "-n")
      return migrateFailure("'migrate' has no option '" + std::string(word) +
                            "': run 'mavrel plan --root DIR' to see what a migration would do, "
                            "changing nothing");
    if (word == "--no-safety-net") {
      if (!options.safetyNet)
        return migrateFailure("option '--no-safety-net' given more than once");
      options.safetyNet = false;
      continue;
    }

    // Accept both "--option value" and "--option=value".
    std::string_view name = word;
    std::optional<std::string_view> inlineValue;
    if (word.starts_with("--")) {
      if (const auto equals = word.find('='); equals != std::string_view::npos) {
        name = word.substr(0, equals);
        inlineValue = word.substr(equals + 1);
      }
    }
    if (name == "--verify" || name == "--force" || name == "--quiet")
      return migrateFailure("option '" + std::string(name) + "' takes no value");
    const bool known = name == "--root" || name == "--log-json" || name == "--installer-log-json" ||
                       name == "--log-level" || name == "--plugin-dir" || name == "--report" ||
                       name == "--progress-fd";
    if (!known) {
      if (word.starts_with("-"))
        return migrateFailure("unknown option '" + std::string(name) + "'");
      return migrateFailure("unexpected argument '" + std::string(word) + "'");
    }

    std::string_view value;
    if (inlineValue) {
      value = *inlineValue;
    } else {
      if (i + 1 >= words.size())
        return migrateFailure("option '" + std::string(name) + "' needs a value");
      value = words[++i];
    }
    if (value.empty())
      return migrateFailure("option '" + std::string(name) + "' needs a non-empty value");

    if (name == "--root") {
      if (haveRoot) return migrateFailure("option '--root' given more than once");
      haveRoot = true;
      options.root = std::string(value);
    } else if (name == "--log-json") {
      if (options.migrationLogJSON)
        return migrateFailure("option '--log-json' given more than once");
      options.migrationLogJSON = std::string(value);
    } else if (name == "--installer-log-json") {
      if (options.installerLogJSON)
        return migrateFailure("option '--installer-log-json' given more than once");
      options.installerLogJSON = std::string(value);
    } else if (name == "--log-level") {
      if (options.logLevel) return migrateFailure("option '--log-level' given more than once");
      options.logLevel = parseLevel(value);
      if (!options.logLevel)
        return migrateFailure("option '--log-level' needs a whole number from 0 to 7, not '" +
                              std::string(value) + "'");
    } else if (name == "--progress-fd") {
      if (options.progressFD) return migrateFailure("option '--progress-fd' given more than once");
      options.progressFD = parseDescriptor(value);
      if (!options.progressFD)
        return migrateFailure("option '--progress-fd' needs a file descriptor number, not '" +
                              std::string(value) + "'");
    } else if (name == "--report") {
      if (options.reportPath) return migrateFailure("option '--report' given more than once");
      options.reportPath = std::string(value);
    } else {
      if (options.pluginDirectory)
        return migrateFailure("option '--plugin-dir' given more than once");
      options.pluginDirectory = std::string(value);
    }
  }

  if (!haveRoot) return migrateFailure("option '--root' is required: the device image to migrate");
  return command;
}

// Parses the words after "apps" or "plan" (the same options).
ParsedCommand parseApps(std::span<const std::string_view> words, ParsedCommand::Kind kind,
                        ParsedCommand::Kind helpKind, std::string_view rootPurpose) {
  const std::string_view usage =
      kind == ParsedCommand::Kind::Plan ? kPlanShortUsage : kAppsShortUsage;
  const auto failure = [usage](std::string message) {
    return mavrel_host::failure(std::move(message), usage);
  };
  ParsedCommand command = ofKind(kind);
  bool haveRoot = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string_view word = words[i];
    if (word == "--help" || word == "-h") return ofKind(helpKind);
    if (word == "--json") {
      if (command.apps.json) return failure("option '--json' given more than once");
      command.apps.json = true;
      continue;
    }
    std::string_view value;
    if (word.starts_with("--root=")) {
      value = word.substr(7);
    } else if (word == "--root") {
      if (i + 1 >= words.size()) return failure("option '--root' needs a value");
      value = words[++i];
    } else if (word.starts_with("-")) {
      return failure("unknown option '" + std::string(word.substr(0, word.find('='))) + "'");
    } else {
      return failure("unexpected argument '" + std::string(word) + "'");
    }
    if (value.empty()) return failure("option '--root' needs a non-empty value");
    if (haveRoot) return failure("option '--root' given more than once");
    haveRoot = true;
    command.apps.root = std::string(value);
  }
  if (!haveRoot)
    return failure("option '--root' is required: the device image to " + std::string(rootPurpose));
  return command;
}

}  // namespace

ParsedCommand parseCommandLine(std::span<const std::string_view> arguments) {
  if (arguments.empty()) return failure("no command given");
  const std::string_view first = arguments.front();
  if (first == "--help" || first == "-h" || first == "help") {
    if (arguments.size() > 1)
      return failure("unexpected argument '" + std::string(arguments[1]) + "'");
    return ofKind(ParsedCommand::Kind::Help);
  }
  if (first == "--version" || first == "-V") {
    if (arguments.size() > 1)
      return failure("unexpected argument '" + std::string(arguments[1]) + "'");
    return ofKind(ParsedCommand::Kind::Version);
  }
  if (first == "migrate") return parseMigrate(arguments.subspan(1));
  if (first == "apps")
    return parseApps(arguments.subspan(1), ParsedCommand::Kind::Apps, ParsedCommand::Kind::AppsHelp,
                     "list");
  if (first == "plan")
    return parseApps(arguments.subspan(1), ParsedCommand::Kind::Plan, ParsedCommand::Kind::PlanHelp,
                     "plan for");
  if (first == "recover") return parseRecover(arguments.subspan(1));
  if (first.starts_with("-")) return failure("unknown option '" + std::string(first) + "'");
  return failure("unknown command '" + std::string(first) + "'");
}

std::string_view generalUsageText() {
  return "usage: mavrel migrate --root DIR [options]\n"
         "       mavrel plan --root DIR [--json]\n"
         "       mavrel apps --root DIR [--json]\n"
         "       mavrel recover --root DIR [--run ID] [--to DIR [--move]] | --purge\n"
         "       mavrel --help | --version | -V\n"
         "\n"
         "Commands:\n"
         "  migrate    migrate the applications of a device image to the current layout\n"
         "  plan       show what a migration would do with each legacy entry, changing nothing\n"
         "  apps       list the applications and safe harbors the image's registry holds\n"
         "  recover    list, copy out or purge what the safety nets of earlier migrations hold\n"
         "\n"
         "Options:\n"
         "  --help     alone: this text; after a command: the command and all its options\n"
         "             ('mavrel COMMAND --help')\n"
         "  --version, -V  print the program's version\n"
         "\n"
         "Run 'mavrel migrate --help', 'mavrel plan --help' or 'mavrel apps --help' for their\n"
         "options.\n";
}

std::string_view migrateUsageText() {
  return "usage: mavrel migrate --root DIR [options]\n"
         "\n"
         "Runs every migrator plug-in over the device image whose root directory is DIR.\n"
         "The image is changed in place: its legacy containers and legacy install map are\n"
         "removed as their applications move. Copy the image first to keep it as it was;\n"
         "run 'mavrel plan --root DIR' to see what would be done, changing nothing.\n"
         "\n"
         "Options:\n"
         "  --root DIR                  the device image's root directory (required)\n"
         "  --log-json FILE             also write the migration log to FILE, one JSON object\n"
         "                              per line\n"
         "  --installer-log-json FILE   also write the installer log to FILE as JSON lines\n"
         "  --log-level N               log level of both logs (0-7; 7 adds trace lines)\n"
         "  --plugin-dir DIR            load plug-ins (*.migrator) from DIR instead of the\n"
         "                              plugins directory beside the program\n"
         "  --verify                    before the pass, record the size and SHA-256 digest of\n"
         "                              every user-data file of every legacy container and\n"
         "                              legacy group container; after it, check each file at\n"
         "                              its new place and print what was verified, missing\n"
         "                              or changed\n"
         "  --report FILE               write a JSON report of the run to FILE: each legacy\n"
         "                              entry's outcome, totals, durations and the log files\n"
         "                              ('-' for standard output)\n"
         "  --force                     migrate DIR even when it holds no device image (no\n"
         "                              private/var/mobile and no system version)\n"
         "  --quiet, -q                 print only errors and the final line\n"
         "  --progress-fd N             write progress to the open descriptor N, one JSON\n"
         "                              object per line\n"
         "  --no-safety-net             keep no hard link of the user data during the pass\n"
         "                              (by default what the migration discards is kept in\n"
         "                              <home>/Library/Mavrel/SafetyNet; see 'mavrel recover')\n"
         "  --help                      show this text\n"
         "\n"
         "Progress and the summary go to standard output on a terminal, to standard error\n"
         "otherwise. Interrupted (Ctrl-C, SIGTERM), the migration stops after the entry under\n"
         "way (a second signal: at once), writes the report and exits 130 or 143; running the\n"
         "same command again resumes it.\n"
         "\n"
         "Exit status: 0 when every migration succeeded, 1 when one failed, 2 for a usage\n"
         "error or a failed set-up, 3 when --verify found a user-data file missing,\n"
         "changed or left behind, 130 or 143 when interrupted.\n";
}

std::string_view planUsageText() {
  return "usage: mavrel plan --root DIR [--json]\n"
         "\n"
         "Shows what 'mavrel migrate' would do with each entry of the legacy container\n"
         "directory of the device image whose root directory is DIR: the application (or\n"
         "VPN plug-in) it holds and whether the registry already knows it or carries it\n"
         "built in, the container to resume from its migration marker, what will be removed\n"
         "and what will be left, and the predicted outcome. With each entry its user data\n"
         "(files, bytes) and group containers; then the safe harbors and a space check.\n"
         "Nothing in the image is written: the registry is read without being opened for\n"
         "writing, and no log, directory or temporary file is made.\n"
         "\n"
         "Options:\n"
         "  --root DIR   the device image's root directory (required)\n"
         "  --json       print one JSON object instead of text\n"
         "  --help       show this text\n"
         "\n"
         "Exit status: 0 when the plan was made (whatever it predicts), 2 for a usage error\n"
         "or an image that cannot be read.\n";
}

std::string_view appsUsageText() {
  return "usage: mavrel apps --root DIR [--json]\n"
         "\n"
         "Lists what the application registry of the device image whose root directory is\n"
         "DIR holds: each application's identifier, kind (application, placeholder or\n"
         "system), version, bundle container, data container and group containers, and\n"
         "the safe harbors. Nothing in the image is changed, and a migration may be running.\n"
         "\n"
         "Options:\n"
         "  --root DIR   the device image's root directory (required)\n"
         "  --json       print one JSON object instead of text\n"
         "  --help       show this text\n"
         "\n"
         "Exit status: 0 when the registry could be read (or the image has none yet), 2 for\n"
         "a usage error or a registry that cannot be read.\n";
}

std::string_view toolVersion() {
  return platform::kMavrelVersion;
}

std::string versionText() {
  return "mavrel " + std::string(toolVersion()) + "\n";
}

}  // namespace mavrel_host
