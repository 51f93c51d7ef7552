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
                          const platform::InstallProgressCallback& progress) override {
    record([&] { installs.push_back(InstallRequest{url, options, static_cast<bool>(progress)}); });
    if (installHandler) return installHandler(url, options, error, progress);
    CVSetError(error, CVError("CVInstallerErrorDomain", 1));
    return false;
  }
  bool CorvaneRegisterSafeHarborForContainerType(std::string_view path, std::string_view identifier,
                                                 int containerType, const CVDictionary*) override {
    const HarborRegistration registration{std::string(path), std::string(identifier),
                                          containerType};
    record([&] { harbors.push_back(registration); });
    return harborHandler ? harborHandler(registration) : true;
  }
  bool CorvaneUpdateContainerDataProtectionForMigratorOnly(const CVDictionary& options) override {
    record([&] { dataProtectionRequests.push_back(options); });
    return dataProtectionResult;
  }
  bool isApplicationInstalled(std::string_view identifier) override {
    return bundleRecordForIdentifier(identifier).has_value();
  }
  std::optional<platform::BundleRecord> bundleRecordForIdentifier(
      std::string_view identifier) override {
    std::lock_guard lock(mutex_);
    const auto it = records.find(identifier);
    if (it == records.end()) return std::nullopt;
    return it->second;
  }

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
  void record(const std::function<void()>& change) {
    std::lock_guard lock(mutex_);
    change();
  }
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
