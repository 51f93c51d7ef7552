// What an install tells its caller as it goes: progress dictionaries with
// "PercentComplete" and "Status", and, when it fails, one dictionary with
// "Error" (the failure's name), "ErrorDescription" and "ErrorDetail".
//
// Error contract: fail() never fails; it reports the failure to the callback,
// writes it to the installer log, stores a "CVInstallerErrorDomain" record in
// `*error` (when a place was given) and returns false, so that an install can
// end with `return progress.fail(...)`.
#pragma once

#include <string_view>

#include "installer/InstallErrors.h"
#include "platform/InstallerService.h"

namespace mavrel_installer {

// The steps an install reports, with their share of the whole.
struct InstallStatus {
  std::string_view name;
  int percentComplete;
};
inline constexpr InstallStatus kStatusPreflighting{"PreflightingApplication", 10};
inline constexpr InstallStatus kStatusStaging{"StagingApplication", 20};
inline constexpr InstallStatus kStatusVerifying{"VerifyingApplication", 40};
inline constexpr InstallStatus kStatusCreatingContainers{"CreatingContainers", 60};
inline constexpr InstallStatus kStatusRegistering{"RegisteringApplication", 80};
inline constexpr InstallStatus kStatusComplete{"InstallComplete", 100};

// The "ErrorDetail" key also goes into the error record's user information.
inline constexpr std::string_view kInstallErrorDetailKey = "ErrorDetail";

class InstallProgress {
 public:
  // `callback` may be empty; it must outlive this object.
  explicit InstallProgress(const platform::InstallProgressCallback& callback)
      : callback_(callback) {}

  void report(const InstallStatus& status) const;
  bool fail(std::string_view function, const InstallFailure& failure, CVError* error) const;

 private:
  const platform::InstallProgressCallback& callback_;
};

}  // namespace mavrel_installer
