// The legacy install map, read by the migrator's set-up when the legacy
// directory has entries; its "GroupContainers" entry becomes the group
// container map. The group moves themselves are not run: they would move
// whatever directories a hostile map names.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "fuzz/MigratorHarness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static mavrel_fuzz::MigratorHarness harness("install_map");
  static const bool prepared = [] {
    mavrel_fuzz::makeDirectories(harness.image().home("Applications/0A1B2C3D"));
    return true;
  }();
  (void)prepared;
  mavrel_fuzz::writeBytes(harness.configuration().oldInstallMapPath().path(),
                          std::span(data, size));

  const std::unique_ptr<CVAppMigrator> migrator = harness.makeMigrator();
  // The group container map is a copy of the install map's entry, or nothing.
  const auto& map = migrator->installMap();
  const auto& groups = migrator->groupContainerMap();
  if (groups && (!map || map->findDictionary("GroupContainers") == nullptr)) std::abort();
  if (groups) {
    for (std::size_t i = 0; i < groups->count(); ++i) {
      if (const CVDictionary* entry = groups->valueAt(i).asDictionary()) {
        (void)entry->findString("Container");
      }
    }
  }
  return 0;
}
