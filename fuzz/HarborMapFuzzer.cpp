// The safe-harbor map "SafeHarbor.plist", read by the migrator's set-up and
// consumed by the safe-harbor step, which registers every well-formed entry
// with the (accepting) installer service and then retires the file.
#include <cstddef>
#include <cstdint>
#include <span>

#include "fuzz/MigratorHarness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static mavrel_fuzz::MigratorHarness harness("harbor_map");
  const std::string path =
      harness.configuration().dataDirectory().path() + "/" + std::string(kHarborMapFileName);
  mavrel_fuzz::writeBytes(path, std::span(data, size));

  const std::unique_ptr<CVAppMigrator> migrator = harness.makeMigrator();
  (void)migrator->_migrateSafeHarbors();
  return 0;
}
