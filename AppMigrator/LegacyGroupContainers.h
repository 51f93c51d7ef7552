// The legacy group containers of the install map, located under the device
// root and checked before anything of theirs is moved or removed.
//
// A legacy group container is a directory of its own. Its path comes from the
// image, so it is refused when it leads outside the root, or when it is,
// holds or lies inside a place that is not a group container: the root, the
// home, a well-known directory of the device, the legacy container directory,
// the installer's data directory, the new containers, or another legacy group
// container of the map. Migrating such a path would move a whole tree into one
// application's group container and then remove it.
//
// Error contract: nothing fails; a refused entry carries its reason.
#pragma once

#include <map>
#include <string>

#include "platform/URL.h"
#include "platform/Value.h"

struct LegacyGroupLocation {
  std::string storedPath;  // as the install map has it
  // Where it leads under the root (lexical, links not replaced); "" when the
  // stored path cannot be read under the root at all.
  std::string hostPath;
  // Why the group container is not migrated (its path leaves the root, or it
  // is not a directory of its own); "" when it may be.
  std::string problem;
};

// Every entry of an install map's "GroupContainers" dictionary whose
// "Container" is a string, by group identifier.
std::map<std::string, LegacyGroupLocation, std::less<>> CVLocateLegacyGroupContainers(
    const CVDictionary& groupContainers);

// The legacy group containers that the install map at `installMapURL` names
// and the pass may migrate (no problem), by group identifier, with the host
// path each leads to; empty when the map cannot be read or has none.
std::map<std::string, std::string, std::less<>> CVMigratableLegacyGroupContainers(
    const CVURL& installMapURL);
