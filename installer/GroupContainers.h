// The application groups a bundle belongs to: the strings of the array
// "application-groups" in "Entitlements.plist" at the top of the bundle.
//
// Error contract: nothing fails. A bundle without the file belongs to no
// group; a file that cannot be read as a dictionary, or a key that is not an
// array, is written to the installer log and counts as no group; entries
// that are not strings (or are empty) are passed over, duplicates kept once.
//
// Each group costs a container directory and registry rows, so the number an
// application may belong to is capped far above what real applications use:
// the reading stops one group past kMaximumApplicationGroups, and an install
// whose bundle names more is refused (TooManyApplicationGroups).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace mavrel_installer {

inline constexpr std::string_view kEntitlementsFileName = "Entitlements.plist";
inline constexpr std::string_view kApplicationGroupsKey = "application-groups";

inline constexpr std::size_t kMaximumApplicationGroups = 1000;

// At most kMaximumApplicationGroups + 1 groups, in the order of the array.
std::vector<std::string> readApplicationGroups(const std::string& bundlePath);

inline bool exceedsApplicationGroupLimit(const std::vector<std::string>& groups) {
  return groups.size() > kMaximumApplicationGroups;
}

}  // namespace mavrel_installer
