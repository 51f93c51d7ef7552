// LegacyImageGenerator: writes a realistic legacy device image of N user
// applications from a seed, the layout the migrator reads.
//
// Under the root (paths relative to it):
//   Applications/<Name>.app                      built-in system applications
//   ZentrelInternal/Applications/<Name>.app      a built-in internal application
//   System/Library/CoreServices/<Name>.app       a core-services application
//   System/Library/CoreServices/SystemBuild.plist
//   private/var/mobile/Applications/             the legacy container directory:
//     WhereDidMyApplicationsGo.txt
//     <UUID>/<Name>.app, [<Name>VPN.vpnplugin], Documents, Library, [tmp],
//            [Pormex], [SorvikMetadata.plist, SorvikArtwork, Manifest.plist,
//            GeoJSON], [Unexpected.dat]
//     <UUID>/<Name>VPN.vpnplugin, Library        VPN-only containers
//   private/var/mobile/Library/Caches/com.zentrel.corvane.plist   install map
//   private/var/mobile/Library/GroupContainers/<UUID>/            group containers
//   private/var/mobile/Library/Harbors/<identifier>/              safe harbors
//   private/var/mobile/Library/Corvane/SafeHarbor.plist           harbor map
//   .mavrel-sample-image                         the generator's stamp
// The locations the migrator reads are taken from CVGlobalConfiguration over
// the root. Paths inside the maps are absolute paths of this machine (the
// root's path included), as the host running on an image expects.
//
// The same options give the same image: names, sizes and contents (the maps
// name absolute paths, so they differ between roots).
//
// Error contract: generateLegacyImage returns nullopt with the first failure:
// a SampleGen-domain record for bad options or an unusable root, a
// POSIX-domain record for a failed file-system call. What was written by then
// stays. prepareImageRoot reports as the comment on it says.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Error.h"
#include "samplegen/ImageManifest.h"
#include "samplegen/SampleErrors.h"

namespace samplegen {

// The file at the root of every generated image.
inline constexpr std::string_view kSampleImageStampName = ".mavrel-sample-image";

struct GeneratorOptions {
  // Absolute path of an existing, empty directory.
  std::string root;
  std::size_t applicationCount = 50;
  std::uint64_t seed = 1;
  // Multiplies the size of every user-data file (0 keeps the files, empty).
  double dataScale = 1.0;
  // VPN-only containers, each holding the data of a plug-in that one of the
  // applications ships; by default one per 50 applications (at least one
  // from 4 applications on).
  std::optional<std::size_t> vpnOnlyCount;
  // Applications (by identifier or zero-based index) whose bundle lacks its
  // executable, and those whose container holds "Unexpected.dat".
  std::vector<std::string> missingExecutable;
  std::vector<std::string> extraItem;
  // Threads writing application containers; 0: one per core, at most 4.
  // The image does not depend on it.
  std::size_t threads = 0;
};

// Makes `path` ready to hold an image and returns its canonical absolute path.
// An absent directory is created (its parent must exist); an empty one is
// taken. A non-empty one is refused (kSampleGenRootNotEmptyError) unless
// `replace` is set and it holds the stamp of an image made here, in which case
// its contents are removed. A symbolic link or a non-directory at `path` is
// refused (kSampleGenBadPathError); failed calls give POSIX-domain records.
std::optional<std::string> prepareImageRoot(std::string_view path, bool replace, CVError* error);

std::optional<ImageManifest> generateLegacyImage(const GeneratorOptions& options, CVError* error);

}  // namespace samplegen
