// The migration marker of a legacy container, read the way the pass reads it:
// classification of a container that holds the marker beside an application
// bundle, which loads and validates the marker. A marker that comes back is
// written again by the real writer and read once more, as a resumed pass does.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

#include "AppMigrator/AppMigrator.h"
#include "fuzz/FuzzSupport.h"

namespace {

struct Harness {
  mavrel_fuzz::ScratchImage image{"migration_marker"};
  testing_support::FakeInstallerService services;
  testing_support::FakeSystemVersion systemVersion{mavrel_fuzz::fixedSystemVersion()};
  std::unique_ptr<CVGlobalConfiguration> configuration;
  std::unique_ptr<CVAppMigrator> migrator;
  std::string container = image.home("Applications/0A1B2C3D");

  Harness() {
    mavrel_fuzz::quietLogs();
    mavrel_fuzz::acceptEveryInstall(services);
    configuration = std::make_unique<CVGlobalConfiguration>(image.root());
    CVAppMigrator::Environment environment;
    environment.configuration = configuration.get();
    environment.installer = &services;
    environment.registry = &services;
    environment.systemVersion = &systemVersion;
    environment.temporaryDirectory = CVURL::fileURLWithPath(image.rootPath() + "/tmp", true);
    migrator = CVAppMigrator::create(environment);
    if (!migrator) std::abort();
  }

  // The container with a readable application bundle, so that a refused
  // marker never makes classification remove the container.
  void prepareContainer() {
    mavrel_fuzz::writeText(container + "/Fuzz.app/Info.plist",
                           "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                           "<plist version=\"1.0\"><dict><key>QXBundleIdentifier</key>"
                           "<string>com.example.fuzz</string></dict></plist>\n");
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Harness harness;
  harness.prepareContainer();
  const std::string markerPath = harness.container + "/" + std::string(kMigrationMarkerFileName);
  mavrel_fuzz::writeBytes(markerPath, std::span(data, size));

  const CVURL containerURL = CVURL::fileURLWithPath(harness.container, true);
  bool early = false;
  const std::optional<CVDictionary> record =
      harness.migrator->_introspectContainer(containerURL, &early);
  if (record) {
    // A resumed pass rewrites the record it resumed from; the rewritten
    // marker must load again.
    harness.migrator->_writeMigrationMarker(*record, containerURL);
    if (!harness.migrator->_loadAndValidateMigrationMarkerAtURL(
            CVURL::fileURLWithPath(markerPath, false))) {
      std::abort();
    }
  }
  return 0;
}
