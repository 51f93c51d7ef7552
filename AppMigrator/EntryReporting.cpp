// What the migrator tells the host's observer about each legacy entry.
#include "AppMigrator/AppMigrator.h"

namespace {

std::string_view recordString(const CVDictionary& info, std::string_view key) {
  const std::string* value = info.findString(key);
  return value ? std::string_view(*value) : std::string_view();
}

}  // namespace

void CVAppMigrator::reportEntryBegan(const CVDictionary& info) {
  if (environment_.observer == nullptr) return;
  environment_.observer->migrationEntryBegan(recordString(info, kContainerPathKey),
                                             recordString(info, kBundleIdentifierKey));
}

void CVAppMigrator::reportEntryStep(const CVDictionary& info, MavrelEntryStep step) {
  if (environment_.observer == nullptr) return;
  environment_.observer->migrationEntryStep(recordString(info, kContainerPathKey), step);
}

void CVAppMigrator::reportEntryFinished(const CVDictionary& info, const MavrelEntryResult& result) {
  if (environment_.observer == nullptr) return;
  environment_.observer->migrationEntryFinished(recordString(info, kContainerPathKey), result);
}

void CVAppMigrator::reportDiscardedEntry(const CVURL& entryURL, bool removalAttempted,
                                         bool removed) {
  if (environment_.observer == nullptr) return;
  MavrelEntryResult result;
  result.outcome = removalAttempted ? MavrelEntryOutcome::Removed : MavrelEntryOutcome::Left;
  result.containerRemoved = removed;
  environment_.observer->migrationEntryFinished(entryURL.path(), result);
}
