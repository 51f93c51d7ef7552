// captureStoreDataFromDirectory:toDirectory:doCopy:failureIsFatal:withError:
// carries an application's store data files between directories.
#include <array>
#include <string>
#include <string_view>

#include "platform/Value.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"

namespace {

struct StoreDataItem {
  std::string_view name;
  std::string_view legacyFailure;  // the installer's legacy error for this item
};

constexpr std::array<StoreDataItem, 4> kStoreDataItems{{
    {"Manifest.plist", "ManifestCaptureFailed"},
    {"SorvikArtwork", "SorvikArtworkCaptureFailed"},
    {"SorvikMetadata.plist", "SorvikMetadataCaptureFailed"},
    {"GeoJSON", "GeoJSONCaptureFailed"},
}};

}  // namespace

bool CVFileManager::captureStoreDataFromDirectory(const CVURL& srcDirectory,
                                                  const CVURL& dstDirectory, bool doCopy,
                                                  bool failureIsFatal, CVError* error) {
  static constexpr std::string_view kFunction =
      "-[CVFileManager captureStoreDataFromDirectory:toDirectory:doCopy:failureIsFatal:withError:]";
  for (const StoreDataItem& item : kStoreDataItems) {
    const CVURL source = srcDirectory.URLByAppendingPathComponent(item.name, false);
    const CVURL destination = dstDirectory.URLByAppendingPathComponent(item.name, false);
    CVError itemError;
    const bool carried = doCopy ? copyItemIfExistsAtURL(source, destination, &itemError)
                                : moveItemIfExistsAtURL(source, destination, &itemError);
    if (carried) continue;

    CVDictionary userInfo;
    userInfo.set(std::string(CVLegacyErrorStringKey), std::string(item.legacyFailure));
    // Built (and so logged) even when the failure is not fatal.
    CVError captureError = doCopy
                               ? CreateAndLogError(kFunction, CVInstallerErrorDomain,
                                                   kCVErrorStoreDataCapture, itemError, &userInfo,
                                                   "Failed to copy %@ to %@", source, destination)
                               : CreateAndLogError(kFunction, CVInstallerErrorDomain,
                                                   kCVErrorStoreDataCapture, itemError, &userInfo,
                                                   "Failed to move %@ to %@", source, destination);
    if (failureIsFatal) {
      CVSetError(error, std::move(captureError));
      return false;
    }
  }
  return true;
}
