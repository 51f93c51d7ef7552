// The application groups a bundle belongs to: the strings of the array
// "application-groups" in "Entitlements.plist" at the top of the bundle.
//
// Error contract: nothing fails. A bundle without the file belongs to no
// group; a file that cannot be read as a dictionary, or a key that is not an
// array, is written to the installer log and counts as no group; entries
// that are not strings (or are empty) are passed over, duplicates kept once.
#pragma once

#include <string>
#include <vector>

namespace mavrel_installer {

inline constexpr std::string_view kEntitlementsFileName = "Entitlements.plist";
inline constexpr std::string_view kApplicationGroupsKey = "application-groups";

std::vector<std::string> readApplicationGroups(const std::string& bundlePath);

}  // namespace mavrel_installer
