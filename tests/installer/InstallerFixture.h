// A device image with the embedded installer open on it, and builders for
// the packages the migrator hands to the installer.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "installer/EmbeddedInstallerService.h"
#include "shared/configuration/CVGlobalConfiguration.h"
#include "tests/support/DeviceImage.h"

namespace installer_test {

// Tests open and close many services: none of them flushes the file system.
inline const mavrel_installer::InstallerServiceOptions kNoFlush{.flushOnClose = false,
                                                                .temporaryDirectory = {}};

// What one install call gave back.
struct InstallOutcome {
  bool succeeded = false;
  CVError error;
  std::vector<CVDictionary> progress;

  // The "Error" of the failure's progress dictionary, or "".
  std::string errorName() const;
  std::string dump() const;
};

// How to build a bundle.
struct BundleSpec {
  std::string identifier;
  std::string version = "1";
  std::string shortVersion = "1.0";
  std::string executable = "Main";       // named in Info.plist and written, unless empty
  std::vector<std::string> groups = {};  // written into Entitlements.plist, unless empty
};

CVDictionary customerOptions(const std::string& identifier);
CVDictionary placeholderOptions(const std::string& identifier,
                                const std::optional<CVData>& metadata = std::nullopt);

// Writes a property list without flushing it.
void writePlist(const std::string& path, const CVValue& value);

// Writes a bundle at `path`: "Info.plist", its executable, "Entitlements.plist".
void writeBundle(const std::string& path, const BundleSpec& spec);

// The names in a directory, sorted; empty when it does not exist.
std::vector<std::string> entriesOf(const std::string& directory);

class InstallerFixture : public ::testing::Test {
 protected:
  void SetUp() override;

  // Opens the service; fails the test when it cannot be opened.
  void openService();
  void closeService() { service_.reset(); }
  void reopen() {
    closeService();
    openService();
  }
  // Reopens over a new configuration, which scans the image's built-in
  // applications anew.
  void reopenWithNewConfiguration();
  // Writes a built-in application "<root>/Applications/<name>.app".
  std::string writeBuiltInApplication(const BundleSpec& spec);

  // The resolved root and home (the service reports resolved paths).
  const std::string& root() const { return root_; }
  std::string home(std::string_view relative = "") const;
  std::string bundleContainers() const { return root_ + "/private/var/containers/Bundle"; }
  std::string dataContainers() const { return home("Containers/Data"); }
  std::string groupContainers() const { return home("Containers/Shared"); }
  std::string stagingRoot() const {
    return home("Library/Caches/com.zentrel.mobile.corvaned.staging");
  }
  std::string registryPath() const { return home("Library/Corvane/ApplicationRegistry.sqlite"); }

  // A legacy container "<home>/Applications/<name>" holding a customer
  // package in "Staging" (Payload/<App>.app, optional VPN plug-in and store
  // metadata items); returns the staging directory.
  std::string stageCustomerPackage(const std::string& container, const BundleSpec& spec,
                                   bool withVPNPlugin = false,
                                   const std::vector<std::string>& metadataItems = {});
  // A placeholder package "<directory>/<identifier>.app".
  std::string makePlaceholderPackage(const std::string& directory, const BundleSpec& spec);

  InstallOutcome install(const std::string& path, const CVDictionary& options);
  InstallOutcome installCustomer(const std::string& staging, const std::string& identifier) {
    return install(staging, customerOptions(identifier));
  }
  InstallOutcome installPlaceholder(const std::string& bundle, const std::string& identifier,
                                    const std::optional<CVData>& metadata = std::nullopt) {
    return install(bundle, placeholderOptions(identifier, metadata));
  }
  std::optional<platform::BundleRecord> record(const std::string& identifier) {
    return service_->bundleRecordForIdentifier(identifier);
  }

  testing_support::DeviceImage image_;
  mavrel_installer::InstallerServiceOptions options_ = kNoFlush;  // of the next opening
  std::unique_ptr<CVGlobalConfiguration> configuration_;
  std::unique_ptr<mavrel_installer::EmbeddedInstallerService> service_;
  std::string root_;
};

}  // namespace installer_test
