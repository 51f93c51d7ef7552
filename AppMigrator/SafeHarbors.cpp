// Safe harbors: data kept at paths of their own for absent applications, each
// registered again with the installer service after the upgrade.
#include "AppMigrator/AppMigrator.h"
#include "platform/Log.h"
#include "shared/filemanager/CVFileManager.h"

namespace {
constexpr std::string_view kFunction = "-[CVAppMigrator _migrateSafeHarbors]";
}  // namespace

bool CVAppMigrator::_migrateSafeHarbors() {
  using platform::kLogLevelError;
  using platform::logMigration;
  if (!_harborMap) return true;

  bool succeeded = true;
  // Every key in the map's order; a key that is not a string (a binary list
  // can hold one) and malformed entries are skipped without failing the pass.
  _harborMap->forEachEntry([&](const CVValue& key, const CVValue& value) {
    const std::string* identifier = key.asString();
    if (identifier == nullptr) {
      logMigration(kLogLevelError, kFunction,
                   "CVAppMigrator: Identifier in harbor map was not string; skipping");
      return;
    }
    const CVDictionary* entry = value.asDictionary();
    if (entry == nullptr) {
      logMigration(kLogLevelError, kFunction,
                   "CVAppMigrator: Failed to get harbor info for identifier %@", *identifier);
      return;
    }
    const std::string* path = entry->findString(kHarborPathKey);
    if (path == nullptr) {
      logMigration(kLogLevelError, kFunction,
                   "CVAppMigrator: Failed to get harbor path from harbor entry for %@ : %@",
                   *identifier, *entry);
      return;
    }
    logMigration(platform::kLogLevelNotice, kFunction,
                 "CVAppMigrator: Migrating safe harbor for %@ at %@", *identifier, *path);
    if (!environment_.installer->CorvaneRegisterSafeHarborForContainerType(
            *path, *identifier, platform::kSafeHarborContainerType, nullptr)) {
      // The service reports no error record here; the message prints the null marker.
      logMigration(kLogLevelError, kFunction,
                   "CVAppMigrator: Failed to migrate safe harbor for identifier %@ at %@ : %@",
                   *identifier, *path, nullptr);
      succeeded = false;
    }
  });
  // A failed registration keeps the map, so that a later attempt registers again.
  if (!succeeded) return false;
  CVFileManager::defaultManager().removeItemAtURL(dataDirectoryFileURL(kHarborMapFileName),
                                                  nullptr);
  return true;
}
