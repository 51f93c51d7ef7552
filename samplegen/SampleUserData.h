// SampleUserData: the user's data in a sample image: the user-data items of
// legacy application containers, the contents of legacy group containers and
// of safe harbors.
//
// Sizes follow what phones hold: mostly files of a few kilobytes (log-normal
// around 1.2 KB, cut at 384 KB), a few of several megabytes (1 to 6 MB, only
// for applications planned with a large file). Every size is multiplied by the
// data scale, so a scale of 0 writes the same tree with empty files.
//
// Error contract: the functions return what they wrote; a failure is kept in
// the writer (see SampleFileWriter), which the caller checks.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "samplegen/DeterministicRandom.h"
#include "samplegen/SampleFileWriter.h"

namespace samplegen {

struct DataTally {
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
};

struct UserDataRecipe {
  std::string identifier;
  std::string name;  // the application's bundle name, for folder names
  bool largeFile = false;
  double scale = 1.0;
};

// Writes the user-data items of one legacy application container into
// `containerRelative`. `itemNames` are the configuration's user-data item
// names: "Documents" and "Library" are always written, "tmp" for most
// applications, any other name for some.
DataTally writeApplicationUserData(SampleFileWriter& writer, std::string_view containerRelative,
                                   const std::vector<std::string>& itemNames,
                                   const UserDataRecipe& recipe, DeterministicRandom& random);

// Only "Library/Preferences/<identifier>.plist": what a VPN plug-in keeps.
DataTally writePreferencesOnly(SampleFileWriter& writer, std::string_view containerRelative,
                               const std::string& identifier, DeterministicRandom& random);

// The contents of a legacy group container shared by applications.
DataTally writeGroupContainerData(SampleFileWriter& writer, std::string_view groupRelative,
                                  const std::string& groupIdentifier, double scale,
                                  DeterministicRandom& random);

// The data kept in a safe harbor for an absent application.
DataTally writeHarborData(SampleFileWriter& writer, std::string_view harborRelative,
                          const UserDataRecipe& recipe, DeterministicRandom& random);

// The size of an ordinary small file at `scale`.
std::uint64_t smallFileSize(DeterministicRandom& random, double scale);

}  // namespace samplegen
