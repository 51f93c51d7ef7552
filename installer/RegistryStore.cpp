#include "installer/RegistryStore.h"

#include <sqlite3.h>

#include <map>

namespace mavrel_installer {
namespace {

// "MVRG": marks the file as this program's registry.
constexpr std::int64_t kRegistryApplicationId = 0x4D565247;

constexpr const char* kCreateSchemaVersion1 = R"sql(
CREATE TABLE applications (
  identifier TEXT PRIMARY KEY NOT NULL,
  kind TEXT NOT NULL CHECK (kind IN ('User', 'Placeholder', 'System')),
  version TEXT,
  short_version TEXT,
  bundle_container TEXT UNIQUE,
  bundle_path TEXT,
  vpn_plugin_path TEXT,
  data_container TEXT UNIQUE,
  installed_from TEXT
) WITHOUT ROWID;
CREATE TABLE group_containers (
  group_identifier TEXT PRIMARY KEY NOT NULL,
  container TEXT NOT NULL UNIQUE
) WITHOUT ROWID;
CREATE TABLE application_groups (
  application TEXT NOT NULL REFERENCES applications (identifier) ON DELETE CASCADE,
  group_identifier TEXT NOT NULL REFERENCES group_containers (group_identifier),
  position INTEGER NOT NULL,
  PRIMARY KEY (application, group_identifier)
) WITHOUT ROWID;
CREATE TABLE safe_harbors (
  identifier TEXT NOT NULL,
  container_type INTEGER NOT NULL,
  path TEXT NOT NULL,
  options BLOB,
  PRIMARY KEY (identifier, container_type)
) WITHOUT ROWID;
CREATE TABLE journal (
  id INTEGER PRIMARY KEY,
  identifier TEXT NOT NULL,
  purpose TEXT NOT NULL CHECK (purpose IN ('restore', 'finish'))
);
CREATE TABLE journal_steps (
  journal INTEGER NOT NULL REFERENCES journal (id) ON DELETE CASCADE,
  position INTEGER NOT NULL,
  action TEXT NOT NULL CHECK (action IN ('rename', 'remove')),
  source TEXT NOT NULL,
  target TEXT,
  PRIMARY KEY (journal, position)
) WITHOUT ROWID;
PRAGMA application_id = 1297502791;
PRAGMA user_version = 1;
)sql";

// Version 2 knows VPN plug-ins under their own identifiers. A new registry is
// made as version 1 and upgraded, so that there is one definition of each table.
constexpr const char* kUpgradeFromVersion1 = R"sql(
CREATE TABLE plugins (
  identifier TEXT PRIMARY KEY NOT NULL,
  application TEXT NOT NULL REFERENCES applications (identifier) ON DELETE CASCADE,
  bundle_path TEXT NOT NULL,
  data_container TEXT UNIQUE
) WITHOUT ROWID;
PRAGMA user_version = 2;
)sql";

// Version 3 keeps a placeholder's store metadata with its entry, so that
// installing a placeholder makes no file for it.
constexpr const char* kUpgradeFromVersion2 = R"sql(
CREATE TABLE placeholder_metadata (
  identifier TEXT PRIMARY KEY NOT NULL REFERENCES applications (identifier) ON DELETE CASCADE,
  bytes BLOB NOT NULL
) WITHOUT ROWID;
PRAGMA user_version = 3;
)sql";

