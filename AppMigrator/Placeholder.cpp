// Placeholders: a minimal bundle carrying an application's identity, name,
// versions and icon, installed when the registry does not know the
// application yet, so that it stays visible until its bundle is installed.
#include <array>
#include <cerrno>

#include "AppMigrator/AppMigrator.h"
#include "platform/Bundle.h"
#include "platform/FileIO.h"
#include "platform/Image.h"
#include "platform/InstallOptions.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "shared/filemanager/CVFileManager.h"

namespace {

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using platform::logMigration;

constexpr std::string_view kPlaceholderFunction =
    "-[CVAppMigrator _stageAndInstallPlaceholderForBundleAtURL:withIdentifier:inContainerURL:]";
constexpr std::string_view kIconFunction = "-[CVAppMigrator _writeIconForBundle:toURL:]";

constexpr std::string_view kStoreMetadataFileName = "SorvikMetadata.plist";
constexpr std::string_view kIconFileName = "Icon.png";
constexpr std::string_view kIconFileKey = "QXBundleIconFile";
// Store metadata is a small property list; anything larger is not metadata.
constexpr std::size_t kMaxStoreMetadataSize = 16u << 20;

// The Info.plist keys a placeholder carries over, in this order.
constexpr std::array<std::string_view, 5> kPlaceholderInfoKeys = {
    "QXBundleIdentifier", "QXBundleDisplayName", "QXBundleExecutable", "QXBundleVersion",
    "QXBundleShortVersionString"};

bool isNoSuchFileReadError(const CVError& error) {
  return (error.domain() == kPlatformErrorDomain &&
          error.code() == kPlatformFileReadNoSuchFileError) ||
         error.isPOSIX(ENOENT);
}

// Removes the staged placeholder however the operation ends.
class StagedDirectoryRemoval {
 public:
  explicit StagedDirectoryRemoval(const CVURL& url) : url_(url) {}
  ~StagedDirectoryRemoval() { CVFileManager::defaultManager().removeItemAtURL(url_, nullptr); }
  StagedDirectoryRemoval(const StagedDirectoryRemoval&) = delete;
  StagedDirectoryRemoval& operator=(const StagedDirectoryRemoval&) = delete;

 private:
  CVURL url_;
};

}  // namespace

