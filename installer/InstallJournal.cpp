#include "installer/InstallJournal.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "installer/FaultInjection.h"
#include "platform/FileIOPosix.h"
#include "platform/Log.h"
#include "platform/linux/DirectoryRelative.h"
#include "shared/filemanager/CVFileManager.h"

namespace mavrel_installer {
namespace {

constexpr std::string_view kStepFunction = "performJournalSteps";
constexpr std::string_view kRecoveryFunction = "recoverPendingInstalls";

bool performRename(const std::string& source, const std::string& target, CVError* error) {
  // The usual case, source there and target free, takes one call; what the
  // call refuses is looked at below as before.
  if (platform::sys::renameNoReplaceAt(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str()) == 0)
    return true;
  const ItemKind sourceKind = itemKindAtPath(source);
  const ItemKind targetKind = itemKindAtPath(target);
  if (sourceKind == ItemKind::Unknown || targetKind == ItemKind::Unknown) {
    const int savedErrno = errno;
    CVSetError(error, platform::posixCallError(savedErrno, "lstat",
                                               sourceKind == ItemKind::Unknown ? source : target));
    return false;
  }
  const bool sourceThere = sourceKind != ItemKind::Missing;
  const bool targetThere = targetKind != ItemKind::Missing;
  if (sourceThere && targetThere) {
    // Something else took the target's place: overwriting it could lose it.
    CVSetError(error, platform::posixCallError(EEXIST, "rename to " + target, source));
    return false;
  }
  if (sourceThere) return renameItem(source, target, error);
  // Replaying an entry whose later steps moved the item on meets this.
  if (!targetThere) {
    platform::logInstaller(platform::kLogLevelDebug, kStepFunction,
                           "Neither %s nor %s exists; nothing to move", source, target);
  }
  return true;
}

// A recorded path may only name something beneath the root: never the root
// itself, an absolute path or one that climbs out with "..".
bool staysBelowRoot(const std::string& relative) {
  if (relative.empty() || relative.front() == '/') return false;
  std::size_t start = 0;
  while (start <= relative.size()) {
    const std::size_t end = std::min(relative.find('/', start), relative.size());
    if (relative.compare(start, end - start, "..") == 0) return false;
    start = end + 1;
  }
  return true;
}

}  // namespace

namespace {

bool performStep(const ContainerLayout& layout, const JournalStep& step, CVError* error) {
  if (!staysBelowRoot(step.source) ||
      (step.action == JournalStep::Action::Rename && !staysBelowRoot(step.target))) {
    CVSetError(error,
               platform::posixCallError(EINVAL, "refusing a step that leaves the device root",
                                        step.source + " -> " + step.target));
    return false;
  }
  const std::string source = layout.absolute(step.source);
  if (step.action == JournalStep::Action::Rename) {
    if (!performRename(source, layout.absolute(step.target), error)) return false;
  } else if (const int injected = injectedFailure("journal removal")) {
    CVSetError(error, platform::posixCallError(injected, "remove", source));
    return false;
  } else if (!CVFileManager::defaultManager().removeItemAtURL(CVURL::fileURLWithPath(source, false),
                                                              error)) {
    return false;
  }
  faultPoint("journal step");
  return true;
}

}  // namespace

bool performJournalSteps(const ContainerLayout& layout, std::span<const JournalStep> steps,
                         CVError* error) {
  for (const JournalStep& step : steps) {
    if (!performStep(layout, step, error)) return false;
  }
  return true;
}

bool performCommittedSteps(const ContainerLayout& layout, std::span<const JournalStep> steps,
                           CVError* error, bool* cleanupLeft) {
  *cleanupLeft = false;
  // Every rename puts something of the install in place; the removals after
  // the last one only clean up.
  std::size_t cleanupStart = 0;
  for (std::size_t i = 0; i < steps.size(); ++i) {
    if (steps[i].action == JournalStep::Action::Rename) cleanupStart = i + 1;
  }
  for (std::size_t i = 0; i < steps.size(); ++i) {
    CVError stepError;
    if (performStep(layout, steps[i], &stepError)) continue;
    if (i < cleanupStart) {
      CVSetError(error, stepError);
      return false;
    }
    platform::logInstaller(platform::kLogLevelError, kStepFunction,
                           "Failed to remove %s after the install was registered; the next "
                           "opening of the registry removes it: %@",
                           steps[i].source, stepError);
    *cleanupLeft = true;
  }
  return true;
}

bool recoverPendingInstalls(RegistryStore& store, const ContainerLayout& layout,
                            const std::string& stagingRoot, const PathPredicate& isProtected,
                            RecoveryReport* report, CVError* error) {
  RecoveryReport counts;
  std::vector<JournalEntry> entries;
  if (!store.listJournal(entries, error)) return false;

  std::vector<std::int64_t> done;
  std::set<std::string> kept;  // names in the staging root that failed entries still need
  const std::optional<std::string> stagingRelative = layout.relative(stagingRoot);
  for (const JournalEntry& entry : entries) {
    CVError stepError;
    if (performJournalSteps(layout, entry.steps, &stepError)) {
      done.push_back(entry.id);
      if (entry.purpose == JournalPurpose::Restore) {
        ++counts.restored;
      } else {
        ++counts.finished;
      }
      continue;
    }
    ++counts.failed;
    platform::logInstaller(platform::kLogLevelError, kRecoveryFunction,
                           "Could not recover the interrupted install of %@; it is kept for the "
                           "next start: %@",
                           entry.identifier, stepError);
    for (const JournalStep& step : entry.steps) {
      for (const std::string* path : {&step.source, &step.target}) {
        if (!stagingRelative || path->size() <= stagingRelative->size() + 1 ||
            !pathIsWithin(*path, *stagingRelative))
          continue;
        const std::string rest = path->substr(stagingRelative->size() + 1);
        kept.insert(rest.substr(0, rest.find('/')));
      }
    }
  }
  if (!done.empty()) {
    WriteTransaction transaction(store.database());
    if (!transaction.begin(error) || !store.removeJournal(done, error) ||
        !transaction.commit(error))
      return false;
  }

  CVFileManager& fileManager = CVFileManager::defaultManager();
  CVError listError;
  const auto leftovers = fileManager.urlsForItemsInDirectoryAtURL(
      CVURL::fileURLWithPath(stagingRoot, true), /*ignoringSymlinks=*/false, &listError);
  if (!leftovers) {
    platform::logInstaller(platform::kLogLevelError, kRecoveryFunction,
                           "Could not list the staging root %s: %@", stagingRoot, listError);
  } else {
    for (const CVURL& leftover : *leftovers) {
      const std::string name = leftover.lastPathComponent();
      if (kept.count(name) != 0) continue;
      // A staging directory consumed by an install that did not register
      // goes back where its record says it came from.
      const auto origin = recordedStagingOrigin(leftover.path(), name);
      const std::string originPath = origin ? layout.absolute(*origin) : std::string();
      if (origin && stagingRelative && !isProtected(originPath)) {
        const JournalStep restore{JournalStep::Action::Rename, *stagingRelative + "/" + name,
                                  *origin};
        if (CVError restoreError; performJournalSteps(layout, {&restore, 1}, &restoreError)) {
          forgetStagingOrigin(originPath);
          ++counts.restored;
        } else {
          ++counts.failed;
          platform::logInstaller(platform::kLogLevelError, kRecoveryFunction,
                                 "Could not put %@ back at %s; it is kept for the next start: %@",
                                 leftover, *origin, restoreError);
        }
        continue;
      }
      CVError removeError;
      if (fileManager.removeItemAtURL(leftover, &removeError)) {
        ++counts.swept;
      } else {
        platform::logInstaller(platform::kLogLevelError, kRecoveryFunction,
                               "Could not remove %@ from the staging root: %@", leftover,
                               removeError);
      }
    }
  }
  if (counts.restored + counts.finished + counts.failed + counts.swept > 0) {
    platform::logInstaller(
        platform::kLogLevelNotice, kRecoveryFunction,
        "Recovered interrupted installs: %lu staging directories put back, "
        "%lu installs finished, %lu kept, %lu leftovers removed",
        static_cast<unsigned long>(counts.restored), static_cast<unsigned long>(counts.finished),
        static_cast<unsigned long>(counts.failed), static_cast<unsigned long>(counts.swept));
  }
  if (report != nullptr) *report = counts;
  return true;
}

}  // namespace mavrel_installer
