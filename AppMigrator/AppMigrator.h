// CVAppMigrator: the plug-in that carries every user-installed application of
// a device from the legacy per-application containers into the current layout.
//
// The host creates it (set-up reads the legacy directory listing, the legacy
// install map, the harbor map and the previous version record), may poll the
// two progress figures from any thread, and calls performMigration() once.
// Every message goes to the migration log and begins "CVAppMigrator: ".
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AppMigrator/LegacyGroupContainers.h"
#include "AppMigrator/LegacyLayoutNames.h"
#include "platform/IconService.h"
#include "platform/InstallerService.h"
#include "platform/MavrelMigrator.h"
#include "platform/SystemVersion.h"
#include "platform/URL.h"
#include "platform/Value.h"
#include "shared/configuration/CVGlobalConfiguration.h"

// Keys of a container info record, which is also the migration marker's content.
inline constexpr std::string_view kContainerPathKey = "ContainerPath";
inline constexpr std::string_view kBundlePathKey = "BundlePath";
inline constexpr std::string_view kSecondBundlePathKey = "SecondBundlePath";
inline constexpr std::string_view kBundleIdentifierKey = "BundleIdentifier";
inline constexpr std::string_view kContainerTypeKey = "ContainerType";
inline constexpr std::string_view kContainerTypeApp = "App";
inline constexpr std::string_view kContainerTypeVPNBundle = "VPNBundle";

// Files the migrator reads and writes.
inline constexpr std::string_view kHarborMapFileName = "SafeHarbor.plist";
inline constexpr std::string_view kVersionRecordFileName = "AppMigratorLastSystemVersion.plist";
inline constexpr std::string_view kStrayEntryFileName = "WhereDidMyApplicationsGo.txt";
// Where placeholders are staged, under the process's temporary directory.
inline constexpr std::string_view kPlaceholderStagingDirectoryName = "com.zentrel.corvane.migrator";

namespace platform {
class Bundle;
class DispatchQueue;
}  // namespace platform

class CVAppMigrator final : public MavrelMigrator {
 public:
  // The services the migrator works with; all outlive it.
  struct Environment {
    CVGlobalConfiguration* configuration = nullptr;
    platform::InstallerService* installer = nullptr;
    platform::ApplicationRegistry* registry = nullptr;
    const platform::SystemVersionSource* systemVersion = nullptr;
    CVURL temporaryDirectory;
    // The platform's icon service when null.
    platform::IconService* iconService = nullptr;
    // Told what happens to each legacy entry; may be null.
    MavrelMigrationObserver* observer = nullptr;
  };

  // Set-up. Returns null when an existing legacy directory cannot be listed.
  static std::unique_ptr<CVAppMigrator> create(Environment environment);
  // Waits for the markers still being made durable.
  ~CVAppMigrator() override;

  std::string dataClassName() const override { return "CVAppMigrator"; }
  bool performMigration() override;
  float estimatedDuration() const override;
  float migrationProgress() const override;

  // ---- Steps of the pass, one per operation; public so tests can drive them.

  // Classifies one legacy entry into a container info record, or yields nothing
  // (after removing the entry, or leaving it). Sets `*orderResultEarly` when the
  // record's primary bundle is an application.
  std::optional<CVDictionary> _introspectContainer(const CVURL& containerURL,
                                                   bool* orderResultEarly);
  // The identifier of the bundle at `bundleURL`, or nullopt when there is no
  // readable bundle or it has no identifier.
  std::optional<std::string> _bundleIdentifierForBundle(const CVURL& bundleURL);
  // The container info record saved in a marker file, or nullopt (logged) when
  // the marker is unreadable or invalid.
  std::optional<CVDictionary> _loadAndValidateMigrationMarkerAtURL(const CVURL& markerURL);
  // Writes `info` durably as the marker file of the container at `containerURL`.
  // A failed write is logged; a missing marker is not fatal.
  void _writeMigrationMarker(const CVDictionary& info, const CVURL& containerURL);

  // A marker whose waits for the disk run on the migrator's own thread: its
  // bytes are written aside at once, flushed, renamed into place and the
  // container flushed there, while the caller goes on with work that moves
  // nothing out of the container. settle() waits for it and logs a failure,
  // as _writeMigrationMarker does; destruction settles it too.
  class PendingMarker {
   public:
    PendingMarker() = default;
    explicit PendingMarker(std::future<bool> written) : written_(std::move(written)) {}
    PendingMarker(PendingMarker&&) = default;
    PendingMarker& operator=(PendingMarker&& other) {
      settle();
      written_ = std::move(other.written_);
      return *this;
    }
    ~PendingMarker() { settle(); }
    void settle();

