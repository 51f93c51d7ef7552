#include "platform/InstallOptions.h"

#include "platform/InstallerService.h"

namespace platform {
namespace {

CVDictionary migrationOptions(const std::string& identifier, std::string_view packageType) {
  CVDictionary options;
  options.set(std::string(kInstallTypeOptionKey),
              CVValue(CVNumber::unsignedInteger(kMigrationInstallType)));
  options.set(std::string(kPackageTypeOptionKey), CVValue(std::string(packageType)));
  options.set(std::string(kBundleIdentifierOptionKey), CVValue(identifier));
  options.set(std::string(kSkipBlacklistOptionKey), CVValue(true));
  return options;
}

}  // namespace

CVDictionary migrationCustomerInstallOptions(const std::string& identifier) {
  CVDictionary options = migrationOptions(identifier, kPackageTypeCustomer);
  options.set(std::string(kVerifyForMigratorOptionKey), CVValue(true));
  return options;
}

CVDictionary migrationPlaceholderInstallOptions(const std::string& identifier,
                                                std::optional<CVData> storeMetadata) {
  CVDictionary options = migrationOptions(identifier, kPackageTypePlaceholder);
  if (storeMetadata)
    options.set(std::string(kStoreMetadataOptionKey), CVValue(std::move(*storeMetadata)));
  return options;
}

}  // namespace platform
