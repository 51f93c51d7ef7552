#include "host/EntryConflicts.h"

#include <map>

namespace mavrel_host {
namespace {

bool dataMoved(const RecordedEntry& entry) {
  switch (entry.result.outcome) {
    case MavrelEntryOutcome::Migrated:
    case MavrelEntryOutcome::PlaceholderOnly:
    case MavrelEntryOutcome::RefusedAsBuiltIn:
      return true;
    case MavrelEntryOutcome::Failed:
      // Past the data move (a failed install or group step) the data had moved.
      return entry.result.failedStep == MavrelEntryStep::Install ||
             entry.result.failedStep == MavrelEntryStep::GroupContainers ||
             entry.result.failedStep == MavrelEntryStep::MissedItems ||
             entry.result.failedStep == MavrelEntryStep::Removal;
    default:
      return false;
  }
}

}  // namespace

std::vector<EntryConflict> findEntryConflicts(const std::vector<RecordedEntry>& entries) {
  std::vector<EntryConflict> conflicts;
  std::map<std::pair<std::string, std::string>, std::size_t> byIdentifier;
  for (const RecordedEntry& entry : entries) {
    if (entry.identifier.empty() || !dataMoved(entry)) continue;
    const auto key = std::make_pair(entry.migrator, entry.identifier);
    const auto [found, added] = byIdentifier.emplace(key, conflicts.size());
    if (added) conflicts.push_back(EntryConflict{entry.migrator, entry.identifier, {}});
    conflicts[found->second].paths.push_back(entry.path);
  }
  std::erase_if(conflicts, [](const EntryConflict& conflict) { return conflict.paths.size() < 2; });
  return conflicts;
}

std::string formatEntryConflicts(const std::vector<EntryConflict>& conflicts) {
  std::string text;
  for (const EntryConflict& conflict : conflicts) {
    text += "  conflict: " + conflict.identifier + " was in ";
    for (std::size_t i = 0; i < conflict.paths.size(); ++i)
      text += (i == 0 ? "" : i + 1 == conflict.paths.size() ? " and " : ", ") + conflict.paths[i];
    text += "; the data of " + conflict.paths.back() + " replaced what was migrated before it\n";
  }
  return text;
}

}  // namespace mavrel_host
