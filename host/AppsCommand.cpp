#include "host/AppsCommand.h"

#include <string>

#include "host/LogFormat.h"
#include "host/MigrationHost.h"
#include "host/RootDirectory.h"
#include "installer/RegistryListing.h"
#include "platform/DeviceRoot.h"
#include "shared/configuration/CVGlobalConfiguration.h"

namespace mavrel_host {
namespace {

void appendLine(std::string& text, std::string_view label, const std::string& value) {
  if (value.empty()) return;
  text += "  ";
  text += label;
  text += ": ";
  text += value;
  text += '\n';
}

// A JSON string, or null for an empty value.
void appendJSONValue(std::string& out, const std::string& value) {
  if (value.empty()) {
    out += "null";
  } else {
    appendJSONString(out, value);
  }
}

void appendJSONMember(std::string& out, std::string_view name, const std::string& value,
                      bool first = false) {
  if (!first) out += ',';
  appendJSONString(out, name);
  out += ':';
  appendJSONValue(out, value);
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
  std::string out = "{";
  appendJSONMember(out, "registry", listing.registryPath, true);
  out += ",\"registryExists\":";
  out += listing.registryExists ? "true" : "false";
  out += ",\"pendingInstalls\":" + std::to_string(listing.pendingInstalls);
  out += ",\"applications\":[";
  bool firstApplication = true;
  for (const mavrel_installer::ListedApplication& application : listing.applications) {
    if (!firstApplication) out += ',';
    firstApplication = false;
    out += '{';
    appendJSONMember(out, "identifier", application.identifier, true);
    appendJSONMember(out, "kind", application.kind);
    appendJSONMember(out, "version", application.version);
    appendJSONMember(out, "shortVersion", application.shortVersion);
    appendJSONMember(out, "bundleContainer", application.bundleContainer);
    appendJSONMember(out, "bundle", application.bundlePath);
    appendJSONMember(out, "vpnPlugin", application.vpnPluginPath);
    appendJSONMember(out, "vpnPluginIdentifier", application.vpnPluginIdentifier);
    appendJSONMember(out, "vpnPluginDataContainer", application.vpnPluginDataContainer);
    appendJSONMember(out, "dataContainer", application.dataContainer);
    out += ",\"groupContainers\":{";
    bool firstGroup = true;
    for (const auto& [group, path] : application.groupContainers) {
      appendJSONMember(out, group, path, firstGroup);
      firstGroup = false;
    }
    out += "}}";
  }
  out += "],\"safeHarbors\":[";
  bool firstHarbor = true;
  for (const mavrel_installer::ListedHarbor& harbor : listing.harbors) {
    if (!firstHarbor) out += ',';
    firstHarbor = false;
    out += '{';
    appendJSONMember(out, "identifier", harbor.identifier, true);
    appendJSONMember(out, "path", harbor.path);
    out += ",\"containerType\":" + std::to_string(harbor.containerType) + "}";
  }
  out += "]}\n";
  return out;
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
    return kExitUsageOrSetUp;
  }
  const std::string text = options.json ? formatListingJSON(*listing) : formatListingText(*listing);
  std::fwrite(text.data(), 1, text.size(), out);
  std::fflush(out);
  return kExitSucceeded;
}

}  // namespace mavrel_host
