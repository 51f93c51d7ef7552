// The two log files of a run and the sinks that write them.
//
// The migration log goes to "<home>/Library/Logs/Mavrel/Mavrel-<stamp>.log"
// and the installer log to "<home>/Library/Logs/Corvane/Corvane-<stamp>.log",
// <home> being the device image's mobile home and <stamp> the run's local
// start time ("2026-11-21-083200"); a second run in the same second gets
// "-2" after the stamp, and so on. The directories are made (mode 0755)
// without leaving the image. The JSON copies, opened by the caller before
// anything else was written, go where the options say.
//
// Error contract: openHostLogs returns nullopt and a one-line reason when a
// directory or file cannot be made or opened.
#pragma once

#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "host/CommandLine.h"
#include "host/FileLogSink.h"

namespace mavrel_host {

struct HostLogs {
  std::shared_ptr<FileLogSink> migration;
  std::shared_ptr<FileLogSink> installer;
  // The handle levels to give the two logs (nullopt: no handle).
  std::optional<int> migrationHandleLevel;
  std::optional<int> installerHandleLevel;
};

// The JSON log files the user asked for, each opened already (or none).
struct JSONLogFiles {
  std::optional<AppendOnlyFile> migration;
  std::optional<AppendOnlyFile> installer;
};

// `root` is the resolved device root.
std::optional<HostLogs> openHostLogs(const std::string& root, const MigrateOptions& options,
                                     std::time_t runTime, JSONLogFiles json, std::string* reason);

// The path of `path` relative to `root` ("" for the root itself); `path` must
// lie inside the root.
std::string pathRelativeToRoot(const std::string& root, const std::string& path);

}  // namespace mavrel_host
