// SampleBundles: the bundles of a sample image: application bundles (".app")
// with Info.plist, executable, icons and resources, VPN plug-in bundles
// (".vpnplugin"), and the built-in applications of the system image.
//
// Error contract: each function returns false when the writer failed (its
// first error is kept there) or an icon could not be encoded (kept in the
// writer as well).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "samplegen/DeterministicRandom.h"
#include "samplegen/SampleFileWriter.h"
#include "samplegen/SampleIcons.h"
#include "samplegen/SamplePlan.h"

namespace samplegen {

struct ApplicationBundleTraits {
  // Written to "Entitlements.plist" when `entitlements` is set.
  bool entitlements = false;
  std::vector<std::string> groups;
  // Signed code carries "_CodeSignature/CodeResources"; built-in bundles do not.
  bool codeSignature = true;
};

// Writes the application bundle `plan` at `bundleRelative` ("<...>/<name>.app").
bool writeApplicationBundle(SampleFileWriter& writer, SampleIcons& icons,
                            std::string_view bundleRelative, const BundlePlan& plan,
                            const ApplicationBundleTraits& traits, DeterministicRandom& random);

// Writes the VPN plug-in bundle `plan` at `bundleRelative` ("<...>/<name>.vpnplugin").
bool writeVPNPluginBundle(SampleFileWriter& writer, std::string_view bundleRelative,
                          const BundlePlan& plan, DeterministicRandom& random);

// The Info.plist of an application bundle, as writeApplicationBundle writes it.
CVDictionary applicationInfoPlist(const BundlePlan& plan);

}  // namespace samplegen
