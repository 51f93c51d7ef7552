// A device image with the embedded installer open on it, and builders for
// the packages the migrator hands to the installer.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "installer/EmbeddedInstallerService.h"
#include "installer/RegistryDatabase.h"
#include "installer/RegistryStore.h"
#include "platform/Bundle.h"
#include "platform/InstallOptions.h"
#include "platform/PropertyList.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "tests/support/DeviceImage.h"
#include "tests/support/TestSupport.h"

namespace installer_test {

using namespace testing_support;

// Tests open and close many services: none of them flushes the file system.
inline const mavrel_installer::InstallerServiceOptions kNoFlush{.flushOnClose = false,
                                                                .temporaryDirectory = {}};

// What one install call gave back.
struct InstallOutcome {
  bool succeeded = false;
  CVError error;
  std::vector<CVDictionary> progress;

  // The "Error" of the failure's progress dictionary, or "".
  std::string errorName() const {
    for (const CVDictionary& each : progress)
      if (const std::string* name = each.findString(platform::kProgressErrorKey)) return *name;
    return {};
  }
  std::string dump() const {
    std::string text = "error: " + error.description() + "\nprogress:";
    for (const CVDictionary& each : progress)
      text += "\n  " + each.description();
    return text;
  }
};

struct BundleShape {
  std::string identifier;
  std::string version = "1";
  std::string executable = "Main";       // named in Info.plist and written, unless empty
  std::vector<std::string> groups = {};  // written into Entitlements.plist, unless empty
};

// The bundle's name: the identifier's last component ("notes" of "com.example.notes").
inline std::string nameOf(const BundleShape& shape) {
  return shape.identifier.substr(shape.identifier.find_last_of('.') + 1);
}

inline CVDictionary customerOptions(const std::string& identifier) {
  return platform::migrationCustomerInstallOptions(identifier);
}
inline CVDictionary placeholderOptions(const std::string& identifier,
                                       const std::optional<CVData>& metadata = std::nullopt) {
  return platform::migrationPlaceholderInstallOptions(identifier, metadata);
}

// Plain writes: test images need no durability, and some tests write many.
inline void writePlist(const std::string& path, const CVValue& value) {
  writeFile(path, platform::encodeXMLPropertyList(value));
}

// Writes a bundle at `path`: "Info.plist", its executable, "Entitlements.plist".
inline void writeBundle(const std::string& path, const BundleShape& shape) {
  CVDictionary info{{std::string(platform::kBundleIdentifierKey), shape.identifier},
                    {std::string(platform::kBundleVersionKey), shape.version}};
  if (!shape.executable.empty()) {
    info.set(std::string(platform::kBundleExecutableKey), CVValue(shape.executable));
    writeFile(path + "/" + shape.executable, "#!binary " + shape.identifier, 0755);
  }
  writePlist(path + "/Info.plist", CVValue(info));
  CVArray groups;
  for (const std::string& group : shape.groups)
    groups.append(CVValue(group));
  if (!groups.empty())
    writePlist(path + "/Entitlements.plist",
               CVValue(CVDictionary{{"application-groups", CVValue(std::move(groups))}}));
}

inline const std::vector<std::string> kNothing;

class InstallerFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = std::filesystem::canonical(image_.rootPath()).string();
    reopenWithNewConfiguration();
  }
  // Opens the service; fails the test when it cannot be opened.
  void openService() {
    CVError error;
    service_ = mavrel_installer::EmbeddedInstallerService::open(*configuration_, &error, options_);
    ASSERT_TRUE(service_) << error.description();
  }
  void closeService() { service_.reset(); }
  void reopen() {
    closeService();
    openService();
  }
  // Reopens over a new configuration, which scans the built-in applications anew.
  void reopenWithNewConfiguration() {
    closeService();
    configuration_ = std::make_unique<CVGlobalConfiguration>(image_.root());
    openService();
  }
  // Writes a built-in application "<root>/Applications/<name>.app".
  std::string writeBuiltInApplication(const BundleShape& shape) {
    const std::string bundle = root_ + "/Applications/" + nameOf(shape) + ".app";
    writeBundle(bundle, shape);
    return bundle;
  }

  // The resolved root and home (the service reports resolved paths).
  const std::string& root() const { return root_; }
  std::string home(const std::string& relative) const {
    return root_ + "/private/var/mobile/" + relative;
  }
  std::string bundleContainers() const { return root_ + "/private/var/containers/Bundle"; }
  std::string dataContainers() const { return home("Containers/Data"); }
  std::string groupContainers() const { return home("Containers/Shared"); }
  std::string staging(const std::string& container) const {
    return home("Applications/" + container + "/Staging");
  }
  std::string stagingRoot() const {
    return home("Library/Caches/com.zentrel.mobile.corvaned.staging");
  }
  std::string registryPath() const { return home("Library/Corvane/ApplicationRegistry.sqlite"); }
  // A connection of the test's own to the registry, beside the service's.
  std::unique_ptr<mavrel_installer::RegistryDatabase> registryWriter() {
    CVError error;
    auto opened = mavrel_installer::RegistryDatabase::open(
        registryPath(), mavrel_installer::RegistryDatabase::Access::ReadWrite, &error);
    EXPECT_TRUE(opened) << error.description();
    return opened;
  }
  // The store metadata registered with a placeholder, read beside the service.
  std::optional<CVData> placeholderMetadata(const std::string& identifier) {
    CVError error;
    const auto store = mavrel_installer::RegistryStore::open(
        registryPath(), mavrel_installer::RegistryDatabase::Access::ReadOnly, &error);
    std::optional<CVData> bytes;
    EXPECT_TRUE(store && store->findPlaceholderMetadata(identifier, bytes, &error))
        << error.description();
    return bytes;
  }
  // Runs `sql` through such a connection; fails the test when it cannot.
  bool executeOnRegistry(const char* sql) {
    CVError error;
    const auto writer = registryWriter();
    const bool done = writer && writer->execute(sql, &error);
    EXPECT_TRUE(done) << error.description();
    return done;
  }

  // A legacy container "<home>/Applications/<container>" holding a customer
  // package in "Staging" (Payload/<App>.app, optional VPN plug-in and store
  // metadata items); returns the staging directory.
  std::string stageCustomerPackage(const std::string& container, const BundleShape& shape,
                                   bool withVPNPlugin = false,
                                   const std::vector<std::string>& metadataItems = {}) {
    const std::string package = staging(container);
    writeBundle(package + "/Payload/" + nameOf(shape) + ".app", shape);
    if (withVPNPlugin)
      writeBundle(package + "/Payload/" + nameOf(shape) + ".vpnplugin",
                  {.identifier = shape.identifier + ".vpn", .executable = ""});
    for (const std::string& item : metadataItems)
      writeFile(package + "/" + item, "metadata " + item + " of " + shape.identifier);
    return package;
  }
  // A placeholder package "<directory>/<identifier>.app".
  std::string makePlaceholderPackage(const std::string& directory, const BundleShape& shape) {
    writeBundle(directory + "/" + shape.identifier + ".app", shape);
    return directory + "/" + shape.identifier + ".app";
  }

  InstallOutcome install(const std::string& path, const CVDictionary& options) {
    InstallOutcome outcome;
    outcome.succeeded = service_->installApplication(
        CVURL::fileURLWithPath(path, true), options, &outcome.error,
        [&outcome](const CVDictionary& progress) { outcome.progress.push_back(progress); });
    return outcome;
  }
  InstallOutcome installCustomer(const std::string& staging, const std::string& identifier) {
    return install(staging, customerOptions(identifier));
  }
  // Stages a customer package and installs it; fails the test when it is refused.
  InstallOutcome installStaged(const std::string& container, const BundleShape& shape,
                               bool withVPNPlugin = false) {
    const InstallOutcome outcome =
        installCustomer(stageCustomerPackage(container, shape, withVPNPlugin), shape.identifier);
    EXPECT_TRUE(outcome.succeeded) << outcome.dump();
    return outcome;
  }
  InstallOutcome installPlaceholder(const std::string& bundle, const std::string& identifier,
                                    const std::optional<CVData>& metadata = std::nullopt) {
    return install(bundle, placeholderOptions(identifier, metadata));
  }
  // A placeholder package made where the migrator stages them, installed.
  InstallOutcome installPlaceholder(const BundleShape& shape) {
    return installPlaceholder(makePlaceholderPackage(temporary_.path(), shape), shape.identifier);
  }
  std::optional<platform::BundleRecord> record(const std::string& identifier) {
    return service_->bundleRecordForIdentifier(identifier);
  }

  DeviceImage image_;
  // Where the migrator stages placeholders: its temporary directory, which
  // need not be inside the image.
  TemporaryDirectory temporary_;
  mavrel_installer::InstallerServiceOptions options_ = kNoFlush;  // of the next opening
  std::unique_ptr<CVGlobalConfiguration> configuration_;
  std::unique_ptr<mavrel_installer::EmbeddedInstallerService> service_;
  std::string root_;
};

}  // namespace installer_test