const char* const kStatementText[] = {
    // kFindApplication
    "SELECT identifier, kind, version, short_version, bundle_container, bundle_path, "
    "vpn_plugin_path, data_container, installed_from FROM applications WHERE identifier = ?1",
    // kFindMemberships
    "SELECT m.group_identifier, g.container FROM application_groups m JOIN group_containers g "
    "USING (group_identifier) WHERE m.application = ?1 ORDER BY m.position",
    // kListApplications
    "SELECT identifier, kind, version, short_version, bundle_container, bundle_path, "
    "vpn_plugin_path, data_container, installed_from FROM applications ORDER BY identifier",
    // kListMemberships
    "SELECT m.application, m.group_identifier, g.container FROM application_groups m JOIN "
    "group_containers g USING (group_identifier) ORDER BY m.application, m.position",
    // kUpsertApplication
    "INSERT INTO applications (identifier, kind, version, short_version, bundle_container, "
    "bundle_path, vpn_plugin_path, data_container, installed_from) VALUES (?1, ?2, ?3, ?4, ?5, "
    "?6, ?7, ?8, ?9) ON CONFLICT (identifier) DO UPDATE SET kind = excluded.kind, version = "
    "excluded.version, short_version = excluded.short_version, bundle_container = "
    "excluded.bundle_container, bundle_path = excluded.bundle_path, vpn_plugin_path = "
    "excluded.vpn_plugin_path, data_container = excluded.data_container, installed_from = "
    "excluded.installed_from",
    // kClearMemberships
    "DELETE FROM application_groups WHERE application = ?1",
    // kAddGroup
    "INSERT INTO group_containers (group_identifier, container) VALUES (?1, ?2) ON CONFLICT "
    "(group_identifier) DO NOTHING",
    // kAddMembership
    "INSERT INTO application_groups (application, group_identifier, position) VALUES (?1, ?2, "
    "?3)",
    // kFindGroup
    "SELECT container FROM group_containers WHERE group_identifier = ?1",
    // kUpsertHarbor
    "INSERT INTO safe_harbors (identifier, container_type, path, options) VALUES (?1, ?2, ?3, ?4) "
    "ON CONFLICT (identifier, container_type) DO UPDATE SET path = excluded.path, options = "
    "excluded.options",
    // kListHarbors
    "SELECT identifier, container_type, path, options FROM safe_harbors ORDER BY identifier, "
    "container_type",
    // kAddJournal
    "INSERT INTO journal (identifier, purpose) VALUES (?1, 'finish') RETURNING id",
    // kAddJournalStep
    "INSERT INTO journal_steps (journal, position, action, source, target) VALUES (?1, ?2, ?3, "
    "?4, ?5)",
    // kRemoveJournal
    "DELETE FROM journal WHERE id = ?1",
    // kListJournal
    "SELECT id, identifier, purpose FROM journal ORDER BY id",
    // kListJournalSteps
    "SELECT journal, action, source, target FROM journal_steps ORDER BY journal, position",
    // kFindPlugin
    "SELECT identifier, application, bundle_path, data_container FROM plugins WHERE identifier "
    "= ?1",
    // kListPlugins
    "SELECT identifier, application, bundle_path, data_container FROM plugins ORDER BY "
    "identifier",
    // kUpsertPlugin: a plug-in that moves to another application keeps its data container.
    "INSERT INTO plugins (identifier, application, bundle_path) VALUES (?1, ?2, ?3) ON CONFLICT "
    "(identifier) DO UPDATE SET application = excluded.application, bundle_path = "
    "excluded.bundle_path",
    // kDropOtherPlugins
    "DELETE FROM plugins WHERE application = ?1 AND identifier IS NOT ?2",
    // kSetPluginDataContainer
    "UPDATE plugins SET data_container = ?2 WHERE identifier = ?1",
    // kPluginOfApplication
    "SELECT identifier FROM plugins WHERE application = ?1",
    // kPutPlaceholderMetadata
    "INSERT INTO placeholder_metadata (identifier, bytes) VALUES (?1, ?2) ON CONFLICT "
    "(identifier) DO UPDATE SET bytes = excluded.bytes",
    // kClearPlaceholderMetadata
    "DELETE FROM placeholder_metadata WHERE identifier = ?1",
    // kFindPlaceholderMetadata
    "SELECT bytes FROM placeholder_metadata WHERE identifier = ?1",
};
static_assert(std::size(kStatementText) == 25);

ApplicationKind kindFromName(std::string_view name) {
  if (name == "Placeholder") return ApplicationKind::Placeholder;
  if (name == "System") return ApplicationKind::System;
  return ApplicationKind::User;
}

ApplicationEntry readApplication(const Statement::Use& use) {
  ApplicationEntry entry;
  entry.identifier = use.text(0);
  entry.kind = kindFromName(use.text(1));
  entry.version = use.text(2);
  entry.shortVersion = use.text(3);
  entry.bundleContainer = use.text(4);
  entry.bundlePath = use.text(5);
  entry.vpnPluginPath = use.text(6);
  entry.dataContainer = use.text(7);
  entry.installedFrom = use.text(8);
  return entry;
}

