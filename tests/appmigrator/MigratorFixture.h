// A device image, in-memory installer and registry doubles, a captured
// migration log, and a migrator over them.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "AppMigrator/AppMigrator.h"
#include "platform/Log.h"
#include "tests/support/DeviceImage.h"
#include "tests/support/FakeServices.h"

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
    environment.temporaryDirectory = CVURL::fileURLWithPath(image_.rootPath() + "/tmp", true);
    environment.observer = observer;
    return CVAppMigrator::create(environment);
  }

  std::string container(std::string_view name) const {
    return image_.legacyDirectory() + "/" + std::string(name);
  }
  std::string versionRecordPath() const {
    return image_.dataDirectory() + "/AppMigratorLastSystemVersion.plist";
  }
  std::string harborMapPath() const { return image_.dataDirectory() + "/SafeHarbor.plist"; }

  testing_support::DeviceImage image_;
  testing_support::FakeInstallerService installer_;
  testing_support::FakeSystemVersion systemVersion_{CVDictionary{
      {"SystemBuildVersion", "21B80"}, {"SystemName", "Orvos"}, {"SystemVersion", "21.1"}}};
  testing_support::CapturedLog log_{platform::migrationLog()};
  std::unique_ptr<CVGlobalConfiguration> configuration_;
};
