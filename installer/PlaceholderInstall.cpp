// Installing a placeholder package: an ".app" directory that the caller
// removes itself afterwards.
//
// The bundle is moved (from the device's temporary directory) or copied
// (from anywhere else) into a bundle container prepared in the staging root,
// checked and marked as a placeholder; a bare data container is prepared
// beside it, and its store metadata goes into the registry with it. Until the
// one commit that registers it, everything lives in the staging root, which
// the next opening sweeps after a crash; after the commit the journal's finish
// steps rename it into place.
#include "installer/EmbeddedInstallerService.h"
#include "installer/FaultInjection.h"
#include "platform/Log.h"
#include "shared/filemanager/CVFileManager.h"

namespace mavrel_installer {
namespace {

constexpr std::string_view kFunction = "-[EmbeddedInstallerService installApplication]";

}  // namespace

bool EmbeddedInstallerService::installPlaceholder(const std::string& url,
                                                  const InstallRequest& request,
                                                  const InstallProgress& progress, CVError* error) {
  InstallFailure failure;
  // The source is only read, so it may lie outside the device root.
  const auto source = canonicalPath(url);
  if (!source || itemKindAtPath(*source) != ItemKind::Directory) {
    return progress.fail(
        kFunction, {InstallError::InvalidInstallSource, url + " is not a directory", {}}, error);
  }
  if (builtIns_.count(request.identifier) != 0) {
    return progress.fail(kFunction,
                         {InstallError::ApplicationAlreadyInstalled,
                          request.identifier + " is built into the system image",
                          {}},
                         error);
  }
  std::optional<ApplicationEntry> existing;
  if (CVError lookupError; !store_->findApplication(request.identifier, existing, &lookupError)) {
    return progress.fail(
        kFunction,
        {InstallError::RegistryFailure, "cannot look up " + request.identifier, lookupError},
        error);
  }
  // A placeholder never takes the place of an installed application.
  if (existing && existing->kind != ApplicationKind::Placeholder) {
    return progress.fail(kFunction,
                         {InstallError::ApplicationAlreadyInstalled,
                          request.identifier + " is installed as an application",
                          {}},
                         error);
  }

  progress.report(kStatusStaging);
  // The placeholder's bundle container is prepared as an entry of the
  // staging root and renamed into place once registered.
  Preparation preparation;
  std::string takenFrom, takenTo;  // a package taken by rename, and where it went
  const auto discardAndFail = [&](const InstallFailure& reason) {
    if (!takenFrom.empty()) {
      if (CVError renameError; !renameItem(takenTo, takenFrom, &renameError)) {
        platform::logInstaller(platform::kLogLevelError, kFunction,
                               "Could not put the package %s back: %@", takenFrom, renameError);
      }
    }
    discardStagingItems(preparation.prepared);
    return progress.fail(kFunction, reason, error);
  };
  const auto prepared = newStagingPath(&failure);
  if (!prepared) return progress.fail(kFunction, failure, error);
  const std::string bundleName = CVURL::fileURLWithPath(*source, true).lastPathComponent();
  const std::string copy = *prepared + "/" + bundleName;
  CVFileManager& fileManager = CVFileManager::defaultManager();
  if (CVError makeError; !makeOwnedDirectory(*prepared, kContainerMode, owner_, &makeError)) {
    return discardAndFail({InstallError::ContainerCreationFailed, *prepared, makeError});
  }
  preparation.prepared.push_back(*prepared);
  // The caller's disposable package is taken whole; any other is copied and
  // left where it is. A taken package goes back when the install fails; a
  // crash leaves it in the staging root, which the next opening sweeps.
  if (!temporaryDirectory_.empty() && pathIsWithin(*source, temporaryDirectory_) &&
      *source != temporaryDirectory_) {
    if (CVError renameError; !renameItem(*source, copy, &renameError))
      return discardAndFail({InstallError::BundleCopyFailed, *source, renameError});
    takenFrom = *source;
    takenTo = copy;
  } else if (CVError copyError;
             !fileManager.copyItemAtURL(CVURL::fileURLWithPath(*source, true),
                                        CVURL::fileURLWithPath(copy, true), &copyError)) {
    return discardAndFail({InstallError::BundleCopyFailed, *source, copyError});
  }
  faultPoint("placeholder copied");

  // The copy is what gets installed, so the copy is what is checked.
  progress.report(kStatusVerifying);
  const auto facts = verifyBundle(copy, request, &failure);
  if (!facts || !checkBlacklist(request, blacklist_, &failure) ||
      !standardizeInstalledItem(copy, owner_, &failure))
    return discardAndFail(failure);
  if (CVError markError;
      !fileManager.markBundleAsPlaceholder(CVURL::fileURLWithPath(copy, true), &markError)) {
    return discardAndFail({InstallError::PlaceholderMarkFailed, copy, markError});
  }
  faultPoint("placeholder prepared");

  progress.report(kStatusCreatingContainers);
  const auto bundleContainer = layout_.newContainerPath(ContainerClass::Bundle);
  if (!bundleContainer) {
    return discardAndFail({InstallError::ContainerCreationFailed,
                           "cannot name a bundle container for " + request.identifier,
                           {}});
  }
  preparation.steps.push_back(
      {JournalStep::Action::Rename, relative(*prepared), relative(*bundleContainer)});
  preparation.entry = entryForBundle(request, ApplicationKind::Placeholder, *facts,
                                     *bundleContainer, bundleName, existing);
  // The data container is made bare: the migrator moves the user data in
  // next, and whatever skeleton entries the data leaves missing are made when
  // the placeholder is replaced or the session ends.
  const bool newDataContainer = preparation.entry.dataContainer.empty();
  if (!prepareContainers(preparation, facts->groups, DataContainerShape::Bare, &failure))
    return discardAndFail(failure);
  if (existing && !existing->bundleContainer.empty()) {
    preparation.steps.push_back({JournalStep::Action::Remove, existing->bundleContainer, {}});
  }

  progress.report(kStatusRegistering);
  // Remembered before registering: an install registered whose finish fails
  // still has its data container completed when the session ends.
  if (newDataContainer) barePlaceholders_.insert(request.identifier);
  // The store metadata is registered with the placeholder: no file of its own.
  const auto record = [&](CVError* writeError) {
    return store_->putApplication(preparation.entry, writeError) &&
           store_->putPlaceholderMetadata(request.identifier, request.storeMetadata, writeError);
  };
  if (!commitAndFinish(preparation, record, &failure)) {
    if (failure.error == InstallError::RegistryFailure) return discardAndFail(failure);
    return progress.fail(kFunction, failure, error);
  }
  platform::logInstaller(platform::kLogLevelNotice, kFunction,
                         "Installed a placeholder for %@ into %s", request.identifier,
                         *bundleContainer);
  progress.report(kStatusComplete);
  return true;
}

}  // namespace mavrel_installer
