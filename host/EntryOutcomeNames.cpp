#include "host/EntryOutcomeNames.h"

namespace mavrel_host {

std::string_view outcomeName(MavrelEntryOutcome outcome) {
  switch (outcome) {
    case MavrelEntryOutcome::Migrated:
      return "migrated";
    case MavrelEntryOutcome::PlaceholderOnly:
      return "placeholder-only";
    case MavrelEntryOutcome::RefusedAsBuiltIn:
      return "refused-built-in";
    case MavrelEntryOutcome::Failed:
      return "failed";
    case MavrelEntryOutcome::Removed:
      return "removed";
    case MavrelEntryOutcome::Left:
      break;
  }
  return "left";
}

std::string_view stepName(MavrelEntryStep step) {
  switch (step) {
    case MavrelEntryStep::Examining:
      return "examining";
    case MavrelEntryStep::Marker:
      return "marker";
    case MavrelEntryStep::Placeholder:
      return "placeholder";
    case MavrelEntryStep::BundleRecord:
      return "bundle-record";
    case MavrelEntryStep::DataMove:
      return "data-move";
    case MavrelEntryStep::Install:
      return "install";
    case MavrelEntryStep::GroupContainers:
      return "group-containers";
    case MavrelEntryStep::MissedItems:
      return "missed-items";
    case MavrelEntryStep::Removal:
      break;
  }
  return "removal";
}

std::string_view stepDescription(MavrelEntryStep step) {
  switch (step) {
    case MavrelEntryStep::Examining:
      return "examining";
    case MavrelEntryStep::Marker:
      return "writing its marker";
    case MavrelEntryStep::Placeholder:
      return "installing a placeholder";
    case MavrelEntryStep::BundleRecord:
      return "looking up its data container";
    case MavrelEntryStep::DataMove:
      return "moving data";
    case MavrelEntryStep::Install:
      return "installing";
    case MavrelEntryStep::GroupContainers:
      return "moving group containers";
    case MavrelEntryStep::MissedItems:
      return "checking for missed items";
    case MavrelEntryStep::Removal:
      break;
  }
  return "removing the legacy container";
}

}  // namespace mavrel_host
