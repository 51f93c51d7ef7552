// The manifest of a safety net while its run is in progress: which hard link
// in the net's links directory stands for which user-data file.
//
// Laying the net makes one link per file, named by a number, in one flat
// directory ("SafetyNet.links" in the run's directory): no directory is made
// per user-data directory, and a link is removed again in one call when its
// file turns out to be safe. The legacy path of each link is kept in the
// manifest file beside it, written aside, flushed and renamed into place
// before the pass begins. Settling the net removes the links whose files
// are safe, moves the others to their legacy path under the run's directory
// and removes the links directory and the manifest: a settled net holds the
// legacy layout only.
//
// The file is a sequence of records of three NUL-terminated fields: the
// link's name, the legacy container (or group container) relative to the
// device root, and the file's path inside it. A record cut short (the last
// one of a file written by an older, interrupted version) is ignored.
//
// Error contract: reading returns the records of a missing file as none;
// writeNetManifest returns false with a POSIX-domain record naming the file.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/Error.h"

namespace mavrel_host {

// In the run's directory, beside the state file.
inline constexpr std::string_view kSafetyNetLinksDirectory = "SafetyNet.links";
inline constexpr std::string_view kSafetyNetManifestFile = "SafetyNet.manifest";

// One record; the views point into the manifest's bytes.
struct NetLinkRecord {
  std::string_view linkName;
  std::string_view container;  // relative to the device root
  std::string_view inner;      // relative to the container

  std::string legacyRelative() const;  // container/inner
};

// Appends one record to `manifest`.
void appendNetLinkRecord(std::string& manifest, std::string_view linkName,
                         std::string_view container, std::string_view inner);

// The records of `manifest`, in order; a record whose link name is not a
// number or whose paths are not plain relative paths is left out.
std::vector<NetLinkRecord> parseNetManifest(std::string_view manifest);

// The bytes of the whole records of the manifest of the run directory
// `runHostPath` ("" when it has none): a record cut short at its end is left
// out, so that records appended after them read as themselves.
std::string readNetManifest(const std::string& runHostPath);

// Writes the manifest, made of `parts` one after the other, durably.
bool writeNetManifest(const std::string& runHostPath, const std::vector<std::string>& parts,
                      CVError* error);

}  // namespace mavrel_host
