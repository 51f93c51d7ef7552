#include "installer/GroupContainers.h"

#include <string_view>
#include <unordered_set>

#include "platform/Log.h"
#include "platform/PropertyList.h"

namespace mavrel_installer {
namespace {
constexpr std::string_view kFunction = "readApplicationGroups";
}  // namespace

std::vector<std::string> readApplicationGroups(const std::string& bundlePath) {
  std::vector<std::string> groups;
  const CVURL url =
      CVURL::fileURLWithPath(bundlePath + "/" + std::string(kEntitlementsFileName), false);
  CVError error;
  const auto entitlements =
      platform::readPropertyListDictionary(url, &error, platform::kEntitlementsLimits);
  if (!entitlements) {
    if (error.domain() != kPlatformErrorDomain || error.code() != kPlatformFileReadNoSuchFileError)
      platform::logInstaller(platform::kLogLevelError, kFunction,
                             "Ignoring unreadable entitlements %@: %@", url, error);
    return groups;
  }
  const CVValue* value = entitlements->find(kApplicationGroupsKey);
  if (value == nullptr) return groups;
  const CVArray* array = value->asArray();
  if (array == nullptr) {
    platform::logInstaller(platform::kLogLevelError, kFunction,
                           "Ignoring \"%@\" of %@: not an array", kApplicationGroupsKey, url);
    return groups;
  }
  // Duplicates are found through a set: the array may hold millions of names.
  std::unordered_set<std::string_view> seen;
  for (const CVValue& item : *array) {
    const std::string* group = item.asString();
    if (group == nullptr || group->empty()) continue;
    if (seen.insert(*group).second) groups.push_back(*group);
    if (exceedsApplicationGroupLimit(groups)) break;
  }
  return groups;
}

}  // namespace mavrel_installer
