#include "host/OutcomeTotals.h"

#include <numeric>
#include <string_view>

namespace mavrel_host {
namespace {

struct Label {
  MavrelEntryOutcome outcome;
  std::string_view key;
  std::string_view words;
};

constexpr Label kLabels[] = {
    {MavrelEntryOutcome::Migrated, "migrated", "migrated"},
    {MavrelEntryOutcome::PlaceholderOnly, "placeholderOnly", "placeholder only"},
    {MavrelEntryOutcome::RefusedAsBuiltIn, "refusedBuiltIn", "refused as built in"},
    {MavrelEntryOutcome::Failed, "failed", "failed"},
    {MavrelEntryOutcome::Removed, "removed", "removed"},
    {MavrelEntryOutcome::Left, "left", "left in place"},
};

}  // namespace

std::uint64_t OutcomeTotals::entries() const {
  return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
}

void writeOutcomeTotals(platform::JSONWriter& json, const OutcomeTotals& totals) {
  json.member("entries", totals.entries());
  for (const Label& label : kLabels)
    json.member(label.key, totals.of(label.outcome));
}

std::string describeOutcomeTotals(const OutcomeTotals& totals) {
  std::string text;
  for (const Label& label : kLabels) {
    const std::uint64_t count = totals.of(label.outcome);
    if (count == 0) continue;
    if (!text.empty()) text += ", ";
    text += std::to_string(count) + " " + std::string(label.words);
  }
  return text.empty() ? "nothing" : text;
}

}  // namespace mavrel_host
