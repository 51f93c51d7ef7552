// The preferences domain "com.zentrel.corvane", read by the configuration at
// creation (four tuning values) and by the plug-in-container flag, then
// written back through the store's read-modify-write. A file that was
// readable must still be readable, and hold the flag, after the write.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "fuzz/FuzzSupport.h"
#include "platform/PropertyList.h"
#include "shared/configuration/CVGlobalConfiguration.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static mavrel_fuzz::ScratchImage image("preferences");
  mavrel_fuzz::quietLogs();
  const std::string path =
      image.home("Library/Preferences/" + std::string(kCVPreferencesDomain) + ".plist");
  mavrel_fuzz::writeBytes(path, std::span(data, size));
  const CVURL url = CVURL::fileURLWithPath(path, false);
  const bool wasReadable = platform::readPropertyListDictionary(url, nullptr).has_value();

  CVGlobalConfiguration configuration(image.root());
  (void)configuration.lowerInstallPriority();
  (void)configuration.nSimultaneousInstallations();
  (void)configuration.haveUpdatedPluginContainersWithParentID();
  configuration.setHaveUpdatedPluginContainersWithParentID(true);

  if (wasReadable) {
    // The store rewrote the whole domain with the flag added.
    const auto rewritten = platform::readPropertyListDictionary(url, nullptr);
    if (!rewritten || !configuration.haveUpdatedPluginContainersWithParentID()) std::abort();
  }
  return 0;
}
