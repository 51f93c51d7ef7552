// "Entitlements.plist" at the top of a bundle, read by the installer for the
// application groups a bundle belongs to.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <span>
#include <string_view>

#include "fuzz/FuzzSupport.h"
#include "installer/GroupContainers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static mavrel_fuzz::ScratchImage image("entitlements");
  mavrel_fuzz::quietLogs();
  const std::string bundle = image.rootPath() + "/Payload/Fuzz.app";
  mavrel_fuzz::writeBytes(bundle + "/" + std::string(mavrel_installer::kEntitlementsFileName),
                          std::span(data, size));

  // Groups are distinct, non-empty strings.
  const std::vector<std::string> groups = mavrel_installer::readApplicationGroups(bundle);
  std::set<std::string_view> seen;
  for (const std::string& group : groups) {
    if (group.empty() || !seen.insert(group).second) std::abort();
  }
  return 0;
}
