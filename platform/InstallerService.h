// The installer service and the application registry, as the migrator sees
// them.
//
// The installer installs an application from a directory (a staging directory
// holding "Payload", or a placeholder bundle), registers safe harbors and
// updates the data protection of system application containers. The registry
// answers whether an application is installed and where its containers are.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.h"
#include "platform/URL.h"
#include "platform/Value.h"

namespace platform {

// Install option keys and values.
inline constexpr std::string_view kInstallTypeOptionKey = "InstallType";
inline constexpr unsigned kMigrationInstallType = 6;
inline constexpr std::string_view kPackageTypeOptionKey = "PackageType";
inline constexpr std::string_view kPackageTypeCustomer = "Customer";
inline constexpr std::string_view kPackageTypePlaceholder = "Placeholder";
inline constexpr std::string_view kStoreMetadataOptionKey = "StoreMetadata";
inline constexpr std::string_view kBundleIdentifierOptionKey = "QXBundleIdentifier";
inline constexpr std::string_view kSkipBlacklistOptionKey = "SkipBlacklist";
inline constexpr std::string_view kVerifyForMigratorOptionKey = "VerifyForMigrator";

// Keys of the progress dictionaries an install reports.
inline constexpr std::string_view kProgressErrorKey = "Error";
inline constexpr std::string_view kProgressErrorDescriptionKey = "ErrorDescription";
inline constexpr std::string_view kProgressErrorDetailKey = "ErrorDetail";
inline constexpr std::string_view kProgressPercentCompleteKey = "PercentComplete";
inline constexpr std::string_view kProgressStatusKey = "Status";
inline constexpr std::string_view kApplicationAlreadyInstalledError = "ApplicationAlreadyInstalled";

// Option of the data-protection update: update system application containers.
inline constexpr std::string_view kCVUpdateSystemAppDataContainerDataProtection =
    "UpdateSystemAppDataContainerDataProtection";

// Container type under which a safe harbor is kept.
inline constexpr int kSafeHarborContainerType = 2;

// Called for each progress dictionary of an install, possibly on another thread.
using InstallProgressCallback = std::function<void(const CVDictionary& progress)>;

class InstallerService {
 public:
  virtual ~InstallerService() = default;

  // Installs the application found at `url` with `options`. `progress` may be
  // empty. Failure: false, a record in `error` and, where the service knows its
  // reason, a progress dictionary holding "Error".
  virtual bool installApplication(const CVURL& url, const CVDictionary& options, CVError* error,
                                  const InstallProgressCallback& progress) = 0;

  // Registers the directory at `path` as the safe harbor of `identifier`.
  virtual bool CorvaneRegisterSafeHarborForContainerType(std::string_view path,
                                                         std::string_view identifier,
                                                         int containerType,
                                                         const CVDictionary* options) = 0;

  // Sets the data protection of system application containers. False only when
  // the service cannot read its registry.
  virtual bool CorvaneUpdateContainerDataProtectionForMigratorOnly(const CVDictionary& options) = 0;
};

// What the registry knows of one installed application.
struct BundleRecord {
  std::string bundleIdentifier;
  std::string bundleType;  // "User", "System", "Placeholder" or "VPNPlugin"
  CVURL bundleURL;
  CVURL bundleContainerURL;
  CVURL dataContainerURL;  // nil when the application has none
  bool foundBackingBundle = false;
  // Group identifier to group container URL; nullopt when they cannot be read.
  std::optional<CVDictionary> groupContainerURLs;
};

class ApplicationRegistry {
 public:
  virtual ~ApplicationRegistry() = default;
  virtual bool isApplicationInstalled(std::string_view identifier) = 0;
  virtual std::optional<BundleRecord> bundleRecordForIdentifier(std::string_view identifier) = 0;
};

}  // namespace platform
