// Counts of entry outcomes, shared by the plan's and the report's "totals".
//
// Nothing here fails.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "platform/JSONWriter.h"
#include "platform/MavrelMigrator.h"

namespace mavrel_host {

struct OutcomeTotals {
  std::array<std::uint64_t, 6> counts{};  // indexed by MavrelEntryOutcome

  void add(MavrelEntryOutcome outcome) { ++counts[static_cast<std::size_t>(outcome)]; }
  std::uint64_t of(MavrelEntryOutcome outcome) const {
    return counts[static_cast<std::size_t>(outcome)];
  }
  std::uint64_t entries() const;
};

// Members "entries", "migrated", "placeholderOnly", "refusedBuiltIn", "failed",
// "removed" and "left" of the object being written.
void writeOutcomeTotals(platform::JSONWriter& json, const OutcomeTotals& totals);

// "3 migrated, 1 refused as built in, 1 failed, 1 removed" (zero counts left
// out; "nothing" when every count is zero).
std::string describeOutcomeTotals(const OutcomeTotals& totals);

}  // namespace mavrel_host
