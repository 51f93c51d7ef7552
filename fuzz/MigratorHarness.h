// A migrator set up over a target's scratch image with accepting services, for
// the targets whose file the migrator itself reads at set-up.
//
// Error contract: set-up that fails where it cannot (the scratch image is
// always listable) aborts, since no input is to blame.
#pragma once

#include <cstdlib>
#include <memory>
#include <string_view>

#include "AppMigrator/AppMigrator.h"
#include "fuzz/FuzzSupport.h"

namespace mavrel_fuzz {

class MigratorHarness {
 public:
  explicit MigratorHarness(std::string_view target) : image_(target) {
    quietLogs();
    acceptEveryInstall(services_);
    configuration_ = std::make_unique<CVGlobalConfiguration>(image_.root());
  }

  const ScratchImage& image() const { return image_; }
  CVGlobalConfiguration& configuration() { return *configuration_; }

  // A new migrator over the image as it stands now: set-up reads the legacy
  // listing, the install map, the harbor map and the version record.
  std::unique_ptr<CVAppMigrator> makeMigrator() {
    // One harness serves every input: the double's records would only grow.
    services_.installs.clear();
    services_.harbors.clear();
    services_.dataProtectionRequests.clear();
    CVAppMigrator::Environment environment;
    environment.configuration = configuration_.get();
    environment.installer = &services_;
    environment.registry = &services_;
    environment.systemVersion = &systemVersion_;
    environment.temporaryDirectory = CVURL::fileURLWithPath(image_.rootPath() + "/tmp", true);
    std::unique_ptr<CVAppMigrator> migrator = CVAppMigrator::create(environment);
    if (!migrator) std::abort();
    return migrator;
  }

 private:
  ScratchImage image_;
  testing_support::FakeInstallerService services_;
  testing_support::FakeSystemVersion systemVersion_{fixedSystemVersion()};
  std::unique_ptr<CVGlobalConfiguration> configuration_;
};

}  // namespace mavrel_fuzz
