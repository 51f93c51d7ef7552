// A bundle's "Info.plist", read by every consumer of bundle facts: the
// support library's loader (whole and filtered), the bundle identifier used
// by classification, the built-in application scan, the installer's bundle
// verification, the icon service's icon names and the placeholder builder,
// which copies identity and versions into a new Info.plist of its own.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "fuzz/MigratorHarness.h"
#include "installer/InstallChecks.h"
#include "platform/Bundle.h"
#include "platform/IconService.h"
#include "shared/support/CVInfoPlist.h"

namespace {

// A valid 1x1 PNG, so that the icon service's fallback decodes something.
constexpr std::uint8_t kTinyPNG[] = {
    0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x00, 0x00, 0x00, 0x0d, 0x49, 0x48,
    0x44, 0x52, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x08, 0x06, 0x00, 0x00,
    0x00, 0x1f, 0x15, 0xc4, 0x89, 0x00, 0x00, 0x00, 0x0d, 0x49, 0x44, 0x41, 0x54, 0x78,
    0x9c, 0x63, 0xf8, 0xcf, 0xc0, 0xf0, 0x1f, 0x00, 0x05, 0x00, 0x01, 0xff, 0x89, 0x99,
    0x3d, 0x1d, 0x00, 0x00, 0x00, 0x00, 0x49, 0x45, 0x4e, 0x44, 0xae, 0x42, 0x60, 0x82};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static mavrel_fuzz::MigratorHarness harness("info_plist");
  static const std::unique_ptr<CVAppMigrator> migrator = harness.makeMigrator();
  static const std::string bundlePath =
      harness.configuration().systemAppsDirectory().path() + "/Fuzz.app";
  static const bool prepared = [] {
    mavrel_fuzz::writeBytes(bundlePath + "/Icon.png", kTinyPNG);
    mavrel_fuzz::writeText(bundlePath + "/Fuzz", "#!/bin/sh\n");
    return true;
  }();
  (void)prepared;
  mavrel_fuzz::writeBytes(bundlePath + "/Info.plist", std::span(data, size));
  const CVURL bundleURL = CVURL::fileURLWithPath(bundlePath, true);

  const std::optional<CVDictionary> whole = CVLoadInfoPlist(bundleURL, nullptr);
  if (whole && whole->contains(platform::kBundleInfoPlistURLKey)) std::abort();
  const CVSet keys{CVValue(std::string(platform::kBundleIdentifierKey)),
                   CVValue(std::string(platform::kBundleVersionKey))};
  const std::optional<CVDictionary> filtered = CVLoadInfoPlist(bundleURL, &keys);
  if (filtered && filtered->count() > 2) std::abort();

  (void)harness.configuration()._bundleIDMapForAppsInDirectory(
      harness.configuration().systemAppsDirectory());

  const std::unique_ptr<platform::Bundle> bundle = platform::Bundle::create(bundleURL);
  if (!bundle) std::abort();
  const std::optional<std::string> identifier = bundle->bundleIdentifier();

  mavrel_installer::InstallRequest request;
  request.identifier = identifier.value_or("com.example.fuzz");
  request.verifyForMigrator = true;
  mavrel_installer::InstallFailure failure;
  (void)mavrel_installer::verifyBundle(bundlePath, request, &failure);

  (void)platform::defaultIconService().homeScreenIconForBundle(*bundle);

  // The placeholder builder stages under a name it is given, not one from
  // the Info.plist; the values it copies come from the file.
  (void)migrator->_stageAndInstallPlaceholderForBundleAtURL(bundleURL, "com.example.fuzz", CVURL());
  return 0;
}
