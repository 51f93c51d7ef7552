#include "tests/reliability/AppsListing.h"

#include "tests/support/JSON.h"

namespace reliability {

const ListedApplication* AppsListing::find(const std::string& identifier) const {
  for (const ListedApplication& application : applications) {
    if (application.identifier == identifier) return &application;
  }
  return nullptr;
}

std::optional<AppsListing> parseAppsListing(const std::string& json, std::string* reason) {
  std::optional<testing_support::JSONValue> root = testing_support::readJSON(json, reason);
  if (!root || !root->has("applications") || !root->has("registryExists")) {
    if (root) *reason = "not the listing's JSON object";
    return std::nullopt;
  }
  AppsListing listing;
  listing.registryExists = (*root)["registryExists"].boolean;
  listing.pendingInstalls = static_cast<long>((*root)["pendingInstalls"].number);
  for (const testing_support::JSONValue& entry : (*root)["applications"].array) {
    ListedApplication& application = listing.applications.emplace_back();
    application.identifier = entry["identifier"].string;
    application.kind = entry["kind"].string;
    application.bundleContainer = entry["bundleContainer"].string;
    application.bundle = entry["bundle"].string;
    application.vpnPlugin = entry["vpnPlugin"].string;
    application.dataContainer = entry["dataContainer"].string;
    for (const auto& [group, path] : entry["groupContainers"].object)
      application.groupContainers[group] = path.string;
  }
  for (const testing_support::JSONValue& entry : (*root)["safeHarbors"].array)
    listing.safeHarbors.push_back({entry["identifier"].string, entry["path"].string});
  return listing;
}

}  // namespace reliability