PluginEntry readPlugin(const Statement::Use& use) {
  return PluginEntry{use.text(0), use.text(1), use.text(2), use.text(3)};
}

}  // namespace

std::string_view applicationKindName(ApplicationKind kind) {
  switch (kind) {
    case ApplicationKind::Placeholder:
      return "Placeholder";
    case ApplicationKind::System:
      return "System";
    case ApplicationKind::User:
      break;
  }
  return "User";
}

std::unique_ptr<RegistryStore> RegistryStore::open(const std::string& path,
                                                   RegistryDatabase::Access access,
                                                   CVError* error) {
  auto database = RegistryDatabase::open(path, access, error);
  if (!database) return nullptr;
  std::unique_ptr<RegistryStore> store(new RegistryStore(std::move(database)));
  if (!store->prepareSchema(error)) return nullptr;
  store->remembersLookups_ = access == RegistryDatabase::Access::ReadWrite;
  return store;
}

bool RegistryStore::prepareSchema(CVError* error) {
  RegistryDatabase& database = *database_;
  const auto applicationId = database.queryText("PRAGMA application_id", error);
  const auto version =
      applicationId ? database.queryText("PRAGMA user_version", error) : std::nullopt;
  const auto tables =
      version ? database.queryText("SELECT count(*) FROM sqlite_schema", error) : std::nullopt;
  if (!tables) return false;

  const bool fresh = *applicationId == "0" && *version == "0" && *tables == "0";
  if (fresh) {
    if (database.access() != RegistryDatabase::Access::ReadWrite) {
      empty_ = true;
      return true;
    }
    WriteTransaction transaction(database);
    return transaction.begin(error) && database.execute(kCreateSchemaVersion1, error) &&
           database.execute(kUpgradeFromVersion1, error) &&
           database.execute(kUpgradeFromVersion2, error) && transaction.commit(error);
  }
  if (*applicationId != std::to_string(kRegistryApplicationId)) {
    CVSetError(error, database.refusal("it is not an application registry (application id " +
                                       *applicationId + ")"));
    return false;
  }
  if ((*version == "1" || *version == "2") &&
      database.access() == RegistryDatabase::Access::ReadWrite) {
    WriteTransaction transaction(database);
    return transaction.begin(error) &&
           (*version != "1" || database.execute(kUpgradeFromVersion1, error)) &&
           database.execute(kUpgradeFromVersion2, error) && transaction.commit(error);
  }
  if (*version == "1" || *version == "2") {
    // Read as it is; the next writer upgrades it.
    withoutPlugins_ = *version == "1";
    withoutPlaceholderMetadata_ = true;
    return true;
  }
  if (*version != std::to_string(kRegistrySchemaVersion)) {
    CVSetError(error, database.refusal("its schema version " + *version + " is not the version " +
                                       std::to_string(kRegistrySchemaVersion) +
                                       " this program reads and writes"));
    return false;
  }
  return true;
}

Statement* RegistryStore::statement(Slot slot, CVError* error) {
  std::optional<Statement>& cached = statements_[slot];
  if (!cached) {
    cached = database_->prepare(kStatementText[slot], error);
    if (!cached) return nullptr;
  }
  return &*cached;
}

void RegistryStore::rememberLookup(std::string_view identifier,
                                   const std::optional<ApplicationEntry>& entry) {
  if (!remembersLookups_) return;
  if (lookups_.size() == kRememberedLookups) lookups_.erase(lookups_.begin());
  lookups_.push_back(Lookup{std::string(identifier), entry});
}

bool RegistryStore::findRow(Slot slot, std::string_view key, CVError* error,
                            const std::function<void(const Statement::Use& row)>& read) {
  Statement* find = statement(slot, error);
  if (find == nullptr) return false;
  Statement::Use use(*find);
  use.bind(1, key);
  CVError stepError;
  if (use.next(&stepError)) {
    read(use);
    return true;
  }
  if (!stepError) return true;
  CVSetError(error, std::move(stepError));
  return false;
}

