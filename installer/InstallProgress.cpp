#include "installer/InstallProgress.h"

#include "shared/filemanager/CVErrors.h"

namespace mavrel_installer {

void InstallProgress::report(const InstallStatus& status) const {
  if (!callback_) return;
  CVDictionary progress;
  progress.set(std::string(platform::kProgressPercentCompleteKey), CVValue(status.percentComplete));
  progress.set(std::string(platform::kProgressStatusKey), CVValue(status.name));
  callback_(progress);
}

bool InstallProgress::fail(std::string_view function, const InstallFailure& failure,
                           CVError* error) const {
  const InstallErrorInfo& info = installErrorInfo(failure.error);
  CVDictionary userInfo;
  userInfo.set(std::string(CVLegacyErrorStringKey), CVValue(info.name));
  userInfo.set(std::string(kInstallErrorDetailKey), CVValue(failure.detail));
  // Also writes the description to the installer log.
  CVError record =
      CreateAndLogError(function, CVInstallerErrorDomain, info.code, failure.underlying, &userInfo,
                        "%@ (%@): %@", info.description, info.name, failure.detail);
  if (callback_) {
    CVDictionary progress;
    progress.set(std::string(platform::kProgressErrorKey), CVValue(info.name));
    progress.set(std::string(platform::kProgressErrorDescriptionKey), CVValue(info.description));
    progress.set(std::string(platform::kProgressErrorDetailKey), CVValue(failure.detail));
    callback_(progress);
  }
  CVSetError(error, std::move(record));
  return false;
}

}  // namespace mavrel_installer
