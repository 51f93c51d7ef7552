// `mavrel migrate --verify`: a manifest of every user-data file taken before
// the pass, checked file by file after it.
//
// Before: every regular file below the user-data items ("Documents",
// "Library", "tmp", "Pormex") of every legacy container, and below every
// legacy group container of the install map, with its size and SHA-256
// digest (CVCreateSHA256Digest, computed on a small pool of threads). Only
// the relative path, the size and the 32 digest bytes are kept per file.
//
// Safe harbors are recorded too: their data stays where it is, and is safe
// once the harbor is registered again.
//
// After: each file is looked for at its new place (the data container the
// registry reports for the container's application, or the group container
// it reports for the group) and, when it is not there, at its old place. A
// file at its old place is kept when the run says its entry failed or was
// left (a container that failed before moving its data keeps it); it is left
// behind when the run says it moved (its entry migrated, its group belongs to
// an application that migrated, or its harbor was not registered): such a
// file is out of the reach of its application and counts as a loss. A file
// found at neither place is missing; a file whose size or digest differs is
// changed. The files of a container that holds no application bundle are not
// expected anywhere: the pass removes such a container with its contents
// (the plan lists them), and they are counted apart.
//
// Every path read comes from the image, resolved under the device root as
// the migration resolves it: a group container or harbor whose path leads
// outside the root, or that is no container of its own, is not read.
//
// Error contract: nothing fails. A file that cannot be read before the pass
// is counted as unreadable and not checked; one that cannot be read after it
// counts as changed.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/InstallerService.h"

class CVGlobalConfiguration;

namespace mavrel_host {

struct ManifestFile {
  std::string relativePath;  // below the container ("Documents/a.txt") or group container
  std::uint64_t size = 0;
  std::array<std::uint8_t, 32> digest{};
};

struct ManifestSource {
  enum class Kind { Container, GroupContainer, Harbor };
  Kind kind = Kind::Container;
  std::string identifier;  // the application's, the group's or the harbor's; "" when unknown
  std::string legacyPath;
  bool removedByDesign = false;  // a container the pass removes without migrating it
  std::vector<ManifestFile> files;
};

struct UserDataManifest {
  std::vector<ManifestSource> sources;
  std::uint64_t unreadable = 0;  // files that could not be read before the pass

  std::uint64_t fileCount() const;
  std::uint64_t byteCount() const;
};

struct VerificationResult {
  std::uint64_t files = 0;  // files checked
  std::uint64_t bytes = 0;
  std::uint64_t verified = 0;  // at the new place, unchanged
  std::uint64_t verifiedBytes = 0;
  std::uint64_t stillInLegacy = 0;  // at the old place, unchanged, where the run kept it
  // At the old place although the run says it moved.
  std::uint64_t leftBehind = 0;
  std::uint64_t missing = 0;
  std::uint64_t changed = 0;
  std::uint64_t unreadableBefore = 0;
  // Files of containers without an application, which the pass removes.
  std::uint64_t removedByDesign = 0;
  // The first few absolute (old-place) paths of each kind, for messages.
  std::vector<std::string> missingExamples;
  std::vector<std::string> changedExamples;
  std::vector<std::string> leftBehindExamples;

  bool dataLost() const { return missing > 0 || changed > 0 || leftBehind > 0; }
};

// What the run says happened, as the verification needs it.
struct RunStatement {
  // Legacy container paths whose entry moved its data (migrated, placeholder
  // only, refused as built in).
  std::set<std::string, std::less<>> movedContainers;
  // Identifiers of the safe harbors the registry holds after the run.
  std::set<std::string, std::less<>> registeredHarbors;
};

// The manifest of the image that `configuration` describes. The caller keeps
// the migration log quiet meanwhile: identifiers are found by the pass's own
// classification, which writes its notices there.
UserDataManifest collectUserDataManifest(CVGlobalConfiguration& configuration, unsigned workers);

VerificationResult verifyUserData(const UserDataManifest& manifest,
                                  platform::ApplicationRegistry& registry,
                                  const RunStatement& statement, unsigned workers);

// A few lines for the console, ending with a newline; says plainly whether
// data was lost or left behind, and, when `passSucceeded` is false and nothing
// was lost, that the failure lost no data. It never says that no data was
// lost while files were removed.
std::string formatVerification(const VerificationResult& result, bool passSucceeded);

}  // namespace mavrel_host
