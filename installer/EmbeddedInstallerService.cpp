#include "installer/EmbeddedInstallerService.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "installer/GroupContainers.h"
#include "platform/Bundle.h"
#include "platform/DeviceRoot.h"
#include "platform/FileIOPosix.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "platform/linux/FileLock.h"
#include "platform/linux/FileSystemSync.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "shared/filemanager/CVErrors.h"
#include "shared/filemanager/CVFileManager.h"
#include "shared/support/CVValueHelpers.h"

namespace mavrel_installer {
namespace {

constexpr std::string_view kOpenFunction = "+[EmbeddedInstallerService open]";
constexpr std::string_view kCloseFunction = "-[EmbeddedInstallerService dealloc]";
constexpr std::string_view kInstallFunction = "-[EmbeddedInstallerService installApplication]";
constexpr std::string_view kRegistryFunction = "-[EmbeddedInstallerService registry]";
constexpr std::string_view kHarborFunction =
    "-[EmbeddedInstallerService CorvaneRegisterSafeHarborForContainerType]";
constexpr std::string_view kProtectionFunction =
    "-[EmbeddedInstallerService CorvaneUpdateContainerDataProtectionForMigratorOnly]";
constexpr mode_t kLockFileMode = 0644;
constexpr mode_t kHomeMode = 0755;

CVError setUpError(std::string_view description, const std::string& path,
                   const CVError& underlying) {
  CVDictionary userInfo;
  userInfo.set(std::string(CVPathArgumentErrorKey), CVValue(path));
  return CreateAndLogError(kOpenFunction, CVInstallerErrorDomain, kInstallerSetUpErrorCode,
                           underlying, &userInfo, "%@: %@", description, path);
}

// `path` relative to `base` by its text; nullopt when it is not beneath it.
std::optional<std::string> lexicallyBelow(const std::string& path, const std::string& base) {
  if (!pathIsWithin(path, base)) return std::nullopt;
  if (base == "/") return path.substr(1);
  if (path.size() == base.size()) return std::string();
  return path.substr(base.size() + 1);
}

}  // namespace

EmbeddedInstallerService::EmbeddedInstallerService(CVGlobalConfiguration& configuration,
                                                   ContainerLayout layout)
    : configuration_(configuration), layout_(std::move(layout)) {}

std::unique_ptr<EmbeddedInstallerService> EmbeddedInstallerService::open(
    CVGlobalConfiguration& configuration, CVError* error, const InstallerServiceOptions& options) {
  const std::string& configuredRoot = configuration.rootDirectory().path();
  const auto root = canonicalPath(configuredRoot);
  if (!root) {
    CVSetError(error, setUpError("The device root cannot be resolved", configuredRoot,
                                 platform::posixCallError(errno, "realpath", configuredRoot)));
    return nullptr;
  }
  const auto home = lexicallyBelow(configuration.homeDirectory().path(), configuredRoot);
  if (!home) {
    CVSetError(error, setUpError("The mobile user's home is not inside the device root",
                                 configuration.homeDirectory().path(), CVError()));
    return nullptr;
  }
  std::unique_ptr<EmbeddedInstallerService> service(
      new EmbeddedInstallerService(configuration, ContainerLayout(*root, *home)));
  service->flushOnClose_ = options.flushOnClose;
  service->temporaryDirectory_ = options.temporaryDirectory;
  if (!service->setUp(error)) return nullptr;
  return service;
}

bool EmbeddedInstallerService::setUp(CVError* error) {
  CVError underlying;
  if (!makeDirectoriesBelow(layout_.root(), layout_.home(), kHomeMode, &underlying)) {
    CVSetError(error,
               setUpError("The mobile user's home cannot be made", layout_.home(), underlying));
    return false;
  }
  // The configuration makes these two; they must be where their names say,
  // with no symbolic link on the way that could lead the installer elsewhere.
  const std::string configuredRoot = configuration_.rootDirectory().path();
  for (auto [url, place, what] :
       {std::tuple{configuration_.dataDirectory(), &dataDirectory_,
                   "The installer's data directory"},
        std::tuple{configuration_.stagingRoot(), &stagingRoot_, "The installer's staging root"}}) {
    const auto below = lexicallyBelow(url.path(), configuredRoot);
    const auto resolved = canonicalPath(url.path());
    if (!below || !resolved || *resolved != layout_.absolute(*below) ||
        itemKindAtPath(*resolved) != ItemKind::Directory) {
      CVSetError(error,
                 setUpError(std::string(what) +
                                " is missing or leads out of its place through a symbolic link",
                            url.path(), CVError()));
      return false;
    }
    *place = *resolved;
  }
  if (!layout_.makeContainerDirectories(&underlying)) {
    CVSetError(error,
               setUpError("The container directories cannot be made", layout_.root(), underlying));
    return false;
  }
  // Installs move items by renaming them from the staging root.
  const auto stagingDevice = deviceOfPath(stagingRoot_);
  for (const ContainerClass containerClass :
       {ContainerClass::Bundle, ContainerClass::Data, ContainerClass::Group}) {
    const std::string& directory = layout_.directoryFor(containerClass);
    if (!stagingDevice || deviceOfPath(directory) != stagingDevice) {
      CVSetError(error, setUpError("The containers and the staging root " + stagingRoot_ +
                                       " are not on one file system",
                                   directory, CVError()));
      return false;
    }
  }
  // Packages are taken from the temporary directory only when it lies inside
  // the image, on the staging root's file system, and is none of the
  // installer's own places.
  if (!temporaryDirectory_.empty()) {
    const auto resolved = canonicalPath(temporaryDirectory_);
    temporaryDirectory_.clear();
    if (resolved && pathIsWithin(*resolved, layout_.root()) && *resolved != layout_.root() &&
        !isProtectedLocation(*resolved) && itemKindAtPath(*resolved) == ItemKind::Directory &&
        deviceOfPath(*resolved) == stagingDevice)
      temporaryDirectory_ = *resolved;
  }
  // Only a privileged process may give what it installs away.
  if (::geteuid() == 0) owner_ = ItemOwner{configuration_.uid(), configuration_.gid(), true};

  if (!lockRegistry(error)) return false;
  registryPath_ = dataDirectory_ + "/" + std::string(kRegistryFileName);
  store_ = RegistryStore::open(registryPath_, RegistryDatabase::Access::ReadWrite, error);
  if (!store_ || !store_->database().checkIntegrity(error)) return false;
  store_->database().setCheckpointOnClose(flushOnClose_);

  loadBuiltInApplications();
  blacklist_ = configuration_.installationBlacklist();
  metadataItemNames_ = configuration_.appBundleMetadataItemNames();
  const auto isProtected = [this](const std::string& path) { return isProtectedLocation(path); };
  if (!recoverPendingInstalls(*store_, layout_, stagingRoot_, isProtected, &recovery_, error))
    return false;
  // A session that ended without closing may have left placeholders' data
  // containers bare.
  completePlaceholderDataContainers(nullptr);
  return true;
}

bool EmbeddedInstallerService::lockRegistry(CVError* error) {
  const std::string path = dataDirectory_ + "/" + std::string(kRegistryLockFileName);
  lock_.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kLockFileMode));
  if (!lock_) {
    CVSetError(error, setUpError("The registry's lock file cannot be opened", path,
                                 platform::posixCallError(errno, "open", path)));
    return false;
  }
  if (platform::sys::lockExclusiveWithoutWaiting(lock_.get()) != 0) {
    const int savedErrno = errno;
    CVSetError(error, setUpError(savedErrno == EWOULDBLOCK
                                     ? "The application registry is in use by another installer"
                                     : "The registry's lock cannot be taken",
                                 path, platform::posixCallError(savedErrno, "flock", path)));
    return false;
  }
  return true;
}

