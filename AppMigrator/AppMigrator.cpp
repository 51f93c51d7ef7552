// Set-up, the order of the whole pass, the removal of the legacy tree, the
// version record and the progress figures.
#include "AppMigrator/AppMigrator.h"

#include <cerrno>

#include "AppMigrator/ContainerClassification.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "shared/filemanager/CVFileManager.h"

namespace {

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using platform::logMigration;

constexpr std::string_view kInitFunction = "-[CVAppMigrator init]";
constexpr std::string_view kPerformFunction = "-[CVAppMigrator performMigration]";

// A map that is there but refused (damaged, or beyond what a read may cost):
// the reason names the file. A missing file needs no second line.
void logRefusal(const CVError& error) {
  if (error.domain() == kPlatformErrorDomain && error.code() == kPlatformFileReadNoSuchFileError)
    return;
  logMigration(kLogLevelError, kInitFunction, "CVAppMigrator: %@", error.localizedDescription());
}

constexpr float kBaseDuration = 20.0f;
constexpr float kDurationPerItem = 2.25f;

}  // namespace

CVAppMigrator::CVAppMigrator(Environment environment) : environment_(std::move(environment)) {}

CVAppMigrator::~CVAppMigrator() = default;

std::unique_ptr<CVAppMigrator> CVAppMigrator::create(Environment environment) {
  std::unique_ptr<CVAppMigrator> migrator(new CVAppMigrator(std::move(environment)));
  if (!migrator->init()) return nullptr;
  return migrator;
}

CVURL CVAppMigrator::dataDirectoryFileURL(std::string_view name) {
  return environment_.configuration->dataDirectory().URLByAppendingPathComponent(name, false);
}

bool CVAppMigrator::init() {
  CVFileManager& fileManager = CVFileManager::defaultManager();
  CVGlobalConfiguration& configuration = *environment_.configuration;

  const CVURL legacyDirectory = configuration.oldContainerPath();
  if (!fileManager.itemDoesNotExistAtURL(legacyDirectory)) {
    CVError error;
    auto items = fileManager.urlsForItemsInDirectoryAtURL(legacyDirectory,
                                                          /*ignoringSymlinks=*/true, &error);
    if (!items) {
      logMigration(kLogLevelError, kInitFunction, "CVAppMigrator: Failed to get items at %@ : %@",
                   legacyDirectory.path(), error);
      return false;
    }
    if (!items->empty()) {
      logMigration(kLogLevelNotice, kInitFunction, "CVAppMigrator: %ld items to migrate",
                   static_cast<long>(items->size()));
      _itemsToMigrate = std::move(*items);
      const CVURL installMapURL = configuration.oldInstallMapPath();
      CVError readError;
      _installMap = platform::readPropertyListDictionary(installMapURL, &readError,
                                                         platform::kInstallMapLimits);
      if (!_installMap) {
        logMigration(kLogLevelNotice, kInitFunction,
                     "CVAppMigrator: Old install map not found at %@", installMapURL.path());
        logRefusal(readError);
      } else if (const CVDictionary* groups = _installMap->findDictionary(kGroupContainersKey)) {
        _groupContainerMap = *groups;
      } else {
        logMigration(kLogLevelNotice, kInitFunction,
                     "CVAppMigrator: No group container map found in install map");
      }
    } else if (!fileManager.removeItemAtURL(legacyDirectory, nullptr)) {
      // An empty legacy directory has nothing to migrate: it goes at once.
      logMigration(kLogLevelError, kInitFunction, "CVAppMigrator: Failed to remove %@",
                   legacyDirectory.path());
    }
  }

  const CVURL harborMapURL = dataDirectoryFileURL(kHarborMapFileName);
  if (!fileManager.itemDoesNotExistAtURL(harborMapURL)) {
    CVError readError;
    _harborMap =
        platform::readPropertyListDictionary(harborMapURL, &readError, platform::kHarborMapLimits);
    if (!_harborMap) {
      logMigration(kLogLevelError, kInitFunction,
                   "CVAppMigrator: Failed to load existing harbor map from %@",
                   harborMapURL.path());
      logRefusal(readError);
    }
  }

  // Kept for the record only: the pass never short-circuits on a recorded version.
  if (const auto record = platform::readPropertyListDictionary(
          dataDirectoryFileURL(kVersionRecordFileName), nullptr, platform::kSystemVersionLimits)) {
    if (const std::string* build = record->findString(platform::kSystemBuildVersionKey)) {
      _lastSystemBuildVersion = *build;
    }
  }
  return true;
}

std::deque<CVDictionary> CVAppMigrator::classifyLegacyEntries() {
  std::deque<CVDictionary> workList;
  for (const CVURL& entry : *_itemsToMigrate) {
    logMigration(kLogLevelNotice, kPerformFunction, "CVAppMigrator: Introspecting %@",
                 entry.path());
    if (entry.lastPathComponent() == kStrayEntryFileName) {
      const bool removed = CVFileManager::defaultManager().removeItemAtURL(entry, nullptr);
      reportDiscardedEntry(entry, /*removalAttempted=*/true, removed);
      ++_countItemsMigrated;
      continue;
    }
    bool orderResultEarly = false;
    auto record = _introspectContainer(entry, &orderResultEarly);
    if (!record) {
      ++_countItemsMigrated;
      continue;
    }
    // Applications go before VPN-only containers, and among applications the
    // listing order is reversed; both follow from front insertion.
    CVAddToWorkList(workList, std::move(*record), orderResultEarly);
  }
  return workList;
}

