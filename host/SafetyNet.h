// The safety net of `mavrel migrate`: a hard link to every user-data file the
// pass may move or remove, made before the pass, so that what the
// migration's rules discard (a container removed because its bundle could
// not be read, a group container removed with items whose move failed, data
// replaced by another container of the same identifier) is still there after
// it.
//
// Where: <home>/Library/Mavrel/SafetyNet/<run id>/ inside the image. While
// the run is in progress the links are flat, named by a number, in
// "SafetyNet.links", and "SafetyNet.manifest" says which legacy file each
// stands for (SafetyNetManifest.h): one link per file and no directory made
// per user-data directory. A settled net holds the legacy layout underneath
// (the path relative to the device root:
// "private/var/mobile/Applications/<container>/Documents/a.txt"). Hard links
// cost no space and copy nothing; the net is on the image's file system.
//
// Laying the net: every regular file below the user-data items ("Documents",
// "Library", "tmp", "Pormex") of every legacy container, and below every
// legacy group container of the install map that the pass may move (found
// as the pass finds them, never outside the image), gets a link. Everything
// is opened relative to directory descriptors without following a symbolic
// link. A file the file system refuses to link (EXDEV, EPERM, EMLINK) is
// counted and named; the run goes on. Containers are laid on every core,
// each task's records joined in task order. The links directory and the
// manifest are flushed before the pass begins.
//
// Settling it after the pass: a link whose file is still at its old place
// (same device and inode at the same path) or at a new place (a data or
// group container the registry names, read inside the image without
// following links) is removed; what is left is the user data the run
// discarded, moved to its legacy path under the run's directory. It is
// described, by legacy container or group container, in a state file
// written atomically into the run's directory, which marks the net
// complete; then the manifest goes. An empty net is removed with its
// directories.
//
// Crashes: a run's directory without the state file is a net whose run was
// interrupted. The next run adopts it (keeps its links and manifest, links
// only what is not there yet) and settles it as its own, so every user file is at any instant at
// its old place, at its new place or in a net.
//
// The net writes nothing to the migration or installer logs and never
// changes what the pass does or returns.
//
// Error contract: `lay` returns nullopt with a reason when the net's
// directory cannot be made (the caller goes on without a net); links that
// fail are counted in the result. `settle` never fails: what it cannot
// decide stays in the net.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/EntryRecorder.h"

class CVGlobalConfiguration;

namespace platform {
class JSONWriter;
}

namespace mavrel_host {

// Under the home directory.
inline constexpr std::string_view kSafetyNetDirectory = "Library/Mavrel/SafetyNet";
// In each run's directory; present once the net is settled.
inline constexpr std::string_view kSafetyNetStateFile = "SafetyNet.plist";

// What the net keeps of one legacy container or group container.
struct SafetyNetEntry {
  std::string legacyPath;  // host path of the container or group container
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::string reason;
  std::vector<std::string> examples;  // the first few kept files, relative to legacyPath
};

struct SafetyNetResult {
  std::string runId;
  std::string directory;  // host path of the run's net
  bool adopted = false;   // the net of an interrupted run was taken over
  std::uint64_t linked = 0;
  std::uint64_t alreadyThere = 0;  // in an adopted net already
  std::uint64_t notLinked = 0;
  std::vector<std::string> notLinkedExamples;  // "path: reason"
  bool settled = false;
  std::uint64_t keptFiles = 0;
  std::uint64_t keptBytes = 0;
  std::vector<SafetyNetEntry> kept;
  std::string problem;               // why settling could not look everywhere, or ""
  double layDurationSeconds = 0;     // laying, the flushes included
  double settleDurationSeconds = 0;  // settling, the net's removal or state file included
};

// The net's base directory relative to the root ("private/var/mobile/Library/Mavrel/SafetyNet").
std::string safetyNetBaseRelative(const std::string& root,
                                  const CVGlobalConfiguration& configuration);

class SafetyNet {
 public:
  static std::optional<SafetyNet> lay(const std::string& root, CVGlobalConfiguration& configuration,
                                      std::time_t runTime, std::string* reason);

  // After the pass: prunes what is safe elsewhere and describes the rest,
  // with the reasons the run's entries give.
  void settle(CVGlobalConfiguration& configuration, const std::vector<RecordedEntry>& entries);

  const SafetyNetResult& result() const { return result_; }

 private:
  SafetyNet() = default;
  std::string root_;
  std::string baseRelative_;
  std::string legacyRelative_;               // the legacy container directory
  std::vector<std::string> groupRelatives_;  // the legacy group containers
  // The group identifier of each legacy group container, by its relative path.
  std::map<std::string, std::string> groupIdentifiers_;
  // The records of the net's links: an adopted net's first, then one part
  // per container or group container laid.
  std::vector<std::string> manifestParts_;
  SafetyNetResult result_;
};

// One line after the net is laid; a few after it is settled (nothing when
// the net is empty and gone). Each line ends with a newline.
std::string formatSafetyNetLaid(const SafetyNetResult& result);
std::string formatSafetyNetSettled(const SafetyNetResult& result, const std::string& root);

// The report's "safetyNet" object.
void writeSafetyNetJSON(platform::JSONWriter& json, const SafetyNetResult& result);

}  // namespace mavrel_host
