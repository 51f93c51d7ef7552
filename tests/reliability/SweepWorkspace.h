// One worker's place for the reliability sweeps: a generated legacy image
// kept as a template, the image itself (restored from the template before
// every trial, at the same path, because the image's maps hold absolute
// paths), a canary tree beside the image that no run may touch, and a scratch
// directory for traces and captured output.
//
// The user data of the template (every file under the containers' user-data
// items, the group containers and the safe harbors, with its SHA-256) is
// recorded once; `check` then tells, for the image as it stands, whether each
// file is at its legacy place or at its new place with the same bytes,
// whether every container the registry names exists, and whether anything
// beside the image changed.
//
// Error contract: create and restore return false / null with a reason that
// names the path or program at fault; check never fails, it reports.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "samplegen/ImageManifest.h"
#include "tests/reliability/StraceTrace.h"
#include "tests/support/ChildProgram.h"

namespace reliability {

using testing_support::ChildOptions;
using testing_support::ChildOutcome;
using testing_support::runChild;

struct ImageSettings {
  // Seed 1 with ten applications gives: one with a VPN plug-in beside it,
  // two sharing a group container, one that duplicates a built-in
  // application, a VPN-only container and a safe harbor.
  std::size_t applications = 10;
  std::size_t vpnOnly = 1;
  std::uint64_t seed = 1;
  double dataScale = 0.05;
};

// What `check` found. Losses that the migration's own rules produce (a
// container removed because its bundle could not be read, a group item left
// behind by a failed move and removed with its group) are counted apart, with
// the log line that proves the rule applied.
struct ImageCheck {
  std::uint64_t filesVerified = 0;
  // Verified in a data container that `mavrel apps` does not name (the
  // owner, a VPN plug-in of a VPN-only container, is not listed).
  std::uint64_t filesInUnlistedContainers = 0;
  std::vector<std::string> lost;          // no copy anywhere, no rule explains it
  std::vector<std::string> changed;       // a copy with other bytes
  std::vector<std::string> lossesByRule;  // lost under a rule of the migration
  // Gone from its old and new places, kept in a safety net of the image.
  std::uint64_t filesInSafetyNet = 0;
  // Still (only) at the legacy place after a successful run.
  std::vector<std::string> stranded;
  std::vector<std::string> missingContainers;
  std::vector<std::string> outsideChanges;  // the canary or the image's parent changed
  std::string listingError;                 // `mavrel apps --json` failed
  long pendingInstalls = 0;                 // as the listing says

  bool clean() const {
    return lost.empty() && changed.empty() && stranded.empty() && missingContainers.empty() &&
           outsideChanges.empty() && listingError.empty();
  }
  std::string describe() const;
};

// Path to (kind, mode, size, digest) of everything below a directory; the
// logs, the registry's files and the host's temporary directory left out.
using TreeSnapshot = std::map<std::string, std::string>;

class SweepWorkspace {
 public:
  // Makes `base` (which must not exist yet) and generates the image in it.
  static std::unique_ptr<SweepWorkspace> create(const std::string& base,
                                                const ImageSettings& settings, std::string* reason);

  // Puts the template back in place of the image.
  bool restore(std::string* reason);

  const std::string& root() const { return root_; }
  const std::string& scratch() const { return scratch_; }
  const samplegen::ImageManifest& manifest() const { return manifest_; }
  std::uint64_t recordedFiles() const { return data_.size(); }

  // `mavrel migrate --root <image>`, plain or under strace.
  ChildOutcome migrate(const std::optional<StracePlan>& strace = std::nullopt,
                       std::chrono::milliseconds timeout = std::chrono::seconds(120)) const;
  // A plain run killed with SIGKILL `after` its start.
  ChildOutcome migrateKilledAfter(std::chrono::microseconds after) const;
  // `mavrel apps --root <image> --json`.
  ChildOutcome listApplications() const;

  // `finished`: the last run succeeded, so user data must be at its new
  // place (safe harbors stay where they are).
  ImageCheck check(bool finished = false) const;
  TreeSnapshot snapshot() const;
  // Every line of every migration and installer log written in the image.
  std::string logs() const;
  // Whether the legacy containers still there hold nothing but marker names
  // and at least one file that an interrupted atomic write left beside its
  // target (".<name>.<16 hex digits>.tmp").
  bool onlyMarkersAndAsideFilesLeft() const;

 private:
  SweepWorkspace() = default;
  struct DataFile {
    std::string owner;     // application or group identifier, or harbor path
    std::string kind;      // "container", "group" or "harbor"
    std::string legacy;    // the legacy directory the relative path is below
    std::string relative;  // "Documents/a/b.dat"
    std::string digest;
  };
  bool recordData(std::string* reason);
  // mavrel with `arguments`, its output in the scratch directory as <name>.out
  // and <name>.err.
  ChildOutcome run(const std::vector<std::string>& arguments, const std::string& name,
                   ChildOptions options, const std::optional<StracePlan>& strace = {}) const;
  void checkOutside(ImageCheck& result) const;

  std::string base_;
  std::string root_;
  std::string template_;
  std::string canary_;
  std::string scratch_;
  samplegen::ImageManifest manifest_;
  std::vector<DataFile> data_;
  TreeSnapshot canarySnapshot_;
};

// One line per item removed, changed or new, "<path> removed" and so on.
std::vector<std::string> changesBetween(const TreeSnapshot& before, const TreeSnapshot& after);

// Environment for the children: sanitizer failures get exit codes of their
// own (77, 78), never the host's 1 or 2; leak checks are off under strace,
// where LeakSanitizer cannot work.
std::vector<std::string> childEnvironment(bool traced);

// True when an outcome is one of the host's own: exit 0 to 3.
bool endedByTheHost(const ChildOutcome& outcome);

// The level-3 lines of `after` that `before` did not have, with the image's
// paths and identifiers of containers made generic, for grouping.
std::vector<std::string> newErrorLines(const std::string& before, const std::string& after,
                                       const std::string& root);

}  // namespace reliability
