// The host program: parses the command line, prepares the device image (root,
// logs, temporary directory, services), loads the migrator plug-ins and runs
// each one's pass while showing its progress.
//
// Exit codes: 0 when every pass returned true with no entry failed or left, 1
// when one returned false or an entry failed or was left, 2 for a usage error
// or a failed set-up (bad root, log files that cannot be opened, a report that cannot be written
// where it was asked for, a plug-in that cannot be loaded or set up, no plug-in at all), 3 when
// --verify found user data missing or changed (whatever the passes returned). A log or report write
// that fails later is reported as a warning and leaves the code alone. Messages for the user go to
// the given streams.
//
// With --verify the user data is recorded before the passes and checked after
// them (UserDataVerification.h); with --report a JSON report is written once
// the logs are closed (RunReport.h). Each plug-in is given an observer that
// records its entries' outcomes and drives the progress display.
#pragma once

#include <cstdio>
#include <span>
#include <string_view>

#include "host/CommandLine.h"

namespace mavrel_host {

inline constexpr int kExitSucceeded = 0;
inline constexpr int kExitMigrationFailed = 1;
inline constexpr int kExitUsageOrSetUp = 2;
inline constexpr int kExitUserDataLost = 3;

// `arguments` excludes the program name.
int runHost(std::span<const std::string_view> arguments, std::FILE* out, std::FILE* err);

int runMigrate(const MigrateOptions& options, std::FILE* out, std::FILE* err);

// Raises the soft limit of open descriptors to the hard limit: removing deep
// trees keeps one descriptor per level open.
void raiseDescriptorLimit();

}  // namespace mavrel_host
