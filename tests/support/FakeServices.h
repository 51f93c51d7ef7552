// In-memory doubles of the installer service, the application registry and the
// system version source, steerable by tests and recording every call.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/InstallerService.h"
#include "platform/SystemVersion.h"

namespace testing_support {

struct InstallRequest {
  CVURL url;
  CVDictionary options;
  bool hadProgressCallback = false;
};

struct HarborRegistration {
  std::string path;
  std::string identifier;
  int containerType = 0;
};

class FakeInstallerService final : public platform::InstallerService,
                                   public platform::ApplicationRegistry {
 public:
  // Decides an install; the default refuses with a CVInstallerErrorDomain error.
  using InstallHandler =
      std::function<bool(const CVURL& url, const CVDictionary& options, CVError* error,
                         const platform::InstallProgressCallback& progress)>;

  bool installApplication(const CVURL& url, const CVDictionary& options, CVError* error,
                          const platform::InstallProgressCallback& progress) override;
  bool CorvaneRegisterSafeHarborForContainerType(std::string_view path, std::string_view identifier,
                                                 int containerType,
                                                 const CVDictionary* options) override;
  bool CorvaneUpdateContainerDataProtectionForMigratorOnly(const CVDictionary& options) override;
  bool isApplicationInstalled(std::string_view identifier) override;
  std::optional<platform::BundleRecord> bundleRecordForIdentifier(
      std::string_view identifier) override;

  // Steering.
  InstallHandler installHandler;
  std::function<bool(const HarborRegistration&)> harborHandler;  // default: accept
  bool dataProtectionResult = true;
  std::map<std::string, platform::BundleRecord, std::less<>> records;

  // Recorded calls.
  std::vector<InstallRequest> installs;
  std::vector<HarborRegistration> harbors;
  std::vector<CVDictionary> dataProtectionRequests;

 private:
  std::mutex mutex_;
};

class FakeSystemVersion final : public platform::SystemVersionSource {
 public:
  explicit FakeSystemVersion(CVDictionary version) : version_(std::move(version)) {}
  CVDictionary copySystemVersionDictionary() const override { return version_; }

 private:
  CVDictionary version_;
};

}  // namespace testing_support