void EmbeddedInstallerService::loadBuiltInApplications() {
  std::vector<CVGlobalConfiguration::BundleMap> maps{
      configuration_.systemAppBundleIDToInfoMap(), configuration_.internalAppBundleIDToInfoMap(),
      std::make_shared<const CVDictionary>(configuration_.diskImageAppBundleIDToInfoMap())};
  for (const CVValue& value : configuration_.builtInApplicationBundleIDs()) {
    const std::string* identifier = value.asString();
    if (identifier == nullptr) continue;
    BuiltInApplication application;
    for (const auto& map : maps) {
      const CVDictionary* info = map ? map->findDictionary(*identifier) : nullptr;
      if (info == nullptr) continue;
      if (const CVValue* url = info->find(kBuiltInBundleURLKey); url && url->asURL()) {
        application.bundlePath = canonicalPath(url->asURL()->path()).value_or(url->asURL()->path());
      }
      if (const std::string* version = info->findString(platform::kBundleVersionKey))
        application.version = *version;
    }
    builtIns_[*identifier] = std::move(application);
  }
}

EmbeddedInstallerService::~EmbeddedInstallerService() {
  std::lock_guard lock(mutex_);
  if (store_ && !barePlaceholders_.empty()) {
    completePlaceholderDataContainers(&barePlaceholders_);
    barePlaceholders_.clear();
  }
  if (store_ && !doneJournal_.empty()) {
    WriteTransaction transaction(store_->database());
    CVError error;
    if (!beginWrite(transaction, &error) || !commitWrite(transaction, &error)) {
      platform::logInstaller(platform::kLogLevelError, kCloseFunction,
                             "Could not clear the install journal (the next start does): %@",
                             error);
    }
  }
  // Closing the last connection checkpoints the WAL into the database.
  store_.reset();
  // The one flush of the service's life: see the durability notes.
  if (flushOnClose_ &&
      (changed_ || recovery_.restored + recovery_.finished + recovery_.swept > 0) && lock_ &&
      platform::sys::syncFileSystemOf(lock_.get()) != 0) {
    platform::logInstaller(platform::kLogLevelError, kCloseFunction,
                           "Could not flush the device image's file system: %s",
                           platform::errnoDescription(errno));
  }
}