bool RegistryStore::findApplication(std::string_view identifier,
                                    std::optional<ApplicationEntry>& entry, CVError* error) {
  entry.reset();
  if (empty_) return true;
  if (lookupsRollbacks_ != database_->rollbacks()) {
    lookups_.clear();
    lookupsRollbacks_ = database_->rollbacks();
  }
  for (const Lookup& lookup : lookups_) {
    if (lookup.identifier != identifier) continue;
    entry = lookup.entry;
    return true;
  }
  if (!findApplicationInDatabase(identifier, entry, error)) return false;
  rememberLookup(identifier, entry);
  return true;
}

bool RegistryStore::findApplicationInDatabase(std::string_view identifier,
                                              std::optional<ApplicationEntry>& entry,
                                              CVError* error) {
  Statement* find = statement(kFindApplication, error);
  Statement* memberships = find ? statement(kFindMemberships, error) : nullptr;
  if (memberships == nullptr) return false;
  {
    Statement::Use use(*find);
    use.bind(1, identifier);
    CVError stepError;
    if (!use.next(&stepError)) {
      if (!stepError) return true;
      CVSetError(error, std::move(stepError));
      return false;
    }
    entry = readApplication(use);
  }
  CVError stepError;
  {
    Statement::Use use(*memberships);
    use.bind(1, identifier);
    while (use.next(&stepError))
      entry->groups.push_back(GroupMembership{use.text(0), use.text(1)});
  }
  if (!stepError && !withoutPlugins_) {
    Statement* plugin = statement(kPluginOfApplication, error);
    if (plugin == nullptr) {
      entry.reset();
      return false;
    }
    Statement::Use use(*plugin);
    use.bind(1, identifier);
    if (use.next(&stepError)) entry->vpnPluginIdentifier = use.text(0);
  }
  if (stepError) {
    entry.reset();
    CVSetError(error, std::move(stepError));
    return false;
  }
  return true;
}

bool RegistryStore::listApplications(std::vector<ApplicationEntry>& entries, CVError* error) {
  entries.clear();
  if (empty_) return true;
  Statement* list = statement(kListApplications, error);
  Statement* memberships = list ? statement(kListMemberships, error) : nullptr;
  if (memberships == nullptr) return false;
  std::map<std::string, std::size_t, std::less<>> positions;
  CVError stepError;
  {
    Statement::Use use(*list);
    while (use.next(&stepError)) {
      entries.push_back(readApplication(use));
      positions.emplace(entries.back().identifier, entries.size() - 1);
    }
  }
  if (!stepError) {
    Statement::Use use(*memberships);
    while (use.next(&stepError)) {
      const auto found = positions.find(use.text(0));
      if (found != positions.end())
        entries[found->second].groups.push_back(GroupMembership{use.text(1), use.text(2)});
    }
  }
  std::vector<PluginEntry> plugins;
  if (!stepError && !listPlugins(plugins, &stepError)) {
    entries.clear();
    CVSetError(error, std::move(stepError));
    return false;
  }
  for (const PluginEntry& plugin : plugins) {
    const auto found = positions.find(plugin.application);
    if (found != positions.end()) entries[found->second].vpnPluginIdentifier = plugin.identifier;
  }
  if (stepError) {
    entries.clear();
    CVSetError(error, std::move(stepError));
    return false;
  }
  return true;
}

bool RegistryStore::putApplication(const ApplicationEntry& entry, CVError* error) {
  lookups_.clear();
  Statement* upsert = statement(kUpsertApplication, error);
  Statement* clear = upsert ? statement(kClearMemberships, error) : nullptr;
  Statement* addGroup = clear ? statement(kAddGroup, error) : nullptr;
  Statement* addMembership = addGroup ? statement(kAddMembership, error) : nullptr;
  if (addMembership == nullptr) return false;
  {
    Statement::Use use(*upsert);
    use.bind(1, entry.identifier)
        .bind(2, applicationKindName(entry.kind))
        .bindOptional(3, entry.version)
        .bindOptional(4, entry.shortVersion)
        .bindOptional(5, entry.bundleContainer)
        .bindOptional(6, entry.bundlePath)
        .bindOptional(7, entry.vpnPluginPath)
        .bindOptional(8, entry.dataContainer)
        .bindOptional(9, entry.installedFrom);
    if (!use.run(error)) return false;
  }
  {
    Statement::Use use(*clear);
    if (!use.bind(1, entry.identifier).run(error)) return false;
  }
  std::int64_t position = 0;
  for (const GroupMembership& membership : entry.groups) {
    {
      Statement::Use use(*addGroup);
      if (!use.bind(1, membership.groupIdentifier).bind(2, membership.container).run(error))
        return false;
    }
    Statement::Use use(*addMembership);
    if (!use.bind(1, entry.identifier)
             .bind(2, membership.groupIdentifier)
             .bind(3, position++)
             .run(error))
      return false;
  }
  if (entry.kind != ApplicationKind::Placeholder &&
      !putPlaceholderMetadata(entry.identifier, std::nullopt, error))
    return false;
  return putPlugins(entry, error);
}

