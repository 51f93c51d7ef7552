// Legacy entries of one pass whose data went to the same place: the same
// identifier in two containers. The migration replaces, never merges, so the
// data of the entry migrated later took the place of the earlier one's.
//
// Error contract: nothing fails.
#pragma once

#include <string>
#include <vector>

#include "host/EntryRecorder.h"

namespace mavrel_host {

struct EntryConflict {
  std::string migrator;
  std::string identifier;
  std::vector<std::string> paths;  // the containers, in the order they finished
};

// Only entries whose data moved count (their data went to the identifier's
// data container); conflicts come in the order their identifiers first finished.
std::vector<EntryConflict> findEntryConflicts(const std::vector<RecordedEntry>& entries);

// "  conflict: com.example.app was in A and B; the data of B replaced that of A\n" lines.
std::string formatEntryConflicts(const std::vector<EntryConflict>& conflicts);

}  // namespace mavrel_host
