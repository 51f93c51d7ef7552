// The installer's own failures.
//
// Each failure has a name (what a progress dictionary carries under "Error"),
// a code of "CVInstallerErrorDomain" and a one-line description. An install
// that fails reports one InstallFailure: the kind, a detail that names what
// was found (a path, an identifier, a system error) and, where a lower layer
// failed, that layer's record as the underlying error.
#pragma once

#include <string>
#include <string_view>

#include "platform/Error.h"

namespace mavrel_installer {

enum class InstallError {
  InvalidInstallOptions,
  InvalidInstallSource,
  MissingPayload,
  EmptyPayload,
  UnexpectedPayloadContents,
  StagingFailed,
  InfoPlistUnreadable,
  BundleIdentifierMismatch,
  MissingBundleExecutable,
  ApplicationBlacklisted,
  ApplicationAlreadyInstalled,
  InvalidSymlink,
  ContainerCreationFailed,
  BundleCopyFailed,
  PlaceholderMarkFailed,
  RegistryFailure,
  InstallFinishFailed,
  TooManyApplicationGroups,
};

struct InstallErrorInfo {
  std::string_view name;  // "ApplicationAlreadyInstalled", ...
  long code;              // in CVInstallerErrorDomain
  std::string_view description;
};

const InstallErrorInfo& installErrorInfo(InstallError error);

struct InstallFailure {
  InstallError error = InstallError::InvalidInstallOptions;
  std::string detail;
  CVError underlying;
};

// Code of CVInstallerErrorDomain for failures of the registry database itself
// (opening, reading, writing), also outside installs.
inline constexpr long kRegistryDatabaseErrorCode = 140;

}  // namespace mavrel_installer
