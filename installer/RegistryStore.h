// The application registry's tables and the typed reads and writes on them.
//
// Every path stored is relative to the device root (see ContainerLayout.h).
// The schema is versioned with SQLite's user_version and marked with an
// application id of its own, so that another SQLite file at the registry's
// path is refused rather than written into.
//
// Writes are meant to run inside a WriteTransaction of database(); reads may
// run inside a ReadTransaction for one consistent snapshot.
//
// Error contract: every function returns false/nullopt on failure with a
// record from RegistryDatabase in `*error`. "Not found" is no failure: it is
// an empty optional with a true result.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "installer/RegistryDatabase.h"

namespace mavrel_installer {

inline constexpr int kRegistrySchemaVersion = 3;

enum class ApplicationKind { User, Placeholder, System };
// "User", "Placeholder", "System": the bundle types of bundle records.
std::string_view applicationKindName(ApplicationKind kind);

struct GroupMembership {
  std::string groupIdentifier;
  std::string container;  // relative to the root
};

struct ApplicationEntry {
  std::string identifier;
  ApplicationKind kind = ApplicationKind::User;
  std::string version;          // "QXBundleVersion", "" when none
  std::string shortVersion;     // "QXBundleShortVersionString", "" when none
  std::string bundleContainer;  // "" for built-in applications
  std::string bundlePath;       // the .app bundle
  std::string vpnPluginPath;    // "" when none
  // The plug-in's own identifier, under which the registry knows it; "" when
  // the application ships none or its plug-in has no readable identifier.
  std::string vpnPluginIdentifier;
  std::string dataContainer;            // "" until one is made
  std::string installedFrom;            // the staging directory of the last customer install
  std::vector<GroupMembership> groups;  // in the order of the entitlements
};

// A VPN plug-in installed with an application, known under its own
// identifier, with a data container of its own once one is needed.
struct PluginEntry {
  std::string identifier;
  std::string application;    // the application that ships it
  std::string bundlePath;     // the .vpnplugin bundle, inside the application's bundle container
  std::string dataContainer;  // "" until one is made
};

struct HarborEntry {
  std::string identifier;
  std::int64_t containerType = 0;
  std::string path;
  std::optional<CVData> options;  // the options as an XML property list
};

// One step of an install's journal, replayed until it has happened.
struct JournalStep {
  enum class Action { Rename, Remove };
  Action action = Action::Rename;
  std::string source;
  std::string target;  // Rename only
};

// "finish": the install is committed; put everything in place. "restore":
// put a consumed staging directory back, as earlier versions recorded before
// an install's commit (now read, never written).
enum class JournalPurpose { Restore, Finish };

struct JournalEntry {
  std::int64_t id = 0;
  std::string identifier;
  JournalPurpose purpose = JournalPurpose::Finish;
  std::vector<JournalStep> steps;
};

class RegistryStore {
 public:
  // Opens the database and makes (ReadWrite) or checks the schema. A
  // ReadOnly store over a file that has no schema yet reads as empty.
  static std::unique_ptr<RegistryStore> open(const std::string& path,
                                             RegistryDatabase::Access access, CVError* error);

  RegistryDatabase& database() { return *database_; }

  bool findApplication(std::string_view identifier, std::optional<ApplicationEntry>& entry,
                       CVError* error);
  bool listApplications(std::vector<ApplicationEntry>& entries, CVError* error);
  // Inserts or replaces the application and its group memberships; group
  // containers not yet known are recorded. With a plug-in identifier the
  // plug-in is recorded too (keeping its data container); without a plug-in
  // path the application's plug-ins are forgotten; a plug-in path without an
  // identifier leaves them as they are.
  // Any kind but a placeholder forgets the placeholder's store metadata.
  bool putApplication(const ApplicationEntry& entry, CVError* error);
  // A placeholder's store metadata, kept with its entry rather than in its
  // bundle container (putting no bytes forgets them). The application must be
  // registered; a store over a schema older than version 3 has none.
  bool putPlaceholderMetadata(std::string_view identifier, const std::optional<CVData>& bytes,
                              CVError* error);
  bool findPlaceholderMetadata(std::string_view identifier, std::optional<CVData>& bytes,
                               CVError* error);
  bool findPlugin(std::string_view identifier, std::optional<PluginEntry>& entry, CVError* error);
  bool listPlugins(std::vector<PluginEntry>& entries, CVError* error);
  bool setPluginDataContainer(std::string_view identifier, std::string_view dataContainer,
                              CVError* error);
  bool findGroupContainer(std::string_view groupIdentifier, std::optional<std::string>& container,
                          CVError* error);