bool RegistryStore::putPlaceholderMetadata(std::string_view identifier,
                                           const std::optional<CVData>& bytes, CVError* error) {
  Statement* write = statement(bytes ? kPutPlaceholderMetadata : kClearPlaceholderMetadata, error);
  if (write == nullptr) return false;
  Statement::Use use(*write);
  use.bind(1, identifier);
  if (bytes) use.bindBlob(2, *bytes);
  return use.run(error);
}

bool RegistryStore::findPlaceholderMetadata(std::string_view identifier,
                                            std::optional<CVData>& bytes, CVError* error) {
  bytes.reset();
  if (empty_ || withoutPlaceholderMetadata_) return true;
  return findRow(kFindPlaceholderMetadata, identifier, error,
                 [&](const Statement::Use& row) { bytes = row.blob(0); });
}

bool RegistryStore::putPlugins(const ApplicationEntry& entry, CVError* error) {
  if (!entry.vpnPluginPath.empty() && entry.vpnPluginIdentifier.empty()) return true;
  Statement* drop = statement(kDropOtherPlugins, error);
  Statement* upsert = drop ? statement(kUpsertPlugin, error) : nullptr;
  if (upsert == nullptr) return false;
  {
    Statement::Use use(*drop);
    if (!use.bind(1, entry.identifier).bindOptional(2, entry.vpnPluginIdentifier).run(error))
      return false;
  }
  if (entry.vpnPluginIdentifier.empty()) return true;
  Statement::Use use(*upsert);
  return use.bind(1, entry.vpnPluginIdentifier)
      .bind(2, entry.identifier)
      .bind(3, entry.vpnPluginPath)
      .run(error);
}

bool RegistryStore::findPlugin(std::string_view identifier, std::optional<PluginEntry>& entry,
                               CVError* error) {
  entry.reset();
  if (empty_ || withoutPlugins_) return true;
  return findRow(kFindPlugin, identifier, error,
                 [&](const Statement::Use& row) { entry = readPlugin(row); });
}

bool RegistryStore::listPlugins(std::vector<PluginEntry>& entries, CVError* error) {
  entries.clear();
  if (empty_ || withoutPlugins_) return true;
  Statement* list = statement(kListPlugins, error);
  if (list == nullptr) return false;
  Statement::Use use(*list);
  CVError stepError;
  while (use.next(&stepError))
    entries.push_back(readPlugin(use));
  if (!stepError) return true;
  entries.clear();
  CVSetError(error, std::move(stepError));
  return false;
}

bool RegistryStore::setPluginDataContainer(std::string_view identifier,
                                           std::string_view dataContainer, CVError* error) {
  lookups_.clear();
  Statement* update = statement(kSetPluginDataContainer, error);
  if (update == nullptr) return false;
  Statement::Use use(*update);
  return use.bind(1, identifier).bind(2, dataContainer).run(error);
}

bool RegistryStore::findGroupContainer(std::string_view groupIdentifier,
                                       std::optional<std::string>& container, CVError* error) {
  container.reset();
  if (empty_) return true;
  return findRow(kFindGroup, groupIdentifier, error,
                 [&](const Statement::Use& row) { container = row.text(0); });
}

