#include "installer/InstallErrors.h"

#include <array>
#include <cstddef>

namespace mavrel_installer {
namespace {

// In the order of the enumeration.
constexpr std::array<InstallErrorInfo, 18> kInstallErrors{{
    {"InvalidInstallOptions", 120, "The install options are missing or malformed"},
    {"InvalidInstallSource", 121,
     "The package to install is not a directory the installer may use"},
    {"MissingPayload", 122, "The staging directory holds no \"Payload\" directory"},
    {"EmptyPayload", 123, "The \"Payload\" directory holds no application bundle"},
    {"UnexpectedPayloadContents", 124,
     "The \"Payload\" directory must hold exactly one .app bundle and at most one .vpnplugin "
     "bundle"},
    {"StagingFailed", 125, "The package could not be moved into the installer's staging area"},
    {"InfoPlistUnreadable", 126, "The bundle's Info.plist could not be read"},
    {"BundleIdentifierMismatch", 127,
     "The bundle's identifier is not the one the install was asked for"},
    {"MissingBundleExecutable", 128, "The bundle's executable is missing"},
    {"ApplicationBlacklisted", 129, "The application may not be installed on this device"},
    {"ApplicationAlreadyInstalled", 130, "The application is already installed on this device"},
    {"InvalidSymlink", 131, "The package holds a symbolic link that leads outside its bundle"},
    {"ContainerCreationFailed", 132, "A container for the application could not be made"},
    {"BundleCopyFailed", 133, "The placeholder bundle could not be copied"},
    {"PlaceholderMarkFailed", 134, "The placeholder bundle could not be marked as a placeholder"},
    {"RegistryFailure", 136, "The application registry could not be read or written"},
    {"InstallFinishFailed", 137,
     "The installed items could not all be put in place; they will be on the next start"},
    {"TooManyApplicationGroups", 138,
     "The application's entitlements name more application groups than any application has"},
}};

}  // namespace

const InstallErrorInfo& installErrorInfo(InstallError error) {
  return kInstallErrors[static_cast<std::size_t>(error)];
}

}  // namespace mavrel_installer
