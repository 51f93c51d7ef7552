#include "host/FileSystemCheck.h"

#include <optional>
#include <utility>
#include <vector>

#include "AppMigrator/AppMigrator.h"
#include "host/DataUsage.h"
#include "host/HostLogs.h"
#include "installer/ContainerLayout.h"
#include "installer/InstallerFiles.h"
#include "platform/DeviceRoot.h"
#include "platform/PropertyList.h"
#include "shared/configuration/CVGlobalConfiguration.h"

namespace mavrel_host {

bool checkOneFileSystem(const std::string& root, std::string* reason) {
  const platform::DeviceRoot deviceRoot(root);
  const CVGlobalConfiguration configuration(deviceRoot);
  const mavrel_installer::ContainerLayout layout(
      root, pathRelativeToRoot(root, configuration.homeDirectory().path()));
  // Where data comes from: the legacy containers and group containers that exist.
  std::vector<std::string> sources;
  const std::string legacy = configuration.oldContainerPath().path();
  if (mavrel_installer::itemExists(legacy)) sources.push_back(legacy);
  for (const auto& [identifier, hostPath] :
       CVMigratableLegacyGroupContainers(configuration.oldInstallMapPath())) {
    if (mavrel_installer::itemExists(hostPath)) sources.push_back(hostPath);
  }
  if (sources.empty()) return true;
  const std::string destinations[] = {layout.directoryFor(mavrel_installer::ContainerClass::Bundle),
                                      layout.directoryFor(mavrel_installer::ContainerClass::Data),
                                      layout.directoryFor(mavrel_installer::ContainerClass::Group)};
  for (const std::string& destination : destinations) {
    const auto target = deviceOfNearestExisting(destination);
    for (const std::string& source : sources) {
      const auto device = deviceOfNearestExisting(source);
      if (device && target && *device == *target) continue;
      *reason = "'" + source + "' and '" + nearestExistingPath(destination) +
                "' are not on one file system: the migration moves data by renaming, and "
                "refuses to copy it between file systems (see 'mavrel plan')";
      return false;
    }
  }
  return true;
}

}  // namespace mavrel_host
