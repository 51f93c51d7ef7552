// SampleMaps: the device-wide files of a sample image: the legacy install map
// (with its "GroupContainers" entry), the harbor map "SafeHarbor.plist", the
// system version file "SystemBuild.plist" and the note
// "WhereDidMyApplicationsGo.txt" left in the legacy container directory.
//
// Error contract: nothing here fails; the caller writes the values.
#pragma once

#include <string>
#include <vector>

#include "platform/Value.h"
#include "samplegen/ImageManifest.h"

namespace samplegen {

// One application record of the install map.
struct InstallMapEntry {
  std::string identifier;
  std::string applicationType;  // "User", "VPNPlugin" or "System"
  std::string containerPath;    // empty for built-in applications
  std::string bundlePath;
  std::string vpnPluginPath;  // empty when none
  std::string version;
  std::string shortVersion;
};

// {"User": {id: record}, "System": {id: record},
//  "GroupContainers": {group id: {"Container": path}}}
CVDictionary makeInstallMap(const std::vector<InstallMapEntry>& user,
                            const std::vector<InstallMapEntry>& system,
                            const std::vector<GroupContainerManifest>& groups);

// {identifier: {"HarborPathKey": path}}
CVDictionary makeHarborMap(const std::vector<HarborManifest>& harbors);

// "SystemName", "SystemVersion", "SystemBuildVersion" of the sample system.
CVDictionary makeSystemBuild();

// The text of "WhereDidMyApplicationsGo.txt".
std::string strayNoteText();

}  // namespace samplegen
