// SamplePlan: who is in a sample image, decided before anything is written:
// the user applications with their identities and traits, the VPN-only
// containers, the shared group containers, the safe harbors and the built-in
// applications.
//
// The plan depends only on the seed, the counts and the selections of the
// options; the contents of each application are drawn later from a stream of
// their own (DeterministicRandom::stream), so the traits of one application
// never shift the contents of another.
//
// Error contract: makeSamplePlan returns nullopt with a SampleGen-domain
// kSampleGenBadOptionError record when a selection names no application.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "samplegen/SampleFileWriter.h"

namespace samplegen {

// Streams of DeterministicRandom::stream, one per purpose.
enum class RandomPurpose : std::uint64_t {
  Plan = 1,
  Application = 2,
  VPNOnlyContainer = 3,
  GroupContainer = 4,
  Harbor = 5,
  BuiltIn = 6,
};

// How a bundle names its icons in its Info.plist.
enum class IconStyle {
  IconFiles,  // "QXBundleIconFiles": several sizes
  IconFile,   // "QXBundleIconFile": "Icon.png"
  Implicit,   // no key: the "Icon.png" of the bundle is found by name
};

struct BundlePlan {
  std::string identifier;
  std::string name;         // the bundle directory's name without extension
  std::string displayName;  // empty: no "QXBundleDisplayName"
  std::string executable;
  std::string version;       // "QXBundleVersion"
  std::string shortVersion;  // "QXBundleShortVersionString"
  PropertyListFormat infoFormat = PropertyListFormat::XML;
  IconStyle iconStyle = IconStyle::IconFiles;
  std::uint32_t iconVariant = 0;
  bool missingExecutable = false;
};

struct ApplicationPlan {
  std::size_t index = 0;
  std::string containerName;  // the legacy container's directory name (a UUID)
  std::string vendor;         // display name of the vendor
  BundlePlan bundle;
  std::optional<BundlePlan> vpnPlugin;
  std::vector<std::string> groups;  // application group identifiers
  bool entitlements = false;        // the bundle carries "Entitlements.plist"
  bool storeMetadata = false;       // "SorvikMetadata.plist" and "SorvikArtwork"
  bool manifest = false;            // "Manifest.plist"
  bool geoJSON = false;             // "GeoJSON"
  bool largeFile = false;           // one file of a few megabytes in "Documents"
  bool extraItem = false;           // "Unexpected.dat" at the top of the container
  bool builtInDuplicate = false;    // the identifier of a built-in application
};

struct VPNOnlyPlan {
  std::size_t index = 0;
  std::string containerName;
  BundlePlan plugin;
};

struct GroupPlan {
  std::size_t index = 0;
  std::string identifier;     // "group.<...>"
  std::string containerName;  // the legacy group container's directory name (a UUID)
  std::vector<std::string> members;
};

struct HarborPlan {
  std::size_t index = 0;
  std::string identifier;
  std::string name;
};

enum class BuiltInLocation { System, Internal, CoreServices };

struct BuiltInPlan {
  std::size_t index = 0;
  BuiltInLocation location = BuiltInLocation::System;
  BundlePlan bundle;
};

struct SamplePlanOptions {
  std::uint64_t seed = 1;
  std::size_t applicationCount = 0;
  // VPN-only containers; by default one per 50 applications (at least one
  // from 4 applications on).
  std::optional<std::size_t> vpnOnlyCount;
  // Applications chosen by identifier or by zero-based index ("3").
  std::vector<std::string> missingExecutable;
  std::vector<std::string> extraItem;
};

struct SamplePlan {
  std::uint64_t seed = 1;
  std::vector<ApplicationPlan> applications;
  std::vector<VPNOnlyPlan> vpnOnlyContainers;
  std::vector<GroupPlan> groups;
  std::vector<HarborPlan> harbors;
  std::vector<BuiltInPlan> builtIns;
};

std::optional<SamplePlan> makeSamplePlan(const SamplePlanOptions& options, CVError* error);

}  // namespace samplegen
