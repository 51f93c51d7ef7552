#include "tests/installer/InstallerFixture.h"

#include <algorithm>
#include <filesystem>

#include "platform/Bundle.h"
#include "platform/InstallOptions.h"
#include "platform/PropertyList.h"
#include "tests/support/TestSupport.h"

namespace installer_test {

using namespace testing_support;

std::string InstallOutcome::errorName() const {
  for (const CVDictionary& each : progress) {
    if (const std::string* name = each.findString(platform::kProgressErrorKey)) return *name;
  }
  return std::string();
}

std::string InstallOutcome::dump() const {
  std::string text = "error: " + error.description() + "\nprogress:";
  for (const CVDictionary& each : progress)
    text += "\n  " + each.description();
  return text;
}

// Plain writes: test images need no durability, and some tests write many.
void writePlist(const std::string& path, const CVValue& value) {
  writeFile(path, platform::encodeXMLPropertyList(value));
}

CVDictionary customerOptions(const std::string& identifier) {
  return platform::migrationCustomerInstallOptions(identifier);
}

CVDictionary placeholderOptions(const std::string& identifier,
                                const std::optional<CVData>& metadata) {
  return platform::migrationPlaceholderInstallOptions(identifier, metadata);
}

void writeBundle(const std::string& path, const BundleSpec& spec) {
  CVDictionary info{{std::string(platform::kBundleIdentifierKey), spec.identifier},
                    {std::string(platform::kBundleVersionKey), spec.version},
                    {"QXBundleShortVersionString", spec.shortVersion}};
  if (!spec.executable.empty()) {
    info.set(std::string(platform::kBundleExecutableKey), CVValue(spec.executable));
    writeFile(path + "/" + spec.executable, "#!binary " + spec.identifier, 0755);
  }
  writePlist(path + "/Info.plist", CVValue(info));
  if (!spec.groups.empty()) {
    CVArray groups;
    for (const std::string& group : spec.groups)
      groups.append(CVValue(group));
    writePlist(path + "/Entitlements.plist",
               CVValue(CVDictionary{{"application-groups", CVValue(std::move(groups))}}));
  }
}

std::vector<std::string> entriesOf(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

void InstallerFixture::SetUp() {
  root_ = std::filesystem::canonical(image_.rootPath()).string();
  configuration_ = std::make_unique<CVGlobalConfiguration>(image_.root());
  openService();
}

void InstallerFixture::openService() {
  CVError error;
  service_ = mavrel_installer::EmbeddedInstallerService::open(*configuration_, &error, options_);
  ASSERT_TRUE(service_) << error.description();
}

void InstallerFixture::reopenWithNewConfiguration() {
  closeService();
  configuration_ = std::make_unique<CVGlobalConfiguration>(image_.root());
  openService();
}

std::string InstallerFixture::writeBuiltInApplication(const BundleSpec& spec) {
  const std::string name = spec.identifier.substr(spec.identifier.find_last_of('.') + 1);
  const std::string bundle = root_ + "/Applications/" + name + ".app";
  writeBundle(bundle, spec);
  return bundle;
}

std::string InstallerFixture::home(std::string_view relative) const {
  std::string path = root_ + "/private/var/mobile";
  if (!relative.empty()) path += "/" + std::string(relative);
  return path;
}

std::string InstallerFixture::stageCustomerPackage(const std::string& container,
                                                   const BundleSpec& spec, bool withVPNPlugin,
                                                   const std::vector<std::string>& metadataItems) {
  const std::string staging = home("Applications/" + container + "/Staging");
  const std::string name = spec.identifier.substr(spec.identifier.find_last_of('.') + 1);
  writeBundle(staging + "/Payload/" + name + ".app", spec);
  if (withVPNPlugin) {
    BundleSpec plugin;
    plugin.identifier = spec.identifier + ".vpn";
    plugin.executable.clear();
    writeBundle(staging + "/Payload/" + name + ".vpnplugin", plugin);
  }
  for (const std::string& item : metadataItems)
    writeFile(staging + "/" + item, "metadata " + item + " of " + spec.identifier);
  return staging;
}

std::string InstallerFixture::makePlaceholderPackage(const std::string& directory,
                                                     const BundleSpec& spec) {
  const std::string bundle = directory + "/" + spec.identifier + ".app";
  writeBundle(bundle, spec);
  return bundle;
}

InstallOutcome InstallerFixture::install(const std::string& path, const CVDictionary& options) {
  InstallOutcome outcome;
  outcome.succeeded = service_->installApplication(
      CVURL::fileURLWithPath(path, true), options, &outcome.error,
      [&outcome](const CVDictionary& progress) { outcome.progress.push_back(progress); });
  return outcome;
}

}  // namespace installer_test