bool RegistryStore::putHarbor(const HarborEntry& entry, CVError* error) {
  Statement* upsert = statement(kUpsertHarbor, error);
  if (upsert == nullptr) return false;
  Statement::Use use(*upsert);
  use.bind(1, entry.identifier).bind(2, entry.containerType).bind(3, entry.path);
  if (entry.options) {
    use.bindBlob(4, *entry.options);
  } else {
    use.bindNull(4);
  }
  return use.run(error);
}

bool RegistryStore::listHarbors(std::vector<HarborEntry>& entries, CVError* error) {
  entries.clear();
  if (empty_) return true;
  Statement* list = statement(kListHarbors, error);
  if (list == nullptr) return false;
  Statement::Use use(*list);
  CVError stepError;
  while (use.next(&stepError)) {
    HarborEntry entry;
    entry.identifier = use.text(0);
    entry.containerType = use.integer(1);
    entry.path = use.text(2);
    if (!use.isNull(3)) entry.options = use.blob(3);
    entries.push_back(std::move(entry));
  }
  if (!stepError) return true;
  entries.clear();
  CVSetError(error, std::move(stepError));
  return false;
}

bool RegistryStore::addJournalSteps(std::int64_t id, std::span<const JournalStep> steps,
                                    CVError* error) {
  Statement* add = statement(kAddJournalStep, error);
  if (add == nullptr) return false;
  std::int64_t position = 0;
  for (const JournalStep& step : steps) {
    Statement::Use use(*add);
    use.bind(1, id)
        .bind(2, position++)
        .bind(3, std::string_view(step.action == JournalStep::Action::Rename ? "rename" : "remove"))
        .bind(4, step.source);
    if (step.action == JournalStep::Action::Rename) {
      use.bind(5, step.target);
    } else {
      use.bindNull(5);
    }
    if (!use.run(error)) return false;
  }
  return true;
}

std::optional<std::int64_t> RegistryStore::addJournal(std::string_view identifier,
                                                      std::span<const JournalStep> steps,
                                                      CVError* error) {
  Statement* add = statement(kAddJournal, error);
  if (add == nullptr) return std::nullopt;
  std::int64_t id = 0;
  {
    Statement::Use use(*add);
    use.bind(1, identifier);
    CVError stepError;
    if (!use.next(&stepError)) {
      CVSetError(error, stepError ? std::move(stepError)
                                  : database_->errorFor("record an install", SQLITE_ERROR));
      return std::nullopt;
    }
    id = use.integer(0);
    if (!use.run(error)) return std::nullopt;
  }
  if (!addJournalSteps(id, steps, error)) return std::nullopt;
  return id;
}

bool RegistryStore::removeJournal(std::span<const std::int64_t> ids, CVError* error) {
  Statement* remove = statement(kRemoveJournal, error);
  if (remove == nullptr) return false;
  for (const std::int64_t id : ids) {
    Statement::Use use(*remove);
    if (!use.bind(1, id).run(error)) return false;
  }
  return true;
}

bool RegistryStore::listJournal(std::vector<JournalEntry>& entries, CVError* error) {
  entries.clear();
  if (empty_) return true;
  Statement* list = statement(kListJournal, error);
  Statement* steps = list ? statement(kListJournalSteps, error) : nullptr;
  if (steps == nullptr) return false;
  std::map<std::int64_t, std::size_t> positions;
  CVError stepError;
  {
    Statement::Use use(*list);
    while (use.next(&stepError)) {
      JournalEntry entry;
      entry.id = use.integer(0);
      entry.identifier = use.text(1);
      entry.purpose = use.text(2) == "finish" ? JournalPurpose::Finish : JournalPurpose::Restore;
      positions.emplace(entry.id, entries.size());
      entries.push_back(std::move(entry));
    }
  }
  if (!stepError) {
    Statement::Use use(*steps);
    while (use.next(&stepError)) {
      const auto found = positions.find(use.integer(0));
      if (found == positions.end()) continue;
      JournalStep step;
      step.action =
          use.text(1) == "rename" ? JournalStep::Action::Rename : JournalStep::Action::Remove;
      step.source = use.text(2);
      step.target = use.text(3);
      entries[found->second].steps.push_back(std::move(step));
    }
  }
  if (stepError) {
    entries.clear();
    CVSetError(error, std::move(stepError));
    return false;
  }
  return true;
}

}  // namespace mavrel_installer
