#include "host/DataUsage.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "installer/InstallerFiles.h"
#include "platform/linux/TreeWalker.h"

namespace mavrel_host {

DataUsage walkRegularFiles(const std::string& root, const RegularFileVisitor& visit) {
  DataUsage usage;
  if (!mavrel_installer::itemExists(root)) return usage;
  platform::sys::TreeWalker walker = platform::sys::TreeWalker::open(root.c_str());
  if (!walker.valid()) {
    ++usage.unreadable;
    return usage;
  }
  platform::sys::WalkEntry entry;
  while (walker.next(entry)) {
    switch (entry.kind) {
      case platform::sys::WalkKind::File: {
        const std::string_view path(entry.path);
        std::string_view relative = path.substr(std::min(path.size(), root.size()));
        if (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
        if (relative.empty()) {
          const std::size_t slash = path.find_last_of('/');
          relative = slash == std::string_view::npos ? path : path.substr(slash + 1);
        }
        const auto size = static_cast<std::uint64_t>(entry.status->st_size);
        ++usage.files;
        usage.bytes += size;
        if (visit) visit(relative, size);
        break;
      }
      case platform::sys::WalkKind::DirectoryUnreadable:
      case platform::sys::WalkKind::NoStat:
      case platform::sys::WalkKind::MountPoint:  // not the image's: never read
        ++usage.unreadable;
        break;
      default:
        break;
    }
  }
  return usage;
}

DataUsage dataUsageBelow(const std::string& root) {
  return walkRegularFiles(root, {});
}

std::string nearestExistingPath(const std::string& path) {
  std::string current = path;
  while (!current.empty() && !mavrel_installer::itemExists(current)) {
    const std::size_t slash = current.find_last_of('/');
    if (slash == std::string::npos) return std::string();
    current = slash == 0 ? std::string("/") : current.substr(0, slash);
  }
  return current;
}

std::optional<dev_t> deviceOfNearestExisting(const std::string& path) {
  const std::string existing = nearestExistingPath(path);
  if (existing.empty()) return std::nullopt;
  return mavrel_installer::deviceOfPath(existing);
}

std::string formatBytes(std::uint64_t bytes) {
  if (bytes < 1000) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
  static constexpr const char* kUnits[] = {"kB", "MB", "GB", "TB", "PB"};
  double value = static_cast<double>(bytes) / 1000.0;
  std::size_t unit = 0;
  while (value >= 1000.0 && unit + 1 < std::size(kUnits)) {
    value /= 1000.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

}  // namespace mavrel_host
