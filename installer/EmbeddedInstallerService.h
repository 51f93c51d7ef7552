// The embedded installer service and application registry: installs
// applications into the current container layout of a device image and keeps
// the registry of what is installed in an SQLite database.
//
// Layout (under the device root; see ContainerLayout.h): every application's
// bundle in a bundle container of its own, its user data in a data container,
// shared data in group containers; the registry, its lock file and its WAL in
// the configuration's data directory; in-flight installs in the configuration's
// staging root.
//
// Installs: a customer package (a staging directory holding "Payload" with one
// ".app" and at most one ".vpnplugin", store metadata items beside "Payload")
// is consumed: one rename moves it into the installer's staging root, it is
// checked there and, rearranged by renames, becomes the new bundle container.
// A placeholder package (an ".app" directory) is marked as a placeholder and
// stored with its store metadata: taken by rename when it lies in the
// device's temporary directory (the caller's own disposable copy, see
// InstallerServiceOptions), copied otherwise. Its data container is made
// bare, for the user data the migrator moves in next; the skeleton entries
// the data leaves missing are made by the customer install that replaces the
// placeholder (before it registers), and for the placeholders still there
// when the service closes, or opens after a session that never closed. A
// replaced bundle's data container is kept.
// Built-in applications of the image are known as installed "System"
// applications; their data containers are made on first need, and installing
// one is refused as "ApplicationAlreadyInstalled".
// A VPN plug-in installed with an application is known under its own
// identifier (bundle type "VPNPlugin", no groups), with a data container made
// on first need. A package holding such a plug-in alone is accepted: the copy
// installed with its application stays, the package is consumed.
//
// Crash safety: every install records what it is about to do before doing it
// (a staging directory it takes, on the directory itself: InstallerFiles.h;
// the rest in the registry, with its registration: InstallJournal.h), so that
// an install interrupted at any instant is either undone or finished when the
// service next opens the registry: a registered container always exists, and
// no unregistered container or staging directory ever holds the only copy of
// a bundle or of user data. Opening also removes whatever else was left in
// the staging root.
//
// Durability: an install commits once, its registration with the steps that
// put its items in place; no commit and no step waits for the disk. Against the
// process being killed, which is what these promises are about, program order
// is enough: everything written or renamed before the kill is kept by the
// kernel. Waiting for the disk at each install would only add protection
// against a power loss in the middle of a migration, would need at least two
// ordered flushes per install (journal before the renames, renames before the
// registration) and would cost more than the installs themselves. Instead the
// service flushes once, when it closes: SQLite checkpoints the WAL into the
// database (which waits for the disk) and, when anything was changed, the
// file system holding the image is synced, so that a finished migration is on
// the disk before the program ends.
//
// Only one service may have a registry open (an exclusive lock on
// "ApplicationRegistry.lock"); readers such as `mavrel apps` use
// RegistryListing.h and never take it.
//
// Error contract: open() gives null and a "CVInstallerErrorDomain" record that
// names the file or directory at fault (a damaged registry is reported, never
// replaced). installApplication follows the InstallerService contract: false,
// a record in `*error` and a progress dictionary with "Error",
// "ErrorDescription" and "ErrorDetail". Registry queries that cannot read the
// database log the failure and answer as for an unknown application.
//
// Threads: every operation takes one recursive lock; the progress callback is
// called on the installing thread with the lock held.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "installer/ContainerLayout.h"
#include "installer/InstallChecks.h"
#include "installer/InstallJournal.h"
#include "installer/InstallProgress.h"
#include "installer/RegistryStore.h"
#include "platform/InstallerService.h"
#include "platform/linux/FileDescriptor.h"

class CVGlobalConfiguration;

