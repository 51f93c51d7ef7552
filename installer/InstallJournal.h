// The install journal: what an install is about to do on disk, recorded in
// the registry before it is done, so that a crash at any instant is finished
// or undone the next time the registry is opened.
//
// An entry is committed together with an install's registration: the renames
// that put the prepared containers and the bundle in place, then the removals
// of the replaced bundle container and of the install's staging area
// (purpose "finish"). What an install does before that commit lives in the
// staging root and is undone at the next opening: a consumed staging
// directory is put back from the record it carries (InstallerFiles.h), the
// rest is swept. Entries of purpose "restore", which put a consumed staging
// directory back, are only found in registries written by earlier versions;
// they are performed like the others.
// Every step can be performed again without harm, so recovery simply
// performs every recorded entry again, in order.
//
// Error contract: false with a record in `*error` (the failing system call's
// POSIX record, or a registry record) when a step or the registry failed;
// steps done before the failure stay done.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "installer/ContainerLayout.h"
#include "installer/RegistryStore.h"

namespace mavrel_installer {

// A rename has happened when its source is gone and its target is there, and
// is done now when the source is there and the target is not; both there is a
// conflict (nothing is overwritten), neither there is logged and passed
// over. A removal of something missing has happened. Paths are relative to
// the layout's root; a step naming the root itself, an absolute path or a
// ".." component is refused (EINVAL) and nothing of it is done.
bool performJournalSteps(const ContainerLayout& layout, std::span<const JournalStep> steps,
                         CVError* error);

// Performs the steps of an install whose registration has committed. The
// renames must all succeed (false at the first that fails, as
// performJournalSteps). The removals after the last rename clean up what the
// install staged: one that fails is logged, the others are still performed,
// the result stays true and `*cleanupLeft` is set, so that the caller keeps
// the journal entry for the next opening to finish.
bool performCommittedSteps(const ContainerLayout& layout, std::span<const JournalStep> steps,
                           CVError* error, bool* cleanupLeft);

struct RecoveryReport {
  std::size_t restored = 0;  // staging directories put back
  std::size_t finished = 0;  // committed installs put in place
  std::size_t failed = 0;    // entries and staging directories kept for the next attempt
  std::size_t swept = 0;     // leftovers removed from the staging root
};

// Performs every pending entry and deletes those that are done (one
// transaction). Then, in `stagingRoot` (absolute), puts every consumed
// staging directory back where its record says, unless that is a place
// `isProtected` names (a record the installer never writes), and removes
// whatever else is there except what entries that could not be performed
// still need. False only when the registry could not be read or written;
// entries and directories that could not be put back are counted and logged,
// and kept.
using PathPredicate = std::function<bool(const std::string& absolutePath)>;
bool recoverPendingInstalls(RegistryStore& store, const ContainerLayout& layout,
                            const std::string& stagingRoot, const PathPredicate& isProtected,
                            RecoveryReport* report, CVError* error);

}  // namespace mavrel_installer
