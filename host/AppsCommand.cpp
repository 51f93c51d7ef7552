#include "host/AppsCommand.h"

#include <string>

#include "host/MigrationHost.h"
#include "host/RecoverCommand.h"
#include "host/RootDirectory.h"
#include "installer/RegistryDatabase.h"
#include "installer/RegistryListing.h"
#include "platform/DeviceRoot.h"
#include "platform/JSONWriter.h"
#include "shared/configuration/CVGlobalConfiguration.h"

namespace mavrel_host {
namespace {

constexpr std::uint64_t kAppsSchemaVersion = 1;

void appendLine(std::string& text, std::string_view label, const std::string& value) {
  if (value.empty()) return;
  text += "  ";
  text += label;
  text += ": ";
  text += value;
  text += '\n';
}

}  // namespace

std::string formatListingText(const mavrel_installer::RegistryListing& listing) {
  std::string text;
  if (listing.registryExists) {
    text += "Application registry: " + listing.registryPath + "\n";
  } else {
    text += "No application registry yet at " + listing.registryPath + "\n";
  }
  if (listing.pendingInstalls > 0) {
    text += std::to_string(listing.pendingInstalls) +
            " interrupted install(s) wait to be finished or undone the next time the installer "
            "opens the registry.\n";
  }
  for (const mavrel_installer::ListedApplication& application : listing.applications) {
    text += "\n" + application.identifier + "  " + application.kind;
    if (!application.shortVersion.empty()) text += "  " + application.shortVersion;
    if (!application.version.empty()) text += " (" + application.version + ")";
    text += '\n';
    appendLine(text, "bundle container", application.bundleContainer);
    appendLine(text, "bundle", application.bundlePath);
    appendLine(text, "VPN plug-in", application.vpnPluginPath);
    appendLine(text, "VPN plug-in identifier", application.vpnPluginIdentifier);
    appendLine(text, "VPN plug-in data container", application.vpnPluginDataContainer);
    appendLine(
        text, "data container",
        application.dataContainer.empty() ? std::string("(none yet)") : application.dataContainer);
    for (const auto& [group, path] : application.groupContainers)
      appendLine(text, "group container " + group, path);
  }
  if (!listing.harbors.empty()) {
    text += "\nSafe harbors:\n";
    for (const mavrel_installer::ListedHarbor& harbor : listing.harbors) {
      text += "  " + harbor.identifier + "  " + harbor.path + "  (container type " +
              std::to_string(harbor.containerType) + ")\n";
    }
  }
  text += "\n" + std::to_string(listing.applications.size()) + " application(s), " +
          std::to_string(listing.harbors.size()) + " safe harbor(s)\n";
  return text;
}

std::string formatListingJSON(const mavrel_installer::RegistryListing& listing) {
  platform::JSONWriter json;
  json.beginObject()
      .member("tool", "mavrel")
      .member("toolVersion", toolVersion())
      .member("schemaVersion", kAppsSchemaVersion)
      .key("registry")
      .stringOrNull(listing.registryPath)
      .member("registryExists", listing.registryExists)
      .member("pendingInstalls", static_cast<std::uint64_t>(listing.pendingInstalls))
      .key("applications")
      .beginArray();
  for (const mavrel_installer::ListedApplication& application : listing.applications) {
    json.beginObject();
    for (const auto& [name, text] :
         {std::pair{"identifier", &application.identifier},
          {"kind", &application.kind},
          {"version", &application.version},
          {"shortVersion", &application.shortVersion},
          {"bundleContainer", &application.bundleContainer},
          {"bundle", &application.bundlePath},
          {"vpnPlugin", &application.vpnPluginPath},
          {"vpnPluginIdentifier", &application.vpnPluginIdentifier},
          {"vpnPluginDataContainer", &application.vpnPluginDataContainer},
          {"dataContainer", &application.dataContainer}})
      json.key(name).stringOrNull(*text);
    json.key("groupContainers").beginObject();
    for (const auto& [group, path] : application.groupContainers)
      json.key(group).stringOrNull(path);
    json.endObject().endObject();
  }
  json.endArray().key("safeHarbors").beginArray();
  for (const mavrel_installer::ListedHarbor& harbor : listing.harbors) {
    json.beginObject()
        .key("identifier")
        .stringOrNull(harbor.identifier)
        .key("path")
        .stringOrNull(harbor.path)
        .key("containerType");
    // Negative types are not written by the installer, but a registry is data.
    if (harbor.containerType < 0) {
      json.null();
    } else {
      json.value(static_cast<std::uint64_t>(harbor.containerType));
    }
    json.endObject();
  }
  return json.endArray().endObject().text();
}

int runApps(const AppsOptions& options, std::FILE* out, std::FILE* err) {
  std::string reason;
  const auto root = resolveRootDirectory(options.root, &reason);
  if (!root) {
    std::fprintf(err, "mavrel: option '--root': %s\nRun 'mavrel apps --help' for usage.\n",
                 reason.c_str());
    return kExitUsageOrSetUp;
  }
  platform::setProcessDeviceRoot(platform::DeviceRoot(*root));
  CVGlobalConfiguration configuration{platform::DeviceRoot(*root)};
  CVError error;
  const auto listing = mavrel_installer::readRegistryListing(configuration, &error);
  if (!listing) {
    std::fprintf(err, "mavrel: %s\n", error.localizedDescription().c_str());
    if (mavrel_installer::holdsCutWrite(error)) {
      std::fprintf(err,
                   "mavrel: 'mavrel migrate --root %s' rolls the cut write back (it opens the "
                   "registry for writing); list the applications again after it.\n",
                   root->c_str());
    }
    return kExitUsageOrSetUp;
  }
  std::string text = options.json ? formatListingJSON(*listing) : formatListingText(*listing);
  if (!options.json) text += safetyNetNotice(*root);
  std::fwrite(text.data(), 1, text.size(), out);
  std::fflush(out);
  return kExitSucceeded;
}

}  // namespace mavrel_host
