#include "samplegen/SampleUserData.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "platform/Value.h"
#include "samplegen/SampleContent.h"
#include "samplegen/SampleNames.h"

namespace samplegen {
namespace {

constexpr double kSmallFileMedian = 1000;
constexpr double kSmallFileSigma = 1.4;
constexpr double kSmallFileCap = 384 * 1024;
constexpr double kLargeFileLow = 1024 * 1024;
constexpr double kLargeFileHigh = 6 * 1024 * 1024;
// 2023-01-01 00:00:00 UTC: dates in the image fall in the year after it.
constexpr double kEpoch = 1672531200;

constexpr std::array<std::string_view, 10> kDocumentExtensions = {
    "txt", "json", "jpg", "png", "pdf", "m4a", "sqlite", "csv", "md", "zip"};
constexpr std::array<std::string_view, 4> kThemes = {"Light", "Dark", "Automatic", "Sepia"};

std::uint64_t scaled(double size, double scale) {
  return static_cast<std::uint64_t>(std::llround(std::max(0.0, size * scale)));
}

class Tally {
 public:
  explicit Tally(const SampleFileWriter& writer)
      : writer_(writer), files_(writer.fileCount()), bytes_(writer.byteCount()) {}
  DataTally result() const { return {writer_.fileCount() - files_, writer_.byteCount() - bytes_}; }

