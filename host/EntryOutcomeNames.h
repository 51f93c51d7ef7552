// The names the plan, the report and the console give to what happens to a
// legacy entry. The plan's predictions and the report's outcomes use the same
// names, so that the two documents can be compared entry by entry.
//
// Nothing here fails.
#pragma once

#include <string_view>

#include "platform/MavrelMigrator.h"

namespace mavrel_host {

// "migrated", "placeholder-only", "refused-built-in", "failed", "removed", "left".
std::string_view outcomeName(MavrelEntryOutcome outcome);
// "examining", "marker", "placeholder", "bundle-record", "data-move", "install",
// "group-containers", "missed-items", "removal".
std::string_view stepName(MavrelEntryStep step);
// What the step does, for people: "moving data", "installing", ...
std::string_view stepDescription(MavrelEntryStep step);
// "removed" or "kept".
inline std::string_view containerFateName(bool removed) {
  return removed ? "removed" : "kept";
}

}  // namespace mavrel_host
