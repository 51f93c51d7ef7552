#include "installer/InstallChecks.h"

#include <unistd.h>

#include "installer/GroupContainers.h"
#include "platform/Bundle.h"
#include "platform/InstallerService.h"
#include "platform/PropertyList.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"
#include "shared/support/CVValueHelpers.h"

namespace mavrel_installer {
namespace {

constexpr std::string_view kShortVersionKey = "QXBundleShortVersionString";

bool fail(InstallFailure* failure, InstallError error, std::string detail,
          CVError underlying = CVError()) {
  if (failure != nullptr)
    *failure = InstallFailure{error, std::move(detail), std::move(underlying)};
  return false;
}

bool endsWith(std::string_view name, std::string_view suffix) {
  return name.size() > suffix.size() && name.substr(name.size() - suffix.size()) == suffix;
}

std::string stringOrEmpty(const CVDictionary& dictionary, std::string_view key) {
  const std::string* value = dictionary.findString(key);
  return value != nullptr ? *value : std::string();
}

}  // namespace

std::optional<InstallRequest> readInstallRequest(const CVDictionary& options,
                                                 InstallFailure* failure) {
  InstallRequest request;
  const std::string* identifier = options.findString(platform::kBundleIdentifierOptionKey);
  if (identifier == nullptr || identifier->empty()) {
    fail(failure, InstallError::InvalidInstallOptions,
         "no \"" + std::string(platform::kBundleIdentifierOptionKey) + "\" string");
    return std::nullopt;
  }
  request.identifier = *identifier;

  if (const CVValue* type = options.find(platform::kPackageTypeOptionKey)) {
    const std::string* name = type->asString();
    if (name != nullptr && *name == platform::kPackageTypePlaceholder) {
      request.placeholder = true;
    } else if (name == nullptr || *name != platform::kPackageTypeCustomer) {
      fail(failure, InstallError::InvalidInstallOptions,
           "unknown package type " + type->description());
      return std::nullopt;
    }
  }
  if (const CVValue* type = options.find(platform::kInstallTypeOptionKey);
      type != nullptr && (type->asNumber() == nullptr || type->asNumber()->isBoolean())) {
    fail(failure, InstallError::InvalidInstallOptions,
         "install type " + type->description() + " is not a number");
    return std::nullopt;
  }
  request.skipBlacklist = CVBooleanValue(options.find(platform::kSkipBlacklistOptionKey), false);
  request.verifyForMigrator =
      CVBooleanValue(options.find(platform::kVerifyForMigratorOptionKey), false);
  if (const CVValue* metadata = options.find(platform::kStoreMetadataOptionKey)) {
    if (metadata->asData() == nullptr) {
      fail(failure, InstallError::InvalidInstallOptions, "store metadata is not data");
      return std::nullopt;
    }
    request.storeMetadata = *metadata->asData();
  }
  return request;
}

std::optional<PayloadContents> inspectPayload(const std::string& payloadPath,
                                              InstallFailure* failure) {
  const ItemKind kind = itemKindAtPath(payloadPath);
  if (kind != ItemKind::Directory) {
    fail(failure, InstallError::MissingPayload,
         kind == ItemKind::Missing ? payloadPath + " does not exist"
                                   : payloadPath + " is not a directory");
    return std::nullopt;
  }
  CVError error;
  const auto entries = CVFileManager::defaultManager().urlsForItemsInDirectoryAtURL(
      CVURL::fileURLWithPath(payloadPath, true), /*ignoringSymlinks=*/false, &error);
  if (!entries) {
    fail(failure, InstallError::MissingPayload, payloadPath + " cannot be listed", error);
    return std::nullopt;
  }
  PayloadContents contents;
  for (const CVURL& entry : *entries) {
    const std::string name = entry.lastPathComponent();
    // Directories only: a link named like a bundle is not a bundle.
    const bool directory = itemKindAtPath(entry.path()) == ItemKind::Directory;
    std::string* slot = nullptr;
    if (directory && endsWith(name, ".app")) slot = &contents.applicationName;
    if (directory && endsWith(name, ".vpnplugin")) slot = &contents.vpnPluginName;
    if (slot == nullptr || !slot->empty()) {
      fail(failure, InstallError::UnexpectedPayloadContents, "unexpected item " + entry.path());
      return std::nullopt;
    }
    *slot = name;
  }
  return contents;
}

std::optional<BundleFacts> verifyBundle(const std::string& bundlePath,
                                        const InstallRequest& request, InstallFailure* failure) {
  const CVURL infoURL = CVURL::fileURLWithPath(bundlePath + "/Info.plist", false);
  CVError error;
  const auto info =
      platform::readPropertyListDictionary(infoURL, &error, platform::kInfoPlistLimits);
  if (!info) {
    fail(failure, InstallError::InfoPlistUnreadable, infoURL.path(), error);
    return std::nullopt;
  }
  const std::string* identifier = info->findString(platform::kBundleIdentifierKey);
  if (identifier == nullptr || *identifier != request.identifier) {
    fail(failure, InstallError::BundleIdentifierMismatch,
         "the bundle " + bundlePath + " is " +
             (identifier != nullptr ? "\"" + *identifier + "\"" : "without an identifier") +
             ", not \"" + request.identifier + "\"");
    return std::nullopt;
  }
  if (request.verifyForMigrator) {
    const std::string* executable = info->findString(platform::kBundleExecutableKey);
    if (executable == nullptr || executable->empty() || *executable == "." || *executable == ".." ||
        executable->find('/') != std::string::npos) {
      fail(failure, InstallError::MissingBundleExecutable,
           infoURL.path() + " names no executable in the bundle");
      return std::nullopt;
    }
    const std::string executablePath = bundlePath + "/" + *executable;
    if (itemKindAtPath(executablePath) != ItemKind::Regular) {
      fail(failure, InstallError::MissingBundleExecutable,
           executablePath + " is not a regular file");
      return std::nullopt;
    }
  }
  BundleFacts facts;
  facts.version = stringOrEmpty(*info, platform::kBundleVersionKey);
  facts.shortVersion = stringOrEmpty(*info, kShortVersionKey);
  facts.groups = readApplicationGroups(bundlePath);
  if (exceedsApplicationGroupLimit(facts.groups)) {
    fail(failure, InstallError::TooManyApplicationGroups,
         "the bundle " + bundlePath + " names more than " +
             std::to_string(kMaximumApplicationGroups) + " application groups");
    return std::nullopt;
  }
  return facts;
}

std::string readBundleIdentifier(const std::string& bundlePath) {
  CVError error;
  const auto info = platform::readPropertyListDictionary(
      CVURL::fileURLWithPath(bundlePath + "/Info.plist", false), &error,
      platform::kInfoPlistLimits);
  return info ? stringOrEmpty(*info, platform::kBundleIdentifierKey) : std::string();
}

bool checkBlacklist(const InstallRequest& request, const CVSet& blacklist,
                    InstallFailure* failure) {
  if (request.skipBlacklist || !blacklist.contains(CVValue(request.identifier))) return true;
  return fail(failure, InstallError::ApplicationBlacklisted, request.identifier);
}

bool standardizeInstalledItem(const std::string& path, const ItemOwner& owner,
                              InstallFailure* failure) {
  const std::uint32_t uid = owner.apply ? owner.uid : ::geteuid();
  const std::uint32_t gid = owner.apply ? owner.gid : ::getegid();
  CVError error;
  if (CVFileManager::defaultManager().standardizeOwnershipAndValidateSymlinksAtURL(
          CVURL::fileURLWithPath(path, itemKindAtPath(path) == ItemKind::Directory), uid, gid,
          &error))
    return true;
  if (error.domain() == CVInstallerErrorDomain && error.code() == kCVErrorInvalidSymlink) {
    return fail(failure, InstallError::InvalidSymlink, error.localizedDescription(), error);
  }
  return fail(failure, InstallError::InvalidInstallSource, path + " cannot be checked", error);
}

}  // namespace mavrel_installer