 private:
  const SampleFileWriter& writer_;
  std::uint64_t files_;
  std::uint64_t bytes_;
};

CVDictionary preferences(const std::string& identifier, DeterministicRandom& random) {
  CVDictionary values;
  values.set("LaunchCount", static_cast<long long>(random.between(1, 5000)));
  values.set("LastLaunchDate", CVDate{kEpoch + static_cast<double>(random.below(365 * 86400))});
  values.set("HasCompletedOnboarding", random.chance(0.8));
  values.set("Theme", random.pick(std::span<const std::string_view>(kThemes)));
  CVArray searches;
  for (std::uint64_t i = random.below(5); i > 0; --i)
    searches.append(random.pick(fillerWords()));
  values.set("RecentSearches", std::move(searches));
  values.set("InstallationID", random.uuid());
  values.set("SuiteName", identifier);
  return values;
}

void writePreferences(SampleFileWriter& writer, std::string_view directory,
                      const std::string& identifier, DeterministicRandom& random) {
  const PropertyListFormat format =
      random.chance(0.5) ? PropertyListFormat::Binary : PropertyListFormat::XML;
  writePropertyListFile(writer, joinPath(directory, "Library/Preferences/" + identifier + ".plist"),
                        preferences(identifier, random), format);
}

// Folders of "Documents": none, or up to three, some nested up to three deep.
std::vector<std::string> documentFolders(DeterministicRandom& random) {
  std::vector<std::string> folders{""};
  if (!random.chance(0.4)) return folders;
  for (std::uint64_t i = random.between(1, 3); i > 0; --i) {
    std::string folder(random.pick(documentFolderNames()));
    if (random.chance(0.3)) {
      folder += "/" + std::to_string(2019 + random.below(5));
      if (random.chance(0.5)) folder += "/" + std::string(random.pick(documentStems())) + "s";
    }
    folders.push_back(std::move(folder));
  }
  return folders;
}

void writeDocuments(SampleFileWriter& writer, const std::string& documents,
                    const UserDataRecipe& recipe, DeterministicRandom& random) {
  writer.makeDirectories(documents);
  const std::vector<std::string> folders = documentFolders(random);
  std::uint64_t count = random.between(0, 3);
  if (random.chance(0.35)) count += random.between(2, 12);
  for (std::uint64_t i = 1; i <= count; ++i) {
    const std::string& folder = random.pick(folders);
    const std::string name =
        std::string(random.pick(documentStems())) + "-" + std::to_string(i) + "." +
        std::string(random.pick(std::span<const std::string_view>(kDocumentExtensions)));
    writeDataFile(
        writer,
        folder.empty() ? joinPath(documents, name) : joinPath(documents, folder + "/" + name),
        smallFileSize(random, recipe.scale), random);
  }
  if (recipe.largeFile) {
    const bool video = random.chance(0.6);
    const std::string name = video ? "Media/clip-" + std::to_string(random.between(1, 99)) + ".mov"
                                   : "Offline/" + recipe.name + "-archive.zip";
    writeDataFile(writer, joinPath(documents, name),
                  scaled(random.logUniform(kLargeFileLow, kLargeFileHigh), recipe.scale), random);
  }
}

void writeLibrary(SampleFileWriter& writer, std::string_view container,
                  const UserDataRecipe& recipe, DeterministicRandom& random) {
  const std::string library = joinPath(container, "Library");
  writePreferences(writer, container, recipe.identifier, random);
  if (random.chance(0.7)) {
    const std::string caches = library + "/Caches/" + recipe.identifier;
    writeDataFile(writer, joinPath(caches, "Cache.db"), smallFileSize(random, recipe.scale),
                  random);
    if (random.chance(0.5)) {
      writeDataFile(writer, joinPath(caches, "Cache.db-wal"), smallFileSize(random, recipe.scale),
                    random);
    }
    for (std::uint64_t i = random.between(0, 5); i > 0; --i) {
      writeBinaryFile(writer, joinPath(caches, "fsCachedData/" + random.uuid()),
                      smallFileSize(random, recipe.scale), "", random);
    }
  }
  if (random.chance(0.5)) {
    const std::string support = library + "/Application Support/" + recipe.name;
    writeDataFile(writer, joinPath(support, recipe.name + ".sqlite"),
                  smallFileSize(random, recipe.scale), random);
    if (random.chance(0.5)) {
      writeDataFile(writer, joinPath(support, "settings.json"), smallFileSize(random, recipe.scale),
                    random);
    }
  }
  if (random.chance(0.3)) {
    writeDataFile(writer, joinPath(library, "Cookies/Cookies.binarycookies"),
                  smallFileSize(random, recipe.scale), random);
  }
}

void writeTemporaryItems(SampleFileWriter& writer, const std::string& tmp,
                         const UserDataRecipe& recipe, DeterministicRandom& random) {
  writer.makeDirectories(tmp);
  for (std::uint64_t i = random.between(0, 3); i > 0; --i) {
    writeBinaryFile(writer, joinPath(tmp, "upload-" + std::to_string(i) + ".part"),
                    smallFileSize(random, recipe.scale), "", random);
  }
}

void writeOtherItem(SampleFileWriter& writer, const std::string& item, const UserDataRecipe& recipe,
                    DeterministicRandom& random) {
  for (std::uint64_t i = random.between(1, 4); i > 0; --i) {
    writeDataFile(writer, joinPath(item, "Records/record-" + std::to_string(i) + ".json"),
                  smallFileSize(random, recipe.scale), random);
  }
}

}  // namespace

std::uint64_t smallFileSize(DeterministicRandom& random, double scale) {
  const double size =
      std::min(kSmallFileCap, random.logNormal(std::log(kSmallFileMedian), kSmallFileSigma));
  return scaled(size, scale);
}

DataTally writeApplicationUserData(SampleFileWriter& writer, std::string_view containerRelative,
                                   const std::vector<std::string>& itemNames,
                                   const UserDataRecipe& recipe, DeterministicRandom& random) {
  const Tally tally(writer);
  for (const std::string& item : itemNames) {
    const std::string path = joinPath(containerRelative, item);
    if (item == "Documents") {
      writeDocuments(writer, path, recipe, random);
    } else if (item == "Library") {
      writeLibrary(writer, containerRelative, recipe, random);
    } else if (item == "tmp") {
      if (random.chance(0.7)) writeTemporaryItems(writer, path, recipe, random);
    } else if (random.chance(0.25)) {
      writeOtherItem(writer, path, recipe, random);
    }
  }
  return tally.result();
}

DataTally writePreferencesOnly(SampleFileWriter& writer, std::string_view containerRelative,
                               const std::string& identifier, DeterministicRandom& random) {
  const Tally tally(writer);
  writePreferences(writer, containerRelative, identifier, random);
  return tally.result();
}

DataTally writeGroupContainerData(SampleFileWriter& writer, std::string_view groupRelative,
                                  const std::string& groupIdentifier, double scale,
                                  DeterministicRandom& random) {
  const Tally tally(writer);
  writePreferences(writer, groupRelative, groupIdentifier, random);
  writer.makeDirectories(joinPath(groupRelative, "Library/Caches"));
  for (std::uint64_t i = random.between(1, 5); i > 0; --i) {
    const std::string name = std::string(random.pick(documentStems())) + "-" + std::to_string(i) +
                             (random.chance(0.5) ? ".sqlite" : ".json");
    writeDataFile(writer, joinPath(groupRelative, "Shared/" + name), smallFileSize(random, scale),
                  random);
  }
  return tally.result();
}

DataTally writeHarborData(SampleFileWriter& writer, std::string_view harborRelative,
                          const UserDataRecipe& recipe, DeterministicRandom& random) {
  const Tally tally(writer);
  writeDocuments(writer, joinPath(harborRelative, "Documents"), recipe, random);
  writePreferences(writer, harborRelative, recipe.identifier, random);
  return tally.result();
}

}  // namespace samplegen
