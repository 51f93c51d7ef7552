// ImageManifest: what a generated sample image holds, for the tests and
// benchmarks that use it: every legacy container with its bundle, groups and
// data, the group containers, safe harbors and built-in applications, the
// maps' locations and the totals. Paths are absolute.
//
// Error contract: nothing here fails.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace samplegen {

struct ContainerManifest {
  std::string identifier;
  std::string containerType;  // "App" or "VPNBundle", as introspection classifies it
  std::string containerPath;
  std::string bundlePath;       // the ".app", or the ".vpnplugin" of a VPN-only container
  std::string vpnPluginPath;    // the ".vpnplugin" beside an ".app"; empty when none
  std::string infoPlistFormat;  // "xml" or "binary"
  std::vector<std::string> groups;
  std::vector<std::string> storeMetadata;  // names of the store items in the container
  std::uint64_t dataFiles = 0;             // files under the user-data items
  std::uint64_t dataBytes = 0;
  bool missingExecutable = false;
  bool extraItem = false;         // holds "Unexpected.dat"
  bool builtInDuplicate = false;  // its identifier is also a built-in application's
};

struct GroupContainerManifest {
  std::string identifier;
  std::string path;
  std::vector<std::string> members;
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
};

struct HarborManifest {
  std::string identifier;
  std::string path;
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
};

struct BuiltInManifest {
  std::string identifier;
  std::string bundlePath;
  std::string location;  // "system", "internal" or "coreServices"
};

struct ImageManifest {
  std::string root;
  std::uint64_t seed = 0;
  double dataScale = 1.0;
  std::string legacyDirectory;
  std::string installMapPath;
  std::string harborMapPath;
  std::string systemBuildPath;
  std::string strayNotePath;
  std::vector<ContainerManifest> containers;  // applications first, then VPN-only ones
  std::vector<GroupContainerManifest> groupContainers;
  std::vector<HarborManifest> harbors;
  std::vector<BuiltInManifest> builtIns;
  std::uint64_t files = 0;
  std::uint64_t directories = 0;
  std::uint64_t bytes = 0;
  double seconds = 0;

  std::size_t applicationCount() const;
  std::size_t vpnOnlyCount() const;
};

// The manifest as one JSON object.
std::string manifestJSON(const ImageManifest& manifest);
// A few lines for people: counts, files, bytes and time.
std::string manifestSummary(const ImageManifest& manifest);

}  // namespace samplegen
