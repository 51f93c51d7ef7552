#include "samplegen/SampleMaps.h"

#include "platform/SystemVersion.h"

namespace samplegen {
namespace {

CVDictionary record(const InstallMapEntry& entry) {
  CVDictionary record;
  record.set("QXBundleIdentifier", entry.identifier);
  record.set("QXBundleVersion", entry.version);
  record.set("QXBundleShortVersionString", entry.shortVersion);
  record.set("ApplicationType", entry.applicationType);
  if (!entry.containerPath.empty()) record.set("Container", entry.containerPath);
  record.set("Path", entry.bundlePath);
  if (!entry.vpnPluginPath.empty()) record.set("VPNPluginPath", entry.vpnPluginPath);
  return record;
}

}  // namespace

CVDictionary makeInstallMap(const std::vector<InstallMapEntry>& user,
                            const std::vector<InstallMapEntry>& system,
                            const std::vector<GroupContainerManifest>& groups) {
  CVDictionary userRecords;
  for (const InstallMapEntry& entry : user)
    userRecords.set(entry.identifier, record(entry));
  CVDictionary systemRecords;
  for (const InstallMapEntry& entry : system)
    systemRecords.set(entry.identifier, record(entry));
  CVDictionary groupRecords;
  for (const GroupContainerManifest& group : groups) {
    groupRecords.set(group.identifier, CVDictionary{{"Container", group.path}});
  }
  return CVDictionary{{"MetadataVersion", 3},
                      {"User", std::move(userRecords)},
                      {"System", std::move(systemRecords)},
                      {"GroupContainers", std::move(groupRecords)}};
}

CVDictionary makeHarborMap(const std::vector<HarborManifest>& harbors) {
  CVDictionary map;
  for (const HarborManifest& harbor : harbors) {
    map.set(harbor.identifier, CVDictionary{{"HarborPathKey", harbor.path}});
  }
  return map;
}

CVDictionary makeSystemBuild() {
  CVDictionary build;
  build.set("SystemName", "Orvos");
  build.set("SystemVersion", "21.1");
  build.set(std::string(platform::kSystemBuildVersionKey), "21B80");
  return build;
}

std::string strayNoteText() {
  return "Your applications are moving to a new home. Nothing in this directory is needed once "
         "the update has finished.\n";
}

}  // namespace samplegen
