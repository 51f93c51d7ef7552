// The plug-in's entry point: the host resolves this C symbol after loading the
// module and calls it once to set the migrator up.
#include "AppMigrator/AppMigrator.h"

extern "C" __attribute__((visibility("default"))) MavrelMigrator* MavrelCreateMigrator(
    const MavrelHostServices* services) {
  if (services == nullptr || services->installer == nullptr || services->registry == nullptr ||
      services->systemVersion == nullptr) {
    return nullptr;
  }
  CVAppMigrator::Environment environment;
  environment.configuration = &CVGlobalConfiguration::sharedInstance();
  environment.installer = services->installer;
  environment.registry = services->registry;
  environment.systemVersion = services->systemVersion;
  environment.temporaryDirectory = services->temporaryDirectory;
  environment.observer = services->observer;
  return CVAppMigrator::create(std::move(environment)).release();
}
