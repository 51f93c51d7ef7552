// A device image, in-memory installer, registry and icon doubles, a captured
// migration log, and a migrator over them.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "AppMigrator/AppMigrator.h"
#include "platform/IconService.h"
#include "platform/Log.h"
#include "shared/filemanager/CVFileManager.h"
#include "tests/support/DeviceImage.h"
#include "tests/support/FakeServices.h"

using platform::kLogLevelError;
using platform::kLogLevelNotice;
using namespace testing_support;

class FixedIconService final : public platform::IconService {
 public:
  std::optional<platform::Image> homeScreenIconForBundle(const platform::Bundle&) override {
    return icon;
  }
  std::optional<platform::Image> icon;
};

inline CVURL directoryURL(const std::string& path) {
  return CVURL::fileURLWithPath(path, true);
}

inline void removeItem(const std::string& path) {
  CVFileManager::defaultManager().removeItemAtURL(directoryURL(path), nullptr);
}

class MigratorTest : public ::testing::Test {
 protected:
  // Paths the image stores are read under its root, as the host sets it.
  MigratorTest() { platform::setProcessDeviceRoot(image_.root()); }
  ~MigratorTest() override { platform::setProcessDeviceRoot(platform::DeviceRoot("/")); }

  // Set-up over the image as it stands now, reporting to `observer` if given.
  std::unique_ptr<CVAppMigrator> makeMigrator(MavrelMigrationObserver* observer = nullptr) {
    configuration_ = std::make_unique<CVGlobalConfiguration>(image_.root());
    CVAppMigrator::Environment environment;
    environment.configuration = configuration_.get();
    environment.installer = &installer_;
    environment.registry = &installer_;
    environment.systemVersion = &systemVersion_;
    environment.temporaryDirectory = directoryURL(temporaryPath());
    environment.iconService = &icons_;
    environment.observer = observer;
    return CVAppMigrator::create(environment);
  }

  std::string container(std::string_view name) const {
    return image_.legacyDirectory() + "/" + std::string(name);
  }
  std::string markerPath(std::string_view name) const {
    return container(name) + "/com.zentrel.corvane.container_migrator.plist";
  }
  std::string temporaryPath() const { return image_.rootPath() + "/private/var/tmp/mavrel"; }
  std::string versionRecordPath() const {
    return image_.dataDirectory() + "/AppMigratorLastSystemVersion.plist";
  }
  std::string harborMapPath() const { return image_.dataDirectory() + "/SafeHarbor.plist"; }

  static platform::BundleRecord record(const std::string& identifier, const std::string& dataPath) {
    platform::BundleRecord record;
    record.bundleIdentifier = identifier;
    record.bundleType = "User";
    record.dataContainerURL = directoryURL(dataPath);
    record.foundBackingBundle = true;
    record.groupContainerURLs = CVDictionary{};
    return record;
  }

  // An application container (bundle, executable, a document) and its data
  // container; the registry already knows the application when `known`.
  std::string knownApplication(const std::string& name, const std::string& identifier,
                               bool known = true) {
    const std::string path = container(name);
    image_.writeBundle(path + "/" + name + ".app", CVDictionary{{"QXBundleIdentifier", identifier},
                                                                {"QXBundleExecutable", name}});
    writeFile(path + "/" + name + ".app/" + name, "binary", 0755);
    writeFile(path + "/Documents/d.txt", "data");
    const std::string data = image_.home("Containers/Data/" + name);
    makeDirectories(data);
    if (known) installer_.records[identifier] = record(identifier, data);
    return path;
  }

  // Placeholders register `identifier` with `dataPath`; customer installs
  // take the staging directory away, as the embedded installer does, except
  // that the service refuses `builtIn` as an application the system carries
  // and `refused` outright.
  void acceptInstalls(const std::string& identifier = "", const std::string& dataPath = "",
                      const std::string& builtIn = "", const std::string& refused = "") {
    installer_.installHandler = [=, this](const CVURL& url, const CVDictionary& options, CVError*,
                                          const platform::InstallProgressCallback& progress) {
      const std::string* type = options.findString(platform::kPackageTypeOptionKey);
      if (type && *type == platform::kPackageTypePlaceholder) {
        installer_.records[identifier] = record(identifier, dataPath);
        return true;
      }
      const std::string* name = options.findString(platform::kBundleIdentifierOptionKey);
      if (name && *name == refused) return false;
      removeItem(url.path());
      if (!name || *name != builtIn) return true;
      progress(CVDictionary{{std::string(platform::kProgressErrorKey),
                             std::string(platform::kApplicationAlreadyInstalledError)}});
      return false;
    };
  }

  // Whether the migrator logged "CVAppMigrator: <message>" at `level`, or a
  // line holding "CVAppMigrator: <fragment>".
  bool logged(int level, const std::string& message) const {
    return log_.contains(level, "CVAppMigrator: " + message);
  }
  bool loggedFragment(const std::string& fragment) const {
    return log_.containsFragment("CVAppMigrator: " + fragment);
  }

  testing_support::DeviceImage image_;
  testing_support::FakeInstallerService installer_;
  testing_support::FakeSystemVersion systemVersion_{CVDictionary{
      {"SystemBuildVersion", "21B80"}, {"SystemName", "Orvos"}, {"SystemVersion", "21.1"}}};
  FixedIconService icons_;
  testing_support::CapturedLog log_{platform::migrationLog()};
  std::unique_ptr<CVGlobalConfiguration> configuration_;
  std::unique_ptr<CVAppMigrator> migrator_;  // for the fixtures that make one at set-up
};
