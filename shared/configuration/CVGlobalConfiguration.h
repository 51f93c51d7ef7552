// CVGlobalConfiguration: where things live on the device and how the installer
// is tuned.
//
// The two bases are fixed at creation: the mobile user's home
// "<root>/private/var/mobile/" and the file-system root "<root>/". Four tuning
// values are read from the preferences domain "com.zentrel.corvane" once, at
// creation. Nothing here fails: a missing or ill-typed preference falls back
// to its default. Directory getters that create their directory log a failed
// creation and return the URL all the same.
//
// Thread safety: the fields are written only during construction; the cached
// directories are guarded by one recursive lock per instance.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/DeviceRoot.h"
#include "platform/IORegistry.h"
#include "platform/MountTable.h"
#include "platform/Preferences.h"
#include "platform/URL.h"
#include "platform/Value.h"

inline constexpr std::string_view kCVPreferencesDomain = "com.zentrel.corvane";

class CVGlobalConfiguration {
 public:
  // The process-wide instance over the process's device root, made once at the
  // first call from any thread.
  static CVGlobalConfiguration& sharedInstance();

  // The platform services a configuration reads. Each I/O registry lookup asks
  // `ioRegistry` for a fresh registry, since nothing about disk images is cached.
  struct Services {
    std::shared_ptr<platform::PreferencesStore> preferences;
    std::function<std::shared_ptr<platform::IORegistry>()> ioRegistry;
    std::shared_ptr<const platform::MountTable> mountTable;
  };
  // The Linux services for `root`: preferences under the root's home, the loop
  // devices of sysfs, the process's mount table.
  static Services defaultServices(const platform::DeviceRoot& root);

  // An instance over `root` with the Linux services.
  explicit CVGlobalConfiguration(const platform::DeviceRoot& root);
  CVGlobalConfiguration(const platform::DeviceRoot& root, Services services);
  CVGlobalConfiguration(const CVGlobalConfiguration&) = delete;
  CVGlobalConfiguration& operator=(const CVGlobalConfiguration&) = delete;

  bool lowerInstallPriority() const { return _lowerInstallPriority; }
  bool skipDeviceFamilyCheck() const { return _skipDeviceFamilyCheck; }
  bool skipThinningCheck() const { return _skipThinningCheck; }
  long nSimultaneousInstallations() const { return _nSimultaneousInstallations; }

  // "<root>/private/var/mobile/".
  const CVURL& homeDirectory() const { return _homePath; }
  // "<root>/".
  const CVURL& rootDirectory() const { return _rootPath; }

  // ---- Well-known directories. Those the installer writes into are created on
  // every call (mode 0755, protection class 4 where noted); a failed creation is
  // logged and the URL returned all the same. Root-based ones are only named.
  CVURL carrierBundlesDirectory();          // <home>/Library/Carrier Bundles
  CVURL stagingRoot();                      // <caches>/com.zentrel.mobile.corvaned.staging, class 4
  CVURL logDirectory();                     // <home>/Library/Logs/Corvane, class 4, not cached
  CVURL coreServicesDirectory();            // <root>/System/Library/CoreServices
  CVURL systemAppsDirectory();              // <root>/Applications
  CVURL internalAppsDirectory();            // <root>/ZentrelInternal/Applications
  CVURL developerAppsDirectory();           // <root>/Developer/Applications
  CVURL factoryMountDirectory();            // <root>/var/factory_mount/
  CVURL systemFrameworksRootDirectory();    // <root>/System/Library
  CVURL internalFrameworksRootDirectory();  // <root>/ZentrelInternal
  CVURL developerFrameworksRootDirectory();  // <root>/Developer
  // The four framework directories of the system and internal roots.
  CVSet allFrameworksDirectories();
  CVURL dataDirectory();     // <home>/Library/Corvane, class 4
  CVURL cachesDirectory();   // <home>/Library/Caches
  CVURL archiveDirectory();  // <home>/Media/ApplicationArchives, class 4

