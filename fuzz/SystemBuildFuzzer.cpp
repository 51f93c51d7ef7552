// "System/Library/CoreServices/SystemBuild.plist" of a device image, read as
// the system version dictionary, which the pass records whole as the version
// record after a successful pass. What was read must be writable and read
// back with the same build version.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "fuzz/FuzzSupport.h"
#include "platform/PropertyList.h"
#include "platform/SystemVersion.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static mavrel_fuzz::ScratchImage image("system_build");
  static const platform::DeviceSystemVersion source(image.root().rootURL());
  mavrel_fuzz::quietLogs();
  mavrel_fuzz::writeBytes(source.fileURL().path(), std::span(data, size));

  const CVDictionary version = source.copySystemVersionDictionary();
  const CVURL recordURL = CVURL::fileURLWithPath(image.home("Library/Corvane/record.plist"), false);
  if (!platform::writePropertyListAtomically(CVValue(version), recordURL, nullptr)) return 0;
  const auto record = platform::readPropertyListDictionary(recordURL, nullptr);
  if (!record) std::abort();
  const std::string* before = version.findString(platform::kSystemBuildVersionKey);
  const std::string* after = record->findString(platform::kSystemBuildVersionKey);
  if ((before == nullptr) != (after == nullptr) || (before != nullptr && *before != *after)) {
    std::abort();
  }
  return 0;
}
