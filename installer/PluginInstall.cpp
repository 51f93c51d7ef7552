// VPN plug-ins under their own identifiers: the registry's record of one, its
// data container made on first need, and a package that holds one alone.
#include "installer/EmbeddedInstallerService.h"
#include "platform/Log.h"

namespace mavrel_installer {
namespace {

constexpr std::string_view kInstallFunction = "-[EmbeddedInstallerService installApplication]";
constexpr std::string_view kRegistryFunction = "-[EmbeddedInstallerService registry]";
constexpr std::string_view kPluginBundleType = "VPNPlugin";

}  // namespace

std::optional<platform::BundleRecord> EmbeddedInstallerService::pluginRecord(
    std::string_view identifier) {
  std::optional<PluginEntry> plugin;
  std::optional<ApplicationEntry> application;
  CVError error;
  if (!store_->findPlugin(identifier, plugin, &error) ||
      (plugin && !store_->findApplication(plugin->application, application, &error))) {
    platform::logInstaller(platform::kLogLevelError, kRegistryFunction,
                           "Could not look up the plug-in %@: %@", identifier, error);
    return std::nullopt;
  }
  if (!plugin || !application) return std::nullopt;
  // Without a data container (it could not be made), so that the caller says
  // what is missing.
  if (plugin->dataContainer.empty()) registerPluginDataContainer(*plugin);

  platform::BundleRecord record;
  record.bundleIdentifier = plugin->identifier;
  record.bundleType = std::string(kPluginBundleType);
  const std::string bundle = layout_.absolute(plugin->bundlePath);
  record.bundleURL = CVURL::fileURLWithPath(bundle, true);
  record.foundBackingBundle = itemKindAtPath(bundle) == ItemKind::Directory;
  if (!application->bundleContainer.empty())
    record.bundleContainerURL =
        CVURL::fileURLWithPath(layout_.absolute(application->bundleContainer), true);
  if (!plugin->dataContainer.empty())
    record.dataContainerURL = CVURL::fileURLWithPath(layout_.absolute(plugin->dataContainer), true);
  record.groupContainerURLs = CVDictionary();
  return record;
}

bool EmbeddedInstallerService::registerPluginDataContainer(PluginEntry& plugin) {
  InstallFailure failure;
  Preparation preparation;
  preparation.entry.identifier = plugin.identifier;
  const auto record = [&](CVError* error) {
    return store_->setPluginDataContainer(plugin.identifier, preparation.entry.dataContainer,
                                          error);
  };
  if (prepareContainers(preparation, {}, DataContainerShape::Complete, &failure) &&
      commitAndFinish(preparation, record, &failure)) {
    plugin.dataContainer = preparation.entry.dataContainer;
    platform::logInstaller(platform::kLogLevelNotice, kRegistryFunction,
                           "Made the data container %s of the VPN plug-in %@",
                           layout_.absolute(plugin.dataContainer), plugin.identifier);
    return true;
  }
  if (failure.error != InstallError::InstallFinishFailed) discardStagingItems(preparation.prepared);
  platform::logInstaller(platform::kLogLevelError, kRegistryFunction,
                         "Could not make the data container of the VPN plug-in %@: %@ (%@)",
                         plugin.identifier, failure.detail, failure.underlying);
  return false;
}

bool EmbeddedInstallerService::acceptPluginPayload(const std::string& origin,
                                                   const std::string& pluginName,
                                                   const InstallRequest& request,
                                                   const InstallProgress& progress,
                                                   CVError* error) {
  const std::string bundle = origin + "/Payload/" + pluginName;
  std::optional<PluginEntry> plugin;
  if (CVError lookupError; !store_->findPlugin(request.identifier, plugin, &lookupError)) {
    return progress.fail(
        kInstallFunction,
        {InstallError::RegistryFailure, "cannot look up " + request.identifier, lookupError},
        error);
  }
  if (!plugin) {
    return progress.fail(kInstallFunction,
                         {InstallError::UnexpectedPayloadContents,
                          origin + "/Payload holds the VPN plug-in " + request.identifier +
                              " but no application, and no installed application ships it",
                          {}},
                         error);
  }
  if (const std::string found = readBundleIdentifier(bundle); found != request.identifier) {
    return progress.fail(kInstallFunction,
                         {InstallError::BundleIdentifierMismatch,
                          "the bundle " + bundle + " is " +
                              (found.empty() ? "without an identifier" : "\"" + found + "\"") +
                              ", not \"" + request.identifier + "\"",
                          {}},
                         error);
  }
  progress.report(kStatusStaging);
  return keepInstalledPlugin(origin, *plugin, progress);
}

bool EmbeddedInstallerService::keepInstalledPlugin(const std::string& origin,
                                                   const PluginEntry& plugin,
                                                   const InstallProgress& progress) {
  // The copy installed with its application is the one that runs.
  discardStagingDirectory(origin);
  platform::logInstaller(platform::kLogLevelNotice, kInstallFunction,
                         "Kept the VPN plug-in %@ installed with %@; the copy in %s is not used",
                         plugin.identifier, plugin.application, origin);
  progress.report(kStatusComplete);
  return true;
}

}  // namespace mavrel_installer