bool EmbeddedInstallerService::installApplication(
    const CVURL& url, const CVDictionary& options, CVError* error,
    const platform::InstallProgressCallback& progress) {
  std::lock_guard lock(mutex_);
  const InstallProgress reporter(progress);
  reporter.report(kStatusPreflighting);
  InstallFailure failure;
  const auto request = readInstallRequest(options, &failure);
  if (!request) return reporter.fail(kInstallFunction, failure, error);
  if (url.isNil()) {
    return reporter.fail(kInstallFunction,
                         {InstallError::InvalidInstallSource, "no package was given", {}}, error);
  }
  return request->placeholder ? installPlaceholder(url.path(), *request, reporter, error)
                              : installCustomer(url.path(), *request, reporter, error);
}

bool EmbeddedInstallerService::isApplicationInstalled(std::string_view identifier) {
  std::lock_guard lock(mutex_);
  if (builtIns_.count(identifier) != 0) return true;
  std::optional<ApplicationEntry> entry;
  CVError error;
  if (!store_->findApplication(identifier, entry, &error)) {
    platform::logInstaller(platform::kLogLevelError, kRegistryFunction, "Could not look up %@: %@",
                           identifier, error);
    return false;
  }
  return entry.has_value();
}

std::optional<platform::BundleRecord> EmbeddedInstallerService::recordFor(
    const ApplicationEntry& entry) const {
  platform::BundleRecord record;
  record.bundleIdentifier = entry.identifier;
  record.bundleType = std::string(applicationKindName(entry.kind));
  if (!entry.bundlePath.empty()) {
    const std::string bundle = layout_.absolute(entry.bundlePath);
    record.bundleURL = CVURL::fileURLWithPath(bundle, true);
    record.foundBackingBundle = itemKindAtPath(bundle) == ItemKind::Directory;
  }
  if (!entry.bundleContainer.empty())
    record.bundleContainerURL =
        CVURL::fileURLWithPath(layout_.absolute(entry.bundleContainer), true);
  if (!entry.dataContainer.empty())
    record.dataContainerURL = CVURL::fileURLWithPath(layout_.absolute(entry.dataContainer), true);
  CVDictionary groups;
  for (const GroupMembership& membership : entry.groups) {
    groups.set(membership.groupIdentifier,
               CVValue(CVURL::fileURLWithPath(layout_.absolute(membership.container), true)));
  }
  record.groupContainerURLs = std::move(groups);
  return record;
}

std::optional<platform::BundleRecord> EmbeddedInstallerService::bundleRecordForIdentifier(
    std::string_view identifier) {
  std::lock_guard lock(mutex_);
  std::optional<ApplicationEntry> entry;
  CVError error;
  if (!store_->findApplication(identifier, entry, &error)) {
    platform::logInstaller(platform::kLogLevelError, kRegistryFunction, "Could not look up %@: %@",
                           identifier, error);
    return std::nullopt;
  }
  if (entry) return recordFor(*entry);
  const auto builtIn = builtIns_.find(identifier);
  if (builtIn == builtIns_.end()) return pluginRecord(identifier);
  if (auto registered = registerSystemApplication(identifier)) return recordFor(*registered);
  // Without a data container, so that the caller says what is missing.
  ApplicationEntry bare;
  bare.identifier = std::string(identifier);
  bare.kind = ApplicationKind::System;
  bare.bundlePath = relative(builtIn->second.bundlePath);
  auto record = recordFor(bare);
  record->groupContainerURLs.reset();
  return record;
}

