// The version record "AppMigratorLastSystemVersion.plist", read by the
// migrator's set-up for its build-version entry.
#include <cstddef>
#include <cstdint>
#include <span>

#include "fuzz/MigratorHarness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static mavrel_fuzz::MigratorHarness harness("version_record");
  const std::string path =
      harness.configuration().dataDirectory().path() + "/" + std::string(kVersionRecordFileName);
  mavrel_fuzz::writeBytes(path, std::span(data, size));

  const std::unique_ptr<CVAppMigrator> migrator = harness.makeMigrator();
  (void)migrator->lastSystemBuildVersion();
  return 0;
}
