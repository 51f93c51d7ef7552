#include "samplegen/SampleBundles.h"

#include <array>

#include "platform/Value.h"
#include "samplegen/SampleContent.h"

namespace samplegen {
namespace {

// The executable's magic: a 64-bit Mach-O file, as on the device.
constexpr std::string_view kExecutableMagic = "\xCF\xFA\xED\xFE";

struct IconFile {
  std::string_view name;
  std::uint32_t side;
};
constexpr std::array<IconFile, 4> kIconFiles = {{
    {"Icon.png", 57},
    {"Icon@2x.png", 114},
    {"Icon-60@2x.png", 120},
    {"Icon-76.png", 76},
}};

std::vector<IconFile> iconFilesFor(IconStyle style) {
  switch (style) {
    case IconStyle::IconFiles:
      return {kIconFiles.begin(), kIconFiles.end()};
    case IconStyle::IconFile:
      return {kIconFiles[0], kIconFiles[1]};
    case IconStyle::Implicit:
      return {kIconFiles[0]};
  }
  return {};
}

std::string teamIdentifier(DeterministicRandom& random) {
  static constexpr char kAlphabet[] = "ABCDEFGHJKLMNPQRSTUVWXYZ23456789";
  std::string team;
  for (int i = 0; i < 10; ++i)
    team += kAlphabet[random.below(sizeof kAlphabet - 1)];
  return team;
}

CVData randomData(DeterministicRandom& random, std::size_t size) {
  CVData data(size);
  random.fill(data);
  return data;
}

bool writeCodeResources(SampleFileWriter& writer, std::string_view bundle,
                        const std::vector<std::string>& files, DeterministicRandom& random) {
  CVDictionary hashes;
  for (const std::string& file : files)
    hashes.set(file, randomData(random, 20));
  const CVDictionary resources{
      {"files", std::move(hashes)},
      {"rules", CVDictionary{{"^.*", true}, {"^Info\\.plist$", CVDictionary{{"omit", true}}}}}};
  return writePropertyListFile(writer, joinPath(bundle, "_CodeSignature/CodeResources"), resources,
                               PropertyListFormat::XML);
}

}  // namespace

CVDictionary applicationInfoPlist(const BundlePlan& plan) {
  CVDictionary info;
  info.set("QXBundleDevelopmentRegion", "en");
  if (!plan.displayName.empty()) info.set("QXBundleDisplayName", plan.displayName);
  info.set("QXBundleExecutable", plan.executable);
  info.set("QXBundleIdentifier", plan.identifier);
  info.set("QXBundleInfoDictionaryVersion", "6.0");
  info.set("QXBundleName", plan.name);
  info.set("QXBundlePackageType", "APPL");
  info.set("QXBundleShortVersionString", plan.shortVersion);
  info.set("QXBundleSupportedPlatforms", CVArray{"OrvosOS"});
  info.set("QXBundleVersion", plan.version);
  if (plan.iconStyle == IconStyle::IconFiles) {
    CVArray names;
    for (const IconFile& icon : iconFilesFor(plan.iconStyle))
      names.append(icon.name);
    info.set("QXBundleIconFiles", std::move(names));
  } else if (plan.iconStyle == IconStyle::IconFile) {
    info.set("QXBundleIconFile", "Icon.png");
  }
  info.set("MinimumOSVersion", "7.0");
  info.set("DeviceFamily", CVArray{1, 2});
  return info;
}

bool writeApplicationBundle(SampleFileWriter& writer, SampleIcons& icons,
                            std::string_view bundleRelative, const BundlePlan& plan,
                            const ApplicationBundleTraits& traits, DeterministicRandom& random) {
  std::vector<std::string> files;
  const auto note = [&files](std::string_view name) { files.emplace_back(name); };

  writePropertyListFile(writer, joinPath(bundleRelative, "Info.plist"), applicationInfoPlist(plan),
                        plan.infoFormat);
  note("Info.plist");
  writer.writeFile(joinPath(bundleRelative, "PkgInfo"), std::string_view("APPL????"));
  note("PkgInfo");
  if (!plan.missingExecutable) {
    writeBinaryFile(writer, joinPath(bundleRelative, plan.executable), random.between(4096, 24576),
                    kExecutableMagic, random, 0755);
    note(plan.executable);
  }
  for (const IconFile& icon : iconFilesFor(plan.iconStyle)) {
    CVError error;
    const std::vector<std::uint8_t>* png = icons.png(plan.iconVariant, icon.side, &error);
    if (png == nullptr) {
      writer.reportFailure(error);
      return false;
    }
    writer.writeFile(joinPath(bundleRelative, icon.name), *png);
    note(icon.name);
  }
  writeBinaryFile(writer, joinPath(bundleRelative, "Assets.car"), random.between(2048, 16384),
                  "BOMStore", random);
  note("Assets.car");
  const std::string strings =
      "/* Localized versions of Info.plist keys */\n\"QXBundleName\" = \"" + plan.name + "\";\n";
  writer.writeFile(joinPath(bundleRelative, "en.lproj/InfoPlist.strings"), strings);
  note("en.lproj/InfoPlist.strings");

  if (traits.entitlements) {
    const std::string team = teamIdentifier(random);
    CVDictionary entitlements;
    entitlements.set("application-identifier", team + "." + plan.identifier);
    entitlements.set("com.zentrel.developer.team-identifier", team);
    entitlements.set("keychain-access-groups", CVArray{team + "." + plan.identifier});
    if (!traits.groups.empty()) {
      CVArray groups;
      for (const std::string& group : traits.groups)
        groups.append(group);
      entitlements.set("application-groups", std::move(groups));
    }
    if (random.chance(0.5)) entitlements.set("aps-environment", "production");
    writePropertyListFile(writer, joinPath(bundleRelative, "Entitlements.plist"), entitlements,
                          PropertyListFormat::XML);
    note("Entitlements.plist");
  }
  if (traits.codeSignature) writeCodeResources(writer, bundleRelative, files, random);
  return !writer.failed();
}

bool writeVPNPluginBundle(SampleFileWriter& writer, std::string_view bundleRelative,
                          const BundlePlan& plan, DeterministicRandom& random) {
  CVDictionary info;
  info.set("QXBundleDevelopmentRegion", "en");
  info.set("QXBundleExecutable", plan.executable);
  info.set("QXBundleIdentifier", plan.identifier);
  info.set("QXBundleInfoDictionaryVersion", "6.0");
  info.set("QXBundleName", plan.name);
  info.set("QXBundlePackageType", "BNDL");
  info.set("QXBundleShortVersionString", plan.shortVersion);
  info.set("QXBundleVersion", plan.version);
  info.set("VPNPluginType", "com.zentrel.vpn.ipsec");
  writePropertyListFile(writer, joinPath(bundleRelative, "Info.plist"), info, plan.infoFormat);
  if (!plan.missingExecutable) {
    writeBinaryFile(writer, joinPath(bundleRelative, plan.executable), random.between(2048, 16384),
                    kExecutableMagic, random, 0755);
  }
  return !writer.failed();
}

}  // namespace samplegen
