// What one entry of the legacy container directory is, decided without
// changing anything on disk: the pass acts on the decision (it removes what is
// to be removed and migrates the records), and `mavrel plan` shows it.
//
// The classification writes the same notices and errors to the migration log
// as the pass always has (a caller that wants silence gives the log a sink
// that drops them); it never creates, moves or removes anything.
//
// Error contract: nothing fails; what cannot be read is a kind of its own.
#pragma once

#include <deque>
#include <optional>
#include <string>

#include "platform/URL.h"
#include "platform/Value.h"

enum class LegacyEntryKind {
  StrayNote,         // "WhereDidMyApplicationsGo.txt": removed
  Application,       // a container whose primary bundle is an application
  VPNOnly,           // a container whose only usable bundle is a VPN plug-in
  Resumed,           // a container holding a valid migration marker
  RegularFile,       // a file where a container should be: removed
  NoBundle,          // a container without a usable bundle: removed
  Vanished,          // gone between the listing and the classification
  Unlistable,        // its contents cannot be listed: left
  Unexaminable,      // one of its entries cannot be looked at: left
  SymlinkBundle,     // its ".app" or ".vpnplugin" is a symbolic link: left
  SymlinkMarker,     // its migration marker is a symbolic link: left
  UnreadableMarker,  // its marker cannot be loaded and it holds a bundle: left
};

struct LegacyEntryClassification {
  LegacyEntryKind kind = LegacyEntryKind::NoBundle;
  // The container info record to migrate (Application, VPNOnly, Resumed).
  std::optional<CVDictionary> record;
  // Whether the record goes to the front of the work list.
  bool orderResultEarly = false;
  // Whether the pass removes the entry (StrayNote, RegularFile, NoBundle).
  bool removeEntry = false;
  // The item at fault for the kinds that leave the entry, or "".
  std::string subject;
  // Why, where the kind alone does not say (a marker that does not describe
  // its container), or "".
  std::string detail;
};

// The identifier of the bundle at `bundleURL`, or nullopt when there is no
// readable bundle or it has no identifier.
std::optional<std::string> CVBundleIdentifierForBundle(const CVURL& bundleURL);

// The container info record saved in a marker file, or nullopt (logged) when
// the marker is unreadable or invalid.
std::optional<CVDictionary> CVLoadAndValidateMigrationMarker(const CVURL& markerURL);

// Reads the paths of a valid marker found in the container at `containerURL`:
// they are device paths (or host paths beneath the root, from older images)
// and become host paths. A marker describes the container it lies in: its
// container path must lead to that container and its bundle paths beneath it,
// no link on the way leading out. False, with `*problem` saying why, otherwise;
// such a marker is not loaded, since a pass moves and removes what it names.
bool CVLocateMigrationMarkerPaths(CVDictionary& marker, const CVURL& containerURL,
                                  std::string* problem);

// Classifies one legacy container directory (not the stray note: see
// CVClassifyLegacyEntry).
LegacyEntryClassification CVClassifyLegacyContainer(const CVURL& containerURL);

// Classifies any entry of the legacy directory, the stray note included.
LegacyEntryClassification CVClassifyLegacyEntry(const CVURL& entryURL);

// Puts a classified record into the pass's work list: applications go to the
// front (so among them the listing order is reversed), VPN-only containers to
// the back.
void CVAddToWorkList(std::deque<CVDictionary>& workList, CVDictionary record,
                     bool orderResultEarly);
