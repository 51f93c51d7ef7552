#include "tests/support/FakeServices.h"

namespace testing_support {

bool FakeInstallerService::installApplication(const CVURL& url, const CVDictionary& options,
                                              CVError* error,
                                              const platform::InstallProgressCallback& progress) {
  {
    std::lock_guard lock(mutex_);
    installs.push_back(InstallRequest{url, options, static_cast<bool>(progress)});
  }
  if (installHandler) return installHandler(url, options, error, progress);
  CVSetError(error, CVError("CVInstallerErrorDomain", 1));
  return false;
}

bool FakeInstallerService::CorvaneRegisterSafeHarborForContainerType(std::string_view path,
                                                                     std::string_view identifier,
                                                                     int containerType,
                                                                     const CVDictionary*) {
  HarborRegistration registration{std::string(path), std::string(identifier), containerType};
  {
    std::lock_guard lock(mutex_);
    harbors.push_back(registration);
  }
  return harborHandler ? harborHandler(registration) : true;
}

bool FakeInstallerService::CorvaneUpdateContainerDataProtectionForMigratorOnly(
    const CVDictionary& options) {
  std::lock_guard lock(mutex_);
  dataProtectionRequests.push_back(options);
  return dataProtectionResult;
}

bool FakeInstallerService::isApplicationInstalled(std::string_view identifier) {
  std::lock_guard lock(mutex_);
  return records.find(identifier) != records.end();
}

std::optional<platform::BundleRecord> FakeInstallerService::bundleRecordForIdentifier(
    std::string_view identifier) {
  std::lock_guard lock(mutex_);
  const auto it = records.find(identifier);
  if (it == records.end()) return std::nullopt;
  return it->second;
}

}  // namespace testing_support
