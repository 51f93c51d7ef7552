#include "host/HostLogs.h"

#include <algorithm>

#include "host/RootDirectory.h"
#include "platform/DeviceRoot.h"

namespace mavrel_host {
namespace {

constexpr mode_t kLogDirectoryMode = 0755;

struct LogPlace {
  std::string directory;  // relative to the root
  std::string stem;       // the file name without ".log"
};

std::optional<AppendOnlyFile> openTextLog(const std::string& root, const LogPlace& place,
                                          std::string* reason) {
  const UniqueFd directory =
      makeDirectoryInsideRoot(root, place.directory, kLogDirectoryMode, reason);
  if (!directory.valid()) return std::nullopt;
  const std::string base = root == "/" ? "" : root;
  return AppendOnlyFile::createUniqueInDirectory(directory.get(), place.stem, ".log",
                                                 base + "/" + place.directory, reason);
}

}  // namespace

std::string pathRelativeToRoot(const std::string& root, const std::string& path) {
  const std::string rest = path.substr(std::min(root.size(), path.size()));
  const std::size_t first = rest.find_first_not_of('/');
  return first == std::string::npos ? std::string() : rest.substr(first);
}

std::optional<HostLogs> openHostLogs(const std::string& root, const MigrateOptions& options,
                                     std::time_t runTime, JSONLogFiles json, std::string* reason) {
  const std::string home = pathRelativeToRoot(root, platform::DeviceRoot(root).homeURL().path());
  const std::string stamp = formatFileTimestamp(runTime);

  auto migrationText =
      openTextLog(root, {home + "/Library/Logs/Mavrel", "Mavrel-" + stamp}, reason);
  if (!migrationText) return std::nullopt;
  auto installerText =
      openTextLog(root, {home + "/Library/Logs/Corvane", "Corvane-" + stamp}, reason);
  if (!installerText) return std::nullopt;

  HostLogs logs;
  // The progress display reads the migrator's notices, so the migration log
  // admits them even when a stricter level was asked for; its file sink then
  // applies the asked level.
  if (options.logLevel)
    logs.migrationHandleLevel = std::max(*options.logLevel, platform::kLogLevelNotice);
  logs.installerHandleLevel = options.logLevel;
  logs.migration = std::make_shared<FileLogSink>(LogFlavor::Migration, std::move(*migrationText),
                                                 std::move(json.migration), options.logLevel);
  logs.installer = std::make_shared<FileLogSink>(LogFlavor::Installer, std::move(*installerText),
                                                 std::move(json.installer), std::nullopt);
  return logs;
}

}  // namespace mavrel_host
