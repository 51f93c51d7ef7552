#include "samplegen/ImageManifest.h"

#include <algorithm>
#include <cstdio>

#include "platform/JSONWriter.h"
#include "platform/Version.h"

namespace samplegen {
namespace {

// Raised when a member changes meaning or goes away.
constexpr std::uint64_t kImageManifestSchemaVersion = 1;

std::string fixed(double number, int decimals) {
  char buffer[400];  // room for any double in fixed notation
  std::snprintf(buffer, sizeof buffer, "%.*f", decimals, number);
  return buffer;
}

}  // namespace

std::size_t ImageManifest::applicationCount() const {
  return static_cast<std::size_t>(
      std::count_if(containers.begin(), containers.end(),
                    [](const ContainerManifest& c) { return c.containerType == "App"; }));
}

std::size_t ImageManifest::vpnOnlyCount() const {
  return containers.size() - applicationCount();
}

std::string manifestJSON(const ImageManifest& manifest) {
  platform::JSONWriter json(platform::JSONWriter::Layout::Indented);
  json.beginObject()
      .member("tool", "mavrel-mkimage")
      .member("toolVersion", platform::kMavrelVersion)
      .member("schemaVersion", kImageManifestSchemaVersion)
      .member("root", manifest.root)
      .member("seed", manifest.seed)
      .member("dataScale", manifest.dataScale)
      .member("legacyDirectory", manifest.legacyDirectory)
      .member("installMap", manifest.installMapPath)
      .member("harborMap", manifest.harborMapPath)
      .member("systemBuild", manifest.systemBuildPath)
      .member("strayNote", manifest.strayNotePath);

  json.key("containers").beginArray();
  for (const ContainerManifest& container : manifest.containers) {
    json.beginObject()
        .member("identifier", container.identifier)
        .member("containerType", container.containerType)
        .member("containerPath", container.containerPath)
        .member("bundlePath", container.bundlePath);
    if (!container.vpnPluginPath.empty()) json.member("vpnPluginPath", container.vpnPluginPath);
    json.member("infoPlistFormat", container.infoPlistFormat);
    json.key("groups").strings(container.groups);
    json.key("storeMetadata").strings(container.storeMetadata);
    json.member("dataFiles", container.dataFiles)
        .member("dataBytes", container.dataBytes)
        .member("missingExecutable", container.missingExecutable)
        .member("extraItem", container.extraItem)
        .member("builtInDuplicate", container.builtInDuplicate)
        .endObject();
  }
  json.endArray();

  json.key("groupContainers").beginArray();
  for (const GroupContainerManifest& group : manifest.groupContainers) {
    json.beginObject().member("identifier", group.identifier).member("path", group.path);
    json.key("members").strings(group.members);
    json.member("files", group.files).member("bytes", group.bytes).endObject();
  }
  json.endArray();

  json.key("harbors").beginArray();
  for (const HarborManifest& harbor : manifest.harbors) {
    json.beginObject()
        .member("identifier", harbor.identifier)
        .member("path", harbor.path)
        .member("files", harbor.files)
        .member("bytes", harbor.bytes)
        .endObject();
  }
  json.endArray();

  json.key("builtInApplications").beginArray();
  for (const BuiltInManifest& builtIn : manifest.builtIns) {
    json.beginObject()
        .member("identifier", builtIn.identifier)
        .member("bundlePath", builtIn.bundlePath)
        .member("location", builtIn.location)
        .endObject();
  }
  json.endArray();

  json.key("totals")
      .beginObject()
      .member("applications", std::uint64_t{manifest.applicationCount()})
      .member("vpnOnlyContainers", std::uint64_t{manifest.vpnOnlyCount()})
      .member("files", manifest.files)
      .member("directories", manifest.directories)
      .member("bytes", manifest.bytes)
      .member("seconds", manifest.seconds)
      .endObject();
  json.endObject();
  return json.text();
}

std::string manifestSummary(const ImageManifest& manifest) {
  const auto withVPN =
      std::count_if(manifest.containers.begin(), manifest.containers.end(),
                    [](const ContainerManifest& c) { return !c.vpnPluginPath.empty(); });
  const auto count = [](auto number) { return std::to_string(number); };
  return "Legacy device image at " + manifest.root + " (seed " + count(manifest.seed) + ")\n" +
         "  applications: " + count(manifest.applicationCount()) + " (" + count(withVPN) +
         " with a VPN plug-in), VPN-only containers: " + count(manifest.vpnOnlyCount()) + "\n" +
         "  group containers: " + count(manifest.groupContainers.size()) +
         ", safe harbors: " + count(manifest.harbors.size()) +
         ", built-in applications: " + count(manifest.builtIns.size()) + "\n" +
         "  files: " + count(manifest.files) + ", directories: " + count(manifest.directories) +
         ", bytes: " + count(manifest.bytes) + " (" +
         fixed(static_cast<double>(manifest.bytes) / (1024.0 * 1024.0), 1) + " MB), made in " +
         fixed(manifest.seconds, 2) + " s\n";
}

}  // namespace samplegen