  // ---- Built-in bundles: identifier to {identifier, version, bundle URL}.
  // The application maps and the framework set are cached until a rescan; the
  // same object is handed out until then. A directory that cannot be listed
  // gives null and is scanned again at the next call.
  using BundleMap = std::shared_ptr<const CVDictionary>;
  BundleMap systemAppBundleIDToInfoMap();
  BundleMap coreServicesAppBundleIDToInfoMap();
  BundleMap internalAppBundleIDToInfoMap();
  std::shared_ptr<const CVSet> builtInFrameworkBundleIDs();
  // System, internal and disk-image applications; rebuilt on every call.
  CVSet builtInApplicationBundleIDs();
  void reScanSystemApps();
  void reScanCoreServicesApps();
  void reScanInternalApps();
  // Scans a directory for bundles with `extension`; nullopt when it cannot be listed.
  std::optional<CVDictionary> _bundleIDMapForBundlesInDirectory(const CVURL& directory,
                                                                std::string_view extension);
  std::optional<CVDictionary> _bundleIDMapForAppsInDirectory(const CVURL& directory);

  // ---- Applications on mounted disk images; nothing here is cached.
  // A registry as the disk-image operations read it: a new one, read afresh,
  // on every call. Handles are only meaningful to the registry they came from.
  std::shared_ptr<platform::IORegistry> ioRegistry() const;
  // The mount point of `device`, a handle the caller took from `registry`.
  std::optional<std::string> mountPointForDevice(platform::IORegistry& registry,
                                                 platform::IOObjectHandle device);
  std::vector<std::string> diskImageMountPoints();
  std::vector<CVURL> diskImageApplicationsDirectories();
  CVDictionary diskImageAppBundleIDToInfoMap();

  // Fixed lists, a new list on every call.
  std::vector<std::string> appBundleMetadataItemNames() const;
  std::vector<std::string> appUserDataItemNames() const;
  // Identifiers that are never installed; one set for the whole process.
  const CVSet& installationBlacklist() const;

  std::uint32_t uid() const { return _uid; }
  std::uint32_t gid() const { return _gid; }

  // The legacy container directory "<home>/Applications/", built on every call.
  CVURL oldContainerPath() const;
  // The legacy install map "<home>/Library/Caches/com.zentrel.corvane.plist".
  CVURL oldInstallMapPath() const;

  // Read from and written to the preferences store on every call.
  bool haveUpdatedPluginContainersWithParentID() const;
  void setHaveUpdatedPluginContainersWithParentID(bool value);

 private:
  std::optional<CVValue> copyPreference(std::string_view key) const;
  // A cached directory under `base`, created on every call when `creation` says so.
  struct Creation {
    std::int32_t protectionClass;  // -1: none
    std::string_view function;
    std::string_view failureMessage;  // "... \"%@\": %@"
  };
  CVURL cachedDirectory(std::optional<CVURL>& field, const CVURL& base, std::string_view relative,
                        const Creation* creation);
  void createDirectory(const CVURL& url, const Creation& creation);
  BundleMap cachedMap(BundleMap& field, const CVURL& directory);

  Services services_;
  CVURL _homePath;
  CVURL _rootPath;
  // One recursive lock guards every cache: stagingRoot calls cachesDirectory and
  // the framework scan calls the root getters while holding it.
  std::recursive_mutex lock_;
  std::optional<CVURL> _carrierBundlesDir;
  std::optional<CVURL> _stagingRoot;
  std::optional<CVURL> _coreServicesDir;
  std::optional<CVURL> _systemAppsDir;
  std::optional<CVURL> _internalAppsDir;
  std::optional<CVURL> _developerAppsDir;
  std::optional<CVURL> _factoryMountDir;
  std::optional<CVURL> _systemFrameworksRootDirectory;
  std::optional<CVURL> _internalFrameworksRootDirectory;
  std::optional<CVURL> _developerFrameworksRootDirectory;
  std::optional<CVURL> _dataDir;
  std::optional<CVURL> _archiveDir;
  std::optional<CVURL> _cachesDir;
  std::optional<CVSet> _allFrameworksDirectories;
  BundleMap _systemAppBundleIDToInfoMap;
  BundleMap _coreServicesAppBundleIDToInfoMap;
  BundleMap _internalAppBundleIDToInfoMap;
  std::shared_ptr<const CVSet> _builtInFrameworkBundleIDs;
  bool _lowerInstallPriority = true;
  bool _skipDeviceFamilyCheck = false;
  bool _skipThinningCheck = false;
  long _nSimultaneousInstallations = 4;
  std::uint32_t _uid = 501;
  std::uint32_t _gid = 501;
};
