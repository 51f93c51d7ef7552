#include "host/UserDataVerification.h"

#include <map>
#include <optional>

#include "AppMigrator/AppMigrator.h"
#include "AppMigrator/ContainerClassification.h"
#include "AppMigrator/DeviceRootContainment.h"
#include "AppMigrator/LegacyGroupContainers.h"
#include "AppMigrator/LegacyLayoutNames.h"
#include "host/DataUsage.h"
#include "host/ParallelFor.h"
#include "installer/InstallerFiles.h"
#include "platform/DeviceRoot.h"
#include "platform/PropertyList.h"
#include "platform/linux/FilesBeneath.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "shared/filemanager/CVFileManager.h"
#include "shared/support/CVFileDigest.h"

namespace mavrel_host {
namespace {

constexpr std::size_t kExamplesKept = 20;

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The digest of the regular file `relative` below the directory `base`,
// reached relative to open directories (paths of any length, no link
// followed); nullopt when it is no regular file or cannot be read, with
// `*present` saying whether a regular file was there.
std::optional<std::array<std::uint8_t, 32>> digestBelow(const std::string& base,
                                                        const std::string& relative,
                                                        bool* present = nullptr) {
  const platform::sys::UniqueFd file =
      platform::sys::openRegularFileBeneath(base.c_str(), relative);
  if (present != nullptr) *present = file.valid();
  if (!file) return std::nullopt;
  const auto hex = CVCreateSHA256DigestOfOpenFile(file.get(), base + "/" + relative);
  if (!hex || hex->size() != 64) return std::nullopt;
  std::array<std::uint8_t, 32> bytes{};
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const int high = hexValue((*hex)[2 * i]);
    const int low = hexValue((*hex)[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[i] = static_cast<std::uint8_t>(high * 16 + low);
  }
  return bytes;
}

// The regular files below `root`, prefixed with `prefix`, however deep;
// digests come later. Returns the items that could not be looked at.
std::uint64_t listFiles(const std::string& root, const std::string& prefix,
                        ManifestSource& source) {
  return platform::sys::walkRegularFilesBeneath(
      root.c_str(), [&](std::string_view relative, std::uint64_t size) {
        source.files.push_back(ManifestFile{prefix + std::string(relative), size, {}});
      });
}

// Fills in every digest on `workers` threads; drops (and counts) the files
// that cannot be read.
void computeDigests(UserDataManifest& manifest, unsigned workers) {
  struct Slot {
    ManifestSource* source;
    std::size_t index;
  };
  std::vector<Slot> slots;
  for (ManifestSource& source : manifest.sources) {
    for (std::size_t i = 0; i < source.files.size(); ++i)
      slots.push_back({&source, i});
  }
  std::vector<std::uint8_t> unreadable(slots.size(), 0);
  parallelFor(slots.size(), workers, [&](std::size_t i) {
    ManifestFile& file = slots[i].source->files[slots[i].index];
    const auto digest = digestBelow(slots[i].source->legacyPath, file.relativePath);
    if (digest) {
      file.digest = *digest;
    } else {
      unreadable[i] = 1;
    }
  });
  // Drop the unreadable files; the slots are in the sources' order.
  std::size_t slot = 0;
  for (ManifestSource& source : manifest.sources) {
    std::vector<ManifestFile> kept;
    kept.reserve(source.files.size());
    for (ManifestFile& file : source.files) {
      if (unreadable[slot++] != 0) {
        ++manifest.unreadable;
      } else {
        kept.push_back(std::move(file));
      }
    }
    source.files = std::move(kept);
  }
}

// Where each source's files should be after the pass, from the registry, and
// whether the run says they left their old place.
struct Places {
  std::vector<std::string> newPlace;
  std::vector<std::uint8_t> saidMoved;
};

Places placesAfterThePass(const UserDataManifest& manifest, platform::ApplicationRegistry& registry,
                          const RunStatement& statement) {
  std::map<std::string, std::string, std::less<>> groupPlaces;
  // Groups of applications whose entry migrated: their group step ran.
  std::set<std::string, std::less<>> movedGroups;
  Places places{std::vector<std::string>(manifest.sources.size()),
                std::vector<std::uint8_t>(manifest.sources.size(), 0)};
  for (std::size_t i = 0; i < manifest.sources.size(); ++i) {
    const ManifestSource& source = manifest.sources[i];
    if (source.kind != ManifestSource::Kind::Container) continue;
    const bool moved = statement.movedContainers.count(source.legacyPath) != 0;
    places.saidMoved[i] = moved ? 1 : 0;
    if (source.identifier.empty()) continue;
    const auto record = registry.bundleRecordForIdentifier(source.identifier);
    if (!record) continue;
    if (record->dataContainerURL) places.newPlace[i] = record->dataContainerURL.path();
    if (!record->groupContainerURLs) continue;
    for (std::size_t g = 0; g < record->groupContainerURLs->count(); ++g) {
      const CVURL* url = record->groupContainerURLs->valueAt(g).asURL();
      const std::string& group = record->groupContainerURLs->keys()[g];
      if (url != nullptr && *url) groupPlaces.emplace(group, url->path());
      if (moved) movedGroups.insert(group);
    }
  }
  for (std::size_t i = 0; i < manifest.sources.size(); ++i) {
    const ManifestSource& source = manifest.sources[i];
    if (source.kind == ManifestSource::Kind::GroupContainer) {
      if (const auto found = groupPlaces.find(source.identifier); found != groupPlaces.end())
        places.newPlace[i] = found->second;
      places.saidMoved[i] = movedGroups.count(source.identifier) != 0 ? 1 : 0;
    } else if (source.kind == ManifestSource::Kind::Harbor) {
      // A harbor stays where it is; registered again, that is its new place.
      if (statement.registeredHarbors.count(source.identifier) != 0)
        places.newPlace[i] = source.legacyPath;
      places.saidMoved[i] = 1;
    }
  }
  return places;
}

enum class Finding { Verified, StillInLegacy, LeftBehind, Missing, Changed };

bool matches(const std::string& place, const ManifestFile& file, bool* present) {
  // Equal digests mean equal contents, sizes included.
  const auto digest = digestBelow(place, file.relativePath, present);
  return digest && *digest == file.digest;
}

Finding check(const ManifestFile& file, const std::string& newPlace, const std::string& oldPlace,
              bool saidMoved) {
  bool present = false;
  if (!newPlace.empty()) {
    if (matches(newPlace, file, &present)) return Finding::Verified;
    if (present) return Finding::Changed;
  }
  if (matches(oldPlace, file, &present))
    return saidMoved ? Finding::LeftBehind : Finding::StillInLegacy;
  return present ? Finding::Changed : Finding::Missing;
}

}  // namespace

std::uint64_t UserDataManifest::fileCount() const {
  std::uint64_t count = 0;
  for (const ManifestSource& source : sources)
    count += source.files.size();
  return count;
}

std::uint64_t UserDataManifest::byteCount() const {
  std::uint64_t bytes = 0;
  for (const ManifestSource& source : sources) {
    for (const ManifestFile& file : source.files)
      bytes += file.size;
  }
  return bytes;
}

UserDataManifest collectUserDataManifest(CVGlobalConfiguration& configuration, unsigned workers) {
  UserDataManifest manifest;
  CVFileManager& fileManager = CVFileManager::defaultManager();
  const auto entries = fileManager.urlsForItemsInDirectoryAtURL(configuration.oldContainerPath(),
                                                                /*ignoringSymlinks=*/true, nullptr);
  for (const CVURL& entry : entries.value_or(std::vector<CVURL>())) {
    if (mavrel_installer::itemKindAtPath(entry.path()) != mavrel_installer::ItemKind::Directory)
      continue;
    ManifestSource source;
    source.kind = ManifestSource::Kind::Container;
    source.legacyPath = entry.path();
    const LegacyEntryClassification classification = CVClassifyLegacyEntry(entry);
    source.removedByDesign = classification.removeEntry;
    if (classification.record) {
      if (const std::string* identifier = classification.record->findString(kBundleIdentifierKey))
        source.identifier = *identifier;
    }
    for (const std::string& item : configuration.appUserDataItemNames())
      manifest.unreadable += listFiles(entry.path() + "/" + item, item + "/", source);
    manifest.sources.push_back(std::move(source));
  }

  // Group containers and harbors as the pass finds them: never read outside
  // the root, nor a place that is no container of its own.
  for (const auto& [identifier, hostPath] :
       CVMigratableLegacyGroupContainers(configuration.oldInstallMapPath())) {
    ManifestSource source;
    source.kind = ManifestSource::Kind::GroupContainer;
    source.identifier = identifier;
    source.legacyPath = hostPath;
    manifest.unreadable += listFiles(hostPath, "", source);
    manifest.sources.push_back(std::move(source));
  }
  const auto harborMap = platform::readPropertyListDictionary(
      configuration.dataDirectory().URLByAppendingPathComponent(kHarborMapFileName, false), nullptr,
      platform::kHarborMapLimits);
  for (std::size_t i = 0; harborMap && i < harborMap->count(); ++i) {
    const CVDictionary* harbor = harborMap->valueAt(i).asDictionary();
    const std::string* path = harbor ? harbor->findString(kHarborPathKey) : nullptr;
    std::string problem;
    const auto hostPath = path ? CVHostPathForImagePath(*path, &problem) : std::nullopt;
    if (!hostPath) continue;
    ManifestSource source;
    source.kind = ManifestSource::Kind::Harbor;
    source.identifier = harborMap->keys()[i];
    source.legacyPath = *hostPath;
    manifest.unreadable += listFiles(*hostPath, "", source);
    manifest.sources.push_back(std::move(source));
  }
  computeDigests(manifest, workers);
  return manifest;
}

VerificationResult verifyUserData(const UserDataManifest& manifest,
                                  platform::ApplicationRegistry& registry,
                                  const RunStatement& statement, unsigned workers) {
  const Places places = placesAfterThePass(manifest, registry, statement);
  struct Slot {
    std::size_t source;
    std::size_t file;
  };
  std::vector<Slot> slots;
  for (std::size_t s = 0; s < manifest.sources.size(); ++s) {
    for (std::size_t f = 0; f < manifest.sources[s].files.size(); ++f)
      slots.push_back({s, f});
  }
  std::vector<Finding> findings(slots.size(), Finding::Missing);
  parallelFor(slots.size(), workers, [&](std::size_t i) {
    const ManifestSource& source = manifest.sources[slots[i].source];
    findings[i] = check(source.files[slots[i].file], places.newPlace[slots[i].source],
                        source.legacyPath, places.saidMoved[slots[i].source] != 0);
  });

  VerificationResult result;
  result.unreadableBefore = manifest.unreadable;
  for (std::size_t i = 0; i < slots.size(); ++i) {
    const ManifestSource& source = manifest.sources[slots[i].source];
    const ManifestFile& file = source.files[slots[i].file];
    if (source.removedByDesign && findings[i] == Finding::Missing) {
      ++result.removedByDesign;
      continue;
    }
    ++result.files;
    result.bytes += file.size;
    const std::string oldPath = source.legacyPath + "/" + file.relativePath;
    switch (findings[i]) {
      case Finding::Verified:
        ++result.verified;
        result.verifiedBytes += file.size;
        break;
      case Finding::StillInLegacy:
        ++result.stillInLegacy;
        break;
      case Finding::LeftBehind:
        ++result.leftBehind;
        if (result.leftBehindExamples.size() < kExamplesKept)
          result.leftBehindExamples.push_back(oldPath);
        break;
      case Finding::Missing:
        ++result.missing;
        if (result.missingExamples.size() < kExamplesKept)
          result.missingExamples.push_back(oldPath);
        break;
      case Finding::Changed:
        ++result.changed;
        if (result.changedExamples.size() < kExamplesKept)
          result.changedExamples.push_back(oldPath);
        break;
    }
  }
  return result;
}

std::string formatVerification(const VerificationResult& result, bool passSucceeded) {
  std::string text = "Verified " + std::to_string(result.verified) + " of " +
                     std::to_string(result.files) + " user-data files (" +
                     formatBytes(result.verifiedBytes) + " of " + formatBytes(result.bytes) +
                     ") at their new places";
  if (result.stillInLegacy > 0)
    text += "; " + std::to_string(result.stillInLegacy) +
            " still unchanged in legacy containers that were kept";
  text += ".\n";
  if (result.removedByDesign > 0)
    text += std::to_string(result.removedByDesign) +
            " file(s) were removed with legacy containers that held no application, as "
            "'mavrel plan' shows.\n";
  if (result.unreadableBefore > 0)
    text += std::to_string(result.unreadableBefore) +
            " file(s) could not be read before the migration and were not checked.\n";
  if (result.missing > 0 || result.changed > 0) {
    text += "USER DATA LOST: " + std::to_string(result.missing) + " file(s) missing, " +
            std::to_string(result.changed) + " file(s) changed.\n";
    for (const std::string& path : result.missingExamples)
      text += "  missing: " + path + "\n";
    for (const std::string& path : result.changedExamples)
      text += "  changed: " + path + "\n";
  }
  if (result.leftBehind > 0) {
    text += "USER DATA LEFT BEHIND: " + std::to_string(result.leftBehind) +
            " file(s) are still at their old places although the run says they moved (a group "
            "container that was not moved, a safe harbor that was not registered); their "
            "applications will not find them.\n";
    for (const std::string& path : result.leftBehindExamples)
      text += "  left behind: " + path + "\n";
  }
  if (result.dataLost()) return text;
  if (result.removedByDesign > 0) {
    text += "Apart from those removed, every file is at its new place";
    text += result.stillInLegacy > 0 ? " or still in its legacy container.\n" : ".\n";
  } else if (!passSucceeded) {
    text +=
        "The migration failed, but no user data was lost: every file is at its new place "
        "or still in its legacy container.\n";
  } else {
    text += "No user data was lost.\n";
  }
  return text;
}

}  // namespace mavrel_host