std::optional<ApplicationEntry> EmbeddedInstallerService::registerSystemApplication(
    std::string_view identifier) {
  const BuiltInApplication& builtIn = builtIns_.find(identifier)->second;
  InstallFailure failure;
  Preparation preparation;
  ApplicationEntry& entry = preparation.entry;
  entry.identifier = std::string(identifier);
  entry.kind = ApplicationKind::System;
  entry.version = builtIn.version;
  if (!builtIn.bundlePath.empty()) entry.bundlePath = relative(builtIn.bundlePath);
  const std::vector<std::string> groups = builtIn.bundlePath.empty()
                                              ? std::vector<std::string>()
                                              : readApplicationGroups(builtIn.bundlePath);
  if (exceedsApplicationGroupLimit(groups)) {
    failure = {InstallError::TooManyApplicationGroups,
               "the bundle " + builtIn.bundlePath + " names more than " +
                   std::to_string(kMaximumApplicationGroups) + " application groups",
               {}};
  } else if (prepareContainers(preparation, groups, DataContainerShape::Complete, &failure) &&
             registerAndFinish(preparation, &failure)) {
    platform::logInstaller(platform::kLogLevelNotice, kRegistryFunction,
                           "Made the data container %s of the built-in application %@",
                           layout_.absolute(entry.dataContainer), identifier);
    return preparation.entry;
  }
  if (failure.error != InstallError::InstallFinishFailed) discardStagingItems(preparation.prepared);
  platform::logInstaller(platform::kLogLevelError, kRegistryFunction,
                         "Could not make the data container of the built-in application %@: %@ "
                         "(%@)",
                         identifier, failure.detail, failure.underlying);
  return std::nullopt;
}

bool EmbeddedInstallerService::CorvaneRegisterSafeHarborForContainerType(
    std::string_view path, std::string_view identifier, int containerType,
    const CVDictionary* options) {
  std::lock_guard lock(mutex_);
  const std::string given(path);
  // The harbor map holds device paths; they lead to places under the root.
  std::string problem;
  const auto hostPath = platform::DeviceRoot(layout_.root()).hostPathForDevicePath(given, &problem);
  if (!hostPath) {
    platform::logInstaller(platform::kLogLevelError, kHarborFunction,
                           "Refusing safe harbor for %@ at %s: the path %s", identifier, given,
                           problem);
    return false;
  }
  const auto resolved = canonicalPath(*hostPath);
  if (!resolved) {
    platform::logInstaller(platform::kLogLevelError, kHarborFunction,
                           "Refusing safe harbor for %@ at %s: %s", identifier, given,
                           platform::errnoDescription(errno));
    return false;
  }
  if (itemKindAtPath(*resolved) != ItemKind::Directory) {
    platform::logInstaller(platform::kLogLevelError, kHarborFunction,
                           "Refusing safe harbor for %@ at %s: not a directory", identifier, given);
    return false;
  }
  if (!pathIsWithin(*resolved, layout_.root())) {
    platform::logInstaller(platform::kLogLevelError, kHarborFunction,
                           "Refusing safe harbor for %@ at %s: %s lies outside the device root %s",
                           identifier, given, *resolved, layout_.root());
    return false;
  }
  HarborEntry entry;
  entry.identifier = std::string(identifier);
  entry.containerType = containerType;
  entry.path = relative(*resolved);
  if (options != nullptr) {
    const std::string encoded = platform::encodeXMLPropertyList(CVValue(*options));
    entry.options = CVData(encoded.begin(), encoded.end());
  }
  CVError error;
  WriteTransaction transaction(store_->database());
  if (!beginWrite(transaction, &error) || !store_->putHarbor(entry, &error) ||
      !commitWrite(transaction, &error)) {
    platform::logInstaller(platform::kLogLevelError, kHarborFunction,
                           "Could not record the safe harbor for %@ at %s: %@", identifier, given,
                           error);
    return false;
  }
  platform::logInstaller(platform::kLogLevelNotice, kHarborFunction,
                         "Registered safe harbor for %@ at %s (container type %d)", identifier,
                         *resolved, containerType);
  return true;
}

bool EmbeddedInstallerService::CorvaneUpdateContainerDataProtectionForMigratorOnly(
    const CVDictionary& options) {
  std::lock_guard lock(mutex_);
  std::vector<ApplicationEntry> entries;
  CVError error;
  if (!store_->listApplications(entries, &error)) {
    platform::logInstaller(platform::kLogLevelError, kProtectionFunction,
                           "Could not read the application registry: %@", error);
    return false;
  }
  if (!CVBooleanValue(options.find(platform::kCVUpdateSystemAppDataContainerDataProtection), false))
    return true;
  unsigned long updated = 0;
  for (const ApplicationEntry& entry : entries) {
    if (entry.kind != ApplicationKind::System || entry.dataContainer.empty()) continue;
    const CVURL container = CVURL::fileURLWithPath(layout_.absolute(entry.dataContainer), true);
    CVError setError;
    if (CVFileManager::defaultManager().setDataProtectionClassOfItemAtURL(
            container, kSystemDataContainerProtectionClass, nullptr, &setError)) {
      ++updated;
    } else {
      platform::logInstaller(platform::kLogLevelError, kProtectionFunction,
                             "Could not set the data protection of %@ for %@: %@", container,
                             entry.identifier, setError);
    }
  }
  platform::logInstaller(platform::kLogLevelNotice, kProtectionFunction,
                         "Set data protection class %d on %lu system data containers",
                         static_cast<int>(kSystemDataContainerProtectionClass), updated);
  return true;
}

}  // namespace mavrel_installer
