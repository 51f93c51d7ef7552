// What `mavrel apps --root DIR --json` reports, read back for the
// reliability checks: every registered application with its containers, and
// the safe harbors.
//
// Error contract: parseAppsListing returns nullopt and a reason naming the
// offset when the text is not the JSON object that `mavrel apps` prints.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace reliability {

struct ListedApplication {
  std::string identifier;
  std::string kind;
  std::string bundleContainer;  // "" when null
  std::string bundle;
  std::string vpnPlugin;
  std::string dataContainer;
  std::map<std::string, std::string> groupContainers;
};

struct ListedHarbor {
  std::string identifier;
  std::string path;
};

struct AppsListing {
  bool registryExists = false;
  long pendingInstalls = 0;
  std::vector<ListedApplication> applications;
  std::vector<ListedHarbor> safeHarbors;

  const ListedApplication* find(const std::string& identifier) const;
};

std::optional<AppsListing> parseAppsListing(const std::string& json, std::string* reason);

}  // namespace reliability