namespace mavrel_installer {

inline constexpr std::string_view kRegistryFileName = "ApplicationRegistry.sqlite";
inline constexpr std::string_view kRegistryLockFileName = "ApplicationRegistry.lock";
// The key of a bundle's URL in the configuration's built-in bundle maps.
inline constexpr std::string_view kBuiltInBundleURLKey = "com.zentrel.Corvane.bundleURL";
// Code of CVInstallerErrorDomain for a service that cannot be opened.
inline constexpr long kInstallerSetUpErrorCode = 141;
// System applications run before the first unlock: their data containers are
// given the class that is readable at any time.
inline constexpr std::int32_t kSystemDataContainerProtectionClass = 4;

struct InstallerServiceOptions {
  // Whether closing the service checkpoints the registry's WAL and, when
  // anything changed, flushes the device image's file system (see the
  // durability notes). Tests that open and close many services turn it off;
  // it makes no difference to what survives the process being killed.
  bool flushOnClose = true;
  // The device's temporary directory, where callers stage the placeholder
  // packages they remove after the install. A placeholder package inside it
  // (on the image's file system) is taken by rename instead of copied; one
  // anywhere else is only read. Empty: every package is copied.
  std::string temporaryDirectory;
};

class EmbeddedInstallerService final : public platform::InstallerService,
                                       public platform::ApplicationRegistry {
 public:
  // Opens the registry of the configuration's device image: makes the
  // container directories, takes the registry's lock, opens or creates the
  // database and recovers interrupted installs.
  static std::unique_ptr<EmbeddedInstallerService> open(
      CVGlobalConfiguration& configuration, CVError* error,
      const InstallerServiceOptions& options = InstallerServiceOptions());
  ~EmbeddedInstallerService() override;
  EmbeddedInstallerService(const EmbeddedInstallerService&) = delete;
  EmbeddedInstallerService& operator=(const EmbeddedInstallerService&) = delete;

  bool installApplication(const CVURL& url, const CVDictionary& options, CVError* error,
                          const platform::InstallProgressCallback& progress) override;
  // Recorded when `path` resolves to an existing directory inside the device
  // root; refused (with a line in the installer log) otherwise.
  bool CorvaneRegisterSafeHarborForContainerType(std::string_view path, std::string_view identifier,
                                                 int containerType,
                                                 const CVDictionary* options) override;
  // With kCVUpdateSystemAppDataContainerDataProtection true, gives the data
  // containers of the built-in applications the registry knows
  // kSystemDataContainerProtectionClass. A container that cannot be changed
  // is logged and passed over.
  bool CorvaneUpdateContainerDataProtectionForMigratorOnly(const CVDictionary& options) override;

  bool isApplicationInstalled(std::string_view identifier) override;
  // For a built-in application or a VPN plug-in, makes its data container
  // first if it has none yet.
  std::optional<platform::BundleRecord> bundleRecordForIdentifier(
      std::string_view identifier) override;

  const std::string& registryPath() const { return registryPath_; }
  const ContainerLayout& layout() const { return layout_; }
  const std::string& stagingRoot() const { return stagingRoot_; }
  // What opening the registry recovered.
  const RecoveryReport& recoveryReport() const { return recovery_; }

 private:
  struct BuiltInApplication {
    std::string bundlePath;  // resolved, absolute
    std::string version;
  };
  // What an install puts in place once it is registered. Everything it makes
  // before that is an entry of its own in the staging root (a prepared
  // container, or the consumed staging directory, which becomes the bundle
  // container), so that a crash leaves nothing the next opening cannot sweep.
  struct Preparation {
    std::vector<std::string> prepared;  // staging-root entries to discard on failure
    std::vector<JournalStep> steps;
    ApplicationEntry entry;
  };

  EmbeddedInstallerService(CVGlobalConfiguration& configuration, ContainerLayout layout);
  bool setUp(CVError* error);
  bool lockRegistry(CVError* error);
  void loadBuiltInApplications();

  bool installCustomer(const std::string& url, const InstallRequest& request,
                       const InstallProgress& progress, CVError* error);
  bool installPlaceholder(const std::string& url, const InstallRequest& request,
                          const InstallProgress& progress, CVError* error);
  bool answerRepeatedRequest(const std::string& origin, const InstallRequest& request,
                             const InstallProgress& progress, CVError* error);
  bool acceptPluginPayload(const std::string& origin, const std::string& pluginName,
                           const InstallRequest& request, const InstallProgress& progress,
                           CVError* error);
  // Discards the legacy copy of a known plug-in staged at `origin`; the copy
  // installed with its application stays. Always succeeds.
  bool keepInstalledPlugin(const std::string& origin, const PluginEntry& plugin,
                           const InstallProgress& progress);
  std::optional<platform::BundleRecord> pluginRecord(std::string_view identifier);
  // Makes the plug-in's data container and records it.
  bool registerPluginDataContainer(PluginEntry& plugin);
  bool refuseBuiltIn(const std::string& origin, const InstallRequest& request,
                     const InstallProgress& progress, CVError* error);
  // Puts the consumed staging directory back where it came from; when it
  // cannot, the next opening does it from the directory's record.
  void restoreStagingDirectory(const std::string& staged, const std::string& origin);
  // Whether consuming `path` would take (part of) the installer's own places.
  bool isProtectedLocation(const std::string& path) const;
  // Registers a built-in application with a new data container.
  std::optional<ApplicationEntry> registerSystemApplication(std::string_view identifier);
  std::optional<platform::BundleRecord> recordFor(const ApplicationEntry& entry) const;

  // ---- Shared steps (InstallSteps.cpp) ----
  // The registry entry of a bundle installed as `bundleName` in
  // `bundleContainer`; a replaced entry's data container is kept.
  ApplicationEntry entryForBundle(const InstallRequest& request, ApplicationKind kind,
                                  const BundleFacts& facts, const std::string& bundleContainer,
                                  const std::string& bundleName,
                                  const std::optional<ApplicationEntry>& existing) const;
  // A fresh name in the staging root; nothing is made there yet.
  std::optional<std::string> newStagingPath(InstallFailure* failure);
  // Removes staging-root entries that were never registered; failures are
  // left to the sweep of the next opening.
  void discardStagingItems(const std::vector<std::string>& paths);
  // Consumes `origin` by renaming it into the staging root, then removes it.
  bool discardStagingDirectory(const std::string& origin);
  // Prepares (in the staging root) the data container the entry lacks and
  // the group containers not yet known, and adds the steps that put them in
  // place. A bare data container is the directory alone, its skeleton left to
  // completePlaceholderDataContainers or the customer install.
  enum class DataContainerShape { Complete, Bare };
  bool prepareContainers(Preparation& preparation, const std::vector<std::string>& groups,
                         DataContainerShape shape, InstallFailure* failure);
  // Gives the data containers of the registered placeholders (`only` when
  // given: those of these identifiers) the skeleton entries they lack. A
  // container that cannot be completed is logged and left for the next
  // attempt; false when one could not be.
  bool completePlaceholderDataContainers(const std::set<std::string, std::less<>>* only);
  // Commits the entry with its finish steps, then performs the steps.
  bool registerAndFinish(Preparation& preparation, InstallFailure* failure);
  // The same with another registration than the preparation's entry.
  using RegistryWrite = std::function<bool(CVError* error)>;
  bool commitAndFinish(Preparation& preparation, const RegistryWrite& record,
                       InstallFailure* failure);
  bool beginWrite(WriteTransaction& transaction, CVError* error);
  bool commitWrite(WriteTransaction& transaction, CVError* error);
  std::string relative(const std::string& absolutePath) const;

  CVGlobalConfiguration& configuration_;
  ContainerLayout layout_;
  std::string dataDirectory_;
  std::string stagingRoot_;
  std::string temporaryDirectory_;  // resolved; "" when packages are never taken
  std::string registryPath_;
  ItemOwner owner_;
  std::map<std::string, BuiltInApplication, std::less<>> builtIns_;
  std::vector<std::string> metadataItemNames_;
  CVSet blacklist_;
  platform::sys::UniqueFd lock_;
  std::unique_ptr<RegistryStore> store_;
  // Entries whose steps are done, deleted with the next write transaction.
  std::vector<std::int64_t> doneJournal_;
  RecoveryReport recovery_;
  bool flushOnClose_ = true;
  bool changed_ = false;  // something was committed since opening
  // Placeholders installed in this session whose data containers were made
  // bare and are not complete yet.
  std::set<std::string, std::less<>> barePlaceholders_;
  std::recursive_mutex mutex_;
};

}  // namespace mavrel_installer
