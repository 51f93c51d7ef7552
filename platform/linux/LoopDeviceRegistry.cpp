#include "platform/linux/LoopDeviceRegistry.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

namespace platform {
namespace {

std::vector<std::string> directoryNames(const std::string& path) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path.c_str()), ::closedir);
  if (!directory) return names;
  while (const dirent* entry = ::readdir(directory.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool exists(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0;
}

// A loop device is attached when it has a non-empty backing file.
bool isAttached(const std::string& deviceDirectory) {
  struct stat status;
  return ::stat((deviceDirectory + "/loop/backing_file").c_str(), &status) == 0 &&
         status.st_size > 0;
}

}  // namespace

std::unique_ptr<IORegistryTree> makeLoopDeviceRegistry(const std::string& sysfsRoot) {
  auto registry = std::make_unique<IORegistryTree>();
  const std::string blockDirectory = sysfsRoot + "/block";
  if (!exists(sysfsRoot + "/module/loop") && !exists(blockDirectory + "/loop0")) return registry;

  const auto controller = registry->addNode(IORegistryTree::kRoot, {"HWVDSKController"});
  for (const std::string& name : directoryNames(blockDirectory)) {
    if (!name.starts_with("loop") || !isAttached(blockDirectory + "/" + name)) continue;
    const auto drive = registry->addNode(controller, {"HWVDSKHDDrive"});
    const auto media = registry->addNode(drive, {"HWMedia"}, CVDictionary{{"BSD Name", name}});
    for (const std::string& child : directoryNames(blockDirectory + "/" + name)) {
      if (child.starts_with(name + "p")) {
        registry->addNode(media, {"HWMedia"}, CVDictionary{{"BSD Name", child}});
      }
    }
  }
  return registry;
}

}  // namespace platform
