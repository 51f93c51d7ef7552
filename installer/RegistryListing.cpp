#include "installer/RegistryListing.h"

#include <algorithm>

#include "installer/ContainerLayout.h"
#include "installer/EmbeddedInstallerService.h"
#include "installer/RegistryDatabase.h"
#include "installer/RegistryStore.h"
#include "platform/Bundle.h"
#include "shared/configuration/CVGlobalConfiguration.h"

namespace mavrel_installer {
namespace {

// The configuration's data directory, named here rather than asked for: asking
// makes the directory, and a listing writes nothing.
constexpr std::string_view kDataDirectoryBelowHome = "Library/Corvane";

std::string kindText(ApplicationKind kind) {
  switch (kind) {
    case ApplicationKind::Placeholder:
      return "placeholder";
    case ApplicationKind::System:
      return "system";
    case ApplicationKind::User:
      break;
  }
  return "application";
}

}  // namespace

std::string registryPathForConfiguration(const CVGlobalConfiguration& configuration) {
  return configuration.homeDirectory()
             .URLByAppendingPathComponent(kDataDirectoryBelowHome, true)
             .path() +
         "/" + std::string(kRegistryFileName);
}

std::optional<RegistryListing> readRegistryListing(CVGlobalConfiguration& configuration,
                                                   CVError* error, bool writeNothing) {
  RegistryListing listing;
  listing.registryPath = registryPathForConfiguration(configuration);
  // Paths are stored relative to the root, so the configuration's own root
  // (as given) serves to show them.
  const std::string& root = configuration.rootDirectory().path();
  const ContainerLayout layout(root, "");
  const auto absolute = [&layout](const std::string& relative) {
    return relative.empty() ? std::string() : layout.absolute(relative);
  };

  std::vector<ApplicationEntry> entries;
  std::vector<HarborEntry> harbors;
  std::vector<JournalEntry> journal;
  std::vector<PluginEntry> plugins;
  // A registry whose first write was cut off before it committed holds
  // nothing; its journal is rolled back when an installer opens it.
  listing.registryExists =
      itemExists(listing.registryPath) && !holdsOnlyACutFirstWrite(listing.registryPath);
  if (listing.registryExists) {
    auto store = RegistryStore::open(
        listing.registryPath,
        writeNothing ? RegistryDatabase::Access::Immutable : RegistryDatabase::Access::ReadOnly,
        error);
    if (!store) return std::nullopt;
    ReadTransaction snapshot(store->database());
    if (!snapshot.begin(error) || !store->listApplications(entries, error) ||
        !store->listHarbors(harbors, error) || !store->listJournal(journal, error) ||
        !store->listPlugins(plugins, error))
      return std::nullopt;
  }
  listing.pendingInstalls = journal.size();

  for (const ApplicationEntry& entry : entries) {
    ListedApplication application;
    application.identifier = entry.identifier;
    application.kind = kindText(entry.kind);
    application.version = entry.version;
    application.shortVersion = entry.shortVersion;
    application.bundleContainer = absolute(entry.bundleContainer);
    application.bundlePath = absolute(entry.bundlePath);
    application.vpnPluginPath = absolute(entry.vpnPluginPath);
    for (const PluginEntry& plugin : plugins) {
      if (plugin.application != entry.identifier) continue;
      application.vpnPluginIdentifier = plugin.identifier;
      application.vpnPluginDataContainer = absolute(plugin.dataContainer);
    }
    application.dataContainer = absolute(entry.dataContainer);
    for (const GroupMembership& membership : entry.groups)
      application.groupContainers.emplace_back(membership.groupIdentifier,
                                               absolute(membership.container));
    listing.applications.push_back(std::move(application));
  }

  // Built-in applications the registry has not needed yet.
  const auto addBuiltIns = [&listing](const CVDictionary& map) {
    for (const std::string& identifier : map.keys()) {
      const bool known = std::any_of(listing.applications.begin(), listing.applications.end(),
                                     [&identifier](const ListedApplication& listed) {
                                       return listed.identifier == identifier;
                                     });
      if (known) continue;
      ListedApplication application;
      application.identifier = identifier;
      application.kind = "system";
      if (const CVDictionary* info = map.findDictionary(identifier)) {
        if (const std::string* version = info->findString(platform::kBundleVersionKey))
          application.version = *version;
        if (const CVValue* url = info->find(kBuiltInBundleURLKey); url && url->asURL())
          application.bundlePath = url->asURL()->path();
      }
      listing.applications.push_back(std::move(application));
    }
  };
  if (const auto system = configuration.systemAppBundleIDToInfoMap()) addBuiltIns(*system);
  if (const auto internal = configuration.internalAppBundleIDToInfoMap()) addBuiltIns(*internal);
  addBuiltIns(configuration.diskImageAppBundleIDToInfoMap());
  std::sort(listing.applications.begin(), listing.applications.end(),
            [](const ListedApplication& a, const ListedApplication& b) {
              return a.identifier < b.identifier;
            });

  for (const HarborEntry& harbor : harbors)
    listing.harbors.push_back(
        ListedHarbor{harbor.identifier, absolute(harbor.path), harbor.containerType});
  return listing;
}

}  // namespace mavrel_installer
