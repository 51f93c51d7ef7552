#include "host/PlanFormat.h"

#include <algorithm>
#include <cstdint>

#include "host/CommandLine.h"
#include "host/EntryOutcomeNames.h"
#include "platform/JSONWriter.h"

namespace mavrel_host {
namespace {

std::string usageText(const DataUsage& usage) {
  std::string text = std::to_string(usage.files) + (usage.files == 1 ? " file, " : " files, ") +
                     formatBytes(usage.bytes);
  if (usage.unreadable > 0) text += " (" + std::to_string(usage.unreadable) + " unreadable)";
  return text;
}

void appendField(std::string& text, std::string_view label, const std::string& value) {
  if (value.empty()) return;
  text += "     ";
  text += label;
  text.append(label.size() < 11 ? 11 - label.size() : 1, ' ');
  text += value;
  text += '\n';
}

std::string outcomeText(const PlannedEntry& entry) {
  std::string text;
  switch (entry.outcome) {
    case MavrelEntryOutcome::Migrated:
      text = "migrated";
      break;
    case MavrelEntryOutcome::PlaceholderOnly:
      text = "data moved, nothing installed (placeholder)";
      break;
    case MavrelEntryOutcome::RefusedAsBuiltIn:
      text = "data moved; install refused as built in";
      break;
    case MavrelEntryOutcome::Failed:
      text = "FAILS at " + std::string(stepDescription(entry.failedStep));
      break;
    case MavrelEntryOutcome::Removed:
      text = "removed";
      break;
    case MavrelEntryOutcome::Left:
      text = "LEFT in place";
      break;
  }
  if (entry.outcome != MavrelEntryOutcome::Removed && entry.outcome != MavrelEntryOutcome::Left)
    text += entry.containerRemoved ? "; legacy container removed" : "; legacy container KEPT";
  return text;
}

void appendEntry(std::string& text, const PlannedEntry& entry) {
  if (entry.order > 0) {
    text += "  " + std::to_string(entry.order) + ". " + entry.identifier + "  " +
            std::string(legacyEntryKindName(entry.kind)) +
            "  [registry: " + std::string(registryKnowledgeName(entry.registry)) + "]\n";
    appendField(text, "container", entry.path);
    appendField(text, "bundle", entry.bundlePath);
    appendField(text, "VPN plug-in", entry.vpnPluginPath);
  } else {
    text += "  -  " + entry.name + "  " + std::string(legacyEntryKindName(entry.kind)) + "\n";
  }
  if (entry.userData.files > 0 || entry.order > 0)
    appendField(text, "user data", usageText(entry.userData));
  for (const PlannedGroup& group : entry.groups) {
    std::string line = group.identifier + "  ";
    if (!group.problem.empty()) {
      line += "(not migrated: " + group.legacyPath + " " + group.problem + ")";
    } else if (!group.present) {
      line += "(no legacy group container)";
    } else {
      line += usageText(group.usage) +
              (group.movedWithEntry ? ", moved here" : ", moved with an earlier application");
    }
    appendField(text, "group", line);
  }
  appendField(text, "outcome", outcomeText(entry));
  appendField(text, "why", entry.reason);
  for (const std::string& other : entry.conflictsWith)
    appendField(text, "CONFLICT",
                "the same identifier is in " + other +
                    ": the data migrated later replaces the data migrated earlier");
  for (const std::string& item : entry.missedItems)
    appendField(text, "left over", item);
}

void writeUsage(platform::JSONWriter& json, const DataUsage& usage) {
  json.beginObject().member("files", usage.files).member("bytes", usage.bytes).endObject();
}

void writeEntry(platform::JSONWriter& json, const PlannedEntry& entry) {
  json.beginObject();
  json.member("path", entry.path).member("name", entry.name);
  json.member("kind", legacyEntryKindName(entry.kind));
  json.key("subject").stringOrNull(entry.subject);
  json.key("identifier").stringOrNull(entry.identifier);
  json.key("containerType").stringOrNull(entry.containerType);
  json.key("bundle").stringOrNull(entry.bundlePath);
  json.key("vpnPlugin").stringOrNull(entry.vpnPluginPath);
  json.member("order", entry.order);
  json.member("registry", registryKnowledgeName(entry.registry));
  json.member("bundleIsPlaceholder", entry.bundleIsPlaceholder);
  json.member("outcome", outcomeName(entry.outcome));
  json.key("failedStep");
  if (entry.outcome == MavrelEntryOutcome::Failed) {
    json.value(stepName(entry.failedStep));
  } else {
    json.null();
  }
  json.member("container", containerFateName(entry.containerRemoved));
  json.key("reason").stringOrNull(entry.reason);
  json.key("userData");
  writeUsage(json, entry.userData);
  json.key("missedItems").strings(entry.missedItems);
  json.key("conflictsWith").strings(entry.conflictsWith);
  json.key("groupContainers").beginArray();
  for (const PlannedGroup& group : entry.groups) {
    json.beginObject()
        .member("identifier", group.identifier)
        .member("legacyPath", group.legacyPath)
        .member("present", group.present)
        .member("files", group.usage.files)
        .member("bytes", group.usage.bytes)
        .member("moved", group.movedWithEntry)
        .member("problem", group.problem)
        .endObject();
  }
  json.endArray();
  json.endObject();
}

// Entries in the order the pass deals with them: the work list first.
std::vector<const PlannedEntry*> inPassOrder(const MigrationPlan& plan) {
  std::vector<const PlannedEntry*> ordered;
  for (const PlannedEntry& entry : plan.entries)
    ordered.push_back(&entry);
  std::stable_sort(ordered.begin(), ordered.end(),
                   [](const PlannedEntry* a, const PlannedEntry* b) {
                     const std::uint64_t left = a->order == 0 ? UINT64_MAX : a->order;
                     const std::uint64_t right = b->order == 0 ? UINT64_MAX : b->order;
                     return left < right;
                   });
  return ordered;
}

}  // namespace

bool lastMigrationWasInterrupted(const MigrationPlan& plan) {
  return plan.pendingInstalls > 0 ||
         std::any_of(plan.entries.begin(), plan.entries.end(), [](const PlannedEntry& entry) {
           return entry.kind == LegacyEntryKind::Resumed;
         });
}

std::string describeCircumstances(const MigrationPlan& plan,
                                  const PlanCircumstances& circumstances) {
  if (circumstances.migrationRunning) {
    return "A migration is running on this image now (the application registry's lock is "
           "held): this plan shows the image as it was at this moment, and the entries change "
           "under it. Make the plan again once that migration has ended.";
  }
  if (!lastMigrationWasInterrupted(plan)) return {};
  const auto resumed = static_cast<std::uint64_t>(std::count_if(
      plan.entries.begin(), plan.entries.end(),
      [](const PlannedEntry& entry) { return entry.kind == LegacyEntryKind::Resumed; }));
  std::string text = "The last migration of this image was interrupted: ";
  if (resumed > 0)
    text += std::to_string(resumed) + " container(s) resume from their migration marker";
  if (resumed > 0 && plan.pendingInstalls > 0) text += ", and ";
  if (plan.pendingInstalls > 0)
    text += std::to_string(plan.pendingInstalls) +
            " interrupted install(s) are finished or undone when the next run opens the "
            "registry";
  text +=
      ". 'mavrel migrate' with the same image resumes it. The steps the interrupted run "
      "finished are not done again, so an entry this plan predicts to fail at a step already "
      "done (an install the registry finishes on opening, data already moved) may succeed.";
  return text;
}

std::string formatPlanText(const MigrationPlan& plan, const PlanCircumstances& circumstances) {
  std::string text = "Migration plan for the device image at " + plan.root + "\n";
  text += "Nothing has been changed; this is what 'mavrel migrate' would do.\n\n";
  if (!plan.legacyDirectoryExists) {
    text += "No legacy container directory at " + plan.legacyDirectory +
            ": there are no applications to migrate.\n";
  } else {
    text += "Legacy containers: " + plan.legacyDirectory + " (" +
            std::to_string(plan.entries.size()) + " entries)\n";
    if (plan.entries.empty()) text += "  The directory is empty and is removed at set-up.\n";
    text += "Legacy install map: " + plan.installMapPath +
            (plan.installMapReadable ? "\n" : " (not readable: no group containers move)\n");
  }
  text +=
      "Application registry: " + plan.registryPath + (plan.registryExists ? "\n" : " (none yet)\n");
  if (plan.registryHasUncheckpointedChanges)
    text +=
        "  warning: the registry has a write-ahead log; an installer is running or was "
        "interrupted, and its latest changes are not shown\n";
  if (plan.pendingInstalls > 0)
    text += "  " + std::to_string(plan.pendingInstalls) +
            " interrupted install(s) are finished or undone when the installer next opens it\n";

  if (!plan.entries.empty()) text += "\nEntries, in the order the migration deals with them:\n";
  for (const PlannedEntry* entry : inPassOrder(plan))
    appendEntry(text, *entry);

  if (!plan.groupContainers.empty()) {
    text += "\nGroup containers of the install map:\n";
    for (const PlannedGroupContainer& group : plan.groupContainers) {
      text += "  " + group.identifier + "  " + group.storedPath;
      if (!group.hostPath.empty() && group.hostPath != group.storedPath)
        text += " -> " + group.hostPath;
      if (!group.problem.empty()) text += "  (NOT MIGRATED: it " + group.problem + ")";
      text += '\n';
    }
  }

  if (plan.harborMapPresent) {
    text += "\nSafe harbors (" + plan.harborMapPath + "):\n";
    if (!plan.harborMapReadable) text += "  the map cannot be read: no harbor is registered\n";
    for (const PlannedHarbor& harbor : plan.harbors) {
      text += "  " + harbor.identifier + "  " + (harbor.path.empty() ? "-" : harbor.path);
      if (!harbor.hostPath.empty() && harbor.hostPath != harbor.path)
        text += " -> " + harbor.hostPath;
      if (harbor.present) text += "  " + usageText(harbor.usage);
      if (!harbor.problem.empty()) text += "  (" + harbor.problem + ")";
      text += '\n';
    }
  }

  text += "\nSpace:\n";
  for (const PlannedMove& move : plan.space.moves) {
    text += "  " + move.what + " (" + formatBytes(move.bytes) + "): " + move.from + " -> " +
            move.to + "\n    " +
            (move.sameFileSystem ? "same file system: moved by renaming, no space needed"
                                 : "ANOTHER FILE SYSTEM: 'mavrel migrate' refuses to copy "
                                   "user data between file systems") +
            "\n";
  }
  if (plan.space.bytesToCopy > 0) {
    text += "  " + formatBytes(plan.space.bytesToCopy) + " to copy, " +
            (plan.space.available ? formatBytes(*plan.space.available) : std::string("unknown")) +
            " available: " + (plan.space.enough ? "enough" : "NOT ENOUGH") + "\n";
  }

  const DataUsage data = plan.userData();
  text += "\nPredicted: " + describeOutcomeTotals(plan.totals()) + "; user data " +
          usageText(data) + ".\n";
  text += plan.predictedSuccess() ? "The migration is predicted to succeed.\n"
                                  : "The migration is predicted to FAIL (see the entries above).\n";
  if (!plan.space.enough) text += "There is not enough free space for the copies.\n";
  if (const std::string more = describeCircumstances(plan, circumstances); !more.empty())
    text += more + "\n";
  return text;
}

std::string formatPlanJSON(const MigrationPlan& plan, const PlanCircumstances& circumstances) {
  platform::JSONWriter json;
  json.beginObject();
  json.member("tool", "mavrel");
  json.member("toolVersion", toolVersion());
  json.member("schemaVersion", kPlanSchemaVersion);
  json.member("root", plan.root);
  json.member("legacyDirectory", plan.legacyDirectory);
  json.member("legacyDirectoryExists", plan.legacyDirectoryExists);
  json.member("installMap", plan.installMapPath);
  json.member("installMapReadable", plan.installMapReadable);
  json.key("registry").beginObject();
  json.member("path", plan.registryPath).member("exists", plan.registryExists);
  json.member("uncheckpointedChanges", plan.registryHasUncheckpointedChanges);
  json.member("pendingInstalls", plan.pendingInstalls);
  json.endObject();
  json.member("migrationRunning", circumstances.migrationRunning);
  json.member("lastMigrationInterrupted", lastMigrationWasInterrupted(plan));
  json.key("circumstances").stringOrNull(describeCircumstances(plan, circumstances));
  json.key("entries").beginArray();
  for (const PlannedEntry* entry : inPassOrder(plan))
    writeEntry(json, *entry);
  json.endArray();

  json.key("groupContainers").beginArray();
  for (const PlannedGroupContainer& group : plan.groupContainers) {
    json.beginObject().member("identifier", group.identifier).member("path", group.storedPath);
    json.key("leadsTo").stringOrNull(group.hostPath);
    json.member("exists", group.exists);
    json.key("problem").stringOrNull(group.problem);
    json.endObject();
  }
  json.endArray();

  json.key("safeHarbors").beginObject();
  json.member("map", plan.harborMapPath).member("present", plan.harborMapPresent);
  json.member("readable", plan.harborMapReadable);
  json.key("harbors").beginArray();
  for (const PlannedHarbor& harbor : plan.harbors) {
    json.beginObject().member("identifier", harbor.identifier);
    json.key("path").stringOrNull(harbor.path);
    json.key("leadsTo").stringOrNull(harbor.hostPath);
    json.member("present", harbor.present)
        .member("files", harbor.usage.files)
        .member("bytes", harbor.usage.bytes);
    json.key("problem").stringOrNull(harbor.problem);
    json.endObject();
  }
  json.endArray().endObject();

  json.key("space").beginObject().key("moves").beginArray();
  for (const PlannedMove& move : plan.space.moves) {
    json.beginObject()
        .member("what", move.what)
        .member("from", move.from)
        .member("to", move.to)
        .member("sameFileSystem", move.sameFileSystem)
        .member("bytes", move.bytes)
        .endObject();
  }
  json.endArray();
  json.member("bytesToCopy", plan.space.bytesToCopy);
  json.key("available");
  if (plan.space.available) {
    json.value(*plan.space.available);
  } else {
    json.null();
  }
  json.member("enough", plan.space.enough).endObject();

  json.key("totals").beginObject();
  writeOutcomeTotals(json, plan.totals());
  const DataUsage data = plan.userData();
  json.member("userDataFiles", data.files).member("userDataBytes", data.bytes);
  json.endObject();
  json.member("predictedSuccess", plan.predictedSuccess());
  json.endObject();
  return json.text();
}

}  // namespace mavrel_host
