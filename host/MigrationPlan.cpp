#include "host/MigrationPlan.h"

#include <algorithm>
#include <deque>
#include <filesystem>
#include <map>
#include <set>

#include "AppMigrator/AppMigrator.h"
#include "AppMigrator/LegacyLayoutNames.h"
#include "host/HostLogs.h"
#include "installer/ContainerLayout.h"
#include "installer/GroupContainers.h"
#include "installer/InstallChecks.h"
#include "installer/RegistryListing.h"
#include "platform/DeviceRoot.h"
#include "platform/PropertyList.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "shared/filemanager/CVFileManager.h"

namespace mavrel_host {
namespace {

using mavrel_installer::ItemKind;
using mavrel_installer::itemKindAtPath;

// The key under which the plan keeps an entry's index in its copy of the work list.
constexpr std::string_view kEntryIndexKey = "EntryIndex";

std::string parentOf(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return std::string();
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

std::string lastComponent(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string recordString(const CVDictionary& record, std::string_view key) {
  const std::string* value = record.findString(key);
  return value ? *value : std::string();
}

bool isDirectory(const std::string& path) {
  return !path.empty() && itemKindAtPath(path) == ItemKind::Directory;
}

std::string reasonForDiscarded(const PlannedEntry& entry) {
  switch (entry.kind) {
    case LegacyEntryKind::StrayNote:
      return "the note left by the legacy layout is removed";
    case LegacyEntryKind::RegularFile:
      return "a file where a container should be: it is removed";
    case LegacyEntryKind::NoBundle:
      return "no application or VPN plug-in bundle with an identifier: the container is removed "
             "with everything in it";
    case LegacyEntryKind::Vanished:
      return "the entry is gone";
    case LegacyEntryKind::Unlistable:
      return "its contents cannot be listed: it is left, and the pass fails";
    case LegacyEntryKind::Unexaminable:
      return entry.subject + " cannot be looked at: the container is left, and the pass fails";
    case LegacyEntryKind::SymlinkBundle:
      return entry.subject + " is a symbolic link: the container is left, and the pass fails";
    case LegacyEntryKind::SymlinkMarker:
      return "its migration marker is a symbolic link: the container is left, and the pass fails";
    case LegacyEntryKind::UnreadableMarker:
      return "its migration marker " + entry.subject + " cannot be loaded" +
             (entry.detail.empty() ? std::string() : " (" + entry.detail + ")") +
             ": the container is left, and the pass fails";
    default:
      return std::string();
  }
}

class Planner {
 public:
  explicit Planner(const std::string& root)
      : root_(root),
        deviceRoot_(root),
        configuration_(deviceRoot_),
        layout_(root, pathRelativeToRoot(root, configuration_.homeDirectory().path())) {}

  std::optional<MigrationPlan> build(std::string* reason) {
    plan_.root = root_;
    if (!readRegistry(reason) || !classifyEntries(reason)) return std::nullopt;
    readGroupContainerMap();
    predictInWorkOrder();
    findConflicts();
    planHarbors();
    planSpace();
    return std::move(plan_);
  }

 private:
  bool readRegistry(std::string* reason) {
    CVError error;
    auto listing = mavrel_installer::readRegistryListing(configuration_, &error,
                                                         /*writeNothing=*/true);
    if (!listing) {
      *reason = "cannot read the application registry: " + error.localizedDescription();
      return false;
    }
    plan_.registryPath = listing->registryPath;
    plan_.registryExists = listing->registryExists;
    plan_.registryHasUncheckpointedChanges =
        mavrel_installer::itemExists(listing->registryPath + "-wal");
    plan_.pendingInstalls = listing->pendingInstalls;
    for (mavrel_installer::ListedApplication& application : listing->applications) {
      const std::string identifier = application.identifier;
      applications_.emplace(identifier, std::move(application));
    }
    return true;
  }

  bool classifyEntries(std::string* reason) {
    CVFileManager& fileManager = CVFileManager::defaultManager();
    const CVURL legacyDirectory = configuration_.oldContainerPath();
    plan_.legacyDirectory = legacyDirectory.path();
    plan_.installMapPath = configuration_.oldInstallMapPath().path();
    plan_.legacyDirectoryExists = !fileManager.itemDoesNotExistAtURL(legacyDirectory);
    if (!plan_.legacyDirectoryExists) return true;
    CVError error;
    // As the pass's set-up lists it: symbolic links are left out.
    const auto items = fileManager.urlsForItemsInDirectoryAtURL(legacyDirectory,
                                                                /*ignoringSymlinks=*/true, &error);
    if (!items) {
      *reason = "cannot list the legacy container directory " + legacyDirectory.path() + ": " +
                error.localizedDescription();
      return false;
    }
    for (const CVURL& item : *items) {
      PlannedEntry entry;
      entry.path = item.path();
      entry.name = item.lastPathComponent();
      LegacyEntryClassification classification = CVClassifyLegacyEntry(item);
      entry.kind = classification.kind;
      entry.subject = classification.subject;
      entry.detail = classification.detail;
      if (isDirectory(entry.path)) entry.userData = userDataOf(entry.path);
      if (classification.record) {
        CVDictionary position;
        position.set(std::string(kEntryIndexKey),
                     CVValue(static_cast<unsigned long long>(plan_.entries.size())));
        CVAddToWorkList(workList_, std::move(position), classification.orderResultEarly);
      } else {
        entry.outcome =
            classification.removeEntry ? MavrelEntryOutcome::Removed : MavrelEntryOutcome::Left;
        entry.containerRemoved = classification.removeEntry;
        entry.reason = reasonForDiscarded(entry);
      }
      records_.push_back(std::move(classification.record));
      plan_.entries.push_back(std::move(entry));
    }
    if (!items->empty()) {
      const auto map = platform::readPropertyListDictionary(configuration_.oldInstallMapPath(),
                                                            nullptr, platform::kInstallMapLimits);
      plan_.installMapReadable = map.has_value();
      if (map) installMap_ = *map;
    }
    return true;
  }

  DataUsage userDataOf(const std::string& containerPath) const {
    DataUsage usage;
    for (const std::string& name : configuration_.appUserDataItemNames())
      usage += dataUsageBelow(containerPath + "/" + name);
    return usage;
  }

  void readGroupContainerMap() {
    const CVDictionary* groups = installMap_.findDictionary(kGroupContainersKey);
    if (groups == nullptr) return;
    const auto locations = CVLocateLegacyGroupContainers(*groups);
    for (const std::string& identifier : groups->keys()) {
      const auto location = locations.find(identifier);
      if (location == locations.end()) continue;
      PlannedGroupContainer planned;
      planned.identifier = identifier;
      planned.storedPath = location->second.storedPath;
      planned.hostPath = location->second.hostPath;
      planned.problem = location->second.problem;
      planned.exists = !planned.hostPath.empty() && mavrel_installer::itemExists(planned.hostPath);
      if (!planned.hostPath.empty() && !planned.exists && planned.problem.empty())
        planned.problem = "leads to nothing in the image";
      groupContainerIndex_.emplace(identifier, plan_.groupContainers.size());
      plan_.groupContainers.push_back(std::move(planned));
    }
  }

  // Entries whose data goes to one place: one identifier in two containers,
  // or an application that takes the identifier of a VPN plug-in another
  // application ships. (A VPN-only container holding a plug-in's data is no
  // conflict: that data is meant for the plug-in's data container.)
  void findConflicts() {
    std::map<std::string, std::vector<std::size_t>, std::less<>> byIdentifier;
    std::map<std::string, std::size_t, std::less<>> pluginShippedBy;
    for (std::size_t i = 0; i < plan_.entries.size(); ++i) {
      const PlannedEntry& entry = plan_.entries[i];
      if (entry.order == 0) continue;
      byIdentifier[entry.identifier].push_back(i);
      if (entry.containerType == kContainerTypeApp && !entry.vpnPluginIdentifier.empty())
        pluginShippedBy.emplace(entry.vpnPluginIdentifier, i);
    }
    const auto conflict = [this](std::size_t a, std::size_t b) {
      plan_.entries[a].conflictsWith.push_back(plan_.entries[b].path);
      plan_.entries[b].conflictsWith.push_back(plan_.entries[a].path);
    };
    for (const auto& [identifier, indexes] : byIdentifier) {
      for (std::size_t i = 0; i < indexes.size(); ++i) {
        for (std::size_t j = i + 1; j < indexes.size(); ++j)
          conflict(indexes[i], indexes[j]);
      }
      const auto shipper = pluginShippedBy.find(identifier);
      if (shipper == pluginShippedBy.end()) continue;
      for (const std::size_t i : indexes) {
        if (plan_.entries[i].containerType == kContainerTypeApp && i != shipper->second)
          conflict(i, shipper->second);
      }
    }
  }

  void predictInWorkOrder() {
    std::uint64_t order = 0;
    for (const CVDictionary& position : workList_) {
      const CVValue* index = position.find(kEntryIndexKey);
      const auto number = index && index->asNumber() ? index->asNumber()->uint64Value() : 0;
      const auto at = static_cast<std::size_t>(number);
      PlannedEntry& entry = plan_.entries[at];
      entry.order = ++order;
      predict(entry, *records_[at]);
    }
  }

  void fail(PlannedEntry& entry, MavrelEntryStep step, bool removed, std::string why) {
    entry.outcome = MavrelEntryOutcome::Failed;
    entry.failedStep = step;
    entry.containerRemoved = removed;
    entry.reason = std::move(why);
  }

  // The pass's steps for one record (see the migrator's per-container
  // migration), with what the registry will know by then.
  void predict(PlannedEntry& entry, const CVDictionary& record) {
    entry.identifier = recordString(record, kBundleIdentifierKey);
    entry.containerType = recordString(record, kContainerTypeKey);
    entry.bundlePath = recordString(record, kBundlePathKey);
    entry.vpnPluginPath = recordString(record, kSecondBundlePathKey);
    if (!entry.vpnPluginPath.empty()) {
      entry.vpnPluginIdentifier =
          CVBundleIdentifierForBundle(CVURL::fileURLWithPath(entry.vpnPluginPath, true))
              .value_or(std::string());
    }
    const std::string containerPath = recordString(record, kContainerPathKey);
    const bool isApplication = entry.containerType == kContainerTypeApp;

    const auto listed = applications_.find(entry.identifier);
    const bool builtIn = listed != applications_.end() && listed->second.kind == "system";
    if (listed != applications_.end())
      entry.registry = builtIn ? RegistryKnowledge::BuiltIn : RegistryKnowledge::Known;
    bool known = entry.registry != RegistryKnowledge::Unknown ||
                 installedDuringPass_.count(entry.identifier) != 0;

    entry.bundleIsPlaceholder = CVFileManager::defaultManager().bundleAtURLIsPlaceholder(
        CVURL::fileURLWithPath(entry.bundlePath, true));
    // Where the bundle is: in the container, or already staged by an
    // interrupted install.
    std::string installSource;
    if (isDirectory(entry.bundlePath)) {
      installSource = entry.bundlePath;
    } else if (const std::string staged = containerPath + "/" + std::string(kStagingDirectoryName) +
                                          "/" + std::string(kPayloadDirectoryName) + "/" +
                                          lastComponent(entry.bundlePath);
               isDirectory(staged)) {
      installSource = staged;
    }

    if (isApplication && !known) {
      if (installSource.empty()) {
        return fail(entry, MavrelEntryStep::Placeholder, false,
                    "its bundle " + entry.bundlePath +
                        " is gone and the registry does not know it: no placeholder can be made");
      }
      known = true;  // the placeholder registers it
    }
    if (!known) {
      return fail(entry, MavrelEntryStep::BundleRecord, false,
                  "the registry knows no application or plug-in " + entry.identifier +
                      ": its data has nowhere to go");
    }

    if (entry.bundleIsPlaceholder) {
      entry.outcome = MavrelEntryOutcome::PlaceholderOnly;
      entry.containerRemoved = true;
      entry.reason = "its bundle is a placeholder: the data moves, nothing is installed";
      return;
    }
    if (builtIn) {
      entry.outcome = MavrelEntryOutcome::RefusedAsBuiltIn;
      entry.reason =
          "the system carries it built in: the data moves into the built-in "
          "application's data container, replacing what it holds there, and the legacy "
          "bundle is not installed";
    } else if (!installSource.empty() && installSource.ends_with(".app")) {
      mavrel_installer::InstallRequest request;
      request.identifier = entry.identifier;
      request.verifyForMigrator = true;
      request.skipBlacklist = true;
      mavrel_installer::InstallFailure failure;
      if (!mavrel_installer::verifyBundle(installSource, request, &failure)) {
        return fail(entry, MavrelEntryStep::Install, true,
                    "the installer will refuse the bundle (" + failure.detail +
                        "); the data stays in the placeholder's data container");
      }
    } else if (installSource.empty()) {
      entry.reason = "resuming: the bundle was already handed to the installer";
    }
    if (!builtIn) {
      installedDuringPass_.insert(entry.identifier);
      // A VPN plug-in installed with its application is known under its own identifier.
      if (!entry.vpnPluginIdentifier.empty())
        installedDuringPass_.insert(entry.vpnPluginIdentifier);
    }

    planGroups(entry, builtIn ? listed->second.bundlePath : installSource);
    collectMissedItems(entry, containerPath);
    if (!entry.missedItems.empty()) {
      return fail(entry, MavrelEntryStep::MissedItems, false,
                  std::to_string(entry.missedItems.size()) +
                      " item(s) the migration does not carry would be left in the container: "
                      "it is kept, and the pass fails");
    }
    if (entry.outcome != MavrelEntryOutcome::RefusedAsBuiltIn)
      entry.outcome = MavrelEntryOutcome::Migrated;
    entry.containerRemoved = true;
  }

  void planGroups(PlannedEntry& entry, const std::string& bundlePath) {
    if (bundlePath.empty()) return;
    for (const std::string& group : mavrel_installer::readApplicationGroups(bundlePath)) {
      const auto index = groupContainerIndex_.find(group);
      if (index == groupContainerIndex_.end()) continue;
      const PlannedGroupContainer* located = &plan_.groupContainers[index->second];
      PlannedGroup planned;
      planned.identifier = group;
      planned.legacyPath = located->hostPath.empty() ? located->storedPath : located->hostPath;
      planned.problem = located->problem;
      planned.present = located->exists && located->problem.empty();
      if (planned.present) planned.usage = dataUsageBelow(located->hostPath);
      planned.movedWithEntry = planned.present && claimedGroups_.insert(group).second;
      entry.groups.push_back(std::move(planned));
    }
  }

  // What the missed-items check will find: everything but the bundles handed
  // to the installer, the user data, the store metadata and the marker names.
  void collectMissedItems(PlannedEntry& entry, const std::string& containerPath) {
    std::set<std::string, std::less<>> carried{
        std::string(kMigrationMarkerFileName), std::string(kLegacyMigrationMarkerFileName),
        std::string(kLegacyPlaceholderFileName), std::string(kStagingDirectoryName),
        lastComponent(entry.bundlePath)};
    if (!entry.vpnPluginPath.empty()) carried.insert(lastComponent(entry.vpnPluginPath));
    for (const std::string& name : configuration_.appUserDataItemNames())
      carried.insert(name);
    for (const std::string& name : configuration_.appBundleMetadataItemNames())
      carried.insert(name);
    const auto items = CVFileManager::defaultManager().urlsForItemsInDirectoryAtURL(
        CVURL::fileURLWithPath(containerPath, true), /*ignoringSymlinks=*/false, nullptr);
    if (!items) return;
    for (const CVURL& item : *items) {
      if (carried.count(item.lastPathComponent()) == 0) entry.missedItems.push_back(item.path());
    }
  }

  void planHarbors() {
    plan_.harborMapPath = parentOf(plan_.registryPath) + "/" + std::string(kHarborMapFileName);
    plan_.harborMapPresent = mavrel_installer::itemExists(plan_.harborMapPath);
    if (!plan_.harborMapPresent) return;
    const auto map = platform::readPropertyListDictionary(
        CVURL::fileURLWithPath(plan_.harborMapPath, false), nullptr, platform::kHarborMapLimits);
    plan_.harborMapReadable = map.has_value();
    if (!map) return;
    const auto resolvedRoot = mavrel_installer::canonicalPath(root_);
    for (std::size_t i = 0; i < map->count(); ++i) {
      PlannedHarbor harbor;
      harbor.identifier = map->keys()[i];
      const CVDictionary* entry = map->valueAt(i).asDictionary();
      const std::string* path = entry ? entry->findString(kHarborPathKey) : nullptr;
      if (path == nullptr) {
        harbor.problem = "malformed entry: skipped";
        plan_.harbors.push_back(std::move(harbor));
        continue;
      }
      harbor.path = *path;
      std::string problem;
      if (const auto hostPath = deviceRoot_.hostPathForDevicePath(*path, &problem))
        harbor.hostPath = *hostPath;
      const auto resolved =
          harbor.hostPath.empty() ? std::nullopt : mavrel_installer::canonicalPath(harbor.hostPath);
      harbor.present = resolved && resolvedRoot && isDirectory(*resolved) &&
                       mavrel_installer::pathIsWithin(*resolved, *resolvedRoot);
      if (!harbor.present) harbor.hostPath.clear();
      if (harbor.present) {
        harbor.usage = dataUsageBelow(*resolved);
      } else {
        harbor.problem = "not a directory inside the image: registering it will fail";
      }
      plan_.harbors.push_back(std::move(harbor));
    }
  }

  static bool movesData(const PlannedEntry& entry) {
    if (entry.order == 0) return false;
    if (entry.outcome != MavrelEntryOutcome::Failed) return true;
    return entry.failedStep != MavrelEntryStep::Placeholder &&
           entry.failedStep != MavrelEntryStep::BundleRecord;
  }

  void addMove(std::string what, const std::string& from, const std::string& to,
               std::uint64_t bytes) {
    PlannedMove move;
    move.what = std::move(what);
    move.from = from;
    move.to = to;
    move.bytes = bytes;
    const auto fromDevice = deviceOfNearestExisting(from);
    const auto toDevice = deviceOfNearestExisting(to);
    move.sameFileSystem = fromDevice && toDevice && *fromDevice == *toDevice;
    if (!move.sameFileSystem) plan_.space.bytesToCopy += bytes;
    plan_.space.moves.push_back(std::move(move));
  }

  void planSpace() {
    std::uint64_t userDataBytes = 0;
    for (const PlannedEntry& entry : plan_.entries) {
      if (movesData(entry)) userDataBytes += entry.userData.bytes;
    }
    const std::string& dataContainers =
        layout_.directoryFor(mavrel_installer::ContainerClass::Data);
    addMove("user data", plan_.legacyDirectory, dataContainers, userDataBytes);

    std::uint64_t groupBytes = 0;
    std::string groupSource;
    for (const PlannedEntry& entry : plan_.entries) {
      for (const PlannedGroup& group : entry.groups) {
        if (!group.movedWithEntry) continue;
        groupBytes += group.usage.bytes;
        if (groupSource.empty()) groupSource = parentOf(group.legacyPath);
      }
    }
    if (!groupSource.empty()) {
      addMove("group containers", groupSource,
              layout_.directoryFor(mavrel_installer::ContainerClass::Group), groupBytes);
    }

    std::error_code error;
    const auto space = std::filesystem::space(nearestExistingPath(dataContainers), error);
    if (!error) plan_.space.available = space.available;
    plan_.space.enough =
        plan_.space.bytesToCopy == 0 ||
        (plan_.space.available && *plan_.space.available >= plan_.space.bytesToCopy);
  }

  std::string root_;
  platform::DeviceRoot deviceRoot_;
  CVGlobalConfiguration configuration_;
  mavrel_installer::ContainerLayout layout_;
  MigrationPlan plan_;
  std::map<std::string, mavrel_installer::ListedApplication, std::less<>> applications_;
  CVDictionary installMap_;
  std::vector<std::optional<CVDictionary>> records_;  // parallel to plan_.entries
  std::deque<CVDictionary> workList_;
  std::set<std::string, std::less<>> installedDuringPass_;
  std::set<std::string, std::less<>> claimedGroups_;
  // Group identifier to its place in plan_.groupContainers.
  std::map<std::string, std::size_t, std::less<>> groupContainerIndex_;
};

}  // namespace

DataUsage MigrationPlan::userData() const {
  DataUsage total;
  for (const PlannedEntry& entry : entries)
    total += entry.userData;
  return total;
}

OutcomeTotals MigrationPlan::totals() const {
  OutcomeTotals totals;
  for (const PlannedEntry& entry : entries)
    totals.add(entry.outcome);
  return totals;
}

bool MigrationPlan::predictedSuccess() const {
  for (const PlannedEntry& entry : entries) {
    if (entry.outcome == MavrelEntryOutcome::Failed || !entry.containerRemoved) return false;
    if (!entry.conflictsWith.empty()) return false;
  }
  for (const PlannedHarbor& harbor : harbors) {
    if (!harbor.path.empty() && !harbor.present) return false;
  }
  for (const PlannedMove& move : space.moves) {
    if (!move.sameFileSystem) return false;
  }
  return true;
}

std::optional<MigrationPlan> buildMigrationPlan(const std::string& root, std::string* reason) {
  return Planner(root).build(reason);
}

std::string_view legacyEntryKindName(LegacyEntryKind kind) {
  switch (kind) {
    case LegacyEntryKind::StrayNote:
      return "stray-note";
    case LegacyEntryKind::Application:
      return "application";
    case LegacyEntryKind::VPNOnly:
      return "vpn-only";
    case LegacyEntryKind::Resumed:
      return "resume";
    case LegacyEntryKind::RegularFile:
      return "regular-file";
    case LegacyEntryKind::NoBundle:
      return "no-bundle";
    case LegacyEntryKind::Vanished:
      return "vanished";
    case LegacyEntryKind::Unlistable:
      return "unlistable";
    case LegacyEntryKind::Unexaminable:
      return "unexaminable";
    case LegacyEntryKind::SymlinkBundle:
      return "symlink-bundle";
    case LegacyEntryKind::SymlinkMarker:
      return "symlink-marker";
    case LegacyEntryKind::UnreadableMarker:
      break;
  }
  return "unreadable-marker";
}

std::string_view registryKnowledgeName(RegistryKnowledge knowledge) {
  switch (knowledge) {
    case RegistryKnowledge::Known:
      return "known";
    case RegistryKnowledge::BuiltIn:
      return "built-in";
    case RegistryKnowledge::Unknown:
      break;
  }
  return "unknown";
}

}  // namespace mavrel_host
