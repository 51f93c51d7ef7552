#include "samplegen/SampleStoreMetadata.h"

#include "platform/Value.h"
#include "samplegen/SampleNames.h"

namespace samplegen {
namespace {

// 2023-01-01 00:00:00 UTC.
constexpr double kEpoch = 1672531200;

CVDictionary purchaseRecord(const ApplicationPlan& app, DeterministicRandom& random) {
  const BundlePlan& bundle = app.bundle;
  CVDictionary record;
  record.set("itemId", static_cast<long long>(random.between(300000000, 999999999)));
  record.set("itemName", bundle.displayName.empty() ? bundle.name : bundle.displayName);
  record.set("artistName", app.vendor);
  record.set("softwareVersionBundleId", bundle.identifier);
  record.set("bundleVersion", bundle.version);
  record.set("bundleShortVersionString", bundle.shortVersion);
  record.set("genre", random.pick(genres()));
  record.set("purchaseDate", CVDate{kEpoch + static_cast<double>(random.below(365 * 86400))});
  record.set("storeCountry", "US");
  record.set("fileExtension", ".app");
  record.set("rating", CVDictionary{{"label", "4+"}, {"rank", 100}});
  record.set("isPurchasedRedownload", random.chance(0.3));
  return record;
}

std::string geoJSON(DeterministicRandom& random) {
  // One coverage polygon around a random point.
  const double longitude = -120.0 + static_cast<double>(random.below(4000)) / 100.0;
  const double latitude = 30.0 + static_cast<double>(random.below(1500)) / 100.0;
  const auto point = [](double x, double y) {
    return "[" + std::to_string(x) + ", " + std::to_string(y) + "]";
  };
  return "{\"type\": \"FeatureCollection\", \"features\": [{\"type\": \"Feature\", "
         "\"properties\": {}, \"geometry\": {\"type\": \"Polygon\", \"coordinates\": [[" +
         point(longitude, latitude) + ", " + point(longitude + 1, latitude) + ", " +
         point(longitude + 1, latitude + 1) + ", " + point(longitude, latitude + 1) + ", " +
         point(longitude, latitude) + "]]}}]}\n";
}

}  // namespace

bool writeStoreMetadata(SampleFileWriter& writer, SampleIcons& icons,
                        std::string_view containerRelative, const ApplicationPlan& app,
                        const std::vector<std::string>& itemNames, DeterministicRandom& random,
                        std::vector<std::string>& written) {
  for (const std::string& item : itemNames) {
    const std::string path = joinPath(containerRelative, item);
    if (item == "SorvikMetadata.plist" && app.storeMetadata) {
      writePropertyListFile(writer, path, purchaseRecord(app, random), PropertyListFormat::XML);
    } else if (item == "SorvikArtwork" && app.storeMetadata) {
      CVError error;
      const auto* png = icons.png(app.bundle.iconVariant, kArtworkSide, &error);
      if (png == nullptr) {
        writer.reportFailure(error);
        return false;
      }
      writer.writeFile(path, *png);
    } else if (item == "Manifest.plist" && app.manifest) {
      const std::string sinf = "SC_Info/" + app.bundle.executable + ".sinf";
      writePropertyListFile(
          writer, path,
          CVDictionary{{"SinfPaths", CVArray{sinf}}, {"SinfReplicationPaths", CVArray{sinf}}},
          PropertyListFormat::XML);
    } else if (item == "GeoJSON" && app.geoJSON) {
      writer.writeFile(path, geoJSON(random));
    } else {
      continue;
    }
    written.push_back(item);
  }
  return !writer.failed();
}

}  // namespace samplegen