bool CVAppMigrator::_stageAndInstallPlaceholderForBundleAtURL(const CVURL& bundleURL,
                                                              const std::string& identifier,
                                                              const CVURL& containerURL) {
  const CVURL metadataURL =
      containerURL ? containerURL.URLByAppendingPathComponent(kStoreMetadataFileName, false)
                   : CVURL();
  const CVURL stagedURL = environment_.temporaryDirectory
                              .URLByAppendingPathComponent(kPlaceholderStagingDirectoryName, true)
                              .URLByAppendingPathComponent(identifier, true)
                              .URLByAppendingPathExtension("app");

  CVFileManager& fileManager = CVFileManager::defaultManager();
  CVError error;
  // The staged directory is one entry of the staging area, named after the
  // identifier; an identifier with a separator (or "." or "..") would name a
  // directory elsewhere, which the removal below would then delete.
  if (identifier.empty() || identifier == "." || identifier == ".." ||
      identifier.find('/') != std::string::npos) {
    logMigration(kLogLevelError, kPlaceholderFunction,
                 "CVAppMigrator: Failed to create staged placeholder directory at %@ : %@",
                 stagedURL.path(), "the identifier is not a plain file name");
    return false;
  }
  if (!fileManager.createDirectoryAtURL(stagedURL, /*withIntermediateDirectories=*/true, 0755,
                                        &error)) {
    logMigration(kLogLevelError, kPlaceholderFunction,
                 "CVAppMigrator: Failed to create staged placeholder directory at %@ : %@",
                 stagedURL.path(), error);
    return false;
  }
  const StagedDirectoryRemoval removal(stagedURL);

  // Missing or unreadable metadata only degrades the placeholder. With a
  // container to read from, a failed read passes in silence.
  CVError readError;
  std::optional<std::vector<std::uint8_t>> metadata =
      platform::readFileContents(metadataURL, kMaxStoreMetadataSize, &readError);
  if (!metadata && !metadataURL && !isNoSuchFileReadError(readError)) {
    logMigration(kLogLevelError, kPlaceholderFunction, "CVAppMigrator: Failed to read %@ : %@",
                 metadataURL.path(), readError);
  }

  const std::unique_ptr<platform::Bundle> bundle = platform::Bundle::create(bundleURL);
  if (!bundle) {
    logMigration(kLogLevelError, kPlaceholderFunction,
                 "CVAppMigrator: Failed to create QXBundle for %@", bundleURL.path());
    return false;
  }
  const std::optional<CVDictionary>& legacyInfo = bundle->infoDictionary();
  if (!legacyInfo) {
    logMigration(kLogLevelError, kPlaceholderFunction,
                 "CVAppMigrator: Failed to get bundle info dictionary for bundle %@",
                 bundleURL.path());
    return false;
  }

  CVDictionary info;
  for (const std::string_view key : kPlaceholderInfoKeys) {
    if (const CVValue* value = legacyInfo->find(key)) info.set(std::string(key), *value);
  }

  const CVURL iconURL = stagedURL.URLByAppendingPathComponent(kIconFileName, false);
  if (_writeIconForBundle(*bundle, iconURL)) {
    info.set(std::string(kIconFileKey), CVValue(kIconFileName));
  } else {
    logMigration(kLogLevelError, kPlaceholderFunction,
                 "CVAppMigrator: Writing placeholder icon for app %@ to %@ failed", identifier,
                 iconURL);
  }

  // The staged files live only until this call removes the staged directory,
  // so their writes do not wait for the disk.
  const CVURL infoURL = stagedURL.URLByAppendingPathComponent("Info.plist", false);
  if (!platform::writePropertyListAtomically(CVValue(std::move(info)), infoURL, nullptr,
                                             platform::WriteDurability::NotFlushed)) {
    logMigration(kLogLevelError, kPlaceholderFunction,
                 "CVAppMigrator: Failed to write placeholder Info.plist to %@", infoURL);
    return false;
  }

  logMigration(kLogLevelNotice, kPlaceholderFunction,
               "CVAppMigrator: Installing placeholder for %@", identifier);
  const CVDictionary options =
      platform::migrationPlaceholderInstallOptions(identifier, std::move(metadata));

  CVError installError;
  const bool installed =
      environment_.installer->installApplication(stagedURL, options, &installError, nullptr);
  if (!installed) {
    logMigration(kLogLevelError, kPlaceholderFunction,
                 "CVAppMigrator: Failed to install placeholder for %@: %@", identifier,
                 installError ? CVValue(installError.userInfo()) : CVValue());
  }
  return installed;
}

bool CVAppMigrator::_writeIconForBundle(const platform::Bundle& bundle, const CVURL& url) {
  platform::IconService& icons = environment_.iconService != nullptr
                                     ? *environment_.iconService
                                     : platform::defaultIconService();
  const std::optional<platform::Image> icon = icons.homeScreenIconForBundle(bundle);
  if (!icon) {
    logMigration(kLogLevelError, kIconFunction,
                 "CVAppMigrator: Failed to create icon from bundle %@", bundle.url().path());
    return false;
  }

  std::vector<std::uint8_t> data;
  const std::unique_ptr<platform::ImageDestination> destination =
      platform::PVImageDestinationCreateWithData(&data, platform::kImageTypePNG, 1);
  if (!destination) {
    logMigration(kLogLevelError, kIconFunction,
                 "CVAppMigrator: PVImageDestinationCreateWithData returned NULL pvImage from "
                 "bundle %@",
                 bundle.url().path());
    return false;
  }
  platform::PVImageDestinationAddImage(*destination, *icon);
  if (!platform::PVImageDestinationFinalize(*destination)) {
    logMigration(kLogLevelError, kIconFunction,
                 "CVAppMigrator: PVImageDestinationFinalize failed for icon from bundle %@",
                 bundle.url().path());
    return false;
  }

  // The icon goes into a placeholder's staged directory, which does not
  // outlive the install: the write does not wait for the disk.
  CVError error;
  if (!platform::writeFileAtomically(url, data, &error, platform::WriteDurability::NotFlushed)) {
    logMigration(kLogLevelError, kIconFunction,
                 "CVAppMigrator: Failed to write image data to %@ : %@", url, error);
    return false;
  }
  return true;
}
