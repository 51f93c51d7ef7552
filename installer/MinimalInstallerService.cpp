#include "installer/MinimalInstallerService.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/DeviceRoot.h"
#include "platform/Log.h"
#include "shared/filemanager/CVErrors.h"

namespace mavrel_installer {
namespace {

constexpr std::string_view kInstallFunction = "-[MinimalInstallerService installApplication]";
constexpr std::string_view kHarborFunction =
    "-[MinimalInstallerService CorvaneRegisterSafeHarborForContainerType]";

}  // namespace

bool MinimalInstallerService::installApplication(
    const CVURL& url, const CVDictionary& options, CVError* error,
    const platform::InstallProgressCallback& progress) {
  (void)options;
  (void)progress;
  platform::logInstaller(platform::kLogLevelError, kInstallFunction,
                         "Refusing to install %@: installation is not available in this build",
                         url);
  CVSetError(error,
             CreateError(kInstallFunction, CVInstallerErrorDomain, kInstallationUnavailableError,
                         "Installation is not available in this build"));
  return false;
}

bool MinimalInstallerService::CorvaneRegisterSafeHarborForContainerType(
    std::string_view path, std::string_view identifier, int containerType,
    const CVDictionary* options) {
  (void)options;
  const std::string given(path);
  std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(given.c_str(), nullptr),
                                                       &std::free);
  if (!resolved) {
    platform::logInstaller(platform::kLogLevelError, kHarborFunction,
                           "Refusing safe harbor for %@ at %s: %s", identifier, given,
                           std::strerror(errno));
    return false;
  }
  struct stat status {};
  if (::stat(resolved.get(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    platform::logInstaller(platform::kLogLevelError, kHarborFunction,
                           "Refusing safe harbor for %@ at %s: not a directory", identifier, given);
    return false;
  }
  const platform::DeviceRoot& root = platform::processDeviceRoot();
  if (!root.contains(resolved.get())) {
    platform::logInstaller(platform::kLogLevelError, kHarborFunction,
                           "Refusing safe harbor for %@ at %s: %s lies outside the device root %s",
                           identifier, given, resolved.get(), root.path());
    return false;
  }
  platform::logInstaller(platform::kLogLevelNotice, kHarborFunction,
                         "Registered safe harbor for %@ at %s (container type %d)", identifier,
                         resolved.get(), containerType);
  return true;
}

bool MinimalInstallerService::CorvaneUpdateContainerDataProtectionForMigratorOnly(
    const CVDictionary& options) {
  (void)options;
  return true;
}

bool MinimalInstallerService::isApplicationInstalled(std::string_view identifier) {
  (void)identifier;
  return false;
}

std::optional<platform::BundleRecord> MinimalInstallerService::bundleRecordForIdentifier(
    std::string_view identifier) {
  (void)identifier;
  return std::nullopt;
}

}  // namespace mavrel_installer