bool CVAppMigrator::migrateContainers(const std::deque<CVDictionary>& workList) {
  bool succeeded = true;
  for (const CVDictionary& info : workList) {
    const CVValue* identifier = info.find(kBundleIdentifierKey);
    const CVValue* bundlePath = info.find(kBundlePathKey);
    logMigration(kLogLevelNotice, kPerformFunction, "CVAppMigrator: Migrating %@ at %@", identifier,
                 bundlePath);
    if (!_migrateContainerWithInfo(info)) {
      logMigration(kLogLevelError, kPerformFunction, "CVAppMigrator: Migration of %@ at %@ failed",
                   identifier, bundlePath);
      succeeded = false;
    }
    ++_countItemsMigrated;
  }
  return succeeded;
}

// The leftover check: the legacy tree and install map go only when nothing is
// left in the legacy directory. Returns false when entries remain, which ends
// the pass at once.
// Removal failures are logged and do not change the pass's result.
bool CVAppMigrator::removeLegacyTreeIfEmpty() {
  CVFileManager& fileManager = CVFileManager::defaultManager();
  CVGlobalConfiguration& configuration = *environment_.configuration;
  const CVURL legacyDirectory = configuration.oldContainerPath();

  CVError error;
  const auto remaining =
      fileManager.urlsForItemsInDirectoryAtURL(legacyDirectory, /*ignoringSymlinks=*/false, &error);
  if (!remaining) {
    // An already absent directory is the normal case.
    if (!error.isPOSIX(ENOENT)) {
      logMigration(kLogLevelError, kPerformFunction,
                   "CVAppMigrator: Failed to determine if any items were remaining to migrate: %@",
                   error);
    }
    return true;
  }
  if (!remaining->empty()) {
    // The message names the install map, not the directory; kept as it is.
    logMigration(kLogLevelError, kPerformFunction,
                 "CVAppMigrator: Not removing %@ because %lu items remain unmigrated.",
                 configuration.oldInstallMapPath().path(),
                 static_cast<unsigned long>(remaining->size()));
    return false;
  }
  for (const CVURL& url : {legacyDirectory, configuration.oldInstallMapPath()}) {
    CVError removalError;
    if (!fileManager.removeItemAtURL(url, &removalError)) {
      logMigration(kLogLevelError, kPerformFunction, "CVAppMigrator: Failed to remove %@ : %@",
                   url.path(), removalError);
    }
  }
  return true;
}

void CVAppMigrator::recordSystemVersion() {
  const CVDictionary version = environment_.systemVersion->copySystemVersionDictionary();
  const CVURL recordURL = dataDirectoryFileURL(kVersionRecordFileName);
  if (platform::writePropertyListAtomically(CVValue(version), recordURL, nullptr)) {
    logMigration(kLogLevelNotice, kPerformFunction,
                 "CVAppMigrator: Recorded current system version as %@",
                 version.find(platform::kSystemBuildVersionKey));
  } else {
    logMigration(kLogLevelError, kPerformFunction,
                 "CVAppMigrator: Failed to write current build info to %@", recordURL.path());
  }
}

bool CVAppMigrator::performMigration() {
  bool containersSucceeded = true;
  if (_itemsToMigrate) {
    const std::deque<CVDictionary> workList = classifyLegacyEntries();
    containersSucceeded = migrateContainers(workList);
  }

  const bool harborsSucceeded = _migrateSafeHarbors();

  CVDictionary protectionOptions;
  protectionOptions.set(std::string(platform::kCVUpdateSystemAppDataContainerDataProtection),
                        CVValue(true));
  const bool protectionSucceeded =
      environment_.installer->CorvaneUpdateContainerDataProtectionForMigratorOnly(
          protectionOptions);
  if (!protectionSucceeded) {
    logMigration(kLogLevelError, kPerformFunction,
                 "CVAppMigrator: Failed to update container data protection");
  }
  bool result = protectionSucceeded && harborsSucceeded && containersSucceeded;

  if (removeLegacyTreeIfEmpty() && result) {
    recordSystemVersion();
    return true;
  }
  logMigration(kLogLevelError, kPerformFunction,
               "CVAppMigrator: Returning migration failed. Please include the contents of "
               "/var/mobile/Library/Logs/Corvane and /var/Mobile/Library/Logs/Mavrel in a bug "
               "report.");
  return false;
}

float CVAppMigrator::estimatedDuration() const {
  if (!_itemsToMigrate) return kBaseDuration;
  return kBaseDuration + kDurationPerItem * static_cast<float>(_itemsToMigrate->size());
}

float CVAppMigrator::migrationProgress() const {
  if (!_itemsToMigrate) return 0.5f;
  const std::uint64_t total = _itemsToMigrate->size();
  if (total == 0) return -1.0f;
  // An integer quotient on purpose: 0.0 for the whole pass, 1.0 at the end.
  return static_cast<float>(_countItemsMigrated.load() / total);
}