   private:
    std::future<bool> written_;
  };
  // Starts writing `info` as the marker file; a failure to write the bytes
  // aside is logged at once (the returned marker is then settled).
  PendingMarker _beginMigrationMarker(const CVDictionary& info, const CVURL& containerURL);
  // Migrates one container described by an info record: placeholder, data
  // move, install, group containers, removal. True when fully migrated.
  bool _migrateContainerWithInfo(const CVDictionary& info);
  // True when the container holds anything besides marker files, or cannot be
  // listed.
  bool _containerHasMissedItems(const CVURL& containerURL, const std::string& identifier);

  // Builds "<container>/Staging" with the bundle (and VPN plug-in) under
  // "Payload" and the store data beside it, and installs it. An installer
  // refusal because the system carries the application built in is success.
  bool _stageAndInstallBundleAtURL(const CVURL& bundleURL, const std::string& identifier,
                                   const CVURL& vpnPluginURL, const CVURL& containerURL);
  // Installs a placeholder carrying the bundle's identity, versions and icon.
  // Nothing of the legacy container changes; the staged copy never outlives
  // the call.
  bool _stageAndInstallPlaceholderForBundleAtURL(const CVURL& bundleURL,
                                                 const std::string& identifier,
                                                 const CVURL& containerURL);
  // Writes the bundle's home-screen icon as PNG to `url`, atomically.
  bool _writeIconForBundle(const platform::Bundle& bundle, const CVURL& url);

  // Moves the user-data items of a legacy container into a data container,
  // replacing what is there. False at the first item that fails to move.
  bool _migrateDataContainerForIdentifier(const std::string& identifier, const CVURL& srcURL,
                                          const CVURL& dstURL);
  // Moves the legacy group containers of an installed application into the
  // group containers the registry assigns it.
  bool _migrateGroupContainersForIdentifier(const std::string& identifier);
  // Moves every entry of one directory into another, replacing same-named
  // items. False only when the source cannot be listed.
  bool _moveAllItemsInGroupContainerURL(const CVURL& srcURL, const CVURL& dstURL);
  // Registers every safe harbor of the harbor map, then retires the map.
  bool _migrateSafeHarbors();

  // Read-only views of the set-up state, for tests and the host.
  const std::optional<std::vector<CVURL>>& itemsToMigrate() const { return _itemsToMigrate; }
  const std::optional<CVDictionary>& installMap() const { return _installMap; }
  const std::optional<CVDictionary>& harborMap() const { return _harborMap; }
  const std::optional<CVDictionary>& groupContainerMap() const { return _groupContainerMap; }
  const std::optional<std::string>& lastSystemBuildVersion() const {
    return _lastSystemBuildVersion;
  }
  std::uint64_t countItemsMigrated() const { return _countItemsMigrated.load(); }

 private:
  explicit CVAppMigrator(Environment environment);
  bool init();

  // The pass's phases.
  std::deque<CVDictionary> classifyLegacyEntries();
  bool migrateContainers(const std::deque<CVDictionary>& workList);
  bool removeLegacyTreeIfEmpty();
  void recordSystemVersion();

  CVURL dataDirectoryFileURL(std::string_view name);
  // Where each legacy group container of the install map leads, and whether
  // it may be migrated; worked out on first use.
  const std::map<std::string, LegacyGroupLocation, std::less<>>& legacyGroupLocations();

  // Calls to the observer, when there is one.
  void reportEntryBegan(const CVDictionary& info);
  void reportEntryStep(const CVDictionary& info, MavrelEntryStep step);
  void reportEntryFinished(const CVDictionary& info, const MavrelEntryResult& result);
  // An entry that classification discarded: removed, or left where it is.
  void reportDiscardedEntry(const CVURL& entryURL, bool removalAttempted, bool removed);

  Environment environment_;
  // Polled by the host from another thread while the pass runs.
  std::atomic<std::uint64_t> _countItemsMigrated{0};
  std::optional<std::vector<CVURL>> _itemsToMigrate;
  std::optional<CVDictionary> _installMap;
  std::optional<CVDictionary> _harborMap;
  std::optional<CVDictionary> _groupContainerMap;
  std::optional<std::string> _lastSystemBuildVersion;
  // Set by the last install when the service refused it because the system
  // carries the application built in.
  bool _installRefusedAsBuiltIn = false;
  std::optional<std::map<std::string, LegacyGroupLocation, std::less<>>> _legacyGroupLocations;
  // Where markers are made durable; started by the first marker.
  std::unique_ptr<platform::DispatchQueue> _markerQueue;
};
