// The icon service of this platform: the bundle's own PNG icons, the largest
// one that decodes, resampled to the home-screen size.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Bundle.h"
#include "platform/FileIO.h"
#include "platform/IconService.h"
#include "platform/ImageScaling.h"
#include "platform/Log.h"
#include "platform/PNGCodec.h"
#include "platform/RecentResults.h"

namespace platform {
namespace {

constexpr std::string_view kLogFunction = "homeScreenIconForBundle";
constexpr std::string_view kPNGSuffix = ".png";
// Icon files are small; anything larger is refused unread.
constexpr std::size_t kMaxIconFileSize = 8 * 1024 * 1024;
// Names an Info.plist may list before the rest are ignored.
constexpr std::size_t kMaxDeclaredIconNames = 32;
constexpr PNGDecodeLimits kIconDecodeLimits{
    .maxWidth = 4096, .maxHeight = 4096, .maxChunkBytes = 256 * 1024, .maxCachedChunks = 32};

// A name that stays inside the bundle directory: one path component.
bool isPlainFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

void addName(std::vector<std::string>& names, std::string name) {
  if (isPlainFileName(name) && std::find(names.begin(), names.end(), name) == names.end()) {
    names.push_back(std::move(name));
  }
}

// Every file name the Info.plist's icon keys stand for, in the order given:
// each declared name as written and with the ".png" suffix added (or taken
// off when it has one).
std::vector<std::string> declaredIconFileNames(const Bundle& bundle) {
  std::vector<std::string> names;
  const std::optional<CVDictionary>& info = bundle.infoDictionary();
  if (!info) return names;
  std::vector<std::string> declared;
  if (const std::string* name = info->findString(kBundleIconFileKey)) declared.push_back(*name);
  if (const CVArray* list = info->findArray(kBundleIconFilesKey)) {
    for (const CVValue& value : *list) {
      if (declared.size() >= kMaxDeclaredIconNames) break;
      if (const std::string* name = value.asString()) declared.push_back(*name);
    }
  }
  for (const std::string& name : declared) {
    addName(names, name);
    if (name.ends_with(kPNGSuffix)) {
      addName(names, name.substr(0, name.size() - kPNGSuffix.size()));
    } else {
      addName(names, name + std::string(kPNGSuffix));
    }
  }
  return names;
}

// The bytes of an icon file: regular files only, no symbolic link followed,
// size-capped. A missing file is the common case and is not logged.
std::optional<std::vector<std::uint8_t>> readIconFile(const CVURL& url) {
  CVError error;
  std::optional<std::vector<std::uint8_t>> bytes = readFileContents(url, kMaxIconFileSize, &error);
  if (!bytes && !error.isPOSIX(ENOENT)) {
    logInstaller(kLogLevelDebug, kLogFunction, "Icon %@ not read: %@", url.path(),
                 error.localizedDescription());
  }
  return bytes;
}

std::optional<Image> toHomeScreenSize(Image image) {
  if (image.width == kHomeScreenIconSide && image.height == kHomeScreenIconSide) return image;
  return scaleImageByAreaAveraging(image, kHomeScreenIconSide, kHomeScreenIconSide);
}

// Home-screen icons made from the bytes of icon files. Applications built
// from one template ship the same icon file, so each distinct file is
// decoded and scaled once; the entries are small (120 x 120 pixels).
RecentResults<Image>& recentIcons() {
  static RecentResults<Image>* const icons = new RecentResults<Image>(16);
  return *icons;
}

// The home-screen icon made from the bytes of the icon file at `url`.
std::optional<Image> homeScreenIconFromBytes(const CVURL& url,
                                             const std::vector<std::uint8_t>& bytes) {
  return recentIcons().findOrMake(bytes, [&]() -> std::optional<Image> {
    CVError error;
    std::optional<Image> image = decodePNG(bytes, kIconDecodeLimits, &error);
    if (!image) {
      logInstaller(kLogLevelDebug, kLogFunction, "Icon %@ not decoded: %@", url.path(),
                   error.localizedDescription());
      return std::nullopt;
    }
    return toHomeScreenSize(std::move(*image));
  });
}

std::optional<Image> homeScreenIconFromFile(const CVURL& url) {
  const std::optional<std::vector<std::uint8_t>> bytes = readIconFile(url);
  if (!bytes) return std::nullopt;
  return homeScreenIconFromBytes(url, *bytes);
}

// A named file that exists, with its bytes (read once: ranked by header,
// decoded from the same bytes).
struct Candidate {
  CVURL url;
  std::uint64_t pixelCount = 0;
  std::vector<std::uint8_t> bytes;
};

// The named files that exist and carry a PNG header within the decoding
// limits, most pixels first; equal sizes keep the order they were named in.
std::vector<Candidate> rankedCandidates(const CVURL& bundleURL,
                                        const std::vector<std::string>& names) {
  std::vector<Candidate> candidates;
  for (const std::string& name : names) {
    Candidate candidate{bundleURL.URLByAppendingPathComponent(name, false), 0, {}};
    std::optional<std::vector<std::uint8_t>> bytes = readIconFile(candidate.url);
    if (!bytes) continue;
    const std::optional<PNGHeader> header = peekPNGHeader(*bytes, nullptr);
    if (!header || header->width > kIconDecodeLimits.maxWidth ||
        header->height > kIconDecodeLimits.maxHeight) {
      logInstaller(kLogLevelDebug, kLogFunction, "Icon %@ is not a usable PNG",
                   candidate.url.path());
      continue;
    }
    candidate.pixelCount = header->pixelCount();
    candidate.bytes = std::move(*bytes);
    candidates.push_back(std::move(candidate));
  }
  std::stable_sort(
      candidates.begin(), candidates.end(),
      [](const Candidate& a, const Candidate& b) { return a.pixelCount > b.pixelCount; });
  return candidates;
}

class BundleIconService final : public IconService {
 public:
  std::optional<Image> homeScreenIconForBundle(const Bundle& bundle) override {
    const std::vector<std::string> names = declaredIconFileNames(bundle);
    // Headers are compared first, so only the files actually chosen are
    // decoded; a file whose header promises more but whose data is bad gives
    // way to the next.
    for (const Candidate& candidate : rankedCandidates(bundle.url(), names)) {
      if (std::optional<Image> icon = homeScreenIconFromBytes(candidate.url, candidate.bytes)) {
        return icon;
      }
    }
    const std::string fallbackName(kBundleDefaultIconFileName);
    if (std::find(names.begin(), names.end(), fallbackName) != names.end()) return std::nullopt;
    return homeScreenIconFromFile(bundle.url().URLByAppendingPathComponent(fallbackName, false));
  }
};

}  // namespace

IconService& defaultIconService() {
  // Holds nothing but its memo of recent icons, and is never destroyed, so it stays usable during
  // process exit.
  static BundleIconService* const service = new BundleIconService;
  return *service;
}

}  // namespace platform
