#include "AppMigrator/LegacyGroupContainers.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "AppMigrator/AppMigrator.h"
#include "AppMigrator/DeviceRootContainment.h"
#include "platform/DeviceRoot.h"
#include "platform/PropertyList.h"

namespace {

// Device places that a group container may neither be nor hold.
constexpr std::string_view kProtectedPlaces[] = {
    "/",
    "/private",
    "/private/var",
    "/private/var/mobile",
    "/private/var/mobile/Applications",
    "/private/var/mobile/Containers",
    "/private/var/mobile/Containers/Data",
    "/private/var/mobile/Containers/Shared",
    "/private/var/mobile/Library",
    "/private/var/mobile/Library/Caches",
    "/private/var/mobile/Library/Corvane",
    "/private/var/mobile/Library/Logs",
    "/private/var/mobile/Library/Preferences",
    "/private/var/mobile/Library/Carrier Bundles",
    "/private/var/mobile/Media",
    "/private/var/containers",
    "/private/var/containers/Bundle",
    "/private/var/tmp",
    "/private/etc",
    "/System",
    "/Applications",
    "/Developer",
    "/ZentrelInternal",
};

// Device places that a group container may not lie inside.
constexpr std::string_view kForeignTrees[] = {
    "/private/var/mobile/Applications",
    "/private/var/mobile/Containers",
    "/private/var/mobile/Library/Corvane",
    "/private/var/containers",
    "/System",
    "/Applications",
};

bool lies(std::string_view path, std::string_view inside) {
  if (inside == "/") return path.size() > 1 && path.front() == '/';
  return path.size() > inside.size() && path.substr(0, inside.size()) == inside &&
         path[inside.size()] == '/';
}

// A device place, resolved as a group container path is.
std::string resolvedPlace(std::string_view devicePlace) {
  std::string problem;
  const auto host = platform::processDeviceRoot().hostPathForDevicePath(devicePlace, &problem);
  if (!host) return std::string();
  const CVURL resolved = CVResolvedPathInsideDeviceRoot(*host);
  return resolved ? resolved.path() : *host;
}

// The protected places and foreign trees, resolved once per look-up.
class PlaceCheck {
 public:
  PlaceCheck() {
    for (const std::string_view place : kProtectedPlaces)
      protected_.emplace_back(place, resolvedPlace(place));
    for (const std::string_view tree : kForeignTrees)
      foreign_.emplace_back(tree, resolvedPlace(tree));
  }

  std::string problemWith(const std::string& resolved) const {
    for (const auto& [place, real] : protected_) {
      if (real.empty()) continue;
      if (resolved == real) return "is " + std::string(place) + ", not a group container";
      if (lies(real, resolved)) return "holds " + std::string(place);
    }
    for (const auto& [tree, real] : foreign_) {
      if (!real.empty() && lies(resolved, real)) return "lies inside " + std::string(tree);
    }
    return std::string();
  }

 private:
  std::vector<std::pair<std::string_view, std::string>> protected_;
  std::vector<std::pair<std::string_view, std::string>> foreign_;
};

// Orders paths so that a directory comes right before everything beneath it.
bool pathOrder(const std::string& a, const std::string& b) {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    const auto rank = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c) + 1; };
    return rank(x) < rank(y);
  });
}

}  // namespace

std::map<std::string, LegacyGroupLocation, std::less<>> CVLocateLegacyGroupContainers(
    const CVDictionary& groupContainers) {
  std::map<std::string, LegacyGroupLocation, std::less<>> locations;
  struct Resolved {
    std::string path;
    std::string identifier;
  };
  std::vector<Resolved> resolvedGroups;
  const PlaceCheck places;
  for (std::size_t i = 0; i < groupContainers.count(); ++i) {
    const CVDictionary* entry = groupContainers.valueAt(i).asDictionary();
    const std::string* stored = entry ? entry->findString(kGroupContainerPathKey) : nullptr;
    if (stored == nullptr) continue;
    LegacyGroupLocation location;
    location.storedPath = *stored;
    std::string problem;
    if (const auto host = platform::processDeviceRoot().hostPathForDevicePath(*stored, &problem)) {
      location.hostPath = CVURL::fileURLWithPath(*host, false).path();
      if (const CVURL resolved = CVContainedRealPath(location.hostPath); !resolved) {
        location.problem = "lies outside the device root";
      } else {
        location.problem = places.problemWith(resolved.path());
        if (location.problem.empty())
          resolvedGroups.push_back({resolved.path(), groupContainers.keys()[i]});
      }
    } else {
      location.problem = problem;
    }
    locations.emplace(groupContainers.keys()[i], std::move(location));
  }
  // Two entries naming one directory, or one inside another.
  std::sort(resolvedGroups.begin(), resolvedGroups.end(),
            [](const Resolved& a, const Resolved& b) { return pathOrder(a.path, b.path); });
  for (std::size_t i = 0; i < resolvedGroups.size(); ++i) {
    for (std::size_t j = i + 1; j < resolvedGroups.size(); ++j) {
      const Resolved& outer = resolvedGroups[i];
      const Resolved& inner = resolvedGroups[j];
      const bool same = inner.path == outer.path;
      if (!same && !lies(inner.path, outer.path)) break;
      LegacyGroupLocation& outerLocation = locations.find(outer.identifier)->second;
      LegacyGroupLocation& innerLocation = locations.find(inner.identifier)->second;
      if (same) {
        outerLocation.problem = "is also the group container of " + inner.identifier;
        innerLocation.problem = "is also the group container of " + outer.identifier;
      } else {
        if (outerLocation.problem.empty())
          outerLocation.problem = "holds the group container of " + inner.identifier;
        innerLocation.problem = "lies inside the group container of " + outer.identifier;
      }
    }
  }
  return locations;
}

std::map<std::string, std::string, std::less<>> CVMigratableLegacyGroupContainers(
    const CVURL& installMapURL) {
  std::map<std::string, std::string, std::less<>> groups;
  const auto installMap =
      platform::readPropertyListDictionary(installMapURL, nullptr, platform::kInstallMapLimits);
  const CVDictionary* map = installMap ? installMap->findDictionary(kGroupContainersKey) : nullptr;
  if (map == nullptr) return groups;
  for (auto& [identifier, location] : CVLocateLegacyGroupContainers(*map)) {
    if (location.problem.empty() && !location.hostPath.empty())
      groups.emplace(identifier, std::move(location.hostPath));
  }
  return groups;
}
