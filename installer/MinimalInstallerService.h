// A stand-in installer service and application registry, used by the host
// until the embedded installer is part of the build.
//
// It knows no application: nothing is installed, there are no bundle records,
// and every installation fails with a CVInstallerErrorDomain record
// (kInstallationUnavailableError, "Installation is not available in this
// build"). The data-protection update has nothing to update and succeeds. A
// safe harbor is accepted when its path resolves to an existing directory
// inside the process device root; any other path is refused with a line in
// the installer log that says why.
#pragma once

#include "platform/InstallerService.h"

namespace mavrel_installer {

inline constexpr long kInstallationUnavailableError = 1;

class MinimalInstallerService final : public platform::InstallerService,
                                      public platform::ApplicationRegistry {
 public:
  bool installApplication(const CVURL& url, const CVDictionary& options, CVError* error,
                          const platform::InstallProgressCallback& progress) override;
  bool CorvaneRegisterSafeHarborForContainerType(std::string_view path, std::string_view identifier,
                                                 int containerType,
                                                 const CVDictionary* options) override;
  bool CorvaneUpdateContainerDataProtectionForMigratorOnly(const CVDictionary& options) override;

  bool isApplicationInstalled(std::string_view identifier) override;
  std::optional<platform::BundleRecord> bundleRecordForIdentifier(
      std::string_view identifier) override;
};

}  // namespace mavrel_installer
