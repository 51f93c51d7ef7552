// The checks an install makes before anything is registered: the options,
// the payload's shape, the bundle's Info.plist and executable, the
// blacklist, and the ownership-and-link check of what will be installed.
//
// Error contract: each check returns false (or nullopt) and fills
// `*failure` with the failure to report; nothing is logged here.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "installer/InstallErrors.h"
#include "installer/InstallerFiles.h"
#include "platform/Value.h"

namespace mavrel_installer {

struct InstallRequest {
  std::string identifier;  // "QXBundleIdentifier"
  bool placeholder = false;
  bool skipBlacklist = false;
  bool verifyForMigrator = false;
  std::optional<CVData> storeMetadata;  // placeholders only
};

// The package type defaults to a customer package; an install type, when
// given, must be a number.
std::optional<InstallRequest> readInstallRequest(const CVDictionary& options,
                                                 InstallFailure* failure);

struct PayloadContents {
  std::string applicationName;  // "" when the payload is empty
  std::string vpnPluginName;    // "" when there is none
};

// `payloadPath` must be a directory holding at most one ".app" directory, at
// most one ".vpnplugin" directory and nothing else. An empty directory, or one
// holding a plug-in alone, is reported as such (applicationName empty), not
// as a failure: the caller decides.
std::optional<PayloadContents> inspectPayload(const std::string& payloadPath,
                                              InstallFailure* failure);

struct BundleFacts {
  std::string version;       // "QXBundleVersion"
  std::string shortVersion;  // "QXBundleShortVersionString"
  std::vector<std::string> groups;
};

// The Info.plist must be readable and name the request's identifier; with
// "VerifyForMigrator" the executable it names must be a regular file in the
// bundle.
std::optional<BundleFacts> verifyBundle(const std::string& bundlePath,
                                        const InstallRequest& request, InstallFailure* failure);

// The identifier the bundle's Info.plist names; "" when it cannot be read.
std::string readBundleIdentifier(const std::string& bundlePath);

bool checkBlacklist(const InstallRequest& request, const CVSet& blacklist, InstallFailure* failure);

// Gives every item of the tree at `path` the owner and refuses a symbolic
// link that leads outside the tree.
bool standardizeInstalledItem(const std::string& path, const ItemOwner& owner,
                              InstallFailure* failure);

}  // namespace mavrel_installer
