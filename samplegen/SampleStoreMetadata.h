// SampleStoreMetadata: the store's files beside a legacy application bundle:
// "SorvikMetadata.plist" (the purchase record), "SorvikArtwork" (the store
// artwork, a PNG), "Manifest.plist" and "GeoJSON" (a routing app's coverage).
//
// Error contract: false when the writer failed or the artwork could not be
// encoded; the failure is kept in the writer.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "samplegen/DeterministicRandom.h"
#include "samplegen/SampleFileWriter.h"
#include "samplegen/SampleIcons.h"
#include "samplegen/SamplePlan.h"

namespace samplegen {

// Side of the store artwork, in pixels.
inline constexpr std::uint32_t kArtworkSide = 512;

// Writes the store metadata items `app` has into `containerRelative`, taking
// the item names from `itemNames` (the configuration's bundle metadata item
// names), and appends the names written to `written`.
bool writeStoreMetadata(SampleFileWriter& writer, SampleIcons& icons,
                        std::string_view containerRelative, const ApplicationPlan& app,
                        const std::vector<std::string>& itemNames, DeterministicRandom& random,
                        std::vector<std::string>& written);

}  // namespace samplegen
