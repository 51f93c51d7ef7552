// Installing a customer package: a staging directory holding "Payload".
//
// Order of events, each committed or done before the next:
//   1. the staging directory is given a record of where it comes from and of
//      the name it takes in the staging root (InstallerFiles.h);
//   2. one rename consumes it into the staging root;
//   3. the bundle is checked there; a failure puts the directory back;
//   4. a data container and new group containers are prepared as entries of
//      their own in the staging root;
//   5. the registration and the finish steps are committed together;
//   6. the finish steps turn the consumed directory into the bundle container
//      (the bundles come up out of "Payload", what is not installed goes),
//      rename it and the prepared containers into place, and remove a
//      replaced bundle container.
// A crash before 5 is undone at the next opening (the consumed directory put
// back from its record, prepared entries swept), a crash after it is
// finished (6 done again).
#include <algorithm>
#include <set>

#include "AppMigrator/LegacyLayoutNames.h"
#include "installer/EmbeddedInstallerService.h"
#include "installer/FaultInjection.h"
#include "platform/Log.h"
#include "shared/filemanager/CVFileManager.h"

namespace mavrel_installer {
namespace {

constexpr std::string_view kFunction = "-[EmbeddedInstallerService installApplication]";

}  // namespace

bool EmbeddedInstallerService::isProtectedLocation(const std::string& path) const {
  const std::string containers = layout_.home() + "/Containers";
  for (const std::string* place : {&dataDirectory_, &stagingRoot_,
                                   &layout_.directoryFor(ContainerClass::Bundle), &containers}) {
    if (pathIsWithin(path, *place) || pathIsWithin(*place, path)) return true;
  }
  return false;
}

void EmbeddedInstallerService::restoreStagingDirectory(const std::string& staged,
                                                       const std::string& origin) {
  const JournalStep restore{JournalStep::Action::Rename, relative(staged), relative(origin)};
  CVError error;
  if (!performJournalSteps(layout_, {&restore, 1}, &error)) {
    platform::logInstaller(platform::kLogLevelError, kFunction,
                           "Could not put %s back at %s; the next start tries again: %@", staged,
                           origin, error);
    return;
  }
  forgetStagingOrigin(origin);
}

bool EmbeddedInstallerService::answerRepeatedRequest(const std::string& origin,
                                                     const InstallRequest& request,
                                                     const InstallProgress& progress,
                                                     CVError* error) {
  std::optional<ApplicationEntry> existing;
  CVError lookupError;
  if (!store_->findApplication(request.identifier, existing, &lookupError)) {
    return progress.fail(
        kFunction,
        {InstallError::RegistryFailure, "cannot look up " + request.identifier, lookupError},
        error);
  }
  // Only the request that installed the application, asked again after a
  // crash that came before the caller's next step.
  if (!existing || existing->kind != ApplicationKind::User ||
      existing->installedFrom != relative(origin)) {
    // Or a plug-in's legacy copy, which is never installed: the crash came
    // while it was being discarded, and accepting it again changes nothing.
    std::optional<PluginEntry> plugin;
    if (!store_->findPlugin(request.identifier, plugin, &lookupError)) {
      return progress.fail(
          kFunction,
          {InstallError::RegistryFailure, "cannot look up " + request.identifier, lookupError},
          error);
    }
    if (plugin) return keepInstalledPlugin(origin, *plugin, progress);
    return progress.fail(
        kFunction, {InstallError::EmptyPayload, origin + "/Payload holds nothing to install", {}},
        error);
  }
  discardStagingDirectory(origin);
  platform::logInstaller(platform::kLogLevelNotice, kFunction,
                         "%@ was already installed from %s; nothing more to do", request.identifier,
                         origin);
  progress.report(kStatusComplete);
  return true;
}

bool EmbeddedInstallerService::refuseBuiltIn(const std::string& origin,
                                             const InstallRequest& request,
                                             const InstallProgress& progress, CVError* error) {
  // The system's own copy wins; the legacy copy is not kept.
  discardStagingDirectory(origin);
  return progress.fail(kFunction,
                       {InstallError::ApplicationAlreadyInstalled,
                        request.identifier + " is built into the system image",
                        {}},
                       error);
}

bool EmbeddedInstallerService::installCustomer(const std::string& url,
                                               const InstallRequest& request,
                                               const InstallProgress& progress, CVError* error) {
  InstallFailure failure;
  const auto origin = canonicalPath(url);
  if (!origin || itemKindAtPath(*origin) != ItemKind::Directory) {
    return progress.fail(
        kFunction, {InstallError::InvalidInstallSource, url + " is not a directory", {}}, error);
  }
  if (!pathIsWithin(*origin, layout_.root()) || isProtectedLocation(*origin)) {
    return progress.fail(kFunction,
                         {InstallError::InvalidInstallSource,
                          *origin + " is not a staging directory inside the device image",
                          {}},
                         error);
  }
  const auto contents =
      inspectPayload(*origin + "/" + std::string(kPayloadDirectoryName), &failure);
  if (!contents) return progress.fail(kFunction, failure, error);
  if (contents->applicationName.empty() && !contents->vpnPluginName.empty())
    return acceptPluginPayload(*origin, contents->vpnPluginName, request, progress, error);
  // A built-in identifier is refused whatever the payload holds, also when a
  // crash after an earlier refusal consumed it: the caller then resumes to
  // the same answer.
  if (builtIns_.count(request.identifier) != 0)
    return refuseBuiltIn(*origin, request, progress, error);
  if (contents->applicationName.empty())
    return answerRepeatedRequest(*origin, request, progress, error);

  progress.report(kStatusStaging);
  const auto staged = newStagingPath(&failure);
  if (!staged) return progress.fail(kFunction, failure, error);
  const std::string stagedName = staged->substr(staged->rfind('/') + 1);
  if (CVError recordError;
      !recordStagingOrigin(*origin, stagedName, relative(*origin), &recordError))
    return progress.fail(kFunction, {InstallError::StagingFailed, *origin, recordError}, error);
  faultPoint("staging origin recorded");
  if (CVError renameError; !renameItem(*origin, *staged, &renameError)) {
    forgetStagingOrigin(*origin);
    return progress.fail(kFunction, {InstallError::StagingFailed, *origin, renameError}, error);
  }
  faultPoint("staging directory consumed");

  // From here on a failure puts the staging directory back.
  Preparation preparation;
  const auto restoreAndFail = [&](const InstallFailure& reason) {
    discardStagingItems(preparation.prepared);
    restoreStagingDirectory(*staged, *origin);
    return progress.fail(kFunction, reason, error);
  };

  progress.report(kStatusVerifying);
  const std::string payload = *staged + "/" + std::string(kPayloadDirectoryName);
  const auto facts = verifyBundle(payload + "/" + contents->applicationName, request, &failure);
  if (!facts || !checkBlacklist(request, blacklist_, &failure)) return restoreAndFail(failure);
  // What the bundle container keeps: the bundles and the store metadata.
  std::vector<std::string> bundles{contents->applicationName};
  if (!contents->vpnPluginName.empty()) bundles.push_back(contents->vpnPluginName);
  // One listing of the staging directory finds the metadata items and, below,
  // what is not installed.
  CVError listError;
  const auto entries = CVFileManager::defaultManager().urlsForItemsInDirectoryAtURL(
      CVURL::fileURLWithPath(*staged, true), /*ignoringSymlinks=*/false, &listError);
  if (!entries) {
    return restoreAndFail({InstallError::ContainerCreationFailed,
                           "cannot make a bundle container for " + request.identifier, listError});
  }
  std::set<std::string, std::less<>> names;
  for (const CVURL& item : *entries)
    names.insert(item.lastPathComponent());
  std::vector<std::string> kept;
  for (const std::string& bundle : bundles)
    kept.push_back(std::string(kPayloadDirectoryName) + "/" + bundle);
  for (const std::string& name : metadataItemNames_) {
    if (names.count(name) != 0) kept.push_back(name);
  }
  for (const std::string& item : kept) {
    if (!standardizeInstalledItem(*staged + "/" + item, owner_, &failure))
      return restoreAndFail(failure);
  }
  std::optional<ApplicationEntry> existing;
  if (CVError lookupError; !store_->findApplication(request.identifier, existing, &lookupError)) {
    return restoreAndFail(
        {InstallError::RegistryFailure, "cannot look up " + request.identifier, lookupError});
  }

  progress.report(kStatusCreatingContainers);
  const auto bundleContainer = layout_.newContainerPath(ContainerClass::Bundle);
  if (!bundleContainer || !setModeAndOwner(*staged, kContainerMode, owner_, &listError)) {
    return restoreAndFail({InstallError::ContainerCreationFailed,
                           "cannot make a bundle container for " + request.identifier, listError});
  }
  for (const std::string& bundle : bundles) {
    preparation.steps.push_back({JournalStep::Action::Rename, relative(payload + "/" + bundle),
                                 relative(*staged + "/" + bundle)});
  }
  preparation.steps.push_back(
      {JournalStep::Action::Rename, relative(*staged), relative(*bundleContainer)});
  // Whatever else came in the staging directory is not installed. It is
  // removed from the bundle container after every rename, so that a removal
  // that fails is only cleanup, which the journal finishes at the next opening.
  std::vector<JournalStep> cleanup;
  for (const CVURL& entry : *entries) {
    const std::string name = entry.lastPathComponent();
    if (name != kPayloadDirectoryName && std::find(kept.begin(), kept.end(), name) == kept.end()) {
      cleanup.push_back({JournalStep::Action::Remove, relative(*bundleContainer + "/" + name), {}});
    }
  }
  cleanup.push_back({JournalStep::Action::Remove,
                     relative(*bundleContainer + "/" + std::string(kPayloadDirectoryName)),
                     {}});

  ApplicationEntry& entry = preparation.entry;
  entry = entryForBundle(request, ApplicationKind::User, *facts, *bundleContainer,
                         contents->applicationName, existing);
  if (!contents->vpnPluginName.empty()) {
    entry.vpnPluginPath = relative(*bundleContainer + "/" + contents->vpnPluginName);
    // Known under its own identifier, so that the data of a legacy container
    // that held the plug-in alone finds a home.
    const std::string plugin = readBundleIdentifier(payload + "/" + contents->vpnPluginName);
    if (plugin != request.identifier) entry.vpnPluginIdentifier = plugin;
  }
  entry.installedFrom = relative(*origin);
  if (!prepareContainers(preparation, facts->groups, DataContainerShape::Complete, &failure))
    return restoreAndFail(failure);
  // A placeholder's data container may still be bare; it is completed before
  // the application that replaces the placeholder is registered.
  if (existing && existing->kind == ApplicationKind::Placeholder &&
      !existing->dataContainer.empty()) {
    const std::string data = layout_.absolute(existing->dataContainer);
    if (CVError completeError; !completeDataContainer(data, owner_, &completeError)) {
      return restoreAndFail({InstallError::ContainerCreationFailed, data, completeError});
    }
    barePlaceholders_.erase(request.identifier);
  }
  preparation.steps.insert(preparation.steps.end(), cleanup.begin(), cleanup.end());
  if (existing && !existing->bundleContainer.empty()) {
    preparation.steps.push_back({JournalStep::Action::Remove, existing->bundleContainer, {}});
  }

  progress.report(kStatusRegistering);
  if (!registerAndFinish(preparation, &failure)) {
    // Not registered: undone now. Registered: finished at the next opening.
    if (failure.error == InstallError::RegistryFailure) return restoreAndFail(failure);
    return progress.fail(kFunction, failure, error);
  }
  platform::logInstaller(platform::kLogLevelNotice, kFunction, "Installed %@ %@ into %s",
                         request.identifier, facts->shortVersion, *bundleContainer);
  progress.report(kStatusComplete);
  return true;
}

}  // namespace mavrel_installer