  bool putHarbor(const HarborEntry& entry, CVError* error);
  bool listHarbors(std::vector<HarborEntry>& entries, CVError* error);

  // Records a "finish" entry.
  std::optional<std::int64_t> addJournal(std::string_view identifier,
                                         std::span<const JournalStep> steps, CVError* error);
  bool removeJournal(std::span<const std::int64_t> ids, CVError* error);
  // In the order the entries were made.
  bool listJournal(std::vector<JournalEntry>& entries, CVError* error);

 private:
  enum Slot {
    kFindApplication,
    kFindMemberships,
    kListApplications,
    kListMemberships,
    kUpsertApplication,
    kClearMemberships,
    kAddGroup,
    kAddMembership,
    kFindGroup,
    kUpsertHarbor,
    kListHarbors,
    kAddJournal,
    kAddJournalStep,
    kRemoveJournal,
    kListJournal,
    kListJournalSteps,
    kFindPlugin,
    kListPlugins,
    kUpsertPlugin,
    kDropOtherPlugins,
    kSetPluginDataContainer,
    kPluginOfApplication,
    kPutPlaceholderMetadata,
    kClearPlaceholderMetadata,
    kFindPlaceholderMetadata,
    kSlotCount
  };
  explicit RegistryStore(std::unique_ptr<RegistryDatabase> database)
      : database_(std::move(database)) {}
  bool prepareSchema(CVError* error);
  Statement* statement(Slot slot, CVError* error);
  // Runs the lookup of `slot` by one key; `read` takes the row when there is
  // one. Finding none is no failure.
  bool findRow(Slot slot, std::string_view key, CVError* error,
               const std::function<void(const Statement::Use& row)>& read);
  bool addJournalSteps(std::int64_t id, std::span<const JournalStep> steps, CVError* error);

  bool findApplicationInDatabase(std::string_view identifier,
                                 std::optional<ApplicationEntry>& entry, CVError* error);
  // Remembers the answer for `identifier`, forgetting the oldest.
  void rememberLookup(std::string_view identifier, const std::optional<ApplicationEntry>& entry);

  std::unique_ptr<RegistryDatabase> database_;
  // Destroyed before database_ (members go in reverse order).
  std::optional<Statement> statements_[kSlotCount];
  // The last applications looked up (found or not). An install asks for its
  // application several times between writes; only the writer's store keeps
  // them, whose lock keeps every other writer out. Any write of applications
  // or plug-ins forgets them all, and so does a rolled back transaction.
  struct Lookup {
    std::string identifier;
    std::optional<ApplicationEntry> entry;
  };
  static constexpr std::size_t kRememberedLookups = 4;
  std::vector<Lookup> lookups_;
  std::uint64_t lookupsRollbacks_ = 0;  // the database's rollbacks when they were taken
  bool remembersLookups_ = false;
  bool empty_ = false;                       // a ReadOnly store over a file without schema
  bool withoutPlugins_ = false;              // a ReadOnly store over a version 1 schema
  bool withoutPlaceholderMetadata_ = false;  // a ReadOnly store over a version 1 or 2 schema
  bool putPlugins(const ApplicationEntry& entry, CVError* error);
};

}  // namespace mavrel_installer
